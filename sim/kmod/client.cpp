#include "sim/kmod/client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zel::kmod {
namespace {

// Inside the preloaded shim the name `close` is the shim's own, so the
// client's own sockets are closed with the system call itself.
void CloseFd(int fd) {
  const int saved = errno;
  ::syscall(SYS_close, fd);
  errno = saved;
}

void *Address(uint64_t address) { return reinterpret_cast<void *>(static_cast<uintptr_t>(address)); }

int Fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

struct DeviceClient::Conn {
  std::mutex mutex;  // one request at a time on the connection
  int flags = 0;
  pid_t pid = 0;     // the process that connected
  bool broken = false;
  dev_t dev = 0;     // identity of the socket, guarded by the client's mutex_
  ino_t ino = 0;
};

DeviceClient::DeviceClient(std::string socketPath) : socketPath_(std::move(socketPath)) {}

DeviceClient::~DeviceClient() {
  for (const auto &entry : conns_) {
    CloseFd(entry.first);
  }
}

int DeviceClient::Connect(int flags, int *error) {
  const std::string path = socketPath_.empty() ? ClientSocketPath() : socketPath_;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    *error = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) {
    *error = errno;
    return -1;
  }
  if (::connect(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
    *error = errno;
    CloseFd(s);
    return -1;
  }
  RequestHeader request{kRequestMagic, kOpOpen, static_cast<uint64_t>(static_cast<unsigned>(flags)),
                        0, 0};
  iovec iov{&request, sizeof request};
  ReplyHeader reply{};
  if (!SendAll(s, &iov, 1) || !RecvAll(s, &reply, sizeof reply) || reply.magic != kReplyMagic ||
      reply.bodyLen != 0 || (reply.result != 0 && reply.error <= 0)) {
    *error = EIO;
    CloseFd(s);
    return -1;
  }
  if (reply.result != 0) {
    *error = reply.error;
    CloseFd(s);
    return -1;
  }
  return s;
}

int DeviceClient::Open(int flags) {
  int error = 0;
  const int s = Connect(flags, &error);
  if (s < 0) {
    return Fail(error);
  }
  if ((flags & O_CLOEXEC) == 0) {
    ::fcntl(s, F_SETFD, 0);
  }
  auto conn = std::make_shared<Conn>();
  conn->flags = flags;
  conn->pid = ::getpid();
  struct stat st {};
  ::fstat(s, &st);
  conn->dev = st.st_dev;
  conn->ino = st.st_ino;
  std::lock_guard<std::mutex> lock(mutex_);
  conns_[s] = std::move(conn);
  return s;
}

std::shared_ptr<DeviceClient::Conn> DeviceClient::Find(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = conns_.find(fd);
  if (it == conns_.end()) {
    return nullptr;
  }
  // A descriptor closed behind our back (close_range, dup2 over it, a
  // close inside the C library) may have been reused for something else.
  struct stat st {};
  if (::fstat(fd, &st) != 0 || st.st_dev != it->second->dev || st.st_ino != it->second->ino) {
    conns_.erase(it);
    return nullptr;
  }
  return it->second;
}

bool DeviceClient::Close(int fd) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (conns_.erase(fd) == 0) {
      return false;
    }
  }
  CloseFd(fd);
  return true;
}

// Puts a new connection under the number fd, keeping its close-on-exec.
bool DeviceClient::Reconnect(Conn &conn, int fd) {
  int error = 0;
  const int s = Connect(conn.flags, &error);
  if (s < 0) {
    return false;
  }
  const int cloexec = (conn.flags & O_CLOEXEC) != 0 ? O_CLOEXEC : 0;
  const bool moved = ::dup3(s, fd, cloexec) == fd;
  CloseFd(s);
  if (!moved) {
    return false;
  }
  struct stat st {};
  ::fstat(fd, &st);
  std::lock_guard<std::mutex> lock(mutex_);
  conn.dev = st.st_dev;
  conn.ino = st.st_ino;
  conn.broken = false;
  conn.pid = ::getpid();
  return true;
}

