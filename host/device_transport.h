// The seam between the kernel channel and the kernel switch module's device.
//
// The channel never calls open, ioctl or close itself: it goes through the
// installed DeviceTransport.  The default one is the real system calls;
// tests and tools install another (the in-process emulated module, a
// recorder, a transport that fails) with SetDeviceTransport.
#pragma once

namespace zel::host {

class DeviceTransport {
 public:
  virtual ~DeviceTransport() = default;
  // Each follows its system call's contract: Open returns a descriptor, or
  // -1 with errno set; Ioctl and Close return -1 with errno set on failure.
  virtual int Open(const char *path, int flags) = 0;
  virtual int Ioctl(int fd, unsigned long request, void *arg) = 0;
  virtual int Close(int fd) = 0;
};

// The real open/ioctl/close.
DeviceTransport &SystemDeviceTransport();

// The transport in use now (the system one unless another was installed).
DeviceTransport &CurrentDeviceTransport();

// Installs transport (null puts the system one back) and returns the one it
// replaces.  The caller keeps ownership and keeps the transport alive while
// it is installed.  Safe to call from any thread, but a request already
// running keeps using the transport it started with.
DeviceTransport *SetDeviceTransport(DeviceTransport *transport);

}  // namespace zel::host
