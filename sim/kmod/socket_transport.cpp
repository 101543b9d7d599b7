#include "sim/kmod/socket_transport.h"

#include <cerrno>
#include <cstring>

#include "zel/kernel.h"

namespace zel::kmod {

int SocketTransport::Open(const char *path, int flags) {
  if (path == nullptr || std::strcmp(path, ZELPYX_DEVICE_PATH) != 0) {
    errno = ENOENT;
    return -1;
  }
  return client_.Open(flags);
}

int SocketTransport::Ioctl(int fd, unsigned long request, void *arg) {
  int result = -1;
  if (!client_.Ioctl(fd, request, arg, &result)) {
    errno = EBADF;
  }
  return result;
}

int SocketTransport::Close(int fd) {
  if (!client_.Close(fd)) {
    errno = EBADF;
    return -1;
  }
  return 0;
}

}  // namespace zel::kmod
