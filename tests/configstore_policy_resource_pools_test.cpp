// Health checks and network resource pools: packed values, stored content, loads, and the copy of
// the switch's pools every uplink port receives.
#include <string>

#include "configstore/policy/resource_pools.h"
#include "configstore_policy_opaque_support.h"

using namespace policytest;
using json = nlohmann::json;
using Op = cs::testing::Op;

namespace {

constexpr const char *kVlanMtu = "com.zorlan.common.vlanmtucheck.deploy";
constexpr const char *kTeaming = "com.zorlan.common.teamcheck.deploy";
constexpr const char *kPools = "com.zorlan.common.respools.cfg";
constexpr const char *kKeys = "com.zorlan.common.respools.list";
constexpr const char *kPortPools = "com.zorlan.common.port.respools.cfg";

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
    b = Cat({b, Slot(p.key, 128), Bytes{filler}, U32(p.reservation), Bytes(67, filler), U32(p.shares),
             U32(static_cast<uint32_t>(p.limit)), Bytes(4, filler)});
  }
  return b;
}

Bytes Keys(const std::vector<std::string> &keys) {
  Bytes b = U32(static_cast<uint32_t>(keys.size()));
  for (const std::string &k : keys) b = Cat({b, Slot(k, 200)});
  return b;
}

class PolicyPools : public PolicyTest {};

TEST_F(PolicyPools, HealthChecksSaveTheFlagAndIntervalAndLoadAsFiveBytes) {
  auto o = Stored("{}");
  EXPECT_EQ(SaveCase(11, o.get(), "health_checks", kVlanMtu, HealthCheck(2, 60), 16), 0u);
  EXPECT_EQ(SaveCase(11, o.get(), "health_checks", kTeaming, HealthCheck(0, 0x01020304), 16), 0u);
  EXPECT_EQ(Content(o.get()), json::parse(R"({"health_checks":[
      {"@types":{"interval":"uint32"},"enabled":true,"interval":60,"key":"VLAN_MTU"},
      {"@types":{"interval":"uint32"},"enabled":false,"interval":16909060,"key":"TEAMING"}]})"));
  TypedProps loaded;
  EXPECT_EQ(LoadCase(11, o.get(), "health_checks", kVlanMtu, &loaded), 0u);
  EXPECT_EQ(loaded, (TypedProps{{kVlanMtu, Bytes{1, 60, 0, 0, 0}, 16}}));
  EXPECT_EQ(LoadCase(11, o.get(), "health_checks", kTeaming, &loaded), 0u);
  EXPECT_EQ(loaded, (TypedProps{{kTeaming, Bytes{0, 4, 3, 2, 1}, 16}}));

  // Fields that cannot be read stay zero; an absent check adds nothing.
  auto partial = Stored(R"({"health_checks":[{"key":"TEAMING","enabled":true}]})");
  EXPECT_EQ(LoadCase(11, partial.get(), "health_checks", kTeaming, &loaded), 0u);
  EXPECT_EQ(loaded, (TypedProps{{kTeaming, Bytes{1, 0, 0, 0, 0}, 16}}));
  EXPECT_EQ(LoadCase(11, partial.get(), "health_checks", kVlanMtu, &loaded), 0u);
  EXPECT_TRUE(loaded.empty());
}

TEST_F(PolicyPools, HealthCheckRefusals) {
  auto o = Stored("{}");
  std::string out;
  {
    zeltest::ScopedLevel level(zelconfigstore_debug, 0);
    out = zeltest::CaptureStdout([&] {
      EXPECT_EQ(SaveCase(11, o.get(), "health_checks", "com.x.check", HealthCheck(1, 1), 16),
                kFail);
    });
  }
  EXPECT_EQ(out, "Unknown health check type com.x.check\n");
  EXPECT_EQ(SaveCase(11, o.get(), "health_checks", kVlanMtu, Bytes{1, 0, 0, 0}, 16), kFail);
  EXPECT_EQ(Content(o.get()), json::object());  // nothing written
  TypedProps loaded;
  EXPECT_EQ(LoadCase(11, o.get(), "health_checks", "com.x.check", &loaded), kFail);

  cs::testing::FailNext(Op::kSetValueBool, 7);
  EXPECT_EQ(SaveCase(11, o.get(), "health_checks", kVlanMtu, HealthCheck(1, 1), 16), 7u);
  cs::testing::FailNext(Op::kSetValueUint32, 8);
  EXPECT_EQ(SaveCase(11, o.get(), "health_checks", kVlanMtu, HealthCheck(1, 1), 16), 8u);
  cs::testing::FailNext(Op::kGetSubObject, 9);
  EXPECT_EQ(LoadCase(11, o.get(), "health_checks", kVlanMtu, &loaded), 9u);
}

