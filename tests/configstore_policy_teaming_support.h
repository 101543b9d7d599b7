// Helpers of the teaming and VLAN conversion tests: a save-and-load round
// trip of one switch, property lookup and stored sub-objects by key.
#pragma once

#include <string>
#include <vector>

#include "configstore_persist_support.h"

namespace uplinktest {

using namespace persisttest;

inline const Bytes *Find(const Props &props, const std::string &name) {
  for (const auto &[n, v] : props)
    if (n == name) return &v;
  return nullptr;
}

// The JSON object stored under `key` at or after `from` ("" when absent).
inline std::string ObjectAt(const std::string &json, const std::string &key, size_t from = 0) {
  size_t at = json.find("\"" + key + "\":{", from);
  if (at == std::string::npos) return "";
  at += key.size() + 3;
  int depth = 0;
  for (size_t i = at; i < json.size(); ++i) {
    if (json[i] == '{') ++depth;
    if (json[i] == '}' && --depth == 0) return json.substr(at, i - at + 1);
  }
  return "";
}

class RoundTripTest : public PersistTest {
 protected:
  void TearDown() override {
    cs::testing::ClearFailures();
    PersistTest::TearDown();
  }
  // Saves switch `id` of class cls with ports p0, p1, ... and loads it back
  // (nothing is loaded when the save is expected to fail).
  Loaded RoundTrip(const char *id, const std::string &cls, Props global,
                   const std::vector<Props> &ports, uint32_t expect = 0, Props host = {}) {
    SwitchDef s;
    s.id = id;
    s.cls = cls;
    s.global = std::move(global);
    // Ports load only under a "resource_management" object.
    s.global.push_back({"com.zorlan.common.respools.sched", Bytes{0}});
    // The version is read back from the stored "product" object.
    if (Find(s.global, "com.zorlan.common.version") == nullptr)
      s.global.push_back({"com.zorlan.common.version", U32(7)});
    s.host = std::move(host);
    for (size_t i = 0; i < ports.size(); ++i)
      s.ports.push_back({"p" + std::to_string(i), ports[i]});
    EXPECT_EQ(Save({s}), expect);
    return expect == 0 ? LoadOne() : Loaded{};
  }
};

}  // namespace uplinktest
