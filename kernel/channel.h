// Internal side of the kernel channel: the reply exchange, the seams tests
// use (transport installation, the plain-exchange descriptor, the reply
// allocator), and the record helpers shared by the command wrappers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/device_transport.h"
#include "zel/kernel.h"

namespace zel::kernel {

// Bounds of the reply and output buffers.  A reply or command output
// larger than 256 MiB is refused with STATUS_LIMIT_EXCEEDED (no buffer is
// allocated past it): the whole state of 32 switches with their ports and
// properties stays far below it.  The kernel may name a larger size at most
// ZELPYX_MAX_REPLY_ROUNDS - 1 times: the state may grow between two calls
// while other clients add ports, so a few rounds are normal, but a module
// that never settles must not keep the caller looping.  After the last call
// the exchange ends with STATUS_LIMIT_EXCEEDED.
constexpr uint32_t ZELPYX_MAX_REPLY_SIZE = 256u << 20;
constexpr uint32_t ZELPYX_MAX_REPLY_ROUNDS = 16;

// The reply exchange: runs request with cmd, allocating the reply buffer
// (32768 bytes first, grown when the kernel names a larger size with
// STATUS_LIMIT_EXCEEDED, within the bounds above).  On success *reply holds
// the reply and the caller owns it; on failure *reply is null and the status
// is never 0 (a failed ioctl whose record says 0 gives STATUS_FAILURE).
// *replyLen is the length the kernel left in dataLen (never more than the
// buffer on success).
ReturnStatus ZELPYXIoctlGet(int request, ZELPYXCommand *cmd, void **reply, uint32_t *replyLen);

// The switch-wide (global or host) property get and set behind the public
// wrappers; request selects the list (8/9 global, 11/12 host).
ReturnStatus ZELPYXSwitchPropGet(const char *switchName, const char *propName, void **buffer,
                                 uint32_t *length, int request);
ReturnStatus ZELPYXSwitchPropSet(const char *switchName, const char *propName, const void *data,
                                 uint32_t dataLen, int request, uint32_t propType);

// Fills a text field with "%s" and the field's size as limit (cut to the
// size less one, always NUL-terminated); a null text counts as empty.
void CopyText(char *field, size_t size, const char *text);
inline uint64_t AddressOf(const void *p) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)); }
// A value sent to the kernel: null is refused unless its length is 0, so the
// module is never handed address 0 with a length to read from it.
inline bool ValueUsable(const void *data, uint32_t length) { return data != nullptr || length == 0; }

// Installs transport for the channel (null: the system one) and forgets the
// plain-exchange descriptor opened on the previous transport, without
// closing it.  Returns the previous transport.  Call only while no request
// is running.
host::DeviceTransport *InstallTransport(host::DeviceTransport *transport);

// Forgets the plain-exchange descriptor (it is not closed), so that the next
// plain request opens the device again.  For tests.
void ResetPlainDescriptorForTesting();

// Allocator of reply and output buffers.  The buffers are released with
// free (ZELPYX_DataFree), so a replacement must hand out malloc memory or
// null.  Null restores malloc.  Returns the previous allocator.
using ReplyAllocFn = void *(*)(size_t bytes);
ReplyAllocFn SetReplyAllocator(ReplyAllocFn fn);

// Installs a transport for the life of the object, restoring the previous
// one (and forgetting the plain descriptor both times) when it ends.
class ScopedTransport {
 public:
  explicit ScopedTransport(host::DeviceTransport *transport)
      : previous_(InstallTransport(transport)) {}
  ~ScopedTransport() { InstallTransport(previous_); }
  ScopedTransport(const ScopedTransport &) = delete;
  ScopedTransport &operator=(const ScopedTransport &) = delete;

 private:
  host::DeviceTransport *previous_;
};

}  // namespace zel::kernel
