// Switch policy conversions (discovery, LACP, IPFIX, mirroring, pools) and the catch-all data.
#include <tuple>

#include "configstore_policy_support.h"

using namespace policytest;

namespace {

constexpr const char *kCdp = "com.zorlan.etherswitch.cdp";
constexpr const char *kLacp = "com.zorlan.etherswitch.lacp";
constexpr const char *kPortLacp = "com.zorlan.etherswitch.port.lacp";
constexpr const char *kIpfix = "com.zorlan.etherswitch.ipfix";
constexpr const char *kEther = "com.zorlan.etherswitch.mirrorSessions";
constexpr const char *kVswitch = "com.zorlan.vswitch.mirrorSessions";
constexpr const char *kVlanMtu = "com.zorlan.common.vlanmtucheck.deploy";
constexpr const char *kTeaming = "com.zorlan.common.teamcheck.deploy";
constexpr const char *kPools = "com.zorlan.common.respools.cfg";
constexpr const char *kKeys = "com.zorlan.common.respools.list";
constexpr const char *kPortPools = "com.zorlan.common.port.respools.cfg";
constexpr const char *kLdp = "link_discovery_protocol";

class PolicySwitch : public PersistTest {};

Bytes Group(const std::string &name, const std::string &key, uint32_t mode, uint32_t algorithm,
            uint32_t uplinks) {
  return Record(93).text(0, name).text(65, key).u32(81, mode).u32(85, algorithm).u32(89, uplinks).b;
}

Bytes Ipfix(Bytes address, bool v6) {
  address.resize(16, 0);
  return Cat({U32(60), U32(300), address, U16(4739), U32(0x01020304),
              Bytes{1, static_cast<uint8_t>(v6)}, U32(77)});
}
std::string IpfixJson(const std::string &address) {
  return R"(@{"@types":{"active_flow_timeout":"uint32","collector_port":"uint16",)"
         R"("idle_flow_timeout":"uint32","observation_domain_id":"uint32","sampling_rate":)"
         R"("uint32"},"active_flow_timeout":300,"collector_address":")" + address +
         R"(","collector_port":4739,"idle_flow_timeout":60,"internal_flows_only":true,)"
         R"("observation_domain_id":77,"sampling_rate":16909060})";
}

