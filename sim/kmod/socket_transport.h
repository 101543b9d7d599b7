// The library's device seam (host::DeviceTransport) wired to zel-kmodd
// without LD_PRELOAD: the same client the device shim runs, installed in
// process.  For tests and benchmarks that drive the daemon from the
// process they measure.
#pragma once

#include <string>

#include "host/device_transport.h"
#include "sim/kmod/client.h"

namespace zel::kmod {

class SocketTransport final : public host::DeviceTransport {
 public:
  // socketPath empty: ClientSocketPath().
  explicit SocketTransport(std::string socketPath = {}) : client_(std::move(socketPath)) {}

  int Open(const char *path, int flags) override;
  int Ioctl(int fd, unsigned long request, void *arg) override;
  int Close(int fd) override;

 private:
  DeviceClient client_;
};

}  // namespace zel::kmod
