// Policy conversion tests: a case saves a value with one kind on an in-memory object and loads it
// back, or loads given content, and compares the exact content, properties, status and output.
#pragma once

#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "configstore_persist_support.h"
#include "test_support.h"

namespace policytest {

using namespace persisttest;
using Op = cs::testing::Op;
constexpr int32_t kOther = zp::kClassOther, kVs = zp::kClassVswitch, kCs = zp::kClassCswitch;

// Little-endian record writer at fixed offsets.
struct Record {
  Bytes b;
  explicit Record(size_t size) : b(size, 0) {}
  Record &le(size_t at, uint64_t v, size_t n) {
    for (size_t i = 0; i < n; ++i) b.at(at + i) = static_cast<uint8_t>(v >> (8 * i));
    return *this;
  }
  Record &u8(size_t at, uint8_t v) { return le(at, v, 1); }
  Record &u16(size_t at, uint16_t v) { return le(at, v, 2); }
  Record &u32(size_t at, uint32_t v) { return le(at, v, 4); }
  Record &text(size_t at, const std::string &s) { return raw(at, Bytes(s.begin(), s.end())); }
  Record &raw(size_t at, const Bytes &bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) b.at(at + i) = bytes[i];
    return *this;
  }
};

inline Bytes U16(uint16_t v) { return Record(2).u16(0, v).b; }

// A counted list of names in slots of `slot` bytes; the count is that of the names unless given.
inline Bytes NameList(const std::vector<std::string> &names, size_t slot, int64_t count = -1) {
  Bytes b = U32(static_cast<uint32_t>(count < 0 ? names.size() : count));
  for (const std::string &n : names) b = Cat({b, Slot(n, slot)});
  return b;
}
inline Bytes Short(Bytes b) { return b.pop_back(), b; }  // the value less its last byte
inline Bytes U64(uint64_t v) { return Record(8).le(0, v, 8).b; }

struct Fault {
  Op op = Op::kGetSubObject;
  int status = 0, skip = 0;  // status 0: none
};

struct Case {
  uint32_t kind;
  const char *key, *name;
  std::optional<Bytes> save;  // saved on "{}"; without it the case loads `json`
  std::string json;  // the content after the save ("-": not compared), or the one loaded;
                     // "@body" stands for {"<key>":body}
  Props loaded;               // what the load adds (no load after a failing save)
  uint32_t status = 0;        // of the save, or of the load
  Fault fault = {};           // injected before the save, or the load
  int32_t cls = zp::kClassOther;
  const char *out = nullptr;  // the debug output, when compared
  bool qor = false;
  uint32_t version = 7, table = zp::kTableGlobal, type = 16;
  std::vector<uint32_t> types = {};  // of the loaded entries; empty: all 16
};

// Instance ids are random: shown as "*".
inline std::string Masked(const std::string &json) {
  static const std::regex id(R"("key":"[0-9a-f]{8}-[0-9a-f-]{27}")");
  return std::regex_replace(json, id, R"("key":"*")");
}

inline cfgtest::ObjectPtr Stored(const std::string &content) {
  cs::Object *o = nullptr;
  EXPECT_EQ(cs::CreateObject("switches", "network_zel", "orn", "sw", content.c_str(), &o), 0);
  return cfgtest::ObjectPtr(o);
}

inline uint32_t SaveOn(cs::Object *o, uint32_t kind, const char *key, const char *name,
                       const Bytes &value, uint32_t table = zp::kTableGlobal, uint32_t type = 16) {
  const zp::SaveArgs args{o, o, key, name, value.empty() ? nullptr : value.data(),
                          static_cast<uint32_t>(value.size()), table, type};
  return zp::FindKind(kind)->save(args);
}

// Runs a case on the switch class and QOR flag it names; returns the content after its save.
inline std::string Check(const Case &c) {
  SCOPED_TRACE(::testing::Message() << "kind " << c.kind << " " << c.name << " "
                                    << (c.save ? c.save->size() : 0));
  zeltest::ScopedLevel cls(zp::currentSwitchClass, c.cls);
  const bool qor = std::exchange(zp::currentSwitchIsQor, c.qor);
  const std::string want =
      c.json[0] == '@' ? "{\"" + std::string(c.key) + "\":" + c.json.substr(1) + "}" : c.json;
  cfgtest::ObjectPtr o = Stored(c.save ? "{}" : want);
  std::optional<uint32_t> saved, loaded;
  std::string json;
  PropertyList *list = zelstatetest::MakeList({});
  zeltest::ScopedLevel level(zelconfigstore_debug, c.out != nullptr ? 0 : zelconfigstore_debug);
  const std::string out = zeltest::CaptureStdout([&] {
    if (c.fault.status != 0) cs::testing::FailNext(c.fault.op, c.fault.status, c.fault.skip);
    if (c.save) {
      saved = SaveOn(o.get(), c.kind, c.key, c.name, *c.save, c.table, c.type);
      json = Masked(cfgtest::Json(o.get()));
    }
    if (saved.value_or(0) == 0 && (!c.save || c.status == 0))
      loaded = zp::FindKind(c.kind)->load({o.get(), o.get(), c.key, list, c.name, 16, c.table,
                                           c.version});
  });
  const Props props = zelstatetest::ListProps(list);
  std::vector<uint32_t> types;
  for (PropertyEntry *e = nullptr; ZELData_Next(list, e, &e) == STATUS_OK;)
    types.push_back(ZELData_PropType(e));
  ZELData_Free(list);
  cs::testing::ClearFailures();
  zp::currentSwitchIsQor = qor;
  if (c.save) {
    EXPECT_EQ(saved, c.status);
    EXPECT_EQ(json, want == "-" ? json : want) << "saved";
  }
  if (loaded) {
    EXPECT_EQ(*loaded, c.save ? 0u : c.status);
    EXPECT_EQ(props, c.loaded);
    EXPECT_EQ(types, c.types.empty() ? std::vector<uint32_t>(props.size(), 16) : c.types);
  }
  EXPECT_EQ(out, c.out != nullptr ? c.out : out);
  return json;
}

inline void Check(const std::vector<Case> &cases) {
  for (const Case &c : cases) Check(c);
}

}  // namespace policytest
