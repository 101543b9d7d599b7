// The client side of the frame protocol (frame.h): device descriptors that
// are connections to zel-kmodd.
//
// A descriptor this client hands out is the connected socket itself, so its
// number can never collide with another descriptor of the process.  When
// the daemon goes away mid-request the request fails with EIO and the
// descriptor is marked broken; the next request connects again and puts the
// new socket under the same number (dup3), so a caller that keeps its
// descriptor for the life of the process (the plain exchange does) reaches
// a restarted daemon.  A forked child reconnects on its first request too,
// rather than share its parent's connection.
//
// Used by the LD_PRELOAD device shim and by SocketTransport; it needs
// nothing of the library but the record's layout.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "sim/kmod/frame.h"

namespace zel::kmod {

class DeviceClient {
 public:
  // socketPath empty: ClientSocketPath() at each open.
  explicit DeviceClient(std::string socketPath = {});
  ~DeviceClient();
  DeviceClient(const DeviceClient &) = delete;
  DeviceClient &operator=(const DeviceClient &) = delete;

  // Connects and opens the device with flags.  Returns the descriptor, or
  // -1 with errno: ENOENT or ECONNREFUSED when no daemon listens, else what
  // the module answered (EACCES for a mode other than read-write).
  int Open(int flags);
  // ioctl when fd is one of this client's descriptors (else false, nothing
  // done): *result is 0, or -1 with the module's errno; EIO when the daemon
  // cannot be reached or answers nonsense.
  bool Ioctl(int fd, uint64_t request, void *arg, int *result);
  // Closes an owned descriptor; false (nothing done) when fd is not one.
  bool Close(int fd);

 private:
  struct Conn;
  std::shared_ptr<Conn> Find(int fd);
  int Connect(int flags, int *error);
  bool Reconnect(Conn &conn, int fd);
  static int Exchange(Conn &conn, int fd, uint64_t request, ZELPYXCommand *user);

  std::string socketPath_;
  std::mutex mutex_;  // guards conns_
  std::unordered_map<int, std::shared_ptr<Conn>> conns_;
};

}  // namespace zel::kmod
