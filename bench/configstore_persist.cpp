// Configuration-store persistence: saving a state blob of 32 switches with
// 128 and with 1,000 ports each (8 mapped properties per port) into a store
// file, and loading it back into a blob, through every conversion the
// switches' rows name.
//
// Beside each save and load, the same stored JSON is written and read as
// plain SQLite rows on the same file and connection settings (one
// transaction for the write), which is the floor of the work: the counter
// "x_raw" is the library's time over the raw time, measured in the same run.
// "raw_fresh_ms" writes the rows into an emptied table instead (the raw
// write overwrites unchanged rows, as a repeated save does, and SQLite then
// writes almost nothing); "x_fresh" is the save's time over that.  A load
// also prints the size of the blob it returns ("blob_MB") and the time of
// one memcpy of that many bytes ("blob_memcpy_ms"), and the time simdjson's
// DOM parser takes to parse the stored JSON once ("parse_ms").  Parsing the
// text and writing the blob once are work no load can skip: "floor_ms" is
// their sum, and "x_floor" the load's time over it.  "rss_growth_MB" is how
// far the peak resident memory rose during one operation above what the
// process held before it, with freed heap memory handed back to the system
// first.
//
// Two more counters split a load into its parts.  "tree_ms" is the store
// client's share: opening the store and reading every switch object into
// the client's objects.  "lists_ms" is the property-list share: building
// the blob's property lists from values already in hand, one entry per
// value as the conversions add them, nesting each port's list into its
// switch list and writing the blob, as the load does.  "x_raw_lists" is the
// raw read, the parse and that list work over the raw read: a load that
// builds property lists cannot come below it.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <simdjson.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "configstore/kinds.h"
#include "data/property_list_internal.h"
#include "host/configstore_client.h"
#include "state/state_testing.h"
#include "zel/configstore.h"
#include "zel/state.h"

namespace {

namespace cs = zel::cfgstore;
using Clock = std::chrono::steady_clock;

constexpr int kSwitches = 32;


void *Alloc(uint64_t n) { return std::malloc(n); }

[[noreturn]] void Die(int line) {
  std::fprintf(stderr, "bench_configstore_persist: setup failed at line %d\n", line);
  std::abort();
}

template <typename T>
void Put(PropertyList *list, const char *name, const T &value) {
  ZELData_Append(list, name, &value, sizeof value, ZELDATA_PROPTYPE_LIBRARY);
}
void PutText(PropertyList *list, const char *name, const char *text) {
  ZELData_Append(list, name, text, static_cast<uint32_t>(std::strlen(text) + 1),
                 ZELDATA_PROPTYPE_LIBRARY);
}

// The state blob of 32 switches with `ports` ports each.
std::vector<uint8_t> MakeBlob(int ports) {
  for (int s = 0; s < kSwitches; ++s) {
    const std::string id = "bench-sw-" + std::to_string(s);
    if (ZELState_SwitchAdd(id.c_str(), "vswitch", static_cast<uint32_t>(ports), 7) != STATUS_OK)
      Die(__LINE__);
    const uint32_t version = 7, mtu = 9000;
    ZELState_GlobalPropSet(id.c_str(), "com.zorlan.common.alias", id.c_str(),
                           static_cast<uint32_t>(id.size() + 1), 16);
    ZELState_GlobalPropSet(id.c_str(), "com.zorlan.common.version", &version, 4, 16);
    ZELState_GlobalPropSet(id.c_str(), "com.zorlan.vswitch.mtu", &mtu, 4, 16);
    ZELState_GlobalPropSet(id.c_str(), "com.zorlan.common.respools.sched", "\1", 1, 16);
    for (int i = 0; i < ports; ++i) {
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
      if (ZELState_PortAdd(id.c_str(), ("port-" + std::to_string(i)).c_str(), list) != STATUS_OK)
        Die(__LINE__);
    }
  }
  void *buffer = nullptr;
  uint32_t length = 0;
  if (ZELState_ConfigSerialize(&buffer, &length) != STATUS_OK) Die(__LINE__);
  std::vector<uint8_t> blob(static_cast<uint8_t *>(buffer), static_cast<uint8_t *>(buffer) + length);
  std::free(buffer);
  ZELState_ConfigReset();
  return blob;
}

// The store file of one size, with its blob saved once.
struct Bench {
  std::string dir, path;
  std::vector<uint8_t> blob;
  explicit Bench(int ports) {
    char tmpl[] = "/tmp/zel_persistbench_XXXXXX";
    dir = mkdtemp(tmpl);
    path = dir + "/configstore.db";
    zelconfigstore_debug = -1;
    // The host limit holds the largest table (also while a save loads it).
    zel::state::testing::SetPortLimit(kSwitches * 1000);
    blob = MakeBlob(ports);
    Use();
    if (ZELState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size())) != 0)
      Die(__LINE__);
  }
  void Use() const { cs::testing::UsePath(path.c_str()); }
  ~Bench() { std::filesystem::remove_all(dir); }
};

