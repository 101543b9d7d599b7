// Mirror-session conversion on an in-memory switch object (no store file):
// save and load of a table of 16 DVPORT_MIRROR sessions, each with 4
// destinations and 2 sources of each direction (128 port entries).
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

constexpr const char *kName = "com.zorlan.etherswitch.mirrorSessions";
constexpr uint32_t kSessions = 16;
constexpr uint32_t kDest = 4, kRecv = 2, kTransmit = 2;
constexpr size_t kEntry = 36;

void Put32(std::vector<uint8_t> &b, size_t at, uint32_t v) { std::memcpy(b.data() + at, &v, 4); }

std::vector<uint8_t> SessionTable() {
  const size_t entries = size_t{kSessions} * (kDest + kRecv + kTransmit);
  std::vector<uint8_t> b(20 + 232 * kSessions + kEntry * entries, 0);
  Put32(b, 8, kSessions);
  Put32(b, 12, static_cast<uint32_t>(entries));
  for (uint32_t i = 0; i < kSessions; ++i) {
    const size_t s = 20 + size_t{i} * 232;
    const std::string key = "session-" + std::to_string(i);
    std::memcpy(b.data() + s, key.data(), key.size());
    std::memcpy(b.data() + s + 32, "bench session", 13);
    Put32(b, s + 116, 1);
    Put32(b, s + 120, 0xFFFFFFFF);
    Put32(b, s + 216, kDest);
    Put32(b, s + 220, kRecv);
    Put32(b, s + 224, kTransmit);
  }
  for (size_t e = 0; e < entries; ++e) {
    const std::string port = "port-" + std::to_string(e);
    std::memcpy(b.data() + 20 + 232 * kSessions + e * kEntry + 4, port.data(), port.size());
  }
  return b;
}

// A switch object with its "settings" holding the saved sessions.
struct Saved {
  cs::Object *object = nullptr;
  cs::Object *settings = nullptr;
  explicit Saved(const std::vector<uint8_t> &table) {
    zelconfigstore_debug = -1;
    cs::CreateObject("switches", "network_zel", "orn", "bench", "{}", &object);
    cs::CreateSubObject(object, "settings", nullptr, &settings);
    const zp::SaveArgs args{object, settings, "vspans", kName, table.data(),
                            static_cast<uint32_t>(table.size()), 0, 16};
    status = zp::FindKind(9)->save(args);
  }
  ~Saved() { cs::DestroyConfigStoreObject(object); }
  uint32_t status = 0;
};

void BM_SaveMirrorSessions(benchmark::State &state) {
  const std::vector<uint8_t> table = SessionTable();
  for (auto _ : state) {
    Saved saved(table);
    if (saved.status != 0) state.SkipWithError("save failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * table.size()));
}
BENCHMARK(BM_SaveMirrorSessions);

void BM_LoadMirrorSessions(benchmark::State &state) {
  const std::vector<uint8_t> table = SessionTable();
  Saved saved(table);
  for (auto _ : state) {
    PropertyList *list = nullptr;
    ZELData_Alloc(&list, [](uint64_t n) { return std::malloc(n); }, std::free);
    const zp::LoadArgs args{saved.object, saved.settings, "vspans", list, kName, 16, 0, 7};
    if (zp::FindKind(9)->load(args) != 0) state.SkipWithError("load failed");
    ZELData_Free(list);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * table.size()));
}
BENCHMARK(BM_LoadMirrorSessions);

}  // namespace
