// Configuration-store persistence: saving a state blob of one switch with
// 1,000 ports (8 mapped properties each) into a store file, and loading it
// back into a blob.  Every policy kind is built, so the figures include the
// conversions of the rows the bench switch carries; only a kind missing from
// the table would be stubbed by a case that does nothing.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "configstore/kinds.h"
#include "host/configstore_client.h"
#include "zel/configstore.h"
#include "zel/state.h"

namespace {

namespace cs = zel::cfgstore;
namespace zp = zel::persist;

constexpr int kPorts = 1000;

uint32_t NoSave(const zp::SaveArgs &) { return 0; }
uint32_t NoLoad(const zp::LoadArgs &) { return 0; }

void *Alloc(uint64_t n) { return std::malloc(n); }

template <typename T>
void Put(PropertyList *list, const char *name, const T &value) {
  ZELData_Append(list, name, &value, sizeof value, ZELDATA_PROPTYPE_LIBRARY);
}
void PutText(PropertyList *list, const char *name, const char *text) {
  ZELData_Append(list, name, text, static_cast<uint32_t>(std::strlen(text) + 1),
                 ZELDATA_PROPTYPE_LIBRARY);
}

// A store file in a temporary directory, a stub for any kind not built, and the
// state blob of the bench switch, for the whole run.
struct Bench {
  std::string dir;
  std::vector<uint8_t> blob;
  Bench() {
    char tmpl[] = "/tmp/zel_persistbench_XXXXXX";
    dir = mkdtemp(tmpl);
    cs::testing::UsePath((dir + "/configstore.db").c_str());
    for (uint32_t k : {6, 7, 8, 9, 10, 11, 12, 13, 16, 17, 18, 22, 24, 25, 26, 27, 28, 29, 33, 35,
                       36})
      if (zp::FindKind(k) == nullptr) zp::testing::ReplaceKind(k, zp::KindCase{NoSave, NoLoad});
    ZELState_SwitchAdd("bench-sw", "vswitch", 0, 7);
    const uint32_t version = 7, mtu = 9000;
    ZELState_GlobalPropSet("bench-sw", "com.zorlan.common.alias", "bench", 6, 16);
    ZELState_GlobalPropSet("bench-sw", "com.zorlan.common.version", &version, 4, 16);
    ZELState_GlobalPropSet("bench-sw", "com.zorlan.vswitch.mtu", &mtu, 4, 16);
    ZELState_GlobalPropSet("bench-sw", "com.zorlan.common.respools.sched", "\1", 1, 16);
    for (int i = 0; i < kPorts; ++i) {
      PropertyList *list = nullptr;
      ZELData_Alloc(&list, Alloc, std::free);
      PutText(list, "com.zorlan.common.port.alias", ("vm nic " + std::to_string(i)).c_str());
      Put(list, "com.zorlan.common.port.connectid", 1000000u + i);
      PutText(list, "com.zorlan.common.port.block", "false");
      Put(list, "com.zorlan.common.port.ptAllowed", 2u);
      PutText(list, "com.zorlan.vswitch.port.txUplink", "normal");
      PutText(list, "com.zorlan.common.port.portgroupid", "group-42");
      PutText(list, "com.zorlan.common.port.backingType", "standard");
      Put(list, "com.zorlan.vswitch.port.priority", static_cast<uint32_t>(i % 8));
      ZELState_PortAdd("bench-sw", ("port-" + std::to_string(i)).c_str(), list);
    }
    void *buffer = nullptr;
    uint32_t length = 0;
    ZELState_ConfigSerialize(&buffer, &length);
    blob.assign(static_cast<uint8_t *>(buffer), static_cast<uint8_t *>(buffer) + length);
    std::free(buffer);
    ZELState_ConfigReset();
    zelconfigstore_debug = -1;
  }
  ~Bench() { std::filesystem::remove_all(dir); }
};

Bench &Get() {
  static Bench b;
  return b;
}

void BM_SaveSwitch1000Ports(benchmark::State &state) {
  const std::vector<uint8_t> &blob = Get().blob;
  for (auto _ : state) {
    if (ZELState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size())) != 0)
      state.SkipWithError("save failed");
  }
  state.counters["blob_bytes"] = static_cast<double>(blob.size());
}
BENCHMARK(BM_SaveSwitch1000Ports)->Unit(benchmark::kMillisecond);

void BM_LoadSwitch1000Ports(benchmark::State &state) {
  const std::vector<uint8_t> &blob = Get().blob;
  ZELState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size()));
  for (auto _ : state) {
    void *out = nullptr;
    uint32_t length = 0;
    if (ZELState_LoadFromConfigStoreAsBuf(&out, &length, false) != 0)
      state.SkipWithError("load failed");
    std::free(out);
  }
}
BENCHMARK(BM_LoadSwitch1000Ports)->Unit(benchmark::kMillisecond);

}  // namespace