Bench &Get(int ports) {
  static Bench small(128);
  if (ports == 128) return small;
  static Bench large(1000);
  return large;
}

// A connection configured as the store's own.
sqlite3 *OpenRaw(const std::string &path) {
  sqlite3 *db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      nullptr) !=
      SQLITE_OK)
    Die(__LINE__);
  sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
  return db;
}

// The stored rows of the switch objects: (instance, content).
std::vector<std::pair<std::string, std::string>> ReadRows(sqlite3 *db) {
  sqlite3_stmt *st = nullptr;
  sqlite3_prepare_v2(db,
                     "SELECT instance, content FROM objects WHERE layer='current' AND"
                     " sel1='switches' AND sel2='network_zel' AND sel3='orn' ORDER BY instance",
                     -1, &st, nullptr);
  std::vector<std::pair<std::string, std::string>> rows;
  while (sqlite3_step(st) == SQLITE_ROW) {
    rows.emplace_back(
        std::string(reinterpret_cast<const char *>(sqlite3_column_text(st, 0)),
                    static_cast<size_t>(sqlite3_column_bytes(st, 0))),
        std::string(reinterpret_cast<const char *>(sqlite3_column_text(st, 1)),
                    static_cast<size_t>(sqlite3_column_bytes(st, 1))));
  }
  sqlite3_finalize(st);
  return rows;
}

// The same rows written back in one transaction, as the save writes them.
void WriteRows(sqlite3 *db, const std::vector<std::pair<std::string, std::string>> &rows) {
  sqlite3_stmt *st = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT INTO objects (layer, sel1, sel2, sel3, instance, content, origin)"
                     " VALUES ('current', 'switches', 'network_zel', 'orn', ?1, ?2, 'EXTERNAL')"
                     " ON CONFLICT (layer, sel1, sel2, sel3, instance)"
                     " DO UPDATE SET content=excluded.content, origin=excluded.origin",
                     -1, &st, nullptr);
  sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  for (const auto &[id, content] : rows) {
    sqlite3_bind_text(st, 1, id.data(), static_cast<int>(id.size()), SQLITE_STATIC);
    sqlite3_bind_text(st, 2, content.data(), static_cast<int>(content.size()), SQLITE_STATIC);
    if (sqlite3_step(st) != SQLITE_DONE) {
      std::fprintf(stderr, "raw write: %s\n", sqlite3_errmsg(db));
      Die(__LINE__);
    }
    sqlite3_reset(st);
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_finalize(st);
}

long StatusKb(const char *field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field));
  }
  return 0;
}

