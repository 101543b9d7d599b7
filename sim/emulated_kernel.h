// An in-process stand-in for the kernel switch module's character device.
//
// Install it as the channel's device transport (zel::kernel::ScopedTransport)
// and every ZELPYX_* call is served from the emulator's own state: its
// switches, ports and their global, host, port and uplink properties.  It
// honours the 424-byte command record and the status conventions of the
// real module: it writes `status` on every request it serves; a failing
// request makes ioctl return -1 with errno set; a reply or command output
// that does not fit the offered buffer is answered with STATUS_LIMIT_EXCEEDED
// and the needed length in dataLen (cmdOutLen), so that the library retries.
//
// Requests and their meaning here:
//   0  StateInit      replaces the whole state with the state blob in data
//                     (validated; nothing changes when it is refused; uplink
//                     values, which a state blob does not carry, are dropped)
//   1  StateCleanup   removes every switch dissociated from the host
//   2  StateSanitize  removes shadow and zombie ports from every switch
//   3  StateGet       the whole state as a state blob
//   4  SwitchAdd      a new switch, associated with the host
//   5  SwitchRemove   the switch with all its ports
//   6  Associate      marks the switch associated with the host
//   7  Dissociate     marks it dissociated (StateCleanup then removes it)
//   8-13              global and host property get, set, clear
//   14 PortAdd        data, when not empty, is the port's initial property
//                     list as serialized property data; a port's kind comes
//                     from its "com.zorlan.common.port.volatile.type"
//                     property (normal when absent) and never changes, so
//                     that property cannot be set or cleared afterwards
//   15-20             port remove, data get/set/clear, state get, find; a
//                     port is addressed by id: the normal port of that id,
//                     else the first port of that id
//   21, 22            switch port limit and version
//   26, 27            uplink value set and get, by the uplink index in name
//   28 CmdExec        commands: "echo" (output = input), "stats" (a text
//                     summary of the host, or of the switch in switchName),
//                     "ports" (one line "<id> <kind>" per port of the switch)
// Anything else fails with STATUS_NOT_SUPPORTED.  Text fields without a NUL
// and value addresses that are null while a length is given fail with
// STATUS_BAD_PARAM.
//
// Thread-safe: one mutex serialises every call.  Tests can count calls,
// inject failures, and make the device disappear.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>

#include "host/device_transport.h"
#include "sim/switch_table.h"
#include "zel/kernel.h"

namespace zel::sim {

class EmulatedKernel final : public host::DeviceTransport {
 public:
  explicit EmulatedKernel(uint32_t hostPortLimit = kDefaultHostPortLimit);
  ~EmulatedKernel() override;
  EmulatedKernel(const EmulatedKernel &) = delete;
  EmulatedKernel &operator=(const EmulatedKernel &) = delete;

  int Open(const char *path, int flags) override;
  int Ioctl(int fd, unsigned long request, void *arg) override;
  int Close(int fd) override;

  // --- test hooks ---
  enum class FaultKind {
    kFailWithStatus,      // fail, writing `status` (errno `error`)
    kFailWithoutStatus,   // fail without writing anything (errno `error`)
    kLimitWithoutLength,  // STATUS_LIMIT_EXCEEDED, lengths left as offered
  };
  struct Fault {
    FaultKind kind = FaultKind::kFailWithStatus;
    int request = -1;  // -1: the next request of any number
    ReturnStatus status = STATUS_FAILURE;
    int error = EIO;
  };
  // Each fault is used once, by the next request it matches, in the order
  // injected; the request is then not served.
  void InjectFault(const Fault &fault);
  // An absent device makes Open fail with ENOENT.
  void SetDevicePresent(bool present);

  struct Counters {
    uint64_t opens = 0;  // successful ones
    uint64_t failedOpens = 0;
    uint64_t closes = 0;
    uint64_t ioctls = 0;
  };
  Counters counters() const;
  uint64_t IoctlCount(int request) const;
  size_t OpenDescriptors() const;
  // The record as the last ioctl received it.
  ZELPYXCommand LastRecord() const;

 private:
  static constexpr size_t kCountedRequests = 30;  // 0..28, the rest in the last

  ReturnStatus Serve(unsigned long request, ZELPYXCommand &rec);
  ReturnStatus ServeSwitchProp(unsigned long request, ZELPYXCommand &rec);
  ReturnStatus ServePort(unsigned long request, ZELPYXCommand &rec);
  ReturnStatus ServeCommand(ZELPYXCommand &rec);

  mutable std::mutex mutex_;
  std::unique_ptr<SwitchTable> table_;
  std::set<int> openFds_;
  int nextFd_ = 100;
  bool present_ = true;
  std::deque<Fault> faults_;
  Counters counters_;
  std::array<uint64_t, kCountedRequests> perRequest_{};
  ZELPYXCommand lastRecord_{};
};

}  // namespace zel::sim
