// Port policy conversions (shaping, MAC, filters, teaming, VLANs) and the private-VLAN map.
#include <string>
#include <tuple>

#include "configstore/policy/port_policies.h"
#include "configstore_policy_support.h"

using namespace policytest;

namespace {

constexpr const char *kShaperIn = "com.zorlan.common.port.shaper.input";
constexpr const char *kShaperOut = "com.zorlan.common.port.shaper.output";
constexpr const char *kEtherSecurity = "com.zorlan.etherswitch.port.security";
constexpr const char *kVswitchSecurity = "com.zorlan.vswitch.port.security";
constexpr const char *kFilter = "com.zorlan.common.port.dvfilter";
constexpr const char *kVsTeaming = "com.zorlan.vswitch.port.teaming.policy";
constexpr const char *kEsTeaming = "com.zorlan.etherswitch.port.teaming";
constexpr const char *kEsVlan = "com.zorlan.etherswitch.port.vlan";
constexpr const char *kVsVlan = "com.zorlan.vswitch.port.vlan";
constexpr const char *kEsMap = "com.zorlan.etherswitch.pvlanMap";
constexpr const char *kVsMap = "com.zorlan.vswitch.pvlanMap";
constexpr const char *kMac = "mac_management_policy", *kFp = "filter_policy";
constexpr const char *kTeamObject = "uplink_teaming_policy";

class PolicyPort : public RoundTripTest {};

Bytes Filter(uint32_t slot, const std::string &agent, uint32_t onFailure,
             const std::vector<std::pair<uint32_t, std::string>> &params, int64_t numParams = -1) {
  Bytes b = Cat({U32(slot), Slot(agent, 40),
                 U32(static_cast<uint32_t>(numParams < 0 ? params.size() : numParams)),
                 U32(onFailure)});
  for (const auto &[index, value] : params) b = Cat({b, U32(index), Slot(value, 256)});
  return b;
}

TEST_F(PolicyPort, ShapingAndMacManagement) {
  const std::string kInt64s =
      R"({"@types":{"average_bandwidth":"int64","burst_size":"int64","peak_bandwidth":"int64"},)";
  // {1000, 2000, 3000}, and a number whose product wraps modulo 2^64.
  const Bytes in = Cat({U64(1000), U64(2000), U64(3000)});
  const Bytes out = Cat({U64(1), U64(0x2000000000000001ull), U64(0)});
  const std::string both = R"({"in_shaping_policy":{"burst_size":80},)"
                           R"("out_shaping_policy":{"burst_size":800}})";
  const std::string mac = R"({"mac_management_policy":{"allow_forged_transmit":false,)"
                          R"("allow_mac_change":true,"allow_promiscuous":false}})";
  Check({
      {26, "in_shaping_policy", kShaperIn, in,
       R"({"in_shaping_policy":)" + kInt64s +
           R"("average_bandwidth":8000,"burst_size":24000,"enabled":true,"peak_bandwidth":16000}})",
       {{kShaperIn, in}}},
      {26, "out_shaping_policy", kShaperOut, out,
       R"({"out_shaping_policy":)" + kInt64s +
           R"("average_bandwidth":8,"burst_size":0,"enabled":true,"peak_bandwidth":8}})",
       {{kShaperOut, Cat({U64(1), U64(1), U64(0)})}}},
      // Division rounds toward zero, missing keys give 0, and "enabled" is not looked at.
      {26, "in_shaping_policy", kShaperIn, {},
       R"({"in_shaping_policy":{"average_bandwidth":12,"peak_bandwidth":-12,"enabled":false}})",
       {{kShaperIn, Cat({U64(1), U64(~uint64_t{0}), U64(0)})}}},
      // Only the input row with the input object and the output row with the output object load.
      {26, "out_shaping_policy", kShaperIn, {}, both, {}},
      {26, "out_shaping_policy", kShaperOut, {}, both, {{kShaperOut, Record(24).u8(16, 100).b}}},
      {26, "in_shaping_policy", kShaperIn, Bytes(23, 0), "{}", {}, kFail},
      // What was written before a failure stays; an unreadable object is skipped.
      {26, "in_shaping_policy", kShaperIn, in,
       R"(@{"@types":{"average_bandwidth":"int64"},"average_bandwidth":8000,"enabled":true})", {},
       7, {Op::kSetValueLong, 7, 1}},
      {26, "in_shaping_policy", kShaperIn, {}, "@{}", {}, 0, {Op::kGetSubObject, 3}},

      // Both kinds save on any class, bits above 2 dropped; kind 28 loads on vswitch classes only.
      {27, kMac, kEtherSecurity, U32(0xFFFFFFFD), mac, {{kEtherSecurity, U32(5)}}},
      {28, kMac, kVswitchSecurity, U32(0xFFFFFFFD), mac, {}},
      {28, kMac, kVswitchSecurity, {}, mac, {{kVswitchSecurity, U32(5)}}, 0, {}, kCs},
      {27, kMac, kEtherSecurity, {}, mac, {}, 0, {}, kCs},
      // A missing or unreadable allowance leaves its bit clear.
      {27, kMac, kEtherSecurity, {}, R"(@{"allow_promiscuous":false,"allow_mac_change":"no"})",
       {{kEtherSecurity, U32(1)}}},
      {27, kMac, kEtherSecurity, Bytes{1, 2, 3}, "{}", {}, kFail},
      {27, kMac, kEtherSecurity, U32(0), "-", {}, 8, {Op::kSetValueBool, 8, 2}},
      {28, kMac, kVswitchSecurity, U32(0), "{}", {}, 5, {Op::kCreateSubObject, 5}},
  });
}

TEST_F(PolicyPort, Filters) {
  // Slot 4294967295 is -1 when signed; a load renumbers parameters, failure modes but 1 become 0.
  const Bytes two = Cat({U32(2), Filter(2, "guard", 1, {{7, "a=1"}, {9, "mode=strict"}}),
                                Filter(4294967295u, "tap", 5, {})});
  const Bytes one = Filter(1, "f", 0, {{0, "x"}});
  const std::string agent(60, 'a'), param(300, 'p'), agent40(40, 'n'), param256(256, 'v');
  Bytes longer = Cat({U32(1), Filter(3, agent40, 1, {{0, param256}})});
  longer.resize(longer.size() + 5, 0xEE);
  const Bytes faulted = Cat({U32(2), Filter(1, "a", 1, {{0, "p"}}), Filter(2, "b", 1, {})});
  const std::string twoStored = R"(@{"network_filters":[{"key":"1","slot_number":"1","parameters":)"
                                R"(["p","q"]},{"key":"2","slot_number":"2","parameters":["r"]}]})";
  // A list read in one of the two passes only gets no parameters; its room stays zero at the end.
  const Bytes skipped = Cat({U32(2), Filter(1, "", 0, {}), Filter(2, "", 0, {{0, "r"}})});
  Bytes padded = skipped;
  padded.resize(padded.size() + 2 * 260, 0);
  Check({
      {29, kFp, kFilter, two,
       R"(@{"network_filters":[{"agent_name":"guard","key":"2","on_failure":"FAIL_OPEN",)"
       R"("parameters":["a=1","mode=strict"],"slot_number":"2"},{"agent_name":"tap","key":"-1",)"
       R"("on_failure":"FAIL_CLOSED","parameters":[],"slot_number":"4294967295"}]})",
       {{kFilter, Cat({U32(2), Filter(2, "guard", 1, {{0, "a=1"}, {1, "mode=strict"}}),
                              Filter(4294967295u, "tap", 0, {})})}}},
      // Values are read as far as their counts need; texts are cut to their slots.
      {29, kFp, kFilter, longer,
       R"(@{"network_filters":[{"agent_name":")" + agent40 + R"(","key":"3","on_failure":)"
       R"("FAIL_OPEN","parameters":[")" + param256 + R"("],"slot_number":"3"}]})",
       {{kFilter, Cat({U32(1), Filter(3, agent40.substr(1), 1, {{0, param256.substr(1)}})})}}},
      {29, kFp, kFilter, {},
       R"({"filter_policy":{"network_filters":[{"key":"x","agent_name":")" + agent +
           R"(","slot_number":"-1","on_failure":"fail_open","parameters":[")" + param +
           R"(","b"]},{"key":"y","slot_number":"abc","on_failure":"FAIL_OPEN"},)"
           R"({"key":"z","agent_name":7,"slot_number":"12"}]}})",
       {{kFilter, Cat({U32(3), Filter(4294967295u, agent.substr(0, 39), 0,
                                     {{0, param.substr(0, 255)}, {1, "b"}}),
                              Filter(0, "", 1, {}), Filter(12, "", 0, {})})}}},
      {29, kFp, kFilter, {}, R"({"shaping":1})", {}},
      {29, kFp, kFilter, {}, R"({"filter_policy":{}})", {{kFilter, U32(0)}}},
      {29, kFp, kFilter, Bytes{0, 0, 0}, "{}", {}, kFail},
      {29, kFp, kFilter, Cat({U32(1), Bytes(one.begin(), one.begin() + 51)}), "{}", {}, kFail},
      {29, kFp, kFilter, Cat({U32(1), Short(one)}), "{}", {}, kFail},
      {29, kFp, kFilter, Cat({U32(2), one}), "{}", {}, kFail},
      {29, kFp, kFilter, Cat({U32(1), Filter(1, "f", 0, {{0, "x"}}, 0xFFFFFFFF)}), "{}", {}, kFail},
      {29, kFp, kFilter, faulted, "-", {}, 3, {Op::kSetValueEmptyList, 3, 1}},
      {29, kFp, kFilter, faulted, "-", {}, 3, {Op::kAppendValueString, 3, 0}},
      {29, kFp, kFilter, {}, twoStored, {}, 3, {Op::kGetSubObject, 3}},
      {29, kFp, kFilter, {}, twoStored, {}, 2, {Op::kCreateFilterSpecObject, 2}},
      {29, kFp, kFilter, {}, twoStored, {}, 2, {Op::kCreateFilterSpecObject, 2, 1}},
      {29, kFp, kFilter, {}, twoStored, {{kFilter, skipped}}, 0, {Op::kGetValueStringArray, 3}},
      {29, kFp, kFilter, {}, twoStored, {{kFilter, padded}}, 0, {Op::kGetValueStringArray, 3, 2}},
      // Instances the first pass did not list are not written.
      {29, kFp, kFilter, {}, twoStored, {{kFilter, U32(0)}}, 0, {Op::kGetSubObjectInstances, 3}},
  });
  zel::persist::policy::testing::SetFilterAllocator([](size_t, size_t) -> void * { return {}; });
  Check({29, kFp, kFilter, {}, twoStored, {}, kFail, {}, kOther,
         "Failed to alloc memory for DVFilterConfig"});
  zel::persist::policy::testing::SetFilterAllocator(nullptr);
}

