// Port VLAN policies and private-VLAN maps through a real store file.
#include <regex>
#include <string>

#include "configstore_persist_support.h"

using namespace persisttest;

namespace {

constexpr const char *kEsVlan = "com.zorlan.etherswitch.port.vlan";
constexpr const char *kVsVlan = "com.zorlan.vswitch.port.vlan";
constexpr const char *kEsMap = "com.zorlan.etherswitch.pvlanMap";
constexpr const char *kVsMap = "com.zorlan.vswitch.pvlanMap";

// Little-endian u16 words.
Bytes W(std::initializer_list<uint16_t> words) {
  Bytes b;
  for (uint16_t w : words) {
    b.push_back(static_cast<uint8_t>(w));
    b.push_back(static_cast<uint8_t>(w >> 8));
  }
  return b;
}

// One private-VLAN map entry, reserved bytes as given.
Bytes Entry(uint16_t primary, uint16_t secondary, uint8_t type, uint8_t reserved = 0) {
  Bytes b = W({primary, secondary});
  b.insert(b.end(), {type, reserved, reserved, reserved});
  return b;
}
// Instance ids are random: shown as "*".
std::string Masked(const std::string &json) {
  static const std::regex id(R"("key":"[0-9a-f]{8}-[0-9a-f-]{27}")");
  return std::regex_replace(json, id, R"("key":"*")");
}

class PersistVlan : public RoundTripTest {
 protected:
  Loaded RoundTrip(const std::string &cls, Props global, const std::vector<Props> &ports,
                   uint32_t expect = 0, Props host = {}) {
    return RoundTripTest::RoundTrip("sw-v", cls, std::move(global), ports, expect, std::move(host));
  }
  // The stored "vlan" object of port i, instance ids masked.
  std::string PortVlanJson(size_t i) {
    const std::string json = Masked(Json("sw-v"));
    return ObjectAt(json, "vlan", json.find(R"("key":"p)" + std::to_string(i) + "\""));
  }
};

TEST_F(PersistVlan, PortPoliciesSaveExactObjectsAndLoadBack) {
  const struct {
    Bytes saved;
    const char *stored;
    Bytes loaded;
  } cases[] = {
      {W({0, 100, 0, 0}), R"({"@types":{"vlan_id":"uint16"},"trunk_vlan_ids":[],"vlan_id":100})",
       W({0, 100, 0, 0})},
      {W({2, 200, 9, 0}), R"({"@types":{"pvlan_id":"uint16"},"pvlan_id":200,"trunk_vlan_ids":[]})",
       W({2, 200, 0, 0})},
      // Bit 1 is ignored for a trunk; so is the id.
      {W({3, 77, 0, 1, 5, 6}),
       R"({"trunk_vlan_ids":[{"@types":{"end":"uint16","start":"uint16"},"end":6,"key":"*",)"
       R"("start":5}]})",
       W({1, 0, 0, 1, 5, 6})},
      {W({1, 0, 0, 2, 1, 10, 20, 30}),
       R"({"trunk_vlan_ids":[{"@types":{"end":"uint16","start":"uint16"},"end":10,"key":"*",)"
       R"("start":1},{"@types":{"end":"uint16","start":"uint16"},"end":30,"key":"*","start":20}]})",
       W({1, 0, 0, 2, 1, 10, 20, 30})},
      // An empty trunk comes back as VLAN 0.
      {W({1, 5, 0, 0}), R"({"trunk_vlan_ids":[]})", W({0, 0, 0, 0})},
  };
  std::vector<Props> ports;
  for (const auto &c : cases) ports.push_back({{kEsVlan, c.saved}});
  Loaded sw = RoundTrip("etherswitch", {}, ports);
  ASSERT_EQ(sw.ports.size(), std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(PortVlanJson(i), cases[i].stored);
    EXPECT_EQ(sw.ports[i].second, (Props{{kEsVlan, cases[i].loaded}}));
  }
}

TEST_F(PersistVlan, SwitchClassChoosesThePortKind) {
  // Other classes: kind 25 saves nothing.
  Loaded es = RoundTrip("etherswitch", {}, {{{kVsVlan, W({0, 42, 0, 0})}}});
  EXPECT_EQ(PortVlanJson(0), "");
  EXPECT_TRUE(es.ports.at(0).second.empty());

  // vswitch and cswitch: both kinds write the one object (each save first empties the trunk list);
  // the private VLAN wins on load, and a trunk range hides both ids.
  for (const char *cls : {"vswitch", "cswitch"}) {
    SCOPED_TRACE(cls);
    Loaded vs = RoundTrip(cls, {}, {{{kEsVlan, W({0, 100, 0, 0})}, {kVsVlan, W({2, 200, 0, 0})}},
                                    {{kEsVlan, W({0, 9, 0, 0})}, {kVsVlan, W({1, 0, 0, 1, 3, 4})}},
                                    {{kEsVlan, W({0, 7, 0, 0})}}});
    ASSERT_EQ(vs.ports.size(), 3u);
    EXPECT_EQ(vs.ports[0].second, (Props{{kVsVlan, W({2, 200, 0, 0})}}));
    EXPECT_EQ(vs.ports[1].second, (Props{{kVsVlan, W({1, 0, 0, 1, 3, 4})}}));
    EXPECT_EQ(vs.ports[2].second, (Props{{kVsVlan, W({0, 7, 0, 0})}}));
  }
}

