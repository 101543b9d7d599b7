// The state file: the state blob padded with zeros to a multiple of 512 bytes,
// read and written with direct I/O where the file system allows it, and
// replaced through a temporary file and rename so that a reader sees either
// the old or the new state, never a mix.  When both configuration-store
// features of the host are on, the configuration store takes the file's place.
//
// Beyond the format's own checks, these inputs are refused before anything is
// touched (STATUS_BAD_PARAM): a null or empty path, null outputs, an empty (or
// null) blob, which would leave a 1-byte file, and a blob longer than
// 0xFFFFFE00 bytes, whose padded length does not fit in 32 bits.  A file
// longer than fits the i32 length out-parameter fails verification like a
// file of a bad length.
//
// The directory may be shared with other users and other writers, so the
// write also protects itself (each step says why below): writers of one path
// are serialised by a lock file "<path>.lock"; the temporary file is never
// reached through a symbolic link, must be a regular file of the writer's
// and gets mode 0600 whatever it had; and the data is flushed before the
// rename and the directory after it.  Reading refuses what is not a regular
// file (STATUS_IO_ERROR) without blocking on it.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/feature_flags.h"
#include "host/file_io.h"
#include "host/host_log.h"
#include "host/large_buffer.h"
#include "zel/configstore.h"
#include "zel/file.h"

