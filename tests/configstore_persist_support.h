// Configuration-store persistence tests: a fixture with a private store file and an empty state
// database, blob builders and a blob decoder.
#pragma once

#include <string>
#include <vector>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "configstore_client_support.h"
#include "host/feature_flags.h"
#include "log_capture.h"
#include "state_fixture.h"
#include "zel/configstore.h"

namespace persisttest {

using zelstatetest::Bytes;
using zelstatetest::Props;
using zelstatetest::Text;
using zelstatetest::U32;
using zelstatetest::DatabaseEmpty;
namespace cs = zel::cfgstore;
namespace zp = zel::persist;

inline constexpr uint32_t kFail = ZEL_CONFIGSTORE_FAILURE;

// Replaces the cases of some kinds for the life of the object.
class ScopedKinds {
 public:
  ScopedKinds(const std::vector<uint32_t> &kinds, zp::KindCase replacement) {
    for (uint32_t k : kinds) saved_.emplace_back(k, zp::testing::ReplaceKind(k, replacement));
  }
  ~ScopedKinds() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it)
      zp::testing::ReplaceKind(it->first, it->second);
  }
  ScopedKinds(const ScopedKinds &) = delete;
  ScopedKinds &operator=(const ScopedKinds &) = delete;

 private:
  std::vector<std::pair<uint32_t, zp::KindCase>> saved_;
};

inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// Text in a zero-filled slot of `size` bytes, cut to fit.
inline Bytes Slot(const std::string &text, size_t size) {
  Bytes b(size, 0);
  std::copy_n(text.begin(), std::min(text.size(), size), b.begin());
  return b;
}

inline uint32_t U32Size(const Bytes &b) { return static_cast<uint32_t>(b.size()); }
inline uint32_t NoSave(const zp::SaveArgs &) { return 0; }
inline uint32_t NoLoad(const zp::LoadArgs &) { return 0; }

struct SwitchDef {
  std::string id;
  std::string cls = "etherswitch";
  uint32_t version = 7;
  Props global;
  Props host;
  std::vector<std::pair<std::string, Props>> ports;
  uint32_t type = ZELDATA_PROPTYPE_LIBRARY;  // type word of every property
};

struct Loaded {
  uint32_t version = 0;
  Bytes className;
  uint32_t maxPorts = 0;
  Props global, host;
  std::vector<std::pair<std::string, Props>> ports;
};

inline Props Decode(const void *data, uint32_t length) {
  PropertyList *list = nullptr;
  EXPECT_EQ(ZELData_Deserialize(&list, data, length, std::malloc, std::free), STATUS_OK);
  Props props = list != nullptr ? zelstatetest::ListProps(list) : Props{};
  ZELData_Free(list);
  return props;
}

// Decodes a loaded blob into its switches, by id in blob order.
inline std::vector<std::pair<std::string, Loaded>> DecodeBlob(const void *blob, uint32_t length) {
  auto u32 = [](const Bytes &b) { return b.size() >= 4 ? zelstatetest::Get32(b, 0) : 0u; };
  std::vector<std::pair<std::string, Loaded>> out;
  for (const auto &[id, bytes] : Decode(blob, length)) {
    Loaded sw;
    for (const auto &[name, value] : Decode(bytes.data(), U32Size(bytes))) {
      if (name == "switchVersion") sw.version = u32(value);
      else if (name == "className") sw.className = value;
      else if (name == "maxPorts") sw.maxPorts = u32(value);
      else {
        Props p = Decode(value.data(), U32Size(value));
        if (name == "globalPropList") sw.global = std::move(p);
        else if (name == "hostPropList") sw.host = std::move(p);
        else sw.ports.emplace_back(name, std::move(p));
      }
    }
    out.emplace_back(id, std::move(sw));
  }
  return out;
}

class PersistTest : public zelstatetest::StateTest {
 protected:
  void SetUp() override {
    StateTest::SetUp();
    zelconfigstore_debug = -1;
  }
  void TearDown() override {
    zelconfigstore_debug = 10;
    zp::testing::SetLoadAllocator(nullptr, nullptr);
    zel::host::ClearConfigStoreFeatures();
    StateTest::TearDown();
  }

