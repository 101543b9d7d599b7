// Catch-all data and resource pool conversions on an in-memory object (no
// store file): saving and loading 256 port properties spread over the
// "data" lists, and a configuration of 64 resource pools.
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

constexpr int kProps = 256;
constexpr uint32_t kPools = 64;
constexpr const char *kPoolsName = "com.zorlan.common.respools.cfg";

struct Prop {
  std::string name;
  std::vector<uint8_t> value;
  uint32_t type;
};

// Every fourth property each: opaque (24), vendor text (16), extra-config
// text (8) and other data (8).
std::vector<Prop> PortProps() {
  std::vector<Prop> props;
  for (int i = 0; i < kProps; ++i) {
    const std::string n = std::to_string(i);
    const std::string text = "value-" + n;
    std::vector<uint8_t> bytes(text.begin(), text.end());
    bytes.push_back(0);
    switch (i % 4) {
      case 0: props.push_back({"com.bench.opaque." + n, std::vector<uint8_t>(64, 7), 24}); break;
      case 1: props.push_back({"com.bench.vendor." + n, bytes, 16}); break;
      case 2: props.push_back({"com.zorlan.port.extraConfig." + n, bytes, 8}); break;
      default: props.push_back({"com.bench.other." + n, std::vector<uint8_t>(32, 1), 8}); break;
    }
  }
  return props;
}

std::vector<uint8_t> PoolConfig() {
  std::vector<uint8_t> b(4 + 212 * kPools, 0);
  std::memcpy(b.data(), &kPools, 4);
  for (uint32_t i = 0; i < kPools; ++i) {
    uint8_t *r = b.data() + 4 + 212 * i;
    const std::string key = "pool-" + std::to_string(i);
    std::memcpy(r, key.data(), key.size());
    std::memcpy(r + 129, &i, 4);
    std::memcpy(r + 200, &i, 4);
    std::memcpy(r + 204, &i, 4);
  }
  return b;
}

cs::Object *NewObject() {
  zelconfigstore_debug = -1;
  cs::Object *o = nullptr;
  cs::CreateObject("switches", "network_zel", "orn", "bench", "{}", &o);
  return o;
}

uint32_t Save(cs::Object *o, uint32_t kind, const char *key, const Prop &p) {
  const zp::SaveArgs args{o, o, key, p.name.c_str(), p.value.data(),
                          static_cast<uint32_t>(p.value.size()), 2, p.type};
  return zp::FindKind(kind)->save(args);
}

uint32_t Load(cs::Object *o, uint32_t kind, const char *key, const char *name) {
  PropertyList *list = nullptr;
  ZELData_Alloc(&list, [](uint64_t n) { return std::malloc(n); }, std::free);
  const zp::LoadArgs args{o, o, key, list, name, 16, 2, 7};
  const uint32_t status = zp::FindKind(kind)->load(args);
  ZELData_Free(list);
  return status;
}

void BM_SavePortData(benchmark::State &state) {
  const std::vector<Prop> props = PortProps();
  for (auto _ : state) {
    cs::Object *o = NewObject();
    for (const Prop &p : props) {
      if (Save(o, 33, "data", p) != 0) state.SkipWithError("save failed");
    }
    cs::DestroyConfigStoreObject(o);
  }
  state.SetItemsProcessed(state.iterations() * kProps);
}
BENCHMARK(BM_SavePortData);

void BM_LoadPortData(benchmark::State &state) {
  cs::Object *o = NewObject();
  for (const Prop &p : PortProps()) Save(o, 33, "data", p);
  for (auto _ : state) {
    if (Load(o, 33, "data", "DEFAULT") != 0) state.SkipWithError("load failed");
  }
  cs::DestroyConfigStoreObject(o);
  state.SetItemsProcessed(state.iterations() * kProps);
}
BENCHMARK(BM_LoadPortData);

void BM_SavePools(benchmark::State &state) {
  const Prop pools{kPoolsName, PoolConfig(), 16};
  for (auto _ : state) {
    cs::Object *o = NewObject();
    if (Save(o, 12, "traffic_resources", pools) != 0) state.SkipWithError("save failed");
    cs::DestroyConfigStoreObject(o);
  }
  state.SetItemsProcessed(state.iterations() * kPools);
}
BENCHMARK(BM_SavePools);

void BM_LoadPools(benchmark::State &state) {
  cs::Object *o = NewObject();
  Save(o, 12, "traffic_resources", {kPoolsName, PoolConfig(), 16});
  for (auto _ : state) {
    if (Load(o, 12, "traffic_resources", kPoolsName) != 0) state.SkipWithError("load failed");
  }
  cs::DestroyConfigStoreObject(o);
  state.SetItemsProcessed(state.iterations() * kPools);
}
BENCHMARK(BM_LoadPools);

}  // namespace
