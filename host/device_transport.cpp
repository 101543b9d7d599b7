#include "host/device_transport.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>

namespace zel::host {
namespace {

class SystemTransport final : public DeviceTransport {
 public:
  int Open(const char *path, int flags) override { return ::open(path, flags | O_CLOEXEC); }
  int Ioctl(int fd, unsigned long request, void *arg) override { return ::ioctl(fd, request, arg); }
  int Close(int fd) override { return ::close(fd); }
};

SystemTransport g_system;
std::atomic<DeviceTransport *> g_current{&g_system};

}  // namespace

DeviceTransport &SystemDeviceTransport() { return g_system; }

DeviceTransport &CurrentDeviceTransport() { return *g_current.load(std::memory_order_acquire); }

DeviceTransport *SetDeviceTransport(DeviceTransport *transport) {
  return g_current.exchange(transport != nullptr ? transport : &g_system,
                            std::memory_order_acq_rel);
}

}  // namespace zel::host
