// Configuration-store client: writing and reading a large switch object
// (1,000 ports of 10 values each), listing 32 of them, and the same bytes
// written and read as a plain SQLite row on the same kind of connection, which
// is the storage engine's share of the cost.
#include "host/configstore_client.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

namespace cs = zel::cfgstore;

constexpr int kPorts = 1000;
constexpr int kSwitches = 32;

// A database file in a temporary directory for the whole run.
struct BenchStore {
  std::string dir, path;
  cs::Store *store = nullptr;
  BenchStore() {
    char tmpl[] = "/tmp/zel_cfgbench_XXXXXX";
    dir = mkdtemp(tmpl);
    path = dir + "/configstore.db";
    cs::testing::UsePath(path.c_str());
    if (cs::GetStore(0, &store) != cs::kOk) abort();
  }
  ~BenchStore() {
    cs::DestroyStore(store);
    std::filesystem::remove_all(dir);
  }
};

BenchStore &Bench() {
  static BenchStore b;
  return b;
}

cs::Object *BuildSwitch(const std::string &id, const char *sel3 = "orn") {
  cs::Object *o = nullptr;
  cs::CreateObject("switches", "network_zel", sel3, id.c_str(), "{}", &o);
  cs::SetValueStr(o, "uuid", id.c_str());
  cs::SetValueStr(o, "name", "bench switch");
  cs::SetValueInt(o, "max_ports", kPorts);
  cs::Object *product = nullptr;
  cs::CreateSubObject(o, "product", "", &product);
  cs::SetValueStr(product, "forwarding_class", "vswitch");
  cs::SetValueStr(product, "version", "7.0.0");
  for (int i = 0; i < kPorts; ++i) {
    std::string key = "port-" + std::to_string(i);
    cs::Object *p = nullptr;
    cs::CreateSubObject(o, "ports", key.c_str(), &p);
    cs::SetValueStr(p, "name", ("vm nic " + std::to_string(i)).c_str());
    cs::SetValueUint32(p, "connection_cookie", 1000000u + i);
    cs::SetValueStr(p, "port_group_key", "group-42");
    cs::SetValueBool(p, "blocked", false);
    cs::SetValueBool(p, "ferrox_gen2_allowed", true);
    cs::SetValueBool(p, "tx_uplink", false);
    cs::SetValueStr(p, "backing_type", "standard");
    cs::SetValueUint16(p, "vlan_id", static_cast<uint16_t>(i % 4094 + 1));
    cs::SetValueBool(p, "ipfix_enabled", i % 2 == 0);
    const unsigned char opaque[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    cs::SetValueBinary(p, "opaque", opaque, sizeof opaque);
  }
  return o;
}

std::string Export(cs::Object *o) {
  char *json = nullptr;
  cs::ExportObjectJson(o, &json);
  std::string out = json;
  free(json);
  return out;
}

void BM_BuildSwitchInMemory(benchmark::State &state) {
  for (auto _ : state) cs::DestroyConfigStoreObject(BuildSwitch("sw-build"));
}
BENCHMARK(BM_BuildSwitchInMemory)->Unit(benchmark::kMillisecond);

void BM_SetSwitch(benchmark::State &state) {
  cs::Object *o = BuildSwitch("sw-set");
  size_t bytes = Export(o).size();
  for (auto _ : state)
    if (cs::Set(Bench().store, o, "EXTERNAL") != cs::kOk) state.SkipWithError("Set failed");
  state.counters["json_bytes"] = static_cast<double>(bytes);
  cs::DestroyConfigStoreObject(o);
}
BENCHMARK(BM_SetSwitch)->Unit(benchmark::kMillisecond);

void BM_GetSwitch(benchmark::State &state) {
  cs::Object *o = BuildSwitch("sw-get");
  cs::Set(Bench().store, o, "EXTERNAL");
  cs::DestroyConfigStoreObject(o);
  for (auto _ : state) {
    cs::Object *got = nullptr;
    if (cs::Get(Bench().store, "switches", "network_zel", "orn", "sw-get", &got) != cs::kOk)
      state.SkipWithError("Get failed");
    cs::DestroyConfigStoreObject(got);
  }
}
BENCHMARK(BM_GetSwitch)->Unit(benchmark::kMillisecond);

void BM_GetInstances32(benchmark::State &state) {
  cs::Store *store = Bench().store;
  cs::BeginTransaction(store);
  // Listed under selectors of their own, so that no other object is counted.
  for (int i = 0; i < kSwitches; ++i) {
    cs::Object *o = BuildSwitch("sw-" + std::to_string(i), "bench32");
    cs::Set(store, o, "EXTERNAL");
    cs::DestroyConfigStoreObject(o);
  }
  cs::CommitTransaction(store);
  cs::Filter *f = nullptr;
  cs::CreateFilterSpecObject("switches", "network_zel", "bench32", "", &f);
  for (auto _ : state) {
    cs::Object **objs = nullptr;
    int n = 0;
    if (cs::GetInstances(store, f, &objs, &n) != cs::kOk || n != kSwitches)
      state.SkipWithError("GetInstances failed");
    for (int i = 0; i < n; ++i) cs::DestroyConfigStoreObject(objs[i]);
    free(objs);
  }
  cs::DestroyFilterSpecObject(f);
}
BENCHMARK(BM_GetInstances32)->Unit(benchmark::kMillisecond);

// The engine alone: the same JSON bytes into a plain table, on a connection
// set up like the client's (WAL, synchronous FULL).
struct PlainDb {
  sqlite3 *db = nullptr;
  sqlite3_stmt *put = nullptr, *get = nullptr, *all = nullptr;
  PlainDb() {
    sqlite3_open(Bench().path.c_str(), &db);
    sqlite3_exec(db,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                 "CREATE TABLE IF NOT EXISTS plain (id TEXT PRIMARY KEY, content TEXT NOT NULL)",
                 nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO plain VALUES (?1, ?2)", -1, &put, nullptr);
    sqlite3_prepare_v2(db, "SELECT content FROM plain WHERE id=?1", -1, &get, nullptr);
    sqlite3_prepare_v2(db, "SELECT id, content FROM plain WHERE id LIKE 'many-%' ORDER BY id", -1,
                       &all, nullptr);
  }
  ~PlainDb() {
    sqlite3_finalize(put);
    sqlite3_finalize(get);
    sqlite3_finalize(all);
    sqlite3_close(db);
  }
  bool Put(const std::string &id, const std::string &content) {
    sqlite3_reset(put);
    sqlite3_bind_text(put, 1, id.data(), static_cast<int>(id.size()), SQLITE_STATIC);
    sqlite3_bind_text(put, 2, content.data(), static_cast<int>(content.size()), SQLITE_STATIC);
    return sqlite3_step(put) == SQLITE_DONE;
  }
};

void BM_PlainRowWrite(benchmark::State &state) {
  cs::Object *o = BuildSwitch("sw-set");
  std::string json = Export(o);
  cs::DestroyConfigStoreObject(o);
  PlainDb plain;
  for (auto _ : state)
    if (!plain.Put("sw-plain", json)) state.SkipWithError("insert failed");
  state.counters["json_bytes"] = static_cast<double>(json.size());
}
BENCHMARK(BM_PlainRowWrite)->Unit(benchmark::kMillisecond);

void BM_PlainRowRead(benchmark::State &state) {
  cs::Object *o = BuildSwitch("sw-get");
  std::string json = Export(o);
  cs::DestroyConfigStoreObject(o);
  PlainDb plain;
  plain.Put("sw-plain-read", json);
  for (auto _ : state) {
    sqlite3_reset(plain.get);
    sqlite3_bind_text(plain.get, 1, "sw-plain-read", -1, SQLITE_STATIC);
    if (sqlite3_step(plain.get) != SQLITE_ROW) state.SkipWithError("select failed");
    std::string copy(reinterpret_cast<const char *>(sqlite3_column_text(plain.get, 0)),
                     static_cast<size_t>(sqlite3_column_bytes(plain.get, 0)));
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_PlainRowRead)->Unit(benchmark::kMillisecond);

void BM_PlainRowsRead32(benchmark::State &state) {
  cs::Object *o = BuildSwitch("sw");
  std::string json = Export(o);
  cs::DestroyConfigStoreObject(o);
  PlainDb plain;
  sqlite3_exec(plain.db, "BEGIN", nullptr, nullptr, nullptr);
  for (int i = 0; i < kSwitches; ++i) plain.Put("many-" + std::to_string(100 + i), json);
  sqlite3_exec(plain.db, "COMMIT", nullptr, nullptr, nullptr);
  for (auto _ : state) {
    sqlite3_reset(plain.all);
    int n = 0;
    while (sqlite3_step(plain.all) == SQLITE_ROW) {
      std::string copy(reinterpret_cast<const char *>(sqlite3_column_text(plain.all, 1)),
                       static_cast<size_t>(sqlite3_column_bytes(plain.all, 1)));
      benchmark::DoNotOptimize(copy);
      ++n;
    }
    if (n != kSwitches) state.SkipWithError("wrong row count");
  }
}
BENCHMARK(BM_PlainRowsRead32)->Unit(benchmark::kMillisecond);

}  // namespace
