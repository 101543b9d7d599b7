// Opaque-data and resource-pool conversion tests: cases run on an in-memory object, and whole saves
// and loads of switches whose properties carry types.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <tuple>
#include <vector>

#include "configstore_persist_support.h"

namespace policytest {

using namespace persisttest;

struct Typed {
  std::string name;
  Bytes value;
  uint32_t type;
  bool operator==(const Typed &o) const {
    return std::tie(name, value, type) == std::tie(o.name, o.value, o.type);
  }
};
using TypedProps = std::vector<Typed>;

inline std::ostream &operator<<(std::ostream &os, const Typed &t) {
  os << t.name << "/" << t.type << "/[";
  for (uint8_t b : t.value) os << int(b) << ",";
  return os << "]";
}

inline PropertyList *NewList() {
  PropertyList *list = nullptr;
  EXPECT_EQ(ZELData_Alloc(&list, [](uint64_t n) { return std::malloc(n); }, std::free), STATUS_OK);
  return list;
}

inline TypedProps ListTyped(PropertyList *list) {
  TypedProps out;
  PropertyEntry *entry = nullptr;
  while (ZELData_Next(list, entry, &entry) == STATUS_OK) {
    void *value = nullptr;
    const uint32_t length = ZELData_Data(entry, &value);
    const auto *b = static_cast<const uint8_t *>(value);
    out.push_back({ZELData_Name(entry), Bytes(b, b + length), ZELData_PropType(entry)});
  }
  return out;
}

inline TypedProps DecodeTyped(const Bytes &bytes) {
  PropertyList *list = nullptr;
  EXPECT_EQ(ZELData_Deserialize(&list, bytes.data(), static_cast<uint32_t>(bytes.size()),
                                [](uint64_t n) { return std::malloc(n); }, std::free),
            STATUS_OK);
  TypedProps out = list != nullptr ? ListTyped(list) : TypedProps{};
  ZELData_Free(list);
  return out;
}

class PolicyTest : public PersistTest {
 protected:
  void TearDown() override {
    cs::testing::ClearFailures();
    PersistTest::TearDown();
  }
};

inline cfgtest::ObjectPtr Stored(const std::string &content) {
  cs::Object *o = nullptr;
  EXPECT_EQ(cs::CreateObject("switches", "network_zel", "orn", "sw", content.c_str(), &o), 0);
  return cfgtest::ObjectPtr(o);
}

// The object's stored content, parsed.
inline nlohmann::json Content(cs::Object *o) { return nlohmann::json::parse(cfgtest::Json(o)); }

inline uint32_t SaveCase(uint32_t kind, cs::Object *parent, const char *key, const char *name,
                         const Bytes &value, uint32_t type, uint32_t table = zp::kTableGlobal) {
  const zp::SaveArgs args{parent, parent, key, name, value.empty() ? nullptr : value.data(),
                          static_cast<uint32_t>(value.size()), table, type};
  return zp::FindKind(kind)->save(args);
}

// The load case of row `name`; the properties it added in *out.
inline uint32_t LoadCase(uint32_t kind, cs::Object *parent, const char *key, const char *name,
                         TypedProps *out, uint32_t table = zp::kTableGlobal) {
  PropertyList *list = NewList();
  const zp::LoadArgs args{parent, parent, key, list, name, ZELDATA_PROPTYPE_LIBRARY, table, 7};
  const uint32_t status = zp::FindKind(kind)->load(args);
  *out = ListTyped(list);
  ZELData_Free(list);
  return status;
}

struct TypedSwitch {
  TypedProps global, host;
  std::vector<std::pair<std::string, TypedProps>> ports;
};
using TypedLoaded = TypedSwitch;

// Switch "sw" built in the state database as a state blob (the database is left empty).

inline Bytes TypedBlob(const TypedSwitch &s) {
  EXPECT_EQ(ZELState_SwitchAdd("sw", "etherswitch", 64, 7), STATUS_OK);
  for (const Typed &p : s.global)
    EXPECT_EQ(ZELState_GlobalPropSet("sw", p.name.c_str(), p.value.data(),
                                     static_cast<uint32_t>(p.value.size()), p.type),
              STATUS_OK);
  for (const Typed &p : s.host)
    EXPECT_EQ(ZELState_HostPropSet("sw", p.name.c_str(), p.value.data(),
                                   static_cast<uint32_t>(p.value.size()), p.type),
              STATUS_OK);
  for (const auto &[id, props] : s.ports) {
    PropertyList *list = NewList();
    for (const Typed &p : props)
      EXPECT_EQ(ZELData_Append(list, p.name.c_str(), p.value.data(),
                               static_cast<uint32_t>(p.value.size()), p.type),
                STATUS_OK);
    EXPECT_EQ(ZELState_PortAdd("sw", id.c_str(), list), STATUS_OK);
  }
  Bytes blob = zelstatetest::StateBlob();
  ZELState_ConfigReset();
  return blob;
}

// Loads every stored switch and hands back the first; status in *status.
inline TypedLoaded LoadTyped(uint32_t *status) {
  void *blob = nullptr;
  uint32_t length = 0;
  *status = ZELState_LoadFromConfigStoreAsBuf(&blob, &length, false);
  TypedLoaded out;
  if (*status == 0) {
    const auto *b = static_cast<const uint8_t *>(blob);
    TypedProps switches = DecodeTyped(Bytes(b, b + length));
    if (!switches.empty()) {
      for (const Typed &entry : DecodeTyped(switches.front().value)) {
        if (entry.name == "globalPropList") {
          out.global = DecodeTyped(entry.value);
        } else if (entry.name == "hostPropList") {
          out.host = DecodeTyped(entry.value);
        } else if (entry.name != "switchVersion" && entry.name != "className" &&
                   entry.name != "maxPorts") {
          out.ports.emplace_back(entry.name, DecodeTyped(entry.value));
        }
      }
    }
  }
  std::free(blob);
  return out;
}

inline TypedProps Only(const TypedProps &props, const std::vector<std::string> &names) {
  TypedProps out;
  for (const Typed &p : props)
    for (const std::string &n : names)
      if (p.name == n) out.push_back(p);
  return out;
}

}  // namespace policytest
