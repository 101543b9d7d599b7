// The state file: the state blob padded with zeros to a multiple of 512 bytes,
// read and written with direct I/O where the file system allows it, and
// replaced through a temporary file and rename so that a reader sees either
// the old or the new state, never a mix.  When both configuration-store
// features of the host are on, the configuration store takes the file's place.
//
// Beyond the format's own checks, two inputs are refused before anything is
// touched: an empty (or null) blob, which would leave a 1-byte file, and a
// blob longer than 0xFFFFFE00 bytes, whose padded length does not fit in 32
// bits (both STATUS_BAD_PARAM).  A file longer than fits the i32 length
// out-parameter fails verification like a file of a bad length.

#include <fcntl.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/feature_flags.h"
#include "host/file_io.h"
#include "host/host_log.h"
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

}  // namespace

extern "C" {

ZEL_API void ZELFileLog(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  zel::host::LogV(kFileLogId, fmt, ap);
  va_end(ap);
}

ZEL_API ReturnStatus ZELFile_ReadClassical(const char *path, void **blob, int32_t *length,
                                           uint32_t *offset) {
  zel::host::FileIo &io = zel::host::CurrentFileIo();
  const int fd = OpenMaybeDirect(path, O_RDONLY, 0);
  if (fd < 0) {
    ZELFileLog("failed to open zelfile %s for read, error: %s\n", path, std::strerror(errno));
    return STATUS_NOT_FOUND;
  }
  ReturnStatus outcome = STATUS_OK;
  struct stat st {};
  if (io.Fstat(fd, &st) != 0 || st.st_size == 0) {
    outcome = STATUS_FILE_EMPTY;
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
  ReturnStatus outcome = STATUS_OK;
  void *staging = nullptr;
  const int fd = OpenMaybeDirect(target, O_WRONLY | O_CREAT, 0600);
  if (fd < 0) {
    ZELFileLog("failed to open zelfile %s for write, error: %s\n", target, std::strerror(errno));
    std::free(temporary);
    return STATUS_IO_ERROR;
  }
  if (io.Ftruncate(fd, 1) != 0) {
    ZELFileLog("failed to truncate zelfile %s, error: %s\n", target, std::strerror(errno));
    outcome = STATUS_IO_ERROR;
  } else {
    const uint32_t padded = (length + kBlockSize - 1) & ~(kBlockSize - 1);
    staging = std::malloc(size_t{padded} + kBlockSize - 1);
    if (staging == nullptr) {
      outcome = STATUS_NO_MEMORY;
    } else {
      uint8_t *aligned = Aligned(staging);
      std::memcpy(aligned, blob, length);
      std::memset(aligned + length, 0, padded - length);  // the filler
      if (io.Pwrite(fd, aligned, padded, 0) != static_cast<ssize_t>(padded)) {
        ZELFileLog("failed to write zelfile %s, error: %s\n", target, std::strerror(errno));
        outcome = STATUS_WRITE_ERROR;
      } else if (useTemporary && io.Rename(temporary, path) != 0) {
        ZELFileLog("failed to rename zelfile %s, error: %s\n", temporary, std::strerror(errno));
        outcome = STATUS_WRITE_ERROR;
      }
    }
  }
  std::free(staging);
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
