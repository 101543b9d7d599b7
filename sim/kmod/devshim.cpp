// libzel_devshim.so: preloaded with LD_PRELOAD, it turns the kernel switch
// module's device "/tarn/devices/char/pyxdriver/zeldev" into a connection
// to zel-kmodd (the socket named by ZEL_KMOD_SOCKET, else the daemon's
// default path), so an unmodified program linked with libzel drives the
// emulated module through its usual open, ioctl and close.
//
// open, openat (their 64-bit and fortified variants), ioctl and close are
// interposed; every other path and every descriptor that is not the
// device's goes to the C library's own function (dlsym RTLD_NEXT).  The
// shim does not link libzel.
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <new>

#include "sim/kmod/client.h"

namespace {

using OpenFn = int (*)(const char *, int, ...);
using OpenAtFn = int (*)(int, const char *, int, ...);
using IoctlFn = int (*)(int, unsigned long, ...);
using CloseFn = int (*)(int);

template <typename Fn>
Fn Next(const char *name) {
  return reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
}

bool IsDevice(const char *path) {
  return path != nullptr && std::strcmp(path, ZELPYX_DEVICE_PATH) == 0;
}

// Never destroyed: a program may still close or use the device from its
// own exit handlers.
zel::kmod::DeviceClient &Client() {
  static auto *client = new zel::kmod::DeviceClient();
  return *client;
}

int OpenDevice(int flags) {
  try {
    return Client().Open(flags);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
}

}  // namespace

#define ZEL_SHIM extern "C" __attribute__((visibility("default")))

// The mode argument exists only when the flags create a file; it is read
// in the variadic function itself.
#define ZEL_MODE_ARG(flags, mode)                                            \
  mode_t mode = 0;                                                           \
  if (((flags) & O_CREAT) != 0 || ((flags) & O_TMPFILE) == O_TMPFILE) {     \
    va_list args;                                                            \
    va_start(args, flags);                                                   \
    mode = va_arg(args, mode_t);                                             \
    va_end(args);                                                            \
  }

ZEL_SHIM int open(const char *path, int flags, ...) {
  ZEL_MODE_ARG(flags, mode);
  static const OpenFn next = Next<OpenFn>("open");
  return IsDevice(path) ? OpenDevice(flags) : next(path, flags, mode);
}

ZEL_SHIM int open64(const char *path, int flags, ...) {
  ZEL_MODE_ARG(flags, mode);
  static const OpenFn next = Next<OpenFn>("open64");
  return IsDevice(path) ? OpenDevice(flags) : next(path, flags, mode);
}

ZEL_SHIM int openat(int dirfd, const char *path, int flags, ...) {
  ZEL_MODE_ARG(flags, mode);
  static const OpenAtFn next = Next<OpenAtFn>("openat");
  return IsDevice(path) ? OpenDevice(flags) : next(dirfd, path, flags, mode);
}

ZEL_SHIM int openat64(int dirfd, const char *path, int flags, ...) {
  ZEL_MODE_ARG(flags, mode);
  static const OpenAtFn next = Next<OpenAtFn>("openat64");
  return IsDevice(path) ? OpenDevice(flags) : next(dirfd, path, flags, mode);
}

// The fortified entry points take no mode: they are called only for flags
// that create nothing.
ZEL_SHIM int __open_2(const char *path, int flags) {
  if (IsDevice(path)) return OpenDevice(flags);
  static const auto next = Next<int (*)(const char *, int)>("__open_2");
  return next(path, flags);
}

ZEL_SHIM int __open64_2(const char *path, int flags) {
  if (IsDevice(path)) return OpenDevice(flags);
  static const auto next = Next<int (*)(const char *, int)>("__open64_2");
  return next(path, flags);
}

ZEL_SHIM int __openat_2(int dirfd, const char *path, int flags) {
  if (IsDevice(path)) return OpenDevice(flags);
  static const auto next = Next<int (*)(int, const char *, int)>("__openat_2");
  return next(dirfd, path, flags);
}

ZEL_SHIM int __openat64_2(int dirfd, const char *path, int flags) {
  if (IsDevice(path)) return OpenDevice(flags);
  static const auto next = Next<int (*)(int, const char *, int)>("__openat64_2");
  return next(dirfd, path, flags);
}

ZEL_SHIM int ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  void *arg = va_arg(args, void *);
  va_end(args);
  int result = -1;
  try {
    if (Client().Ioctl(fd, request, arg, &result)) {
      return result;
    }
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
  static const IoctlFn next = Next<IoctlFn>("ioctl");
  return next(fd, request, arg);
}

ZEL_SHIM int close(int fd) {
  if (Client().Close(fd)) {
    return 0;
  }
  static const CloseFn next = Next<CloseFn>("close");
  return next(fd);
}
