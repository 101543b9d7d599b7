#include "sim/kmod/frame.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>

namespace zel::kmod {

BufferUse BufferUseOf(uint64_t request) {
  switch (request) {
    case ZELPYX_REQ_STATE_INIT:
    case ZELPYX_REQ_GLOBAL_PROP_SET:
    case ZELPYX_REQ_HOST_PROP_SET:
    case ZELPYX_REQ_PORT_ADD:
    case ZELPYX_REQ_PORT_DATA_SET:
    case ZELPYX_REQ_UPLINK_DATA_SET:
      return {{Use::kIn, Use::kNone, Use::kNone}};
    case ZELPYX_REQ_STATE_GET:
    case ZELPYX_REQ_GLOBAL_PROP_GET:
    case ZELPYX_REQ_HOST_PROP_GET:
    case ZELPYX_REQ_PORT_DATA_GET:
    case ZELPYX_REQ_PORT_STATE_GET:
    case ZELPYX_REQ_UPLINK_DATA_GET:
      return {{Use::kOut, Use::kNone, Use::kNone}};
    case ZELPYX_REQ_CMD_EXEC:
      return {{Use::kNone, Use::kIn, Use::kOut}};
    default:
      return {{Use::kNone, Use::kNone, Use::kNone}};
  }
}

uint64_t SlotAddress(const ZELPYXCommand &rec, Slot slot) {
  return slot == kData ? rec.data : slot == kCmdIn ? rec.cmdIn : rec.cmdOut;
}

uint32_t SlotLength(const ZELPYXCommand &rec, Slot slot) {
  return slot == kData ? rec.dataLen : slot == kCmdIn ? rec.cmdInLen : rec.cmdOutLen;
}

void SetSlotAddress(ZELPYXCommand &rec, Slot slot, uint64_t address) {
  (slot == kData ? rec.data : slot == kCmdIn ? rec.cmdIn : rec.cmdOut) = address;
}

uint32_t CarriedBytes(const ZELPYXCommand &rec, Slot slot, Use use) {
  return use == Use::kIn && SlotAddress(rec, slot) != 0 ? SlotLength(rec, slot) : 0;
}

bool SendAll(int fd, struct iovec *iov, int count) {
  while (count > 0) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    ssize_t sent = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    while (count > 0 && static_cast<size_t>(sent) >= iov->iov_len) {
      sent -= static_cast<ssize_t>(iov->iov_len);
      ++iov;
      --count;
    }
    if (count > 0) {
      iov->iov_base = static_cast<char *>(iov->iov_base) + sent;
      iov->iov_len -= static_cast<size_t>(sent);
    }
  }
  return true;
}

bool RecvAll(int fd, void *buffer, size_t length) {
  auto *p = static_cast<char *>(buffer);
  while (length > 0) {
    const ssize_t got = ::recv(fd, p, length, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (got == 0) errno = ECONNRESET;
      return false;
    }
    p += got;
    length -= static_cast<size_t>(got);
  }
  return true;
}

std::string DefaultSocketPath() {
  const char *runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] != '\0') {
    return std::string(runtime) + "/zel/kmod.sock";
  }
  return "/run/zel/kmod.sock";
}

std::string ClientSocketPath() {
  const char *path = std::getenv("ZEL_KMOD_SOCKET");
  return path != nullptr && path[0] != '\0' ? path : DefaultSocketPath();
}

}  // namespace zel::kmod