namespace {

constexpr int kFileLogId = 110;
constexpr uint32_t kBlockSize = 512;
constexpr uint32_t kMaxBlobLength = 0xFFFFFE00u;
constexpr int64_t kMaxFileLength = 0x7FFFFE00;  // fits the i32 length once padded

// The first kBlockSize-aligned address inside an allocation of length + 511.
uint8_t *Aligned(void *allocation) {
  const auto address = reinterpret_cast<uintptr_t>(allocation);
  return reinterpret_cast<uint8_t *>((address + kBlockSize - 1) & ~uintptr_t{kBlockSize - 1});
}

// Opens with direct I/O, and without it where the file system refuses it.
int OpenMaybeDirect(const char *path, int flags, mode_t mode) {
  zel::host::FileIo &io = zel::host::CurrentFileIo();
  int fd = io.Open(path, flags | O_DIRECT, mode);
  if (fd < 0) {
    fd = io.Open(path, flags, mode);
  }
  return fd;
}

char *TemporaryName(const char *path) {
  char *name = nullptr;
  if (asprintf(&name, "%s.%s", path, "tmp") < 0) {
    return nullptr;
  }
  return name;
}

bool UsablePath(const char *path) { return path != nullptr && path[0] != '\0'; }

// Serialises the writers of one state path, across processes and threads:
// an exclusive flock on "<path>.lock", held from before the temporary file
// is opened until after it has been renamed and closed.  Without it two
// writers share "<path>.tmp", and one truncates the inode that the other has
// already renamed into place (readers see a 1-byte or torn state file, the
// second rename fails for data that went live).  flock locks belong to the
// open file, so two threads of one process exclude each other as well.  The
// lock file is never removed: a writer could otherwise lock a new file while
// another still holds the old one.
class WriterLock {
 public:
  explicit WriterLock(const char *path) : name_(std::string(path) + ".lock") {
    fd_ = ::open(name_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    int rc = -1;
    if (fd_ >= 0) {
      do {
        rc = ::flock(fd_, LOCK_EX);
      } while (rc != 0 && errno == EINTR);
    }
    error_ = rc == 0 ? 0 : errno;
  }
  ~WriterLock() {
    if (fd_ >= 0) {
      ::close(fd_);  // releases the lock
    }
  }
  WriterLock(const WriterLock &) = delete;
  WriterLock &operator=(const WriterLock &) = delete;
  bool Held() const { return error_ == 0; }
  int Error() const { return error_; }
  const char *Name() const { return name_.c_str(); }

 private:
  std::string name_;
  int fd_ = -1;
  int error_ = 0;
};

// Opens the write target.  A temporary name is never followed through a
// symbolic link (one planted there would redirect the write and then become
// the state path).  O_NONBLOCK keeps a planted FIFO from blocking the open;
// it changes nothing for a regular file.
int OpenTarget(const char *target, bool temporary) {
  const int flags = O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC | (temporary ? O_NOFOLLOW : 0);
  return OpenMaybeDirect(target, flags, 0600);
}

// The state file holds the whole switch configuration: whatever a file left
// at the target had (a FIFO, mode 0666, another owner), the result is a
// regular file of mode 0600 owned by the writer, or nothing is written.  A
// file of another owner is refused: renamed into place it would leave that
// owner a handle on the state.
ReturnStatus SecureTarget(int fd, const char *target) {
  zel::host::FileIo &io = zel::host::CurrentFileIo();
  struct stat st {};
  if (io.Fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ZELFileLog("failed to open zelfile %s for write, error: not a regular file\n", target);
    return STATUS_IO_ERROR;
  }
  if (st.st_uid != ::geteuid()) {
    ZELFileLog("failed to open zelfile %s for write, error: owned by another user\n", target);
    return STATUS_IO_ERROR;
  }
  if (io.Fchmod(fd, 0600) != 0) {
    ZELFileLog("failed to set mode of zelfile %s, error: %s\n", target, std::strerror(errno));
    return STATUS_IO_ERROR;
  }
  return STATUS_OK;
}

// Flushes the directory holding path, so that a rename into it survives a
// power loss.  A file system that cannot flush a directory (EINVAL) is taken
// as it is.
ReturnStatus SyncDirectoryOf(const char *path) {
  std::string dir(path);
  const size_t slash = dir.rfind('/');
  dir = slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash);
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int rc = fd < 0 ? -1 : zel::host::CurrentFileIo().Fsync(fd);
  const int error = errno;
  if (fd >= 0) {
    ::close(fd);
  }
  if (rc != 0 && error != EINVAL) {
    ZELFileLog("failed to sync directory of zelfile %s, error: %s\n", path, std::strerror(error));
    return STATUS_WRITE_ERROR;
  }
  return STATUS_OK;
}

// Writes the padded blob at offset 0 and flushes it to the device: the
// rename that follows must never put in place a file whose data is still
// only in memory (after a power loss it could come back empty).
ReturnStatus WritePadded(int fd, const char *target, const void *blob, uint32_t length) {
  zel::host::FileIo &io = zel::host::CurrentFileIo();
  const uint32_t padded = (length + kBlockSize - 1) & ~(kBlockSize - 1);
  void *staging = std::malloc(size_t{padded} + kBlockSize - 1);
  if (staging == nullptr) {
    return STATUS_NO_MEMORY;
  }
  uint8_t *aligned = Aligned(staging);
  zel::host::AdviseWholeWrite(aligned, padded);
  std::memcpy(aligned, blob, length);
  std::memset(aligned + length, 0, padded - length);  // the filler
  ReturnStatus outcome = STATUS_OK;
  if (io.Pwrite(fd, aligned, padded, 0) != static_cast<ssize_t>(padded)) {
    ZELFileLog("failed to write zelfile %s, error: %s\n", target, std::strerror(errno));
    outcome = STATUS_WRITE_ERROR;
  } else if (io.Fsync(fd) != 0) {
    ZELFileLog("failed to sync zelfile %s, error: %s\n", target, std::strerror(errno));
    outcome = STATUS_WRITE_ERROR;
  }
  std::free(staging);
  return outcome;
}

// The steps of a write once the target is open (temporary is null for a
// write in place); the first failure ends it.  The lock is checked only
// here, after the open, so that a path in a missing or closed directory
// still fails with the open's message.
ReturnStatus WriteOpenTarget(int fd, const WriterLock &lock, const char *path,
                             const char *temporary, const void *blob, uint32_t length) {
  zel::host::FileIo &io = zel::host::CurrentFileIo();
  const char *target = temporary != nullptr ? temporary : path;
  if (!lock.Held()) {
    ZELFileLog("failed to lock zelfile %s, error: %s\n", lock.Name(), std::strerror(lock.Error()));
    return STATUS_IO_ERROR;
  }
  ReturnStatus outcome = SecureTarget(fd, target);
  if (outcome != STATUS_OK) {
    return outcome;
  }
  if (io.Ftruncate(fd, 1) != 0) {
    ZELFileLog("failed to truncate zelfile %s, error: %s\n", target, std::strerror(errno));
    return STATUS_IO_ERROR;
  }
  outcome = WritePadded(fd, target, blob, length);
  if (outcome != STATUS_OK || temporary == nullptr) {
    return outcome;
  }
  if (io.Rename(temporary, path) != 0) {
    ZELFileLog("failed to rename zelfile %s, error: %s\n", temporary, std::strerror(errno));
    return STATUS_WRITE_ERROR;
  }
  return SyncDirectoryOf(path);
}

}  // namespace

