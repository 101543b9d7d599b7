// Port policy conversions on an in-memory port "settings" object (no store
// file): the save and the load of a filter policy of 4 filters with 8
// parameters each, and of an input traffic shaper.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "configstore/kinds.h"
#include "host/configstore_client.h"
#include "zel/configstore.h"
#include "zel/data.h"

namespace {

namespace cs = zel::cfgstore;
namespace zp = zel::persist;

constexpr const char *kFilter = "com.zorlan.common.port.dvfilter";
constexpr const char *kShaper = "com.zorlan.common.port.shaper.input";
constexpr uint32_t kFilters = 4;
constexpr uint32_t kParams = 8;

void PutU32(std::vector<uint8_t> &b, uint32_t v) {
  const size_t at = b.size();
  b.resize(at + sizeof v);
  std::memcpy(b.data() + at, &v, sizeof v);
}

std::vector<uint8_t> FilterPolicy() {
  std::vector<uint8_t> b;
  PutU32(b, kFilters);
  for (uint32_t f = 0; f < kFilters; ++f) {
    PutU32(b, f + 1);
    std::vector<uint8_t> agent(40, 0);
    std::memcpy(agent.data(), "bench-agent", 11);
    b.insert(b.end(), agent.begin(), agent.end());
    PutU32(b, kParams);
    PutU32(b, 1);
    for (uint32_t j = 0; j < kParams; ++j) {
      PutU32(b, j);
      std::vector<uint8_t> value(256, 0);
      const std::string text = "parameter-" + std::to_string(j) + "=value";
      std::memcpy(value.data(), text.data(), text.size());
      b.insert(b.end(), value.begin(), value.end());
    }
  }
  return b;
}

// Saves the value with its kind's case into a new settings object, then
// loads it back `iterations` times; the object lives for the whole run.
struct Converted {
  cs::Object *settings = nullptr;
  explicit Converted(uint32_t kind, const char *name, const char *key,
                     const std::vector<uint8_t> &value) {
    zelconfigstore_debug = -1;
    cs::CreateObject("switches", "network_zel", "orn", "bench", "{}", &settings);
    const zp::SaveArgs args{settings, settings, key, name, value.data(),
                            static_cast<uint32_t>(value.size()), 2, 16};
    zp::FindKind(kind)->save(args);
  }
  ~Converted() { cs::DestroyConfigStoreObject(settings); }
};

void SaveBench(benchmark::State &state, uint32_t kind, const char *name, const char *key,
               const std::vector<uint8_t> &value) {
  for (auto _ : state) {
    Converted c(kind, name, key, value);
    benchmark::DoNotOptimize(c.settings);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * value.size()));
}

void LoadBench(benchmark::State &state, uint32_t kind, const char *name, const char *key,
               const std::vector<uint8_t> &value) {
  Converted c(kind, name, key, value);
  for (auto _ : state) {
    PropertyList *list = nullptr;
    ZELData_Alloc(&list, [](uint64_t n) { return std::malloc(n); }, std::free);
    const zp::LoadArgs args{c.settings, c.settings, key, list, name, 16, 2, 7};
    if (zp::FindKind(kind)->load(args) != 0) state.SkipWithError("load failed");
    ZELData_Free(list);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * value.size()));
}

void BM_SaveFilterPolicy(benchmark::State &state) {
  SaveBench(state, 29, kFilter, "filter_policy", FilterPolicy());
}
BENCHMARK(BM_SaveFilterPolicy);

void BM_LoadFilterPolicy(benchmark::State &state) {
  LoadBench(state, 29, kFilter, "filter_policy", FilterPolicy());
}
BENCHMARK(BM_LoadFilterPolicy);

void BM_SaveShaper(benchmark::State &state) {
  SaveBench(state, 26, kShaper, "in_shaping_policy", std::vector<uint8_t>(24, 1));
}
BENCHMARK(BM_SaveShaper);

void BM_LoadShaper(benchmark::State &state) {
  LoadBench(state, 26, kShaper, "in_shaping_policy", std::vector<uint8_t>(24, 1));
}
BENCHMARK(BM_LoadShaper);

}  // namespace