struct Teaming {
  uint32_t policy = 0, failureFlags = 0;
  uint8_t percentage = 0, fullDuplex = 0;
  uint16_t speed = 0;
  uint32_t teamingFlags = 0, numActive = 0, numStandby = 0;
  std::vector<std::string> names;  // slots 0, 1, ...
};

// The 2616-byte record; names in 81-byte slots.
Bytes TeamingRecord(const Teaming &t) {
  Record r(2616);
  r.u32(0, t.policy).u32(4, t.failureFlags).u8(8, t.percentage).u8(9, t.fullDuplex);
  r.u16(10, t.speed).u32(12, t.teamingFlags).u32(16, t.numActive).u32(20, t.numStandby);
  for (size_t i = 0; i < t.names.size(); ++i) r.raw(24 + 81 * i, Slot(t.names[i], 81));
  return r.b;
}

TEST_F(PolicyPort, Teaming) {
  const Teaming all{4, 0xFFFFFFFF, 50, 7, 1000, 0xFFFFFFFF, 2, 1, {"u1", "u2", "u3", "left-over"}};
  // Kept: failure bits 5 and 7 (9 added on load), teaming bits 1-5, counted slots; duplex reads 1.
  const Teaming back{4, 0x2A0, 50, 1, 1000, 0x3E, 2, 1, {"u1", "u2", "u3"}};
  // Counts past the 32 slots are cut, standby first; a slot without a NUL gives 80 characters.
  Teaming many{0, 0, 0, 0, 0, 0, 30, 0xFFFFFFFF, {std::string(81, 'x')}};
  many.names.resize(32, "n");
  Teaming manyBack{0, 0x200, 0, 0, 0, 0, 30, 2, many.names};
  manyBack.names[0].pop_back();
  // A hand-written object loads within the record; without "failure_criteria" no failure flags.
  std::string names;
  Teaming hand{0, 0, 0, 0, 0, 0x10, 30, 2, {}};
  for (int i = 0; i < 30; ++i) {
    names += ",\"a" + std::to_string(i) + "\"";
    hand.names.push_back("a" + std::to_string(i));
  }
  hand.names.insert(hand.names.end(), {std::string(80, 'z'), "s1"});
  const Teaming one{1, 0, 0, 0, 0, 0, 1, 0, {"u"}};
  const Teaming zero{0, 0x200};
  Check({
      {18, kTeamObject, kVsTeaming, TeamingRecord(all),
       R"({"uplink_teaming_policy":{"best_effort":true,"failure_criteria":{"@types":{)"
       R"("percentage":"uint16","speed":"int32"},"check_beacon":true,"full_duplex":true,)"
       R"("lc_link_state":true,"percentage":50,"speed":1000},"notify_switches":true,)"
       R"("policy":"FAILOVER_EXPLICIT","reverse_policy":true,"rolling_order":true,"shotgun":true,)"
       R"("uplink_port_order":{"active_uplink_ports":["u1","u2"],"standby_uplink_ports":["u3"]}}})",
       {{kVsTeaming, TeamingRecord(back)}}, 0, {}, kVs},
      {18, kTeamObject, kVsTeaming, {},
       R"({"uplink_teaming_policy":{"policy":"failover_explicit","shotgun":true,)"
       R"("best_effort":false,"uplink_port_order":{"active_uplink_ports":[)" + names.substr(1) +
           R"(],"standby_uplink_ports":[")" + std::string(100, 'z') + R"(","s1","s2","s3"]}}})",
       {{kVsTeaming, TeamingRecord(hand)}}, 0, {}, kVs},
      {17, kTeamObject, kEsTeaming, {}, "@{}", {{kEsTeaming, TeamingRecord({})}}},
      // On other classes kind 18 saves and loads nothing; vswitch classes load kind 18 alone.
      {18, kTeamObject, kVsTeaming, TeamingRecord(zero), "{}", {}},
      {17, kTeamObject, kEsTeaming, TeamingRecord(zero), "-", {}, 0, {}, kVs},
      {18, kTeamObject, kVsTeaming, Bytes(2615, 0), "{}", {}, kFail, {}, kVs},
      // Store failures end the save; kind 17 alone takes "not found" on creating as nothing to do.
      {18, kTeamObject, "p", TeamingRecord(one),
       R"(@{"failure_criteria":{"check_beacon":false},"policy":"LOADBALANCE_IP"})", {}, 4,
       {Op::kSetValueBool, 4, 1}, kVs},
      {17, kTeamObject, "p", TeamingRecord(one), "{}", {}, 0, {Op::kCreateSubObject, 6}},
      {18, kTeamObject, "p", TeamingRecord(one), "{}", {}, 6, {Op::kCreateSubObject, 6}, kVs},
  });
  const std::string manyJson = Check({18, kTeamObject, kVsTeaming, TeamingRecord(many), "-",
                                      {{kVsTeaming, TeamingRecord(manyBack)}}, 0, {}, kVs});
  EXPECT_NE(manyJson.find("[\"" + std::string(80, 'x') + "\",\"n\","), std::string::npos);
  EXPECT_NE(Check({17, kTeamObject, kEsTeaming, TeamingRecord(zero), "-",
                   {{kEsTeaming, TeamingRecord(zero)}}})
                .find(R"("speed":"uint16")"),
            std::string::npos);
  const char *policies[] = {nullptr,           "LOADBALANCE_IP",        "LOADBALANCE_SRCMAC",
                            "LOADBALANCE_SRCID", "FAILOVER_EXPLICIT", "LOADBALANCE_LOADBASED"};
  for (uint32_t v : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 0xFFFFFFFFu}) {
    const char *name = v < 6 ? policies[v] : nullptr;
    const Bytes saved = TeamingRecord({v}), loaded = TeamingRecord({name ? v : 0, 0x200});
    const std::string json =
        Check({18, kTeamObject, kVsTeaming, saved, "-", {{kVsTeaming, loaded}}, 0, {}, kCs});
    const std::string key = name ? R"("policy":")" + std::string(name) + "\"" : R"("policy")";
    EXPECT_EQ(json.find(key) != std::string::npos, name != nullptr) << json;
  }
}