// The rise of the peak resident memory during one run of `op`, in MB.
template <typename Op>
double PeakGrowthMb(Op op) {
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak restarts at the current size
  const long base = StatusKb("VmRSS:");
  op();
  return static_cast<double>(StatusKb("VmHWM:") - base) / 1024.0;
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Best of five rounds of `op`, in seconds.
template <typename Op>
double BestOf(Op op) {
  double best = 1e9;
  for (int i = 0; i < 5; ++i) {
    const auto t0 = Clock::now();
    op();
    best = std::min(best, Seconds(Clock::now() - t0));
  }
  return best;
}

void Report(benchmark::State &state, double libSeconds, double rawSeconds, double growthMb,
            size_t storedBytes) {
  state.counters["raw_ms"] = rawSeconds * 1e3;
  state.counters["x_raw"] = libSeconds / rawSeconds;
  state.counters["json_MB"] = static_cast<double>(storedBytes) / 1e6;
  state.counters["rss_growth_MB"] = growthMb;
}

size_t StoredBytes(const std::vector<std::pair<std::string, std::string>> &rows) {
  size_t n = 0;
  for (const auto &row : rows) n += row.second.size();
  return n;
}

bool Save(const Bench &b) {
  return ZELState_SaveBufToConfigStore(b.blob.data(), static_cast<uint32_t>(b.blob.size())) == 0;
}

void BM_Save(benchmark::State &state) {
  const Bench &b = Get(static_cast<int>(state.range(0)));
  b.Use();
  const double growth = PeakGrowthMb([&] { Save(b); });
  double libSeconds = 1e9;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    if (!Save(b)) state.SkipWithError("save failed");
    libSeconds = std::min(libSeconds, Seconds(Clock::now() - t0));
  }
  sqlite3 *db = OpenRaw(b.path);
  const auto rows = ReadRows(db);
  const double raw = BestOf([&] { WriteRows(db, rows); });
  sqlite3_close(db);
  sqlite3 *fresh = OpenRaw(b.dir + "/fresh.db");
  sqlite3_exec(fresh,
               "CREATE TABLE IF NOT EXISTS objects (layer TEXT NOT NULL, sel1 TEXT NOT NULL,"
               " sel2 TEXT NOT NULL, sel3 TEXT NOT NULL, instance TEXT NOT NULL,"
               " content TEXT NOT NULL, origin TEXT NOT NULL DEFAULT '',"
               " PRIMARY KEY (layer, sel1, sel2, sel3, instance))",
               nullptr, nullptr, nullptr);
  const double rawFresh = BestOf([&] {
    sqlite3_exec(fresh, "DELETE FROM objects", nullptr, nullptr, nullptr);
    WriteRows(fresh, rows);
  });
  sqlite3_close(fresh);
  state.counters["raw_fresh_ms"] = rawFresh * 1e3;
  state.counters["x_fresh"] = libSeconds / rawFresh;
  Report(state, libSeconds, raw, growth, StoredBytes(rows));
}

// The switch objects read into the client's objects, as a load reads them.
void ReadObjects() {
  cs::Store *store = nullptr;
  cs::Filter *filter = nullptr;
  cs::Object **objects = nullptr;
  int count = 0;
  if (cs::GetStore(0, &store) != cs::kOk ||
      cs::CreateFilterSpecObject("switches", "network_zel", "orn", "", &filter) != cs::kOk ||
      cs::GetInstances(store, filter, &objects, &count) != cs::kOk)
    Die(__LINE__);
  for (int i = 0; i < count; ++i) cs::DestroyConfigStoreObject(objects[i]);
  std::free(objects);
  cs::DestroyFilterSpecObject(filter);
  cs::DestroyStore(store);
}

// The values of a blob, decoded once: a switch list's plain values and its
// nested lists (global, host and one per port), each with its values.
struct Value {
  std::string name;
  uint32_t type;
  std::vector<uint8_t> bytes;
};
struct NestedList {
  std::string name;
  std::vector<Value> values;
};
struct SwitchValues {
  std::string uuid;
  std::vector<Value> plain;
  std::vector<NestedList> lists;
};

std::vector<Value> ValuesOf(const void *data, uint32_t length) {
  PropertyList *list = nullptr;
  if (ZELData_Deserialize(&list, data, length, Alloc, std::free) != STATUS_OK) Die(__LINE__);
  std::vector<Value> values;
  for (PropertyEntry *e = nullptr; ZELData_Next(list, e, &e) == STATUS_OK;) {
    void *bytes = nullptr;
    const uint32_t n = ZELData_Data(e, &bytes);
    const auto *p = static_cast<const uint8_t *>(bytes);
    values.push_back(Value{ZELData_Name(e), ZELData_PropType(e), {p, p + n}});
  }
  ZELData_Free(list);
  return values;
}

std::vector<SwitchValues> Decode(const std::vector<uint8_t> &blob) {
  std::vector<SwitchValues> switches;
  for (Value &sw : ValuesOf(blob.data(), static_cast<uint32_t>(blob.size()))) {
    SwitchValues out{sw.name, {}, {}};
    for (Value &v : ValuesOf(sw.bytes.data(), static_cast<uint32_t>(sw.bytes.size()))) {
      if (v.name == "switchVersion" || v.name == "className" || v.name == "maxPorts") {
        out.plain.push_back(std::move(v));
      } else {
        out.lists.push_back(
            NestedList{v.name, ValuesOf(v.bytes.data(), static_cast<uint32_t>(v.bytes.size()))});
      }
    }
    switches.push_back(std::move(out));
  }
  return switches;
}

