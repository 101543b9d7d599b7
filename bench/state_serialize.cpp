// Writing and reading the whole state blob: 32 switches with 100 and with
// 4,000 ports each, 8 properties per port.  Reports the time per port
// ("per_port") and the blob bytes per second; the time per port should stay
// nearly flat from 100 to 4,000 ports per switch.  "x_memcpy" is the
// operation's throughput as a share of memcpy's for the blob's byte count,
// measured in the same run (fastest iteration against fastest memcpy);
// "best_per_port_ns" is the fastest iteration's time per port, and
// "memcpy_per_port_ns" that of memcpy for the same bytes.
//
// The C library hands freed memory back to the system once the free space at
// the top of the heap is large, and serves big blocks from fresh mappings; a
// table of 128,000 ports then pays for the system mapping the same pages again
// on every iteration while a small table keeps reusing its memory, which
// would compare the two sizes on unequal terms.  With ZEL_BENCH_KEEP_HEAP=0
// in the environment the default behaviour is kept; otherwise the heap
// retains its memory so that both sizes measure the library's own work.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "state/state_testing.h"
#include "zel/state.h"

namespace {

constexpr int kSwitches = 32;

const bool g_keepHeap = [] {
  const char *keep = std::getenv("ZEL_BENCH_KEEP_HEAP");
  if (keep != nullptr && std::string(keep) == "0") {
    return false;
  }
  mallopt(M_MMAP_MAX, 0);              // every block from the heap
  mallopt(M_TRIM_THRESHOLD, INT32_MAX);  // freed memory stays with the process
  return true;
}();

void *SysAlloc(uint64_t n) { return std::malloc(n); }

// Eight properties of the sizes a port typically carries.
PropertyList *PortList(int switchIndex, int port) {
  PropertyList *list = nullptr;
  ZELData_Alloc(&list, SysAlloc, std::free);
  std::string alias = "vm-" + std::to_string(switchIndex) + "-nic-" + std::to_string(port);
  uint32_t connectId = static_cast<uint32_t>(port * 7 + 1);
  uint32_t vlan = static_cast<uint32_t>(port % 4094 + 1);
  uint8_t mac[6] = {0x00, 0x50, 0x56, uint8_t(switchIndex), uint8_t(port >> 8), uint8_t(port)};
  uint8_t shaping[24] = {1};
  uint8_t teaming[64] = {2};
  uint8_t security[12] = {3};
  ZELData_Append(list, ZEL_PROP_PORT_ALIAS, alias.c_str(), uint32_t(alias.size() + 1), 16);
  ZELData_Append(list, "com.zorlan.common.port.connectid", &connectId, 4, 16);
  ZELData_Append(list, "com.zorlan.common.port.vlan", &vlan, 4, 16);
  ZELData_Append(list, "com.zorlan.common.port.mac", mac, sizeof mac, 16);
  ZELData_Append(list, "com.zorlan.common.port.shaping", shaping, sizeof shaping, 16);
  ZELData_Append(list, "com.zorlan.common.port.teaming", teaming, sizeof teaming, 16);
  ZELData_Append(list, "com.zorlan.common.port.security", security, sizeof security, 16);
  ZELData_Append(list, "com.zorlan.common.port.block", "\0", 1, 16);
  return list;
}

// Fills the table; the host limit is raised to hold 32 x 4,000 ports.
void Populate(int portsPerSwitch) {
  zel::state::testing::SetPortLimit(kSwitches * 4000);
  for (int s = 0; s < kSwitches; ++s) {
    std::string id = "sw-" + std::to_string(s);
    ZELState_SwitchAdd(id.c_str(), "benchswitch", uint32_t(portsPerSwitch), 7);
    ZELState_GlobalPropSet(id.c_str(), ZEL_PROP_SWITCH_ALIAS, id.c_str(), uint32_t(id.size() + 1),
                           0);
    for (int p = 0; p < portsPerSwitch; ++p) {
      PropertyList *list = PortList(s, p);
      if (ZELState_PortAdd(id.c_str(), std::to_string(p).c_str(), list) != STATUS_OK) {
        std::abort();
      }
    }
  }
}

using Clock = std::chrono::steady_clock;
double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// The fastest of five copies of `bytes` between two buffers already touched.
double MemcpySeconds(uint32_t bytes) {
  std::vector<uint8_t> src(bytes, 1), dst(bytes, 0);
  double best = 1e9;
  for (int i = 0; i < 5; ++i) {
    const auto t0 = Clock::now();
    std::memcpy(dst.data(), src.data(), bytes);
    benchmark::ClobberMemory();
    best = std::min(best, Seconds(Clock::now() - t0));
  }
  return best;
}

void Report(benchmark::State &state, int portsPerSwitch, uint32_t blobBytes, double best) {
  double ports = double(kSwitches) * portsPerSwitch;
  const double copy = MemcpySeconds(blobBytes);
  state.counters["x_memcpy"] = copy / best;
  // memcpy's own time per port: how much of the growth from the small to the
  // large blob the memory system alone makes.
  state.counters["memcpy_per_port_ns"] = copy * 1e9 / ports;
  // The fastest iteration, which waits least for a shared processor.
  state.counters["best_per_port_ns"] = best * 1e9 / ports;
  state.SetBytesProcessed(int64_t(state.iterations()) * blobBytes);
  state.counters["per_port"] = benchmark::Counter(
      ports, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["blob_MB"] = blobBytes / 1e6;
  state.SetLabel(g_keepHeap ? "heap kept" : "default heap");
}

void BM_ConfigSerialize(benchmark::State &state) {
  int portsPerSwitch = int(state.range(0));
  Populate(portsPerSwitch);
  uint32_t blobBytes = 0;
  double best = 1e9;
  for (auto _ : state) {
    void *buffer = nullptr;
    const auto t0 = Clock::now();
    if (ZELState_ConfigSerialize(&buffer, &blobBytes) != STATUS_OK) std::abort();
    best = std::min(best, Seconds(Clock::now() - t0));
    std::free(buffer);
  }
  Report(state, portsPerSwitch, blobBytes, best);
  zel::state::testing::ResetPortLimit();
}

void BM_ConfigDeserialize(benchmark::State &state) {
  int portsPerSwitch = int(state.range(0));
  Populate(portsPerSwitch);
  void *blob = nullptr;
  uint32_t blobBytes = 0;
  if (ZELState_ConfigSerialize(&blob, &blobBytes) != STATUS_OK) std::abort();
  ZELState_ConfigReset();
  double best = 1e9;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    if (ZELState_ConfigDeserialize(blob, blobBytes) != STATUS_OK) std::abort();
    best = std::min(best, Seconds(Clock::now() - t0));
    state.PauseTiming();
    ZELState_ConfigReset();
    state.ResumeTiming();
  }
  std::free(blob);
  Report(state, portsPerSwitch, blobBytes, best);
  zel::state::testing::ResetPortLimit();
}

}  // namespace

BENCHMARK(BM_ConfigSerialize)->Arg(100)->Arg(4000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConfigDeserialize)->Arg(100)->Arg(4000)->Unit(benchmark::kMillisecond);