TEST_F(PersistVlan, ShortPortValuesAreRefused) {
  const std::string before = Dump();
  for (const Bytes &value : {Bytes{}, W({0, 1, 0}), W({1, 0, 0, 2, 1, 10, 20}),
                             Cat({W({1, 0, 0, 2, 1, 10, 20}), Bytes{30}})}) {
    RoundTrip("etherswitch", {}, {{{kEsVlan, value}}}, kFail);
    EXPECT_EQ(Dump(), before);
  }
  // A single VLAN needs only its 8 bytes, whatever the range count says.
  Loaded sw = RoundTrip("etherswitch", {}, {{{kEsVlan, W({0, 5, 0, 9})}}});
  EXPECT_EQ(sw.ports.at(0).second, (Props{{kEsVlan, W({0, 5, 0, 0})}}));
}

TEST_F(PersistVlan, PrivateVlanMapSavesEntriesAndLoadsUnderTheClassProperty) {
  // 20 bytes: two entries, the last 4 bytes ignored; reserved bytes dropped.
  const Bytes map = Cat({Entry(10, 11, 1, 0xAA), Entry(10, 12, 2), Entry(10, 13, 3)});
  const Bytes saved(map.begin(), map.begin() + 20);
  const Bytes loaded = Cat({Entry(10, 11, 1), Entry(10, 12, 2)});
  const std::string stored =
      R"("pvlans":[{"@types":{"primary_id":"uint16","secondary_id":"uint16"},"key":"*",)"
      R"("primary_id":10,"secondary_id":11,"type":"PROMISCUOUS"},)"
      R"({"@types":{"primary_id":"uint16","secondary_id":"uint16"},"key":"*",)"
      R"("primary_id":10,"secondary_id":12,"type":"ISOLATED"}])";
  const struct {
    const char *cls;
    const char *qor;  // host "com.zorlan.common.portset.qor"
    uint32_t version;
    const char *owner;
  } cases[] = {
      {"etherswitch", "false", 7, kEsMap}, {"vswitch", "false", 7, kEsMap},
      {"cswitch", "false", 7, kVsMap},     {"etherswitch", "true", 107, kVsMap},
      {"vswitch", "true", 107, kVsMap},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.cls) + " " + c.qor);
    // Both properties save into the one list; the second save replaces it.
    Loaded sw = RoundTrip(c.cls,
                          {{"com.zorlan.common.version", U32(c.version)},
                           {kEsMap, Entry(1, 2, 3)},
                           {kVsMap, saved}},
                          {}, 0, {{"com.zorlan.common.portset.qor", Text(c.qor)}});
    EXPECT_NE(Masked(Json("sw-v")).find(stored), std::string::npos) << Json("sw-v");
    ASSERT_NE(Find(sw.global, c.owner), nullptr);
    EXPECT_EQ(*Find(sw.global, c.owner), loaded);
    EXPECT_EQ(Find(sw.global, c.owner == kEsMap ? kVsMap : kEsMap), nullptr);
  }
}

TEST_F(PersistVlan, PrivateVlanMapFailures) {
  // A type without a name refuses the whole map before anything is written.
  const std::string before = Dump();
  for (uint8_t type : {0, 4, 255}) {
    RoundTrip("etherswitch", {{kEsMap, Cat({Entry(1, 2, 1), Entry(1, 3, type)})}}, {}, kFail);
    EXPECT_EQ(Dump(), before);
  }
  // An empty map saves an empty list and loads as nothing.
  Loaded sw = RoundTrip("etherswitch", {{kEsMap, Bytes{1, 2, 3}}}, {});
  EXPECT_NE(Json("sw-v").find(R"("pvlans":[])"), std::string::npos);
  EXPECT_EQ(Find(sw.global, kEsMap), nullptr);

  const std::string head =
      R"({"uuid":"sw-p","max_ports":8,"product":{"forwarding_class":"etherswitch",)"
      R"("version":"7.0.0"},"settings":{"pvlans":[{"key":"a","primary_id":1,"secondary_id":2,)";
  const struct {
    const char *tail;
    uint32_t status;
    const char *out;
  } cases[] = {
      {R"("type":"isolated"}]}})", kFail, "Unknown PvlanType isolated\n"},
      {R"("type":"ISOLATED"},{"key":"b","secondary_id":2,"type":"ISOLATED"}]}})",
       static_cast<uint32_t>(cs::kNotFound), ""},
      {R"("type":2}]}})", static_cast<uint32_t>(cs::kTypeMismatch), ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tail);
    Put("sw-p", (head + c.tail).c_str());
    zelconfigstore_debug = 0;
    uint32_t status = 0;
    const std::string out = zeltest::CaptureStdout([&] { LoadAll(&status); });
    zelconfigstore_debug = -1;
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(out.rfind(c.out, 0), 0u) << out;
    EXPECT_NE(out.find("Faild to load prop: com.zorlan.etherswitch.pvlanMap, key: pvlans, type:6"),
              std::string::npos)
        << out;
  }
}

}  // namespace