TEST_F(PolicyPools, PoolsKeepTheirConvertedFieldsAtTheirOffsets) {
  auto o = Stored("{}");
  const Bytes value = Pools({{"pool-a", 100, 50, -1}, {"pool-b", 0x01020304, 7, 1000}}, 0xEE);
  EXPECT_EQ(SaveCase(12, o.get(), "traffic_resources", kPools, value, 16), 0u);
  EXPECT_EQ(Content(o.get()), json::parse(R"({"traffic_resources":[
      {"allocation":{"@types":{"limit":"int32","reservation":"uint32"},"limit":-1,
                     "reservation":100,"shares":{"@types":{"shares":"uint32"},"shares":50}},
       "key":"pool-a"},
      {"allocation":{"@types":{"limit":"int32","reservation":"uint32"},"limit":1000,
                     "reservation":16909060,"shares":{"@types":{"shares":"uint32"},"shares":7}},
       "key":"pool-b"}]})"));
  TypedProps loaded;
  EXPECT_EQ(LoadCase(12, o.get(), "traffic_resources", kPools, &loaded), 0u);
  // The bytes that are not converted come back zero.
  EXPECT_EQ(loaded, (TypedProps{{kPools, Pools({{"pool-a", 100, 50, -1},
                                                {"pool-b", 0x01020304, 7, 1000}}),
                                 16}}));

  // A pool without allocation loads as its key alone; a long key is cut.
  const std::string longKey(150, 'k');
  auto partial = Stored(R"({"traffic_resources":[{"key":")" + longKey + R"("}]})");
  EXPECT_EQ(LoadCase(12, partial.get(), "traffic_resources", kPools, &loaded), 0u);
  EXPECT_EQ(loaded, (TypedProps{{kPools, Pools({{longKey.substr(0, 127), 0, 0, 0}}), 16}}));
}

TEST_F(PolicyPools, PoolValuesThatAreEmptyOrShortAndStoreFailures) {
  auto o = Stored("{}");
  EXPECT_EQ(SaveCase(12, o.get(), "traffic_resources", kPools, U32(0), 16), 0u);
  EXPECT_EQ(SaveCase(13, o.get(), "network_resource_pool_keys", kKeys, U32(0), 16), 0u);
  EXPECT_EQ(Content(o.get()), json::object());
  // Counts beyond the value, values without a count, an empty pool key.
  Bytes cut = Pools({{"a", 1, 1, 1}, {"b", 1, 1, 1}});
  cut.resize(cut.size() - 1);
  EXPECT_EQ(SaveCase(12, o.get(), "traffic_resources", kPools, cut, 16), kFail);
  EXPECT_EQ(SaveCase(12, o.get(), "traffic_resources", kPools, Bytes{1, 0, 0}, 16), kFail);
  Bytes keys = Keys({"a", "b"});
  keys.resize(keys.size() - 1);
  EXPECT_EQ(SaveCase(13, o.get(), "network_resource_pool_keys", kKeys, keys, 16), kFail);
  EXPECT_EQ(Content(o.get()), json::object());
  EXPECT_EQ(SaveCase(12, o.get(), "traffic_resources", kPools, Pools({{"", 1, 1, 1}}), 16), kFail);

  // Absent lists add nothing.
  TypedProps loaded;
  EXPECT_EQ(LoadCase(12, o.get(), "traffic_resources", kPools, &loaded), 0u);
  EXPECT_EQ(LoadCase(13, o.get(), "network_resource_pool_keys", kKeys, &loaded), 0u);
  auto empty = Stored(R"({"traffic_resources":[],"network_resource_pool_keys":[]})");
  EXPECT_EQ(LoadCase(12, empty.get(), "traffic_resources", kPools, &loaded), 0u);
  EXPECT_EQ(LoadCase(13, empty.get(), "network_resource_pool_keys", kKeys, &loaded), 0u);
  EXPECT_TRUE(loaded.empty());

  // Store failures: each save step, and the listings of a load.
  for (Op op : {Op::kGetSubObject, Op::kSetValueUint32, Op::kSetValueInt}) {
    auto fresh = Stored("{}");
    cs::testing::FailNext(op, 7, op == Op::kSetValueUint32 ? 1 : 0);
    EXPECT_EQ(SaveCase(12, fresh.get(), "traffic_resources", kPools, Pools({{"a", 1, 1, 1}}), 16),
              7u)
        << static_cast<int>(op);
    cs::testing::ClearFailures();
  }
  cs::testing::FailNext(Op::kAppendValueString, 7, 1);
  EXPECT_EQ(SaveCase(13, o.get(), "network_resource_pool_keys", kKeys, Keys({"a", "b"}), 16), 7u);
  cs::testing::FailNext(Op::kGetSubObjectInstances, 8);
  EXPECT_EQ(LoadCase(12, o.get(), "traffic_resources", kPools, &loaded), 8u);
  cs::testing::FailNext(Op::kCreateFilterSpecObject, 5);
  EXPECT_EQ(LoadCase(12, o.get(), "traffic_resources", kPools, &loaded), 5u);
  cs::testing::FailNext(Op::kGetValueStringArray, 9);
  EXPECT_EQ(LoadCase(13, o.get(), "network_resource_pool_keys", kKeys, &loaded), 9u);
}