  // The switches as a state blob, built in the state database and reset.
  static Bytes Blob(const std::vector<SwitchDef> &switches) {
    for (const SwitchDef &s : switches) {
      EXPECT_EQ(ZELState_SwitchAdd(s.id.c_str(), s.cls.c_str(), 64, s.version), STATUS_OK);
      for (auto [props, set] : {std::pair{&s.global, &ZELState_GlobalPropSet},
                                {&s.host, &ZELState_HostPropSet}})
        for (const auto &[name, value] : *props)
          EXPECT_EQ(set(s.id.c_str(), name.c_str(), value.data(), U32Size(value), s.type),
                    STATUS_OK);
      for (const auto &[port, props] : s.ports) {
        PropertyList *list = zelstatetest::MakeList(props, s.type);
        EXPECT_EQ(ZELState_PortAdd(s.id.c_str(), port.c_str(), list), STATUS_OK);
      }
    }
    Bytes blob = zelstatetest::StateBlob();
    ZELState_ConfigReset();
    return blob;
  }

  static uint32_t Save(const Bytes &blob, const char *switchId = nullptr) {
    return ZELState_SaveBufToConfigStore_ByInstance(blob.data(), U32Size(blob), switchId);
  }
  static uint32_t Save(const std::vector<SwitchDef> &switches, const char *switchId = nullptr) {
    return Save(Blob(switches), switchId);
  }

  static std::vector<std::pair<std::string, Loaded>> LoadAll(uint32_t *status = nullptr,
                                                             bool desired = false) {
    void *blob = nullptr;
    uint32_t length = 0;
    const uint32_t rc = ZELState_LoadFromConfigStoreAsBuf(&blob, &length, desired);
    if (status != nullptr) *status = rc;
    std::vector<std::pair<std::string, Loaded>> out;
    if (rc == 0) out = DecodeBlob(blob, length);
    std::free(blob);
    return out;
  }
  static Loaded LoadOne() {
    auto all = LoadAll();
    EXPECT_EQ(all.size(), 1u);  // none when the load fails
    return all.empty() ? Loaded{} : all.front().second;
  }

  std::string Json(const char *id) const {
    return cfgtest::RawContent(store_.path(), "current", id);
  }
  // Everything the store holds, one line per row, for before/after compares.
  std::string Dump() const {
    return cfgtest::Query(store_.path(),
                          "SELECT layer, sel1, sel2, sel3, instance, content, origin FROM objects"
                          " ORDER BY layer, sel1, sel2, sel3, instance");
  }

  // Stores a switch object in the current layer, or the desired one.
  static void Put(const std::string &id, const std::string &content, bool desired = false) {
    cfgtest::StorePtr s = cfgtest::OpenStore();
    cs::Object *o = nullptr;
    ASSERT_EQ(cs::CreateObject("switches", "network_zel", "orn", id.c_str(), content.c_str(), &o),
              0);
    EXPECT_EQ(desired ? cs::SetDesired(s.get(), o) : cs::Set(s.get(), o, "EXTERNAL"), 0);
    cs::DestroyConfigStoreObject(o);
  }

  cfgtest::TempStore store_;
};

inline const Bytes *Find(const Props &props, const std::string &name) {
  for (const auto &[n, v] : props)
    if (n == name) return &v;
  return nullptr;
}

class RoundTripTest : public PersistTest {
 protected:
  // Saves switch `id` with ports p0, p1, ... and loads it back unless `expect` is a failure.
  Loaded RoundTrip(const char *id, const std::string &cls, Props global,
                   const std::vector<Props> &ports, uint32_t expect = 0, Props host = {}) {
    SwitchDef s;
    s.id = id;
    s.cls = cls;
    s.global = std::move(global);
    // Ports load only under a "resource_management" object.
    s.global.push_back({"com.zorlan.common.respools.sched", Bytes{0}});
    if (Find(s.global, "com.zorlan.common.version") == nullptr)
      s.global.push_back({"com.zorlan.common.version", U32(7)});
    s.host = std::move(host);
    for (size_t i = 0; i < ports.size(); ++i)
      s.ports.push_back({"p" + std::to_string(i), ports[i]});
    EXPECT_EQ(Save({s}), expect);
    return expect == 0 ? LoadOne() : Loaded{};
  }
};

}  // namespace persisttest
