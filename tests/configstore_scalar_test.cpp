// The plain conversions through a real store file: exact stored content and what loads back.
#include <string>
#include <tuple>

#include "configstore_policy_support.h"

using namespace policytest;

namespace {

SwitchDef EtherSwitch() {
  return {"sw-1", "etherswitch", 7,
          {{"com.zorlan.common.alias", Text("sky-a")}, {"com.zorlan.common.version", U32(7)},
           {"com.zorlan.etherswitch.mtu", U32(9000)}, {"com.zorlan.common.opaqueZel", Text("true")},
           {"com.zorlan.common.uplinkPorts", NameList({"uplink1", "uplink2"}, 81)},
           {"com.zorlan.etherswitch.ipv4addr", Bytes{0xC0, 0xA8, 0x01, 0x0A}},
           {"com.zorlan.etherswitch.beaconTimeout", U32(0xFFFFFFFF)},
           {"com.zorlan.etherswitch.multicastFilter", Text("legacyFiltering")},
           {"com.zorlan.common.respools.sched", Bytes{1}},
           {"com.zorlan.common.respools.version", Text("version3")},
           {"com.zorlan.common.resv.threshold", U32(75)}},
          {{"com.zorlan.common.host.portset", Text("ps-1")},
           {"com.zorlan.common.host.uplinkPorts", NameList({"p1", "p9"}, 48)},
           {"com.zorlan.common.portset.qor", Text("false")}},
          {{"p1",
            {{"com.zorlan.common.port.alias", Text("vm-nic")},
             {"com.zorlan.common.port.connectid", U32(12345)},
             {"com.zorlan.common.port.block", Text("true")},
             {"com.zorlan.common.port.ptAllowed", U32(2)},
             {"com.zorlan.etherswitch.port.txUplink", Text("always")},
             {"com.zorlan.common.port.portgroupid", Text("pg-7")},
             {"com.zorlan.etherswitch.port.ipfix", Text("enabled")},
             {"com.zorlan.common.port.backingType", Text("standard")},
             {"com.zorlan.vswitch.port.priority", U32(5)}}}}};
}

class PersistScalar : public RoundTripTest {};

TEST_F(PersistScalar, EtherswitchSavesExactContentAndLoadsBack) {
  ASSERT_EQ(Save({EtherSwitch()}), 0u);
  EXPECT_EQ(Json("sw-1"),
            R"({"@types":{"max_ports":"int32"},"is_opaque":true,"max_ports":4096,"name":"sky-a",)"
            R"("ports":[{"@types":{"connection_cookie":"uint32"},"connection_cookie":12345,)"
            R"("key":"p1","name":"vm-nic","port_group_key":"pg-7","settings":{)"
            R"("backing_type":"standard","blocked":true,"ferrox_gen2_allowed":true,)"
            R"("ipfix_enabled":true,"tx_uplink":true,)"
            R"("vlan":{"@types":{"priority":"uint32"},"priority":5}}}],)"
            R"("portset_name":"ps-1","product":{"forwarding_class":"etherswitch",)"
            R"("version":"7.0.0"},)"
            R"("qor_enabled":false,"resource_management":{)"
            R"("@types":{"pnic_capacity_ratio_for_reservation":"uint32"},"enable":true,)"
            R"("network_resource_control_version":"version3",)"
            R"("pnic_capacity_ratio_for_reservation":75},)"
            R"("settings":{"@types":{"beacon":"int32","max_mtu":"uint32"},"beacon":-1,)"
            R"("max_mtu":9000,"multicast_filtering_mode":"legacyFiltering"},)"
            R"("switch_address":"192.168.1.10","uplink_port_keys":["p1","p9"],)"
            R"("uplink_port_names":["uplink1","uplink2"],"uuid":"sw-1"})");

  Loaded sw = LoadOne();
  // The MTU key is shared, so the common row comes back as well.
  Props global = EtherSwitch().global;
  global.insert(global.begin() + 2, {"com.zorlan.common.portset.mtu", U32(9000)});
  EXPECT_EQ(sw.global, global);
  EXPECT_EQ(sw.host, EtherSwitch().host);
  // The "vlan" object holding the priority loads as a port VLAN policy too (VLAN 0).
  Props port = EtherSwitch().ports[0].second;
  port.insert(port.begin() + 6, {"com.zorlan.etherswitch.port.vlan", Bytes(8, 0)});
  EXPECT_EQ(sw.ports, (std::vector<std::pair<std::string, Props>>{{"p1", port}}));
}

TEST_F(PersistScalar, FlagsTextsAndListsAreNormalizedOrRefused) {
  const char *sched = "com.zorlan.common.respools.sched", *opaque = "com.zorlan.common.opaqueZel";
  const char *qor = "com.zorlan.common.portset.qor", *block = "com.zorlan.common.port.block";
  const char *tx = "com.zorlan.etherswitch.port.txUplink", *pt = "com.zorlan.common.port.ptAllowed";
  const char *ipfix = "com.zorlan.etherswitch.port.ipfix";
  const char *uplinks = "com.zorlan.common.uplinkPorts";
  const char *keys = "com.zorlan.common.host.uplinkPorts";
  const std::string key(60, 'k'), name(100, 'n');
  Check({
      {3, "enable", sched, Bytes{7}, R"({"enable":true})", {{sched, {1}}}},
      {4, "is_opaque", opaque, Text("truex"), R"({"is_opaque":false})", {{opaque, Text("false")}}},
      {4, "is_opaque", opaque, Text("tru"), R"({"is_opaque":false})", {{opaque, Text("false")}}},
      // A text without its NUL is read to the value's end.
      {4, "is_opaque", opaque, Bytes{'t', 'r', 'u', 'e'}, "@true", {{opaque, Text("true")}}},
      {19, "qor_enabled", qor, Text("TRUE"), R"({"qor_enabled":false})", {{qor, Text("false")}}},
      {19, "qor_enabled", qor, Text("true"), R"({"qor_enabled":true})", {{qor, Text("true")}}},
      {31, "blocked", block, Text("1"), R"({"blocked":false})", {{block, Text("false")}}},
      {23, "tx_uplink", tx, Text("sometimes"), R"({"tx_uplink":false})", {{tx, Text("normal")}}},
      {32, "ferrox_gen2_allowed", pt, U32(1), R"({"ferrox_gen2_allowed":false})", {{pt, U32(0)}}},
      {34, "ipfix_enabled", ipfix, Text("disabled"), R"({"ipfix_enabled":false})", {}},
      // An empty list of uplink names is not stored, and silently; one of uplink keys is.
      {20, "uplink_port_names", uplinks, NameList({}, 81), "{}", {}, 0, {}, kOther, ""},
      {14, "uplink_port_keys", keys, NameList({}, 48), R"({"uplink_port_keys":[]})", {}},
      // Short numbers and counts are refused; only whole slots are read; names are cut to slots.
      {0, "ratio", "com.zorlan.common.resv.threshold", Bytes{1, 2}, "{}", {}, kFail},
      {5, "switch_address", "com.zorlan.etherswitch.ipv4addr", Bytes{10, 0, 0}, "{}", {}, kFail},
      {5, "switch_address", "com.zorlan.etherswitch.ipv4addr", {}, R"(@"192.168.1")", {}, kFail},
      {20, "uplink_port_names", uplinks, Bytes{1, 0}, "{}", {}, kFail},
      {20, "uplink_port_names", uplinks, Short(NameList({"u1", "u2"}, 81, 5)), R"(@["u1"])",
       {{uplinks, NameList({"u1"}, 81)}}},
      {14, "uplink_port_keys", keys, NameList({"k1", "k2"}, 48, 3), R"(@["k1","k2"])",
       {{keys, NameList({"k1", "k2"}, 48)}}},
      {20, "uplink_port_names", uplinks, {}, "@[\"" + name + "\"]",
       {{uplinks, NameList({name.substr(0, 80)}, 81)}}},
      {14, "uplink_port_keys", keys, {}, "@[\"" + key + "\",\"p2\"]",
       {{keys, NameList({key.substr(0, 47), "p2"}, 48)}}},
  });
}

TEST_F(PersistScalar, VersionCodeAsTextAndBackWithTheQorFlag) {
  const char *version = "com.zorlan.common.version";
  // The code saved, its text, the loaded switch's "qor_enabled" (or none) and the code loaded.
  const std::tuple<uint32_t, const char *, const char *, uint32_t> cases[] = {
      {4, "6.0.0", nullptr, 4},    {5, "6.5.0", nullptr, 5},   {6, "6.6.0", nullptr, 6},
      {7, "7.0.0", nullptr, 7},    {100, "QOR 1.0", nullptr, 100},
      {107, "7.0.0", "true", 107}, {107, "7.0.0", "false", 7}, {107, "7.0.0", nullptr, 7}};
  for (const auto &[code, text, qor, loaded] : cases) {
    cfgtest::ObjectPtr o = Stored("{}");
    EXPECT_EQ(SaveOn(o.get(), 15, "version", version, U32(code)), 0u);
    const std::string stored = R"("version":")" + std::string(text) + "\"";
    EXPECT_EQ(cfgtest::Json(o.get()), "{" + stored + "}");
    const std::string flag = qor ? R"(,"qor_enabled":)" + std::string(qor) : "";
    Check({15, "version", version, {}, R"({"product":{)" + stored + "}" + flag + "}",
           {{version, U32(loaded)}}});
  }
  Check({15, "version", version, U32(8), "{}", {}, kFail, {}, kOther, "Unknow version : 8\n"});
}

}  // namespace
