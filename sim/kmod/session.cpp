#include "sim/kmod/session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "zel/kernel.h"

namespace zel::kmod {
namespace {

uint64_t AddressOf(const void *p) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)); }

// What the daemon hands the module for one pointer field of a record.
struct Buffer {
  std::unique_ptr<uint8_t[]> output;  // the module writes here
  uint32_t capacity = 0;
};

}  // namespace

Session::~Session() {
  if (fd_ >= 0) {
    device_.Close(fd_);
  }
}

void Session::Run() {
  while (ServeOne()) {
  }
}

// The body grows as its bytes arrive, so a header that promises much and
// delivers little costs little memory.
bool Session::ReadBody(uint32_t length) {
  constexpr size_t kChunk = 64 << 10;
  body_.clear();
  while (body_.size() < length) {
    const size_t have = body_.size();
    const size_t step = std::min<size_t>(length - have, std::max(have, kChunk));
    body_.resize(have + step);
    if (!channel_.Read(body_.data() + have, step)) {
      return false;
    }
  }
  return true;
}

bool Session::Answer(int result, int error) {
  ReplyHeader reply{kReplyMagic, result, result == 0 ? 0 : error, 0};
  iovec iov{&reply, sizeof reply};
  return channel_.Write(&iov, 1);
}

bool Session::ServeOne() {
  RequestHeader header{};
  if (!channel_.Read(&header, sizeof header)) {
    return false;
  }
  if (header.magic != kRequestMagic || (header.op != kOpOpen && header.op != kOpIoctl)) {
    Answer(-1, EPROTO);
    return false;
  }
  if (header.bodyLen > kMaxBody) {
    Answer(-1, EMSGSIZE);
    return false;
  }
  try {
    if (!ReadBody(header.bodyLen)) {
      return false;
    }
    if (header.op == kOpOpen) {
      ServeOpen(header);
      return true;
    }
    return ServeIoctl(header);
  } catch (const std::bad_alloc &) {
    body_ = {};
    return Answer(-1, ENOMEM);
  }
}

void Session::ServeOpen(const RequestHeader &header) {
  if (!body_.empty() || fd_ >= 0) {
    Answer(-1, EINVAL);
    return;
  }
  const int fd = device_.Open(ZELPYX_DEVICE_PATH, static_cast<int>(header.arg));
  const int error = errno;
  if (fd >= 0) {
    fd_ = fd;
  }
  Answer(fd >= 0 ? 0 : -1, error);
}

bool Session::ServeIoctl(const RequestHeader &header) {
  ZELPYXCommand rec;
  uint32_t carried[kSlots];
  if (body_.size() < sizeof rec + sizeof carried) {
    return Answer(-1, EINVAL);
  }
  std::memcpy(&rec, body_.data(), sizeof rec);
  std::memcpy(carried, body_.data() + sizeof rec, sizeof carried);
  const BufferUse use = BufferUseOf(header.arg);
  const ZELPYXCommand client = rec;
  uint64_t offset = sizeof rec + sizeof carried;
  Buffer buffers[kSlots];
  static uint8_t empty;  // a non-null address for an input of no bytes
  for (int s = 0; s < kSlots; ++s) {
    const Slot slot = static_cast<Slot>(s);
    if (carried[s] != CarriedBytes(rec, slot, use.slot[s]) ||
        offset + carried[s] > body_.size()) {
      return Answer(-1, EINVAL);
    }
    uint64_t address = 0;
    if (use.slot[s] == Use::kIn && SlotAddress(rec, slot) != 0) {
      address = carried[s] > 0 ? AddressOf(body_.data() + offset) : AddressOf(&empty);
    } else if (use.slot[s] == Use::kOut && SlotAddress(rec, slot) != 0) {
      buffers[s].capacity = SlotLength(rec, slot);
      if (buffers[s].capacity > kMaxBuffer) {
        return Answer(-1, EMSGSIZE);
      }
      buffers[s].output = std::make_unique_for_overwrite<uint8_t[]>(buffers[s].capacity + 1);
      address = AddressOf(buffers[s].output.get());
    }
    SetSlotAddress(rec, slot, address);
    offset += carried[s];
  }
  if (offset != body_.size()) {
    return Answer(-1, EINVAL);
  }

  const int result = device_.Ioctl(fd_, header.arg, &rec) == 0 ? 0 : -1;
  const int error = result == 0 ? 0 : errno > 0 ? errno : EIO;
  // A module writes its output only on success, as many bytes as the
  // length field then says.
  uint32_t written[2] = {0, 0};
  const Slot outputs[2] = {kData, kCmdOut};
  for (int i = 0; i < 2; ++i) {
    if (result == 0 && buffers[outputs[i]].output != nullptr) {
      written[i] = std::min(SlotLength(rec, outputs[i]), buffers[outputs[i]].capacity);
    }
  }
  for (int s = 0; s < kSlots; ++s) {
    SetSlotAddress(rec, static_cast<Slot>(s), SlotAddress(client, static_cast<Slot>(s)));
  }
  ReplyHeader reply{kReplyMagic, result, error,
                    static_cast<uint32_t>(sizeof rec + sizeof written + written[0] + written[1])};
  iovec iov[5] = {{&reply, sizeof reply},
                  {&rec, sizeof rec},
                  {written, sizeof written},
                  {buffers[kData].output.get(), written[0]},
                  {buffers[kCmdOut].output.get(), written[1]}};
  return channel_.Write(iov, 5);
}

}  // namespace zel::kmod