// The property-list work of a load whose values are already decoded.
void BuildBlob(const std::vector<SwitchValues> &switches) {
  namespace zd = zel::data;
  std::vector<zd::NamedList> lists;
  uint64_t total = zd::kHeaderSize + zd::kEndMarkerSize;
  for (const SwitchValues &sw : switches) {
    PropertyList *list = nullptr;
    ZELData_Alloc(&list, Alloc, std::free);
    for (const Value &v : sw.plain)
      ZELData_Update(list, v.name.c_str(), v.bytes.data(), static_cast<uint32_t>(v.bytes.size()),
                     v.type);
    for (const NestedList &nested : sw.lists) {
      PropertyList *inner = nullptr;
      ZELData_Alloc(&inner, Alloc, std::free);
      for (const Value &v : nested.values)
        ZELData_Update(inner, v.name.c_str(), v.bytes.data(),
                       static_cast<uint32_t>(v.bytes.size()), v.type);
      zd::AppendSerialized(list, nested.name.c_str(), inner, 7, ZELDATA_PROPTYPE_LIBRARY);
      ZELData_Free(inner);
    }
    total += zd::EntryLengthFor(list->serialSize);
    lists.push_back({sw.uuid.c_str(), list});
  }
  void *blob = nullptr;
  uint32_t length = 0;
  if (zd::SerializeLists(lists.data(), lists.size(), static_cast<uint32_t>(total),
                         ZELDATA_PROPTYPE_LIBRARY, Alloc, std::free, &blob, &length) != STATUS_OK)
    Die(__LINE__);
  benchmark::DoNotOptimize(blob);
  std::free(blob);
  for (const zd::NamedList &named : lists) ZELData_Free(named.list);
}

void BM_Load(benchmark::State &state) {
  const Bench &b = Get(static_cast<int>(state.range(0)));
  b.Use();
  uint32_t blobLength = 0;
  const double growth = PeakGrowthMb([&] {
    void *out = nullptr;
    ZELState_LoadFromConfigStoreAsBuf(&out, &blobLength, false);
    std::free(out);
  });
  double libSeconds = 1e9;
  for (auto _ : state) {
    void *out = nullptr;
    uint32_t length = 0;
    const auto t0 = Clock::now();
    if (ZELState_LoadFromConfigStoreAsBuf(&out, &length, false) != 0)
      state.SkipWithError("load failed");
    std::free(out);
    libSeconds = std::min(libSeconds, Seconds(Clock::now() - t0));
  }
  sqlite3 *db = OpenRaw(b.path);
  size_t stored = 0;
  const double raw = BestOf([&] { stored = StoredBytes(ReadRows(db)); });
  const auto rows = ReadRows(db);
  sqlite3_close(db);
  Report(state, libSeconds, raw, growth, stored);
  std::vector<simdjson::padded_string> texts;
  for (const auto &row : rows) texts.emplace_back(row.second);
  simdjson::dom::parser parser;
  const double parse = BestOf([&] {
    for (const auto &text : texts) {
      if (parser.parse(text).error() != simdjson::SUCCESS) state.SkipWithError("parse failed");
    }
  });
  // The blob a load returns is several times the stored JSON: copying that
  // many bytes once is a floor of its own.
  std::vector<uint8_t> from(blobLength, 1), to(blobLength);
  const double copy = BestOf([&] { std::memcpy(to.data(), from.data(), from.size()); });
  benchmark::DoNotOptimize(to.data());
  state.counters["blob_MB"] = static_cast<double>(blobLength) / 1e6;
  state.counters["blob_memcpy_ms"] = copy * 1e3;
  state.counters["parse_ms"] = parse * 1e3;
  state.counters["floor_ms"] = (parse + copy) * 1e3;
  state.counters["x_floor"] = libSeconds / (parse + copy);
  state.counters["tree_ms"] = BestOf(ReadObjects) * 1e3;
  const std::vector<SwitchValues> values = Decode(b.blob);
  const double lists = BestOf([&] { BuildBlob(values); });
  state.counters["lists_ms"] = lists * 1e3;
  state.counters["x_raw_lists"] = (raw + parse + lists) / raw;
}

}  // namespace

// "x_raw" compares the fastest iteration with the fastest raw round.
BENCHMARK(BM_Save)->Arg(128)->Arg(1000)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_Load)->Arg(128)->Arg(1000)->Unit(benchmark::kMillisecond)->MinTime(2);
