// The kernel channel against the in-process emulated module: a plain
// request, a property fetch, whole-state fetches of growing size (one ioctl
// while the state fits the first reply buffer, two beyond it), and the
// operations that load the kernel's state into the state database: the
// persistable state, a vendor list and the search by external id.
#include <benchmark/benchmark.h>

#include <string>

#include "kernel/channel.h"
#include "sim/emulated_kernel.h"
#include "state/state_testing.h"
#include "zel/data.h"
#include "zel/kernel.h"

namespace {

void FillSwitches(int switches, int portsPerSwitch) {
  for (int s = 0; s < switches; ++s) {
    const std::string sw = "sw" + std::to_string(s);
    ZELPYX_SwitchAdd(sw.c_str(), "vswitch", 0, 7);
    ZELPYX_GlobalPropSet(sw.c_str(), "com.zorlan.common.alias", sw.c_str(),
                         static_cast<uint32_t>(sw.size() + 1), 16);
    for (int p = 0; p < portsPerSwitch; ++p) {
      const std::string port = std::to_string(p);
      ZELPYX_PortAdd(sw.c_str(), port.c_str(), nullptr, 0);
      ZELPYX_PortDataSet(sw.c_str(), port.c_str(), "com.zorlan.common.port.alias", port.c_str(),
                         static_cast<uint32_t>(port.size() + 1), 16);
    }
  }
}

void BM_PlainRequest(benchmark::State &state) {
  zel::sim::EmulatedKernel kernel;
  zel::kernel::ScopedTransport use(&kernel);
  FillSwitches(1, 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZELPYX_PortFind("sw0", "0"));
  }
}
BENCHMARK(BM_PlainRequest);

void BM_PropertyGet(benchmark::State &state) {
  zel::sim::EmulatedKernel kernel;
  zel::kernel::ScopedTransport use(&kernel);
  FillSwitches(1, 0);
  for (auto _ : state) {
    void *value = nullptr;
    uint32_t length = 0;
    ZELPYX_GlobalPropGet("sw0", "com.zorlan.common.alias", &value, &length);
    ZELPYX_DataFree(value);
  }
}
BENCHMARK(BM_PropertyGet);

// Fetches a whole state blob with fetch(blob, length) in the loop, over 4
// switches of state.range(0) ports each; returns the last blob's length.
template <typename Fetch>
uint32_t FetchStates(benchmark::State &state, Fetch fetch) {
  FillSwitches(4, static_cast<int>(state.range(0)));
  uint32_t length = 0;
  for (auto _ : state) {
    void *blob = nullptr;
    fetch(&blob, &length);
    ZELPYX_DataFree(blob);
  }
  state.counters["blobBytes"] = length;
  return length;
}

// Argument: ports on each of 4 switches.
void BM_StateGet(benchmark::State &state) {
  zel::sim::EmulatedKernel kernel;
  zel::kernel::ScopedTransport use(&kernel);
  FetchStates(state, ZELPYX_StateGet);
  state.counters["ioctlsPerGet"] = benchmark::Counter(
      static_cast<double>(kernel.IoctlCount(ZELPYX_REQ_STATE_GET)), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_StateGet)->Arg(0)->Arg(8)->Arg(16)->Arg(32)->Arg(48)->Arg(64)->Arg(512);

// Argument: ports on each of 4 switches.  Fetch, load, reduce, serialize
// and reset: the full cost of one persistable state.
void BM_PersistentStateGet(benchmark::State &state) {
  zel::state::testing::SetPortLimit(4096);
  zel::sim::EmulatedKernel kernel;
  zel::kernel::ScopedTransport use(&kernel);
  FetchStates(state, ZELPYX_PersistentStateGet);
  zel::state::testing::SetPortLimit(0);
}
BENCHMARK(BM_PersistentStateGet)->Arg(0)->Arg(64)->Arg(512);

// Argument: ports on each of 4 switches; a switch-level slice pays for the
// whole state although it reads one switch.
void BM_VendorGlobalPropList(benchmark::State &state) {
  zel::state::testing::SetPortLimit(4096);
  zel::sim::EmulatedKernel kernel;
  zel::kernel::ScopedTransport use(&kernel);
  FillSwitches(4, static_cast<int>(state.range(0)));
  for (auto _ : state) {
    PropertyList *list = nullptr;
    ZELPYX_VendorGlobalPropList("sw0", &list, 16);
    ZELData_Free(list);
  }
  zel::state::testing::SetPortLimit(0);
}
BENCHMARK(BM_VendorGlobalPropList)->Arg(0)->Arg(512);

}  // namespace