TEST_F(PolicySwitch, DiscoveryLacpAndIpfix) {
  const Bytes groups =
      Cat({U32(2), Group("lag-one", "g1", 1, 16, 2), Group("lag-two", "g2", 2, 0, 4)});
  const std::string longName(70, 'n');
  const Bytes v4 = Ipfix({10, 0, 0, 5}, false);
  const Bytes v6 = Ipfix({0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, true);
  Check({
      {8, kLdp, kCdp, Bytes{1, 3}, R"(@{"operation":"BOTH","protocol":"LLDP"})", {{kCdp, {1, 3}}}},
      // Values without a name are written as numbers and load as the unknown values.
      {8, kLdp, kCdp, Bytes{7, 9}, R"(@{"operation":"9","protocol":"7"})", {{kCdp, {2, 4}}}},
      {8, kLdp, kCdp, {}, R"(@{"protocol":"lldp","operation":"LISTEN"})", {{kCdp, {2, 1}}}},
      {8, kLdp, kCdp, {}, R"(@{"protocol":"LLDP"})", {}, 6},
      {8, kLdp, kCdp, {}, "{}", {}},
      {8, kLdp, kCdp, Bytes{1}, "{}", {}, kFail},

      {16, "lacp_groups", kLacp, groups,
       R"({"lacp_groups":[{"@types":{"uplink_num":"uint32"},"key":"g1","load_balance_algorithm":)"
       R"("SRCIP_DSTIP_SRCPORT_DSTPORT","mode":"ACTIVE","name":"lag-one","uplink_num":2},)"
       R"({"@types":{"uplink_num":"uint32"},"key":"g2","load_balance_algorithm":"NONE",)"
       R"("mode":"PASSIVE","name":"lag-two","uplink_num":4}]})",
       {{kLacp, groups}}},
      {16, "lacp_groups", kLacp, U32(0), "{}", {}},
      // Unnamed values are written as numbers and load as -1 with a message.
      {16, "lacp_groups", kLacp, Cat({U32(1), Group("n", "g1", 0xFFFFFFFF, 21, 1)}),
       R"({"lacp_groups":[{"@types":{"uplink_num":"uint32"},"key":"g1",)"
       R"("load_balance_algorithm":"21","mode":"4294967295","name":"n","uplink_num":1}]})",
       {{kLacp, Cat({U32(1), Group("n", "g1", 0xFFFFFFFF, 0xFFFFFFFF, 1)})}}, 0, {}, kOther,
       "Unknown lacp mode 4294967295\nUnknown lacp lb policy 21\n"},
      // Stored texts longer than their slots are cut to 64 and 15 characters.
      {16, "lacp_groups", kLacp, {},
       R"({"lacp_groups":[{"@types":{"uplink_num":"uint32"},"key":"k0123456789abcdefgh",)"
       R"("load_balance_algorithm":"NONE","mode":"FAST","uplink_num":3,"name":")" + longName +
           R"("}]})",
       {{kLacp, Cat({U32(1), Group(longName.substr(0, 64), "k0123456789abcd", 0xFFFFFFFF, 0, 3)})}},
       0, {}, kOther, "Unknown lacp mode FAST\n"},
      {16, "lacp_groups", kLacp, {}, R"(@[{"key":"g1","load_balance_algorithm":"NONE"}])", {}, 6},
      {16, "lacp_groups", kLacp, Bytes{1, 0}, "{}", {}, kFail},
      {16, "lacp_groups", kLacp, Cat({U32(2), Group("a", "g1", 0, 0, 1)}), "{}", {}, kFail},
      {16, "lacp_groups", kLacp, Cat({U32(1), Group("no key", "", 0, 0, 1)}), "{}", {}, kFail},

      {35, "lacp_policy", kPortLacp, Bytes{1, 0, 0, 0, 1, 0, 0, 0},
       R"(@{"enabled":true,"mode":"ACTIVE"})", {{kPortLacp, {1, 0, 0, 0, 1, 0, 0, 0}}}},
      // Any non-zero byte is enabled; the unnamed mode -1 loads back as -1.
      {35, "lacp_policy", kPortLacp, Bytes{9, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, "-",
       {{kPortLacp, {1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}}}},
      {35, "lacp_policy", kPortLacp, Bytes{0, 0, 0, 0, 2, 0, 0, 0},
       R"(@{"enabled":false,"mode":"PASSIVE"})", {{kPortLacp, {0, 0, 0, 0, 2, 0, 0, 0}}}},
      {35, "lacp_policy", kPortLacp, {}, R"(@{"enabled":true})", {}, 6},
      {35, "lacp_policy", kPortLacp, {}, "{}", {}},
      {35, "lacp_policy", kPortLacp, Bytes(7, 0), "{}", {}, kFail},

      {10, "ipfix", kIpfix, v4, IpfixJson("10.0.0.5"), {{kIpfix, v4}}},
      {10, "ipfix", kIpfix, v6, IpfixJson("fe80:0000:0000:0000:0000:0000:0000:0001"),
       {{kIpfix, v6}}},
      // Text that is no address loads as the zero IPv4 address; every key may be missing.
      {10, "ipfix", kIpfix, {}, IpfixJson("collector.example"),
       {{kIpfix, Ipfix(Bytes(16, 0), false)}}},
      {10, "ipfix", kIpfix, {}, R"(@{"@types":{"collector_port":"uint16"},"collector_port":2055})",
       {{kIpfix, Record(36).u16(24, 2055).b}}},
      {10, "ipfix", kIpfix, {}, "{}", {}},
      {10, "ipfix", kIpfix, Bytes(35, 0), "{}", {}, kFail},
  });
}