Bytes W(std::initializer_list<uint16_t> words) {
  Bytes b;
  for (uint16_t w : words) b = Cat({b, U16(w)});
  return b;
}

TEST_F(PolicyPort, Vlans) {
  const std::string range = R"({"@types":{"end":"uint16","start":"uint16"},)";
  const std::string both = R"(@{"@types":{"vlan_id":"uint16","pvlan_id":"uint16"},"vlan_id":100,)"
                           R"("pvlan_id":200,"trunk_vlan_ids":[)";
  Check({
      {24, "vlan", kEsVlan, W({0, 100, 0, 0}),
       R"({"vlan":{"@types":{"vlan_id":"uint16"},"trunk_vlan_ids":[],"vlan_id":100}})",
       {{kEsVlan, W({0, 100, 0, 0})}}},
      {24, "vlan", kEsVlan, W({2, 200, 9, 0}),
       R"({"vlan":{"@types":{"pvlan_id":"uint16"},"pvlan_id":200,"trunk_vlan_ids":[]}})",
       {{kEsVlan, W({2, 200, 0, 0})}}},
      // Bit 1 is ignored for a trunk; so is the id.
      {24, "vlan", kEsVlan, W({3, 77, 0, 1, 5, 6}),
       R"({"vlan":{"trunk_vlan_ids":[)" + range + R"("end":6,"key":"*","start":5}]}})",
       {{kEsVlan, W({1, 0, 0, 1, 5, 6})}}},
      {24, "vlan", kEsVlan, W({1, 0, 0, 2, 1, 10, 20, 30}),
       R"({"vlan":{"trunk_vlan_ids":[)" + range + R"("end":10,"key":"*","start":1},)" + range +
           R"("end":30,"key":"*","start":20}]}})",
       {{kEsVlan, W({1, 0, 0, 2, 1, 10, 20, 30})}}},
      // An empty trunk comes back as VLAN 0; a single VLAN needs only its 8 bytes.
      {24, "vlan", kEsVlan, W({1, 5, 0, 0}), R"(@{"trunk_vlan_ids":[]})", {{kEsVlan, Bytes(8, 0)}}},
      {24, "vlan", kEsVlan, W({0, 5, 0, 9}), "-", {{kEsVlan, W({0, 5, 0, 0})}}},
      {24, "vlan", kEsVlan, W({0, 1, 0}), "{}", {}, kFail},
      {24, "vlan", kEsVlan, Cat({W({1, 0, 0, 2, 1, 10, 20}), Bytes{30}}), "{}", {}, kFail},
      // Kind 25 saves and loads on vswitch classes only: the private VLAN wins, a trunk hides both.
      {25, "vlan", kVsVlan, W({0, 42, 0, 0}), "{}", {}},
      {24, "vlan", kEsVlan, {}, both + "]}", {}, 0, {}, kVs},
      {25, "vlan", kVsVlan, {}, both + "]}", {{kVsVlan, W({2, 200, 0, 0})}}, 0, {}, kCs},
      {25, "vlan", kVsVlan, {}, both + range + R"("key":"r","start":3,"end":4}]})",
       {{kVsVlan, W({1, 0, 0, 1, 3, 4})}}, 0, {}, kVs},
      {25, "vlan", kVsVlan, W({0, 7, 0, 0}), "-", {{kVsVlan, W({0, 7, 0, 0})}}, 0, {}, kVs},
  });
}

