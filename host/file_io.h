// File system calls of the state file as a replaceable seam, so that tests can
// make a call fail (or stop the process) at any point of a write.  The default
// is the real system calls.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace zel::host {

class FileIo {
 public:
  virtual ~FileIo() = default;
  virtual int Open(const char *path, int flags, mode_t mode) = 0;
  virtual int Fstat(int fd, struct stat *st) = 0;
  virtual ssize_t Read(int fd, void *buf, size_t count) = 0;
  virtual ssize_t Pwrite(int fd, const void *buf, size_t count, off_t offset) = 0;
  virtual int Ftruncate(int fd, off_t length) = 0;
  virtual int Rename(const char *from, const char *to) = 0;
  virtual int Close(int fd) = 0;
  virtual int Fsync(int fd) = 0;
  virtual int Fchmod(int fd, mode_t mode) = 0;
};

// The real calls; also a base for tests that override one call.
class SystemFileIo : public FileIo {
 public:
  int Open(const char *path, int flags, mode_t mode) override;
  int Fstat(int fd, struct stat *st) override;
  ssize_t Read(int fd, void *buf, size_t count) override;
  ssize_t Pwrite(int fd, const void *buf, size_t count, off_t offset) override;
  int Ftruncate(int fd, off_t length) override;
  int Rename(const char *from, const char *to) override;
  int Close(int fd) override;
  int Fsync(int fd) override;
  int Fchmod(int fd, mode_t mode) override;
};

FileIo &CurrentFileIo();
// Installs io (null restores the real calls) and returns the previous one.
FileIo *SetFileIo(FileIo *io);

}  // namespace zel::host