struct Session {
  std::string key, name;
  uint32_t type = 1, length = 0xFFFFFFFF, flags = 0;
  uint16_t vlan = 0, recvWildcards = 0, transmitWildcards = 0;
  uint32_t samplingRate = 0, encap = 0;
  uint16_t erspanId = 0;
  uint8_t cos = 0, nanosec = 0;
  uint32_t destinations = 0, recvSources = 0, transmitSources = 0, firstEntry = 0;
};

// The 232-byte session record.
Bytes SessionBytes(const Session &s) {
  return Cat({Slot(s.key, 32), Slot(s.name, 84), U32(s.type), U32(s.length), U32(s.flags),
              U16(s.vlan), U16(s.recvWildcards), U16(s.transmitWildcards), Bytes(2, 0),
              U32(s.samplingRate), U32(s.encap), U16(s.erspanId), Bytes{s.cos, s.nanosec},
              Bytes(68, 0), U32(s.destinations), U32(s.recvSources), U32(s.transmitSources),
              U32(s.firstEntry)});
}

Bytes Entry(uint32_t type, const std::string &payload, size_t size = 36) {
  return Record(size).u32(0, type).text(4, payload).b;
}

// A table with the header a load writes, or (not `loaded`) with the session count alone.
Bytes Table(const std::vector<Session> &sessions, const std::vector<Bytes> &entries,
            bool loaded = true) {
  Record header(20);
  header.u32(8, static_cast<uint32_t>(sessions.size()));
  if (loaded) header.u32(0, 0xFACEBEEF).u32(4, 1).u32(12, static_cast<uint32_t>(entries.size()));
  Bytes out = header.b;
  for (const Session &s : sessions) out = Cat({out, SessionBytes(s)});
  for (const Bytes &e : entries) out = Cat({out, e});
  return out;
}