Bytes Entry(uint16_t primary, uint16_t secondary, uint8_t type, uint8_t reserved = 0) {
  return Cat({W({primary, secondary}), Bytes{type, reserved, reserved, reserved}});
}

TEST_F(PolicyPort, PrivateVlanMapLoadsUnderTheClassPropertyOrFails) {
  // 20 bytes: two entries, the last 4 bytes ignored; reserved bytes dropped.
  const Bytes map = Cat({Entry(10, 11, 1, 0xAA), Entry(10, 12, 2), Entry(10, 13, 3)});
  const Bytes saved(map.begin(), map.begin() + 20);
  const Bytes loaded = Cat({Entry(10, 11, 1), Entry(10, 12, 2)});
  const Teaming team{0, 0, 0, 0, 1000, 0, 1, 0, {"uplink1"}};
  const Teaming teamBack{0, 0x200, 0, 0, 1000, 0, 1, 0, {"uplink1"}};
  const std::string stored =
      R"("pvlans":[{"@types":{"primary_id":"uint16","secondary_id":"uint16"},"key":"*",)"
      R"("primary_id":10,"secondary_id":11,"type":"PROMISCUOUS"},)"
      R"({"@types":{"primary_id":"uint16","secondary_id":"uint16"},"key":"*",)"
      R"("primary_id":10,"secondary_id":12,"type":"ISOLATED"}])";
  // The class, the host's "com.zorlan.common.portset.qor", the version and the map's owner row.
  const std::tuple<const char *, const char *, uint32_t, const char *> cases[] = {
      {"etherswitch", "false", 7, kEsMap}, {"vswitch", "false", 7, kEsMap},
      {"cswitch", "false", 7, kVsMap},     {"etherswitch", "true", 107, kVsMap},
  };
  for (const auto &[cls, qor, version, owner] : cases) {
    SCOPED_TRACE(std::string(cls) + " " + qor);
    // Both maps save into one list, the second winning; the teaming loads as the class's own row.
    Loaded sw = RoundTrip("sw-v", cls,
                          {{"com.zorlan.common.version", U32(version)},
                           {kEsMap, Entry(1, 2, 3)},
                           {kVsMap, saved}},
                          {{{kEsTeaming, TeamingRecord(team)}}}, 0,
                          {{"com.zorlan.common.portset.qor", Text(qor)}});
    EXPECT_NE(Masked(Json("sw-v")).find(stored), std::string::npos) << Json("sw-v");
    EXPECT_EQ(Find(sw.global, owner) ? *Find(sw.global, owner) : Bytes{}, loaded);
    EXPECT_EQ(Find(sw.global, owner == kEsMap ? kVsMap : kEsMap), nullptr);
    EXPECT_EQ(sw.ports.at(0).second,
              (Props{{cls[0] == 'e' ? kEsTeaming : kVsTeaming, TeamingRecord(teamBack)}}));
  }

  const std::string head =
      R"({"product":{"forwarding_class":"etherswitch","version":"7.0.0"},"pvlans":[)"
      R"({"key":"a","primary_id":1,"secondary_id":2,)";
  Check({
      // A type without a name refuses the whole map before anything is written.
      {6, "pvlans", kEsMap, Cat({Entry(1, 2, 1), Entry(1, 3, 0)}), "{}", {}, kFail},
      {6, "pvlans", kEsMap, Cat({Entry(1, 2, 1), Entry(1, 3, 4)}), "{}", {}, kFail},
      {6, "pvlans", kEsMap, {}, head + R"("type":"isolated"}]})", {}, kFail, {}, kOther,
       "Unknown PvlanType isolated\n"},
      {6, "pvlans", kEsMap, {},
       head + R"("type":"ISOLATED"},{"key":"b","secondary_id":2,"type":"ISOLATED"}]})", {}, 6},
      {6, "pvlans", kEsMap, {}, head + R"("type":2}]})", {}, 3},
  });
  Loaded sw = RoundTrip("sw-v", "etherswitch", {{kEsMap, Bytes{1, 2, 3}}}, {});
  EXPECT_NE(Json("sw-v").find(R"("pvlans":[])"), std::string::npos);
  EXPECT_EQ(Find(sw.global, kEsMap), nullptr);
}

}  // namespace