extern "C" {

ZEL_API void ZELFileLog(const char *fmt, ...) {
  if (fmt == nullptr) {
    return;
  }
  va_list ap;
  va_start(ap, fmt);
  zel::host::LogV(kFileLogId, fmt, ap);
  va_end(ap);
}

ZEL_API ReturnStatus ZELFile_ReadClassical(const char *path, void **blob, int32_t *length,
                                           uint32_t *offset) {
  if (!UsablePath(path) || blob == nullptr || length == nullptr || offset == nullptr) {
    return STATUS_BAD_PARAM;
  }
  zel::host::FileIo &io = zel::host::CurrentFileIo();
  // O_NONBLOCK: opening a FIFO planted at the path would otherwise wait for
  // a writer for ever; a regular file reads the same with it.
  const int fd = OpenMaybeDirect(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, 0);
  if (fd < 0) {
    ZELFileLog("failed to open zelfile %s for read, error: %s\n", path, std::strerror(errno));
    return STATUS_NOT_FOUND;
  }
  ReturnStatus outcome = STATUS_OK;
  struct stat st {};
  if (io.Fstat(fd, &st) != 0 || (S_ISREG(st.st_mode) && st.st_size == 0)) {
    outcome = STATUS_FILE_EMPTY;
  } else if (!S_ISREG(st.st_mode)) {
    ZELFileLog("failed to verify zelfile %s: not a regular file\n", path);
    outcome = STATUS_IO_ERROR;
  } else if (st.st_size % kBlockSize != 0 || st.st_size > kMaxFileLength) {
    ZELFileLog("failed to verify zelfile %s with length %ld\n", path, static_cast<long>(st.st_size));
    outcome = STATUS_IO_ERROR;
  } else {
    const auto size = static_cast<uint32_t>(st.st_size);
    *length = static_cast<int32_t>(size);
    void *allocation = std::malloc(size_t{size} + kBlockSize - 1);
    if (allocation == nullptr) {
      outcome = STATUS_NO_MEMORY;
    } else {
      uint8_t *aligned = Aligned(allocation);
      zel::host::AdviseWholeWrite(aligned, size);
      *blob = aligned;
      if (io.Read(fd, aligned, size) != static_cast<ssize_t>(size)) {
        std::free(allocation);
        *blob = nullptr;
        outcome = STATUS_READ_ERROR;
      } else {
        *offset = static_cast<uint32_t>(aligned - static_cast<uint8_t *>(allocation));
      }
    }
  }
  io.Close(fd);
  return outcome;
}

ZEL_API ReturnStatus ZELFile_Read(const char *path, void **blob, int32_t *length, uint32_t *offset) {
  if (blob == nullptr || length == nullptr) {
    return STATUS_BAD_PARAM;
  }
  if (zel::host::ConfigStoreEnabled()) {
    uint32_t storedLength = 0;
    const uint32_t status = ZELState_LoadFromConfigStoreAsBuf(blob, &storedLength, false);
    if (status != 0) {
      ZELFileLog("failed to read zelconfig from configstore, error: %d\n", static_cast<int>(status));
      return STATUS_FAILURE;
    }
    *length = static_cast<int32_t>(storedLength);
    return STATUS_OK;
  }
  return ZELFile_ReadClassical(path, blob, length, offset);
}

ZEL_API ReturnStatus ZELFile_WriteClassical(const char *path, const void *blob, uint32_t length,
                                            int useTemporary) {
  if (!UsablePath(path)) {
    return STATUS_BAD_PARAM;
  }
  if (blob == nullptr || length == 0 || length > kMaxBlobLength) {
    ZELFileLog("refusing to write zelfile %s with length %u\n", path, length);
    return STATUS_BAD_PARAM;
  }
  zel::host::FileIo &io = zel::host::CurrentFileIo();
  char *temporary = useTemporary ? TemporaryName(path) : nullptr;
  const char *target = useTemporary ? temporary : path;
  if (target == nullptr) {
    return STATUS_NO_MEMORY;
  }
  const WriterLock lock(path);
  const int fd = OpenTarget(target, useTemporary != 0);
  if (fd < 0) {
    ZELFileLog("failed to open zelfile %s for write, error: %s\n", target, std::strerror(errno));
    std::free(temporary);
    return STATUS_IO_ERROR;
  }
  const ReturnStatus outcome = WriteOpenTarget(fd, lock, path, temporary, blob, length);
  std::free(temporary);
  io.Close(fd);
  return outcome;
}

ZEL_API ReturnStatus ZELFile_Write(const char *path, const void *blob, uint32_t length) {
  if (zel::host::ConfigStoreEnabled()) {
    const uint32_t status = ZELState_SaveBufToConfigStore(blob, length);
    if (status != 0) {
      ZELFileLog("failed to write zelconfig to configstore, error: %d\n", static_cast<int>(status));
      return STATUS_FAILURE;
    }
    return STATUS_OK;
  }
  return ZELFile_WriteClassical(path, blob, length, 1);
}

}  // extern "C"