namespace {

// Sends one ioctl frame, the input buffers straight from the caller's
// memory.  Returns 0 or the errno: EMSGSIZE before anything is sent, else
// the stream is broken (EFAULT when the caller's memory faulted).
int SendRequest(int fd, uint64_t request, const ZELPYXCommand &rec, const BufferUse &use,
                uint32_t capacity[kSlots]) {
  uint32_t carried[kSlots];
  uint64_t body = sizeof rec + sizeof carried;
  for (int s = 0; s < kSlots; ++s) {
    const Slot slot = static_cast<Slot>(s);
    carried[s] = CarriedBytes(rec, slot, use.slot[s]);
    const bool out = use.slot[s] == Use::kOut && SlotAddress(rec, slot) != 0;
    capacity[s] = out ? SlotLength(rec, slot) : 0;
    if (carried[s] > kMaxBuffer || capacity[s] > kMaxBuffer) {
      return EMSGSIZE;
    }
    body += carried[s];
  }
  RequestHeader header{kRequestMagic, kOpIoctl, request, static_cast<uint32_t>(body), 0};
  iovec iov[3 + kSlots] = {{&header, sizeof header},
                           {const_cast<ZELPYXCommand *>(&rec), sizeof rec},
                           {carried, sizeof carried}};
  int count = 3;
  for (int s = 0; s < kSlots; ++s) {
    if (carried[s] > 0) iov[count++] = {Address(SlotAddress(rec, static_cast<Slot>(s))), carried[s]};
  }
  if (!SendAll(fd, iov, count)) {
    return errno == EFAULT ? EFAULT : EIO;
  }
  return 0;
}

// Receives the reply to one ioctl frame: the output bytes straight into the
// caller's buffers (never past the capacities sent), then the record.
// Returns what ioctl returns; *broken when the stream is lost or garbled.
int ReceiveReply(int fd, ZELPYXCommand *user, const uint32_t capacity[kSlots], bool *broken) {
  auto lost = [broken](int error) {
    *broken = true;
    return Fail(error);
  };
  ReplyHeader reply{};
  if (!RecvAll(fd, &reply, sizeof reply) || reply.magic != kReplyMagic ||
      (reply.result != 0 && reply.result != -1) || (reply.result == -1 && reply.error <= 0)) {
    return lost(EIO);
  }
  if (reply.bodyLen == 0) {
    // A refusal: the module saw nothing and wrote nothing.
    return reply.result == 0 ? lost(EIO) : Fail(reply.error);
  }
  ZELPYXCommand rec;
  uint32_t written[2];
  uint8_t head[sizeof rec + sizeof written];  // one read for the record and the lengths
  if (reply.bodyLen < sizeof head || !RecvAll(fd, head, sizeof head)) {
    return lost(EIO);
  }
  std::memcpy(&rec, head, sizeof rec);
  std::memcpy(written, head + sizeof rec, sizeof written);
  if (written[0] > capacity[kData] || written[1] > capacity[kCmdOut] ||
      reply.bodyLen != sizeof head + uint64_t{written[0]} + written[1]) {
    return lost(EIO);
  }
  const Slot outputs[2] = {kData, kCmdOut};
  for (int i = 0; i < 2; ++i) {
    if (written[i] > 0 && !RecvAll(fd, Address(SlotAddress(*user, outputs[i])), written[i])) {
      return lost(errno == EFAULT ? EFAULT : EIO);
    }
  }
  // The record as the module left it, with the caller's own addresses.
  for (int s = 0; s < kSlots; ++s) {
    SetSlotAddress(rec, static_cast<Slot>(s), SlotAddress(*user, static_cast<Slot>(s)));
  }
  std::memcpy(user, &rec, sizeof rec);
  return reply.result == 0 ? 0 : Fail(reply.error);
}

}  // namespace

int DeviceClient::Exchange(Conn &conn, int fd, uint64_t request, ZELPYXCommand *user) {
  ZELPYXCommand rec;
  std::memcpy(&rec, user, sizeof rec);
  uint32_t capacity[kSlots];
  const int error = SendRequest(fd, request, rec, BufferUseOf(request), capacity);
  if (error != 0) {
    conn.broken = error != EMSGSIZE;
    return Fail(error);
  }
  bool broken = false;
  const int result = ReceiveReply(fd, user, capacity, &broken);
  conn.broken = broken;
  return result;
}

bool DeviceClient::Ioctl(int fd, uint64_t request, void *arg, int *result) {
  const std::shared_ptr<Conn> conn = Find(fd);
  if (conn == nullptr) {
    return false;
  }
  std::lock_guard<std::mutex> lock(conn->mutex);
  if (arg == nullptr) {
    *result = Fail(EFAULT);
  } else if ((conn->broken || conn->pid != ::getpid()) && !Reconnect(*conn, fd)) {
    *result = Fail(EIO);
  } else {
    *result = Exchange(*conn, fd, request, static_cast<ZELPYXCommand *>(arg));
  }
  return true;
}

}  // namespace zel::kmod
