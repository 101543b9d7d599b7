#include "host/file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace zel::host {

int SystemFileIo::Open(const char *path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int SystemFileIo::Fstat(int fd, struct stat *st) { return ::fstat(fd, st); }
ssize_t SystemFileIo::Read(int fd, void *buf, size_t count) { return ::read(fd, buf, count); }
ssize_t SystemFileIo::Pwrite(int fd, const void *buf, size_t count, off_t offset) {
  return ::pwrite(fd, buf, count, offset);
}
int SystemFileIo::Ftruncate(int fd, off_t length) { return ::ftruncate(fd, length); }
int SystemFileIo::Rename(const char *from, const char *to) { return std::rename(from, to); }
int SystemFileIo::Close(int fd) { return ::close(fd); }
int SystemFileIo::Fsync(int fd) { return ::fsync(fd); }
int SystemFileIo::Fchmod(int fd, mode_t mode) { return ::fchmod(fd, mode); }

namespace {
SystemFileIo g_system;
std::atomic<FileIo *> g_io{&g_system};
}  // namespace

FileIo &CurrentFileIo() { return *g_io.load(); }

FileIo *SetFileIo(FileIo *io) {
  FileIo *previous = g_io.exchange(io != nullptr ? io : &g_system);
  return previous == &g_system ? nullptr : previous;
}

}  // namespace zel::host
