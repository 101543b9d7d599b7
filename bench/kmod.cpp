// The emulated kernel module in process against the same module behind
// zel-kmodd: a small request (a port lookup, plain exchange) and a property
// fetch (reply exchange: an open, an ioctl and a close per call), and a
// whole-state fetch of 32 switches of 128 ports each.  The daemon runs as
// its own process; this one talks to it through the client the device shim
// runs (SocketTransport), so the numbers are the shim's less its symbol
// lookup.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "kernel/channel.h"
#include "sim/emulated_kernel.h"
#include "sim/kmod/socket_transport.h"
#include "zel/kernel.h"

namespace {

// A zel-kmodd process, stopped with the object.
class Daemon {
 public:
  Daemon() : socket_("/tmp/zel-kmod-bench-" + std::to_string(::getpid()) + ".sock") {
    ::unlink(socket_.c_str());
    pid_ = ::fork();
    if (pid_ == 0) {
      ::execl(ZEL_KMODD, "zel-kmodd", "--socket", socket_.c_str(), nullptr);
      ::_exit(127);
    }
    while (::access(socket_.c_str(), F_OK) != 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  ~Daemon() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  const std::string &socket() const { return socket_; }

 private:
  std::string socket_;
  pid_t pid_;
};

// A fresh module: in process, or in a daemon of its own.
struct Module {
  explicit Module(bool daemon) {
    if (!daemon) {
      device = std::make_unique<zel::sim::EmulatedKernel>();
      return;
    }
    process = std::make_unique<Daemon>();
    device = std::make_unique<zel::kmod::SocketTransport>(process->socket());
  }
  std::unique_ptr<Daemon> process;
  std::unique_ptr<zel::host::DeviceTransport> device;
};

void Fill(int switches, int ports) {
  for (int s = 0; s < switches; ++s) {
    const std::string sw = "sw" + std::to_string(s);
    ZELPYX_SwitchAdd(sw.c_str(), "vswitch", 0, 7);
    for (int p = 0; p < ports; ++p) {
      const std::string port = "port-" + std::to_string(p);
      ZELPYX_PortAdd(sw.c_str(), port.c_str(), nullptr, 0);
      ZELPYX_PortDataSet(sw.c_str(), port.c_str(), "com.zorlan.common.port.alias", port.c_str(),
                         static_cast<uint32_t>(port.size() + 1), 16);
      ZELPYX_PortDataSet(sw.c_str(), port.c_str(), "com.zorlan.common.port.portgroupid", "pg-a", 5,
                         16);
    }
  }
}

void BM_SmallRequest(benchmark::State &state) {
  Module module(state.range(0) != 0);
  zel::kernel::ScopedTransport use(module.device.get());
  Fill(1, 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZELPYX_PortFind("sw0", "port-0"));
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(state.range(0) ? "zel-kmodd" : "in process");
}
BENCHMARK(BM_SmallRequest)->Arg(0)->Arg(1)->UseRealTime();

void BM_PropertyFetch(benchmark::State &state) {
  Module module(state.range(0) != 0);
  zel::kernel::ScopedTransport use(module.device.get());
  Fill(1, 1);
  for (auto _ : state) {
    void *value = nullptr;
    uint32_t length = 0;
    ZELPYX_PortDataGet("sw0", "port-0", "com.zorlan.common.port.alias", &value, &length);
    ZELPYX_DataFree(value);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(state.range(0) ? "zel-kmodd" : "in process");
}
BENCHMARK(BM_PropertyFetch)->Arg(0)->Arg(1)->UseRealTime();

void BM_StateFetch32x128(benchmark::State &state) {
  Module module(state.range(0) != 0);
  zel::kernel::ScopedTransport use(module.device.get());
  Fill(32, 128);
  uint32_t length = 0;
  for (auto _ : state) {
    void *blob = nullptr;
    if (ZELPYX_StateGet(&blob, &length) != STATUS_OK) state.SkipWithError("StateGet failed");
    ZELPYX_DataFree(blob);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * length);
  state.SetLabel(std::string(state.range(0) ? "zel-kmodd" : "in process") + ", " +
                 std::to_string(length) + " bytes");
}
BENCHMARK(BM_StateFetch32x128)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
