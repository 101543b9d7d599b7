// The frame protocol between the device shim (or any client) and zel-kmodd,
// the emulated kernel switch module served as a process.
//
// One Unix stream connection stands for one open descriptor of the device:
// the client connects, sends an open frame, then one ioctl frame per
// request, each answered by one reply frame before the next is sent.
// Closing the connection closes the descriptor.  All integers are in the
// machine's byte order (the socket never leaves the host); the record is
// the 424-byte command record exactly as the caller holds it.
//
// Request frame: a 24-byte header, then `bodyLen` bytes of body.
//   offset 0   u32 magic    kRequestMagic
//          4   u32 op       kOpOpen or kOpIoctl
//          8   u64 arg      open: the open flags; ioctl: the request number
//          16  u32 bodyLen  at most kMaxBody
//          20  u32 reserved zero
//   open body: empty.
//   ioctl body: the record (424 bytes); then three u32 lengths, the bytes
//   carried for the buffers that `data`, `cmdIn` and `cmdOut` point to, in
//   that order; then those bytes, in the same order.
//
// Which buffers travel.  A pointer field carries bytes only when the
// request reads that buffer (BufferUseOf): `data` of requests 0, 9, 12, 14,
// 17 and 26 and `cmdIn` of request 28 carry exactly the record's length
// field (dataLen, cmdInLen) when the pointer is not null, else nothing.
// Buffers the module writes into (`data` of requests 3, 8, 11, 16, 19 and
// 27, `cmdOut` of request 28) carry nothing: their capacity is the
// record's length field (dataLen, cmdOutLen) and at most kMaxBuffer.  A
// pointer the request does not use carries nothing, and the daemon hands
// the module a null pointer in its place.
//
// Reply frame: a 16-byte header, then `bodyLen` bytes of body.
//   offset 0   u32 magic    kReplyMagic
//          4   i32 result   what ioctl (or open) returns: 0 or -1
//          8   i32 error    the errno when result is -1, else 0
//          12  u32 bodyLen
//   The body is empty for an open and for a refused frame.  For a served
//   ioctl it is the record as the module left it (its pointer fields hold
//   the caller's addresses again), then two u32 lengths, the bytes the
//   module wrote into the `data` and `cmdOut` buffers, then those bytes.  A
//   module writes output only on success and only as many bytes as the
//   record's length field says, so each length is that field on success
//   (never more than the capacity offered) and 0 otherwise.
//
// Refusals.  A header with a wrong magic or op, or a body over kMaxBody,
// is answered with result -1 and error EPROTO or EMSGSIZE, and the
// connection is closed: the stream can no longer be trusted.  A well-framed
// ioctl body whose lengths disagree with its record, an open frame with a
// body and a second open on one connection are answered with EINVAL, an
// output capacity over kMaxBuffer with EMSGSIZE, and a frame the daemon
// has no memory for with ENOMEM; the connection stays usable.  Other
// connections never notice any of these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct iovec;

#include "zel/kernel.h"

namespace zel::kmod {

inline constexpr uint32_t kRequestMagic = 0x514d4b5a;  // "ZKMQ"
inline constexpr uint32_t kReplyMagic = 0x524d4b5a;    // "ZKMR"
inline constexpr uint32_t kOpOpen = 1;
inline constexpr uint32_t kOpIoctl = 2;
inline constexpr uint32_t kMaxBuffer = 64u << 20;
// The record, three lengths, and an input buffer of up to kMaxBuffer.
inline constexpr uint32_t kMaxBody = sizeof(ZELPYXCommand) + 12 + kMaxBuffer;

struct RequestHeader {
  uint32_t magic;
  uint32_t op;
  uint64_t arg;
  uint32_t bodyLen;
  uint32_t reserved;
};
static_assert(sizeof(RequestHeader) == 24);

struct ReplyHeader {
  uint32_t magic;
  int32_t result;
  int32_t error;
  uint32_t bodyLen;
};
static_assert(sizeof(ReplyHeader) == 16);

// The three pointer fields of the record, in frame order.
enum Slot { kData = 0, kCmdIn = 1, kCmdOut = 2, kSlots = 3 };
enum class Use { kNone, kIn, kOut };

// How a request uses each pointer field of the record.
struct BufferUse {
  Use slot[kSlots];
};
BufferUse BufferUseOf(uint64_t request);

// The address and length field of a slot in a record (the record is
// packed, so the fields are copied rather than referenced).
uint64_t SlotAddress(const ZELPYXCommand &rec, Slot slot);
uint32_t SlotLength(const ZELPYXCommand &rec, Slot slot);
void SetSlotAddress(ZELPYXCommand &rec, Slot slot, uint64_t address);

// Bytes a request frame carries for a slot of rec (see above).
uint32_t CarriedBytes(const ZELPYXCommand &rec, Slot slot, Use use);

// Blocking socket I/O that resumes after signals and partial transfers.
// SendAll never raises SIGPIPE (EPIPE instead); SendAll advances iov.
// Both return false with errno set; RecvAll sets ECONNRESET at end of stream.
bool SendAll(int fd, struct iovec *iov, int count);
bool RecvAll(int fd, void *buffer, size_t length);

// The socket path a client uses: $ZEL_KMOD_SOCKET when set, else the
// daemon's default.
std::string ClientSocketPath();
// The daemon's default: $XDG_RUNTIME_DIR/zel/kmod.sock when that variable
// is set, else /run/zel/kmod.sock.
std::string DefaultSocketPath();

}  // namespace zel::kmod
