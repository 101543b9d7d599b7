// Link discovery (kind 8), LACP groups (16), LACP port policy (35) and IPFIX (10) conversions.
#include "configstore_policy_discovery_support.h"
#include "test_support.h"

using namespace policytest;
using namespace zeltest;

namespace {

constexpr const char *kCdp = "com.zorlan.etherswitch.cdp";
constexpr const char *kLacp = "com.zorlan.etherswitch.lacp";
constexpr const char *kPortLacp = "com.zorlan.etherswitch.port.lacp";
constexpr const char *kIpfix = "com.zorlan.etherswitch.ipfix";

Bytes Group(const std::string &name, const std::string &key, uint32_t mode, uint32_t algorithm,
            uint32_t uplinks) {
  return Record(93).text(0, name).text(65, key).u32(81, mode).u32(85, algorithm).u32(89, uplinks).b;
}

Bytes Ipfix(Bytes address, bool v6) {
  address.resize(16, 0);
  return Cat({U32(60), U32(300), address, U16(4739), U32(0x01020304),
              Bytes{1, static_cast<uint8_t>(v6)}, U32(77)});
}

class PolicyDiscovery : public PersistTest {
 protected:
  MemObject sw_;
  cs::Object *settings_ = sw_.Settings();

  uint32_t Save(uint32_t kind, const char *key, const char *name, const Bytes &v) {
    return SaveCase(kind, sw_.get(), settings_, key, name, v);
  }
  LoadResult Load(uint32_t kind, const char *key, const char *name) {
    return LoadCase(kind, sw_.get(), settings_, key, name);
  }
};

TEST_F(PolicyDiscovery, LinkDiscoveryRoundTripAndUnknownNames) {
  ASSERT_EQ(Save(8, "link_discovery_protocol", kCdp, Bytes{1, 3}), 0u);
  EXPECT_EQ(sw_.Content(),
            R"({"settings":{"link_discovery_protocol":{"operation":"BOTH","protocol":"LLDP"}}})");
  EXPECT_EQ(Only(Load(8, "link_discovery_protocol", kCdp), kCdp), (Bytes{1, 3}));

  // Values without a name are written as numbers and load as the unknown values.
  ASSERT_EQ(Save(8, "link_discovery_protocol", kCdp, Bytes{7, 9}), 0u);
  EXPECT_NE(sw_.Content().find(R"("operation":"9","protocol":"7")"), std::string::npos);
  EXPECT_EQ(Only(Load(8, "link_discovery_protocol", kCdp), kCdp), (Bytes{2, 4}));

  cs::Object *ldp = nullptr;
  ASSERT_EQ(cs::GetSubObject(settings_, "link_discovery_protocol", nullptr, &ldp), 0);
  ASSERT_EQ(cs::SetValueStr(ldp, "protocol", "lldp"), 0);
  ASSERT_EQ(cs::SetValueStr(ldp, "operation", "LISTEN"), 0);
  EXPECT_EQ(Only(Load(8, "link_discovery_protocol", kCdp), kCdp), (Bytes{2, 1}));

  // A key that does not read fails the load; no object adds nothing.
  ASSERT_EQ(cs::RemoveValue(ldp, "operation"), 0);
  EXPECT_TRUE(Nothing(Load(8, "link_discovery_protocol", kCdp), 6));
  ASSERT_EQ(cs::RemoveValue(settings_, "link_discovery_protocol"), 0);
  EXPECT_TRUE(Nothing(Load(8, "link_discovery_protocol", kCdp)));
}

TEST_F(PolicyDiscovery, LacpGroupsRoundTrip) {
  const Bytes table = Cat({U32(2), Group("lag-one", "g1", 1, 16, 2), Group("lag-two", "g2", 2, 0, 4)});
  ASSERT_EQ(Save(16, "lacp_groups", kLacp, table), 0u);
  EXPECT_EQ(sw_.Content(),
            R"({"settings":{"lacp_groups":[)"
            R"({"@types":{"uplink_num":"uint32"},"key":"g1","load_balance_algorithm":)"
            R"("SRCIP_DSTIP_SRCPORT_DSTPORT","mode":"ACTIVE","name":"lag-one","uplink_num":2},)"
            R"({"@types":{"uplink_num":"uint32"},"key":"g2","load_balance_algorithm":"NONE",)"
            R"("mode":"PASSIVE","name":"lag-two","uplink_num":4}]}})");
  EXPECT_EQ(Only(Load(16, "lacp_groups", kLacp), kLacp), table);

  // No groups: nothing written, nothing loaded.
  MemObject empty;
  EXPECT_EQ(SaveCase(16, empty.get(), empty.Settings(), "lacp_groups", kLacp, U32(0)), 0u);
  EXPECT_EQ(empty.Content(), R"({"settings":{}})");
  EXPECT_TRUE(Nothing(LoadCase(16, empty.get(), empty.Settings(), "lacp_groups", kLacp)));
}

TEST_F(PolicyDiscovery, LacpGroupsUnknownNamesLongTextsAndMissingUplinks) {
  // Unnamed values are written as numbers; they load as -1 with a message.
  ASSERT_EQ(Save(16, "lacp_groups", kLacp, Cat({U32(1), Group("n", "g1", 0xFFFFFFFF, 21, 1)})),
            0u);
  EXPECT_NE(sw_.Content().find(R"("load_balance_algorithm":"21","mode":"4294967295")"),
            std::string::npos);
  cs::Object *g1 = nullptr;
  ASSERT_EQ(cs::GetSubObject(settings_, "lacp_groups", "g1", &g1), 0);
  ASSERT_EQ(cs::SetValueStr(g1, "mode", "FAST"), 0);
  LoadResult r;
  {
    ScopedLevel level(zelconfigstore_debug, 0);
    const std::string out = CaptureStdout([&] { r = Load(16, "lacp_groups", kLacp); });
    EXPECT_EQ(out, "Unknown lacp mode FAST\nUnknown lacp lb policy 21\n");
  }
  EXPECT_EQ(Only(r, kLacp), Cat({U32(1), Group("n", "g1", 0xFFFFFFFF, 0xFFFFFFFF, 1)}));

  // Stored names longer than their slots are cut to 64 and 15 characters.
  const std::string longName(70, 'n');
  ASSERT_EQ(cs::SetValueStr(g1, "name", longName.c_str()), 0);
  ASSERT_EQ(cs::SetValueStr(g1, "key", "k0123456789abcdefgh"), 0);
  r = Load(16, "lacp_groups", kLacp);
  EXPECT_EQ(Only(r, kLacp),
            Cat({U32(1), Group(longName.substr(0, 64), "k0123456789abcd", 0xFFFFFFFF, 0xFFFFFFFF, 1)}));

  // A group without "uplink_num" fails the load with the store's status.
  ASSERT_EQ(cs::RemoveValue(g1, "uplink_num"), 0);
  EXPECT_TRUE(Nothing(Load(16, "lacp_groups", kLacp), 6));
}

TEST_F(PolicyDiscovery, PortLacpRoundTripAndMissingKeys) {
  const Bytes policy = {1, 0, 0, 0, 1, 0, 0, 0};
  ASSERT_EQ(Save(35, "lacp_policy", kPortLacp, policy), 0u);
  EXPECT_EQ(sw_.Content(), R"({"settings":{"lacp_policy":{"enabled":true,"mode":"ACTIVE"}}})");
  EXPECT_EQ(Only(Load(35, "lacp_policy", kPortLacp), kPortLacp), policy);

  // Any non-zero byte is enabled; unnamed mode -1 loads back as -1.
  ASSERT_EQ(Save(35, "lacp_policy", kPortLacp, Bytes{9, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}), 0u);
  EXPECT_EQ(Only(Load(35, "lacp_policy", kPortLacp), kPortLacp),
            (Bytes{1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));

  cs::Object *lp = nullptr;
  ASSERT_EQ(cs::GetSubObject(settings_, "lacp_policy", nullptr, &lp), 0);
  ASSERT_EQ(cs::RemoveValue(lp, "mode"), 0);
  EXPECT_EQ(Load(35, "lacp_policy", kPortLacp).status, 6u);
  ASSERT_EQ(cs::RemoveValue(settings_, "lacp_policy"), 0);
  EXPECT_TRUE(Nothing(Load(35, "lacp_policy", kPortLacp)));
}

TEST_F(PolicyDiscovery, IpfixAddressesRoundTrip) {
  const Bytes v4 = Ipfix({10, 0, 0, 5}, false);
  ASSERT_EQ(Save(10, "ipfix", kIpfix, v4), 0u);
  EXPECT_EQ(sw_.Content(),
            R"({"settings":{"ipfix":{"@types":{"active_flow_timeout":"uint32",)"
            R"("collector_port":"uint16","idle_flow_timeout":"uint32",)"
            R"("observation_domain_id":"uint32","sampling_rate":"uint32"},)"
            R"("active_flow_timeout":300,"collector_address":"10.0.0.5","collector_port":4739,)"
            R"("idle_flow_timeout":60,"internal_flows_only":true,"observation_domain_id":77,)"
            R"("sampling_rate":16909060}}})");
  EXPECT_EQ(Only(Load(10, "ipfix", kIpfix), kIpfix), v4);

  const Bytes v6 = Ipfix({0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, true);
  ASSERT_EQ(Save(10, "ipfix", kIpfix, v6), 0u);
  EXPECT_NE(sw_.Content().find(R"("collector_address":"fe80:0000:0000:0000:0000:0000:0000:0001")"),
            std::string::npos);
  EXPECT_EQ(Only(Load(10, "ipfix", kIpfix), kIpfix), v6);

  // Text that is no address loads as the zero IPv4 address.
  cs::Object *ipfix = nullptr;
  ASSERT_EQ(cs::GetSubObject(settings_, "ipfix", nullptr, &ipfix), 0);
  ASSERT_EQ(cs::SetValueStr(ipfix, "collector_address", "collector.example"), 0);
  EXPECT_EQ(Only(Load(10, "ipfix", kIpfix), kIpfix), Ipfix(Bytes(16, 0), false));
}

TEST_F(PolicyDiscovery, IpfixToleratesEveryMissingKey) {
  cs::Object *ipfix = nullptr;
  ASSERT_EQ(cs::CreateSubObject(settings_, "ipfix", nullptr, &ipfix), 0);
  ASSERT_EQ(cs::SetValueUint16(ipfix, "collector_port", 2055), 0);
  EXPECT_EQ(Only(Load(10, "ipfix", kIpfix), kIpfix), Record(36).u16(24, 2055).b);
  ASSERT_EQ(cs::RemoveValue(settings_, "ipfix"), 0);
  EXPECT_TRUE(Nothing(Load(10, "ipfix", kIpfix)));
}

TEST_F(PolicyDiscovery, ShortOrUnaddressableValuesAreRefusedUntouched) {
  const struct {
    uint32_t kind;
    const char *key, *name;
    Bytes value;
  } cases[] = {
      {8, "link_discovery_protocol", kCdp, Bytes{1}},
      {8, "link_discovery_protocol", kCdp, Bytes{}},
      {16, "lacp_groups", kLacp, Bytes{1, 0}},
      {16, "lacp_groups", kLacp, Cat({U32(2), Group("a", "g1", 0, 0, 1)})},
      {16, "lacp_groups", kLacp, Cat({U32(1), Group("no key", "", 0, 0, 1)})},
      {35, "lacp_policy", kPortLacp, Bytes(7, 0)},
      {10, "ipfix", kIpfix, Bytes(35, 0)},
  };
  for (const auto &c : cases) {
    MemObject o;
    cs::Object *settings = o.Settings();
    EXPECT_EQ(SaveCase(c.kind, o.get(), settings, c.key, c.name, c.value), kFail) << c.kind;
    EXPECT_EQ(o.Content(), R"({"settings":{}})") << c.kind;
  }
}

TEST_F(PolicyDiscovery, SwitchAndPortThroughTheStore) {
  SwitchDef s;
  s.id = "sw-d";
  const Bytes lacp = Cat({U32(1), Group("lag", "g7", 1, 3, 2)});
  const Bytes ipfix = Ipfix({192, 168, 0, 9}, false);
  s.global = {{"com.zorlan.common.version", U32(7)},
              {"com.zorlan.common.respools.sched", Bytes{0}},
              {kCdp, Bytes{0, 2}},
              {kLacp, lacp},
              {kIpfix, ipfix}};
  s.ports = {{"p1", {{kPortLacp, Bytes{0, 0, 0, 0, 2, 0, 0, 0}}}}};
  ScopedKinds pools({36}, zp::KindCase{NoSave, NoLoad});
  ASSERT_EQ(PersistTest::Save({s}), 0u);
  Loaded sw = LoadOne();
  for (const auto &[name, value] : s.global) EXPECT_EQ(Value(sw.global, name), value) << name;
  ASSERT_EQ(sw.ports.size(), 1u);
  EXPECT_EQ(sw.ports[0].second, s.ports[0].second);
}

}  // namespace