TEST_F(PolicyPools, KeyListSavesAsStringsAndLoadsInSlots) {
  auto o = Stored(R"({"network_resource_pool_keys":["stale"]})");
  EXPECT_EQ(SaveCase(13, o.get(), "network_resource_pool_keys", kKeys,
                     Keys({"alpha", "beta", "gamma"}), 16),
            0u);
  EXPECT_EQ(Content(o.get()), json::parse(R"({"network_resource_pool_keys":
                                              ["alpha","beta","gamma"]})"));
  TypedProps loaded;
  EXPECT_EQ(LoadCase(13, o.get(), "network_resource_pool_keys", kKeys, &loaded), 0u);
  EXPECT_EQ(loaded, (TypedProps{{kKeys, Keys({"alpha", "beta", "gamma"}), 16}}));  // 604 bytes

  // A slot holds 199 characters on saving; a load cuts keys to 127.
  const std::string longKey(199, 'x');
  auto big = Stored("{}");
  EXPECT_EQ(SaveCase(13, big.get(), "network_resource_pool_keys", kKeys, Keys({longKey}), 16), 0u);
  EXPECT_EQ(Content(big.get())["network_resource_pool_keys"][0], longKey);
  EXPECT_EQ(LoadCase(13, big.get(), "network_resource_pool_keys", kKeys, &loaded), 0u);
  EXPECT_EQ(loaded, (TypedProps{{kKeys, Keys({longKey.substr(0, 127)}), 16}}));
}

TEST_F(PolicyPools, UplinkPortsReceiveTheSwitchPoolsOnLoading) {
  const Bytes pools = Pools({{"vm", 10, 20, 30}, {"mgmt", 0, 100, -1}});
  TypedSwitch s;
  s.global = {{"com.zorlan.common.version", U32(7), 16},
              {kVlanMtu, HealthCheck(1, 30), 16},
              {kPools, pools, 16},
              {kKeys, Keys({"vm", "mgmt"}), 16}};
  s.host = {{"com.zorlan.common.host.uplinkPorts", Cat({U32(1), Slot("p1", 48)}), 16}};
  s.ports = {{"p1", {{kPortPools, Pools({{"ignored", 1, 1, 1}}), 16}}}, {"p2", {}}};
  ASSERT_EQ(Save(TypedBlob(s)), 0u);
  const json stored = json::parse(Json("sw"));
  // The port's own copy is not stored.
  const json settings = stored["ports"][0].value("settings", json::object());
  EXPECT_FALSE(settings.contains("network_resource_pools")) << settings.dump();

  uint32_t status = 1;
  const TypedLoaded sw = LoadTyped(&status);
  ASSERT_EQ(status, 0u);
  EXPECT_EQ(Only(sw.global, {kVlanMtu, kPools, kKeys}),
            (TypedProps{{kVlanMtu, HealthCheck(1, 30), 16},
                        {kPools, pools, 16},
                        {kKeys, Keys({"vm", "mgmt"}), 16}}));
  ASSERT_EQ(sw.ports.size(), 2u);
  EXPECT_EQ(sw.ports[0].first, "p1");
  EXPECT_EQ(Only(sw.ports[0].second, {kPortPools}), (TypedProps{{kPortPools, pools, 16}}));
  EXPECT_EQ(Only(sw.ports[1].second, {kPortPools}), TypedProps{});
}

}  // namespace