TEST_F(PolicySwitch, MirrorSessionsAndEntryWidth) {
  Session a{"s-a", "mixed", 0, 0xFFFFFFFF, 0x21, 0, 0x9, 0x2, 10, 0, 0, 0, 0, 2, 1, 1, 0};
  Session b{"s-b", "erspan", 4, 128, 0x14, 5, 0, 0, 0, 2, 300, 5, 1, 2, 1, 0, 0};
  const Bytes v6 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const Bytes saved = Table({a, b},
                            {Entry(0, "p1"), Entry(1, "u1"), Entry(0, "p2"), Entry(0, "p3"),
                             Record(36).u8(4, 1).raw(8, v6).b, Record(36).raw(8, {10, 1, 2, 3}).b,
                             Entry(0, "p4")},
                            false);
  // Loaded: flag 0x2 joins 0x1, 0x8 follows the VLAN, 0x4 marks a wildcard list; no addresses.
  const Session a2{"s-a", "mixed", 0, 0xFFFFFFFF, 0x23, 0, 0xD, 0x6, 10, 0, 0, 0, 0, 2, 1, 1, 0};
  const Session b2{"s-b", "erspan", 4, 128, 0x1C, 5, 0, 0, 0, 2, 300, 5, 1, 0, 1, 0, 4};
  const Bytes loaded = Table(
      {a2, b2}, {Entry(0, "p1"), Entry(1, "u1"), Entry(0, "p2"), Entry(0, "p3"), Entry(0, "p4")});

  const Session x{"s-x", "x", 9, 0xFFFFFFFF, 0, 0, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0};
  const Session x2{"s-x", "x", 0xFFFFFFFF, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0xFFFFFFFF, 0, 0, 0, 1};

  // Stored sessions of unknown type, an over-long name and missing keys load with defaults.
  const std::string bogus = R"(@[{"key":"s1","session_type":"BOGUS","encapsulation_vlan_id":7,)"
                            R"("erspan_COS":513,"name":")" + std::string(83, 'n') + R"("}])";
  const Session defaults{"s1", std::string(80, 'n'), 0xFFFFFFFF, 0xFFFFFFFF, 0x8, 7, 0, 0, 0,
                         0xFFFFFFFF, 0, 1};
  const Session one{"s1", "n", 1, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  Check({
      {9, "vspans", kEther, saved,
       R"({"settings":{"promiscuous_mode_vspan_session":"s-b"},"vspans":[)"
       R"({"@types":{"encapsulation_vlan_id":"uint32","erspan_COS":"uint16","erspan_id":"uint16",)"
       R"("sampling_rate":"uint32"},"destination_port":{"port_keys":["p1"],)"
       R"("uplink_port_names":["u1"]},"enabled":false,"encap_type":"GRE",)"
       R"("encapsulation_vlan_id":0,"erspan_COS":0,"erspan_gra_nanosec":false,"erspan_id":0,)"
       R"("key":"s-a","legacy_mode":false,"name":"mixed","normal_traffic_allowed":false,)"
       R"("sampling_rate":10,"session_type":"MIXED_DEST_MIRROR","source_recv_port":{)"
       R"("port_keys":["p2"],"wildcard_port_connectee_types":["VM_VNIC","HOST_PYX_VNIC"]},)"
       R"("source_transmit_port":{"port_keys":["p3"],"wildcard_port_connectee_types":["PNIC"]},)"
       R"("strip_original_vlan":true},)"
       R"({"@types":{"encapsulation_vlan_id":"uint32","erspan_COS":"uint16","erspan_id":"uint16",)"
       R"("mirrored_packet_length":"uint32","sampling_rate":"uint32"},"destination_port":{)"
       R"("addresses":["2001:0db8:0000:0000:0000:0000:0000:0001","10.1.2.3"]},"enabled":true,)"
       R"("encap_type":"ERSPAN3","encapsulation_vlan_id":5,"erspan_COS":5,)"
       R"("erspan_gra_nanosec":true,"erspan_id":300,"key":"s-b","legacy_mode":true,)"
       R"("mirrored_packet_length":128,"name":"erspan","normal_traffic_allowed":true,)"
       R"("sampling_rate":0,"session_type":"ENCAPSULATED_REMOTE_MIRROR_SOURCE",)"
       R"("source_recv_port":{"port_keys":["p4"],"wildcard_port_connectee_types":[]},)"
       R"("source_transmit_port":{"port_keys":[],"wildcard_port_connectee_types":[]},)"
       R"("strip_original_vlan":false}]})",
       {{kEther, loaded}}},
      // Each class loads its own row only.
      {9, "vspans", kVswitch, {}, bogus, {{kVswitch, Table({defaults}, {})}}, 0, {},
       kVs, "Unknown vspan session type in schema: BOGUS\n"},
      {9, "vspans", kEther, {}, bogus, {}, 0, {}, kVs},
      {9, "vspans", kVswitch, {}, bogus, {}, 0, {}, kOther},
      {9, "vspans", kEther, {}, R"(@[{"key":"s1","legacy_mode":"yes"}])", {}, 3},
      {9, "vspans", kEther, {}, "{}", {}},
      {9, "vspans", kEther, Record(20).b, "{}", {}},
      // Refused: a short header, session or entry, a session without a key, narrow wide entries.
      {9, "vspans", kEther, Bytes(19, 0), "{}", {}, kFail},
      {9, "vspans", kEther, Record(20).u32(8, 1).b, "{}", {}, kFail},
      {9, "vspans", kEther, Table({one}, {Bytes(35, 0)}, false), "{}", {}, kFail},
      {9, "vspans", kEther, Table({Session{"", "n"}}, {}, false), "{}", {}, kFail},
      {9, "vspans", kEther, Table({one}, {Entry(0, "p1")}, false), "{}", {}, kFail, {}, kOther,
       nullptr, true},
  });
  // Unnamed types are written as numbers; any other combination keeps every entry as a port key.
  std::string json = Check({9, "vspans", kEther, Table({x}, {Entry(3, "odd")}, false), "-",
                            {{kEther, Table({x2}, {Entry(0, "odd")})}}});
  EXPECT_NE(json.find(R"("encap_type":"5")"), std::string::npos);
  EXPECT_NE(json.find(R"("session_type":"9")"), std::string::npos);
  EXPECT_NE(json.find(R"("destination_port":{"port_keys":["odd"]})"), std::string::npos);

  // Remote-source destinations load as uplink names, VLAN lists empty; narrow entries cut names.
  const std::string uplink47(47, 'u');
  const Session c{"s-c", "rspan-src", 2, 64, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0};
  const Session d{"s-d", "rspan-dst", 3, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 0, 0};
  const Bytes rspan = Table({c, d}, {Entry(0, uplink47, 52), Entry(1, "u2", 52), Entry(0, "p9", 52),
                                     Record(52).u16(4, 100).b, Record(52).u16(4, 200).b});
  const Session d2{"s-d", "rspan-dst", 3, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 2};
  for (uint32_t version : {107u, 100u, 7u}) {
    const size_t width = version >= 100 ? 52 : 36;
    const std::string first = version >= 100 ? uplink47 : uplink47.substr(0, 31);
    const Bytes back =
        Table({c, d2}, {Entry(1, first, width), Entry(1, "u2", width), Entry(0, "p9", width)});
    json = Check({9, "vspans", kEther, rspan, "-", {{kEther, back}}, 0, {}, kOther, nullptr, true,
                  version});
    EXPECT_NE(json.find(R"("destination_port":{"uplink_port_names":[")" + uplink47 + R"(","u2"]})"),
              std::string::npos);
    EXPECT_NE(json.find(R"("source_recv_port":{"vlans":[100,200],)"), std::string::npos);
    EXPECT_NE(json.find(R"("destination_port":{"port_keys":["p9"]})"), std::string::npos);
  }
}

Bytes HealthCheck(uint8_t enable, uint32_t interval) { return Cat({Bytes{enable}, U32(interval)}); }

struct Pool {
  std::string key;
  uint32_t reservation, shares;
  int32_t limit;
};

// A pool configuration value; `filler` goes into every byte that is not converted.
Bytes Pools(const std::vector<Pool> &pools, uint8_t filler = 0) {
  Bytes b = U32(static_cast<uint32_t>(pools.size()));
  for (const Pool &p : pools) {
    b = Cat({b, Slot(p.key, 128), Bytes{filler}, U32(p.reservation), Bytes(67, filler),
             U32(p.shares), U32(static_cast<uint32_t>(p.limit)), Bytes(4, filler)});
  }
  return b;
}

TEST_F(PolicySwitch, HealthChecksPoolsAndPoolKeys) {
  const char *hc = "health_checks", *tr = "traffic_resources", *nk = "network_resource_pool_keys";
  const std::string check = R"(@[{"key":"VLAN_MTU","enabled":true}])";
  const std::string teaming = R"(@[{"key":"TEAMING","enabled":true}])";
  const std::string longKey(150, 'k'), key199(199, 'x');
  const std::vector<Pool> two = {{"pool-a", 100, 50, -1}, {"pool-b", 0x01020304, 7, 1000}};
  Check({
      {11, hc, kVlanMtu, HealthCheck(2, 60),
       R"(@[{"@types":{"interval":"uint32"},"enabled":true,"interval":60,"key":"VLAN_MTU"}])",
       {{kVlanMtu, {1, 60, 0, 0, 0}}}},
      {11, hc, kTeaming, HealthCheck(0, 0x01020304),
       R"(@[{"@types":{"interval":"uint32"},"enabled":false,"interval":16909060,"key":"TEAMING"}])",
       {{kTeaming, {0, 4, 3, 2, 1}}}},
      // Fields that cannot be read stay zero; an absent check adds nothing.
      {11, hc, kTeaming, {}, teaming, {{kTeaming, {1, 0, 0, 0, 0}}}},
      {11, hc, kVlanMtu, {}, teaming, {}},
      {11, hc, "com.x.check", HealthCheck(1, 1), "{}", {}, kFail, {}, kOther,
       "Unknown health check type com.x.check\n"},
      {11, hc, "com.x.check", {}, check, {}, kFail},
      {11, hc, kVlanMtu, Bytes{1, 0, 0, 0}, "{}", {}, kFail},
      {11, hc, kVlanMtu, HealthCheck(1, 1), "-", {}, 7, {Op::kSetValueBool, 7}},
      {11, hc, kVlanMtu, HealthCheck(1, 1), "{}", {}, 3, {Op::kGetSubObject, 3}, kOther,
       "GetOrCreateSubObject for prop: health_checks failed, failure code: 3\n"},
      {11, hc, kVlanMtu, {}, check, {}, 9, {Op::kGetSubObject, 9}},

      // Bytes that are not converted come back zero.
      {12, tr, kPools, Pools(two, 0xEE),
       R"({"traffic_resources":[{"allocation":{"@types":{"limit":"int32","reservation":"uint32"},)"
       R"("limit":-1,"reservation":100,"shares":{"@types":{"shares":"uint32"},"shares":50}},)"
       R"("key":"pool-a"},{"allocation":{"@types":{"limit":"int32","reservation":"uint32"},)"
       R"("limit":1000,"reservation":16909060,"shares":{"@types":{"shares":"uint32"},)"
       R"("shares":7}},"key":"pool-b"}]})",
       {{kPools, Pools(two)}}},
      // A pool without allocation loads as its key alone; a long key is cut.
      {12, tr, kPools, {}, R"({"traffic_resources":[{"key":")" + longKey + R"("}]})",
       {{kPools, Pools({{longKey.substr(0, 127), 0, 0, 0}})}}},
      {12, tr, kPools, U32(0), "{}", {}},
      {12, tr, kPools, {}, "@[]", {}},
      {12, tr, kPools, Short(Pools({{"a", 1, 1, 1}, {"b", 1, 1, 1}})), "{}", {}, kFail},
      {12, tr, kPools, Bytes{1, 0, 0}, "{}", {}, kFail},
      {12, tr, kPools, Pools({{"", 1, 1, 1}}), "-", {}, kFail},
      {12, tr, kPools, Pools({{"a", 1, 1, 1}}), "-", {}, 7, {Op::kSetValueUint32, 7, 1}},
      {12, tr, kPools, {}, R"(@[{"key":"a"}])", {}, 8, {Op::kGetSubObjectInstances, 8}},
      // A port's copy is not saved; its load reads the switch's list it is given.
      {36, tr, kPortPools, Pools({{"x", 1, 1, 1}}), "{}", {}},
      {36, tr, kPortPools, {}, R"(@[{"key":"vm"}])", {{kPortPools, Pools({{"vm", 0, 0, 0}})}}},

      // A slot holds 199 characters on saving; a load cuts keys to 127.
      {13, nk, kKeys, NameList({"alpha", "beta", "gamma"}, 200), R"(@["alpha","beta","gamma"])",
       {{kKeys, NameList({"alpha", "beta", "gamma"}, 200)}}},
      {13, nk, kKeys, NameList({key199}, 200),
       R"({"network_resource_pool_keys":[")" + key199 + R"("]})",
       {{kKeys, NameList({key199.substr(0, 127)}, 200)}}},
      {13, nk, kKeys, U32(0), "{}", {}},
      {13, nk, kKeys, {}, "@[]", {}},
      {13, nk, kKeys, Short(NameList({"a", "b"}, 200)), "{}", {}, kFail},
      {13, nk, kKeys, NameList({"a", "b"}, 200), "-", {}, 7, {Op::kAppendValueString, 7, 1}},
      {13, nk, kKeys, {}, R"(@["a"])", {}, 9, {Op::kGetValueStringArray, 9}},
  });
}

constexpr uint32_t kText = 16, kOpaque = 24, kRaw = 8;

TEST_F(PolicySwitch, CatchAllDataListsByTableAndTypeAndStoreFailures) {
  // Texts come back up to their first NUL with it; opaque data as type 24.
  const struct {
    uint32_t kind, table;
    std::vector<std::tuple<const char *, Bytes, uint32_t>> saved;
    const char *json;
    Props loaded;
    std::vector<uint32_t> types;
  } cases[] = {
      {22, zp::kTableGlobal,
       {{"com.vendor.setting", Text("abc"), kText},
        {"com.zorlan.extraconfig.mode", Bytes{'o', 'n', 0, 'x'}, kText},
        {"x.com.zorlan.extraconfig", Text("y"), kText},
        {"com.zorlan.extraconfig.blob", Bytes{1, 0, 2}, kOpaque},
        {"com.vendor.raw", Bytes{0xDE, 0xAD}, kRaw}, {"com.v.empty", {}, kText}},
       R"({"data":{"extra_config":[{"key":"com.zorlan.extraconfig.mode","value":"on"},)"
       R"({"key":"x.com.zorlan.extraconfig","value":"y"}],"vendor_specific_config":[)"
       R"({"key":"com.vendor.setting","value":"abc"},{"key":"com.v.empty","value":""}],)"
       R"("zel_opaque_data":[{"@types":{"opaque_data":"binary"},)"
       R"("key":"com.zorlan.extraconfig.blob","opaque_data":"AQAC"},{"@types":{"opaque_data":)"
       R"("binary"},"key":"com.vendor.raw","opaque_data":"3q0="}]}})",
       {{"com.vendor.setting", Text("abc")}, {"com.v.empty", Bytes{0}},
        {"com.zorlan.extraconfig.blob", Bytes{1, 0, 2}}, {"com.vendor.raw", Bytes{0xDE, 0xAD}},
        {"com.zorlan.extraconfig.mode", Text("on")}, {"x.com.zorlan.extraconfig", Text("y")}},
       {kText, kText, kOpaque, kOpaque, kText, kText}},
      {22, zp::kTableHost,
       {{"com.vendor.host", Bytes{'h', 0, 'z'}, kText}, {"com.vendor.hostblob", Bytes{0, 9}, kRaw}},
       R"({"data":{"host_opaque_data":[{"@types":{"opaque_data":"binary"},)"
       R"("key":"com.vendor.hostblob","opaque_data":"AAk="}],)"
       R"("vendor_specific_host_member_config":[{"key":"com.vendor.host","value":"h"}]}})",
       {{"com.vendor.host", Bytes{'h', 0}}, {"com.vendor.hostblob", Bytes{0, 9}}},
       {kText, kOpaque}},
      {33, zp::kTablePort,
       {{"com.vendor.filter.ruleset", Bytes{7, 0, 7}, kRaw},
        {"com.zorlan.port.extraConfig.a", Text("A"), kRaw},
        {"com.zorlan.port.extraConfigB", Text("B"), kText},
        {"com.zorlan.port.extraConfig.c", Bytes{3, 0}, kOpaque},
        {"com.vendor.other", Bytes{0, 1, 2}, kRaw}, {"com.v.none", {}, kOpaque}},
       R"({"data":{"extra_config":[{"key":"com.zorlan.port.extraConfig.a","value":"A"}],)"
       R"("opaque_data":[{"@types":{"opaque_data":"binary"},"key":)"
       R"("com.zorlan.port.extraConfig.c","opaque_data":"AwA="},{"@types":{"opaque_data":)"
       R"("binary"},"key":"com.v.none","opaque_data":""}],"other_data":[{"@types":{)"
       R"("opaque_data":"binary","prop_type":"uint32"},"key":"com.vendor.other",)"
       R"("opaque_data":"AAEC","prop_type":8}],"ruleset_data":[{"@types":{"opaque_data":)"
       R"("binary"},"key":"com.vendor.filter.ruleset","opaque_data":"BwAH"}],)"
       R"("vendor_specific_data":[{"key":"com.zorlan.port.extraConfigB","value":"B"}]}})",
       {{"com.vendor.filter.ruleset", Bytes{7, 0, 7}}, {"com.zorlan.port.extraConfig.c", {3, 0}},
        {"com.v.none", Bytes{}}, {"com.zorlan.port.extraConfig.a", Text("A")},
        {"com.zorlan.port.extraConfigB", Text("B")}, {"com.vendor.other", Bytes{0, 1, 2}}},
       {kText, kOpaque, kOpaque, kText, kText, kRaw}},
  };
  for (const auto &c : cases) {
    cfgtest::ObjectPtr o = Stored("{}");
    for (const auto &[name, value, type] : c.saved)
      EXPECT_EQ(SaveOn(o.get(), c.kind, "data", name, value, c.table, type), 0u) << name;
    EXPECT_EQ(cfgtest::Json(o.get()), c.json);
    Check({c.kind, "data", "DEFAULT", {}, c.json, c.loaded, 0, {}, kOther, nullptr, false, 7,
           c.table, 16, c.types});
  }
  // Absent data loads nothing, other data without a usable type is skipped; then store failures.
  const auto load = [](uint32_t table, std::string json, Fault f, uint32_t status, Props props) {
    return Case{table == zp::kTablePort ? 33u : 22u, "data", "DEFAULT", {}, std::move(json),
                std::move(props), status, f, kOther, nullptr, false, 7, table};
  };
  const auto save = [](uint32_t kind, uint32_t table, uint32_t type, Op op) {
    return Case{kind, "data", "com.v.p", Text("v"), "-", {}, 7, {op, 7}, kOther, nullptr, false,
                7, table, type};
  };
  const uint32_t global = zp::kTableGlobal, host = zp::kTableHost, port = zp::kTablePort;
  const std::string stored =
      R"({"data":{"vendor_specific_config":[{"key":"s.v","value":"1"}],)"
      R"("extra_config":[{"key":"s.e","value":"2"}],)"
      R"("vendor_specific_host_member_config":[{"key":"h.v","value":"3"}],)"
      R"("ruleset_data":[{"key":"p.r","opaque_data":"AQ==","@types":{"opaque_data":"binary"}}],)"
      R"("vendor_specific_data":[{"key":"p.v","value":"4"}]}})";
  std::vector<Case> rows = {
      {33, "data", "DEFAULT", {},
       R"({"data":{"other_data":[{"key":"no.type","opaque_data":"AQ==","@types":{"opaque_data":)"
       R"("binary"}},{"key":"bad.type","opaque_data":"AQ==","prop_type":4,"@types":{)"
       R"("opaque_data":"binary","prop_type":"uint32"}},{"key":"good","opaque_data":"AQ==",)"
       R"("prop_type":9,"@types":{"opaque_data":"binary","prop_type":"uint32"}}]}})",
       {{"good", {1}}}, 0, {}, kOther, nullptr, false, 7, port, 16, {9}},
      {22, "data", "com.v.p", Text("v"), "{}", {}, kFail, {}, kOther, nullptr, false, 7, port},
      save(22, global, kText, Op::kGetSubObject),
      save(22, global, kOpaque, Op::kGenerateInstanceId),
      save(22, host, kOpaque, Op::kSetValueBinary),
      save(22, host, kText, Op::kSetValueStr),
      save(33, port, kOpaque, Op::kCreateSubObject),
      save(33, port, kRaw, Op::kSetValueUint32),
      load(global, stored, {Op::kGetSubObject, 7}, 7, {}),
      load(global, stored, {Op::kGetValueStr, 8, 1}, 8, {}),
      load(port, stored, {Op::kGetValueBinary, 8}, 8, {}),
      // Switch: an earlier listing that fails is passed over, the last one is not.
      load(global, stored, {Op::kGetSubObjectInstances, 7}, 0, {{"s.e", Text("2")}}),
      load(global, stored, {Op::kGetSubObjectInstances, 7, 2}, 7, {{"s.v", Text("1")}}),
      // Port: any listing failure ends the load.
      load(port, stored, {Op::kGetSubObjectInstances, 7, 3}, 7, {{"p.r", {1}}, {"s.e", Text("2")}}),
      load(port, stored, {Op::kCreateFilterSpecObject, 5}, 5, {}),
      load(port, stored, {}, 0, {{"p.r", {1}}, {"s.e", Text("2")}, {"p.v", Text("4")}}),
  };
  for (const char *content : {"{}", R"({"data":{}})", R"({"data":{"extra_config":[]}})"})
    for (uint32_t table : {global, host, port}) rows.push_back(load(table, content, {}, 0, {}));
  Check(rows);
}

}  // namespace
