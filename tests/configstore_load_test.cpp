// The load driver over hand-written switch objects: blob, version, ports, desired layer,
// failures with their messages.
#include <string>

#include "configstore_persist_support.h"
#include "state/state_testing.h"

using namespace persisttest;
using Op = cs::testing::Op;

namespace {

std::string Object(const std::string &id, const std::string &version, const std::string &rest,
                   int maxPorts = 16, const std::string &cls = "vswitch") {
  return R"({"uuid":")" + id + R"(","max_ports":)" + std::to_string(maxPorts) +
         R"(,"product":{"forwarding_class":")" + cls + R"(","version":")" + version + R"("})" +
         rest + "}";
}

// Three ports named by their "name"; p1 is the only uplink.
const std::string kThreePorts =
    Object("sw", "6.6.0",
           R"(,"resource_management":{"enable":false},"uplink_port_keys":["p1"],)"
           R"("ports":[{"key":"p1","name":"one"},{"key":"p2","name":"two"},)"
           R"({"key":"p3","name":"three"}])");

class PersistLoad : public PersistTest {};

TEST_F(PersistLoad, EmptyStoreGivesAnEmptyBlob) {
  void *blob = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(ZELState_LoadFromConfigStoreAsBuf(&blob, &length, false), 0u);
  const auto *b = static_cast<const uint8_t *>(blob);
  EXPECT_EQ(Bytes(b, b + length), (Bytes{16, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
  std::free(blob);
  EXPECT_EQ(ZELState_LoadFromConfigStoreAsBuf(nullptr, &length, false), kFail);
  // Only under "resource_management" do ports load.
  Put("sw", Object("sw", "7.0.0", R"(,"qor_enabled":false,"ports":[{"key":"p1"}])"));
  const Loaded sw = LoadOne();
  EXPECT_EQ(sw.version, 7u);
  EXPECT_TRUE(sw.ports.empty());
}

// Hand-written switch objects: the load's status and messages; a load that succeeds returns a
// blob the state database takes with every switch it read.
TEST_F(PersistLoad, HandWrittenObjects) {
  zel::state::testing::SetPortLimit(64);
  auto failed = [](const std::string &id) {
    return "Failed to load buf of switch: " + id + " from configstore\n";
  };
  const std::string u64(64, 'u'), twoPorts = R"(,"resource_management":{},"ports":[{"key":"1"},{"key":"2"}])";
  std::vector<std::string> many;
  for (int i = 0; i <= ZEL_MAX_SWITCHES; ++i) many.push_back(Object("s" + std::to_string(i), "7.0.0", "", 1));
  struct Row {
    std::vector<std::string> objects;  // stored as "sw", "sw1", "sw2", ...
    uint32_t status;
    std::string out;
    uint32_t withoutKind = 0;
    Op fail = Op::kGetStore;
    int failStatus = 0;
    int level = 0;
  } rows[] = {
      {{Object("sw", "7.0.0", "")}, 0,
       "Loading switch:sw\nUnabled to get qor_enabledLoadProps: globalPropList\n"
       "Unabled to get qor_enabledLoadProps: hostPropList\n", 0, Op::kGetStore, 0, 1},
      {{Object("sw", "7.0", "")}, kFail, "Unknown zel version 7.0\n" + failed("sw")},
      {{R"({"uuid":"sw","max_ports":1})"}, 6, failed("sw")},
      {{R"({"uuid":"sw","product":{"forwarding_class":"x","version":"6.0.0"}})"}, 6,
       "Failed to get max_ports, rc: 6\n" + failed("sw")},
      {{R"({"uuid":"sw","max_ports":1,"product":{"version":"6.0.0"}})"}, 6,
       "Failed to get forwarding_class, rc: 6\n" + failed("sw")},
      // Without a readable uuid the repeated read's status ends the load.
      {{R"({"uuid":7,"max_ports":1})"}, 3, "Failed to get uuid, rc: 3\n"},
      // Policy rows are rejected until their kinds are in place.
      {{Object("sw", "6.6.0", "")}, kFail,
       "Faild to load prop: com.zorlan.common.vlanmtucheck.deploy, key: health_checks, "
       "type:11 from configstore, rc: -1\n"
       "Load zel props from configstore failed, props type:globalPropList\n" + failed("sw"), 11},
      {{kThreePorts}, kFail,
       "Faild to load prop: com.zorlan.common.port.respools.cfg, key: traffic_resources, "
       "type:36 from configstore, rc: -1\nLoad zel props from configstore failed, props type:p1\n" +
           failed("sw"), 36},
      {{Object("sw", "6.6.0", "")}, 7, "Get store failed", 0, Op::kGetStore, cs::kStorage},
      {{Object("sw", "6.6.0", "")}, 9, "Failed to get zel instances", 0, Op::kGetInstances,
       cs::kCorrupt},
      {{Object("sw-blue", "7.0.0", ""), Object("sw-blue", "7.0.0", "")}, kFail,
       "Duplicate switch uuid sw-blue in configstore\n" + failed("sw-blue")},
      {{Object(u64, "7.0.0", "")}, kFail,
       "Switch uuid " + u64 + " is longer than 63 characters\n" + failed(u64)},
      {{Object("sw-blue", "7.0.0",
               R"(,"resource_management":{},"ports":[{"key":"1"},{"key":")" +
                   std::string(48, 'p') + R"("}])")},
       0, "Port key " + std::string(48, 'p') + " is too long, port skipped\n"},
      {{Object("sw-blue", "7.0.0", "", 65, "fabric")}, kFail,
       "Switch sw-blue: max_ports 65 for 0 ports does not fit the 64 free ports of the host\n" +
           failed("sw-blue")},
      {{Object("sw-blue", "7.0.0", twoPorts, 1, "fabric")}, kFail,
       "Switch sw-blue: max_ports 1 for 2 ports does not fit the 64 free ports of the host\n" +
           failed("sw-blue")},
      {{Object("sw-blue", "7.0.0", twoPorts, 2, "fabric")}, 0, ""},
      {many, kFail, "Too many switch objects in configstore: 33, at most 32\n"},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.out);
    cfgtest::TempStore fresh;
    for (size_t k = 0; k < r.objects.size(); ++k)
      Put("sw" + (k > 0 ? std::to_string(k) : ""), r.objects[k]);
    ScopedKinds without(std::vector<uint32_t>(r.withoutKind != 0, r.withoutKind), zp::KindCase{});
    if (r.failStatus != 0) cs::testing::FailNext(r.fail, r.failStatus);
    zeltest::ScopedLevel level(zelconfigstore_debug, r.level);
    void *blob = nullptr;
    uint32_t length = 0, status = 0;
    EXPECT_EQ(zeltest::CaptureStdout(
                  [&] { status = ZELState_LoadFromConfigStoreAsBuf(&blob, &length, false); }),
              r.out);
    EXPECT_EQ(status, r.status);
    if (status == 0) {
      EXPECT_EQ(ZELState_ConfigDeserialize(blob, length), STATUS_OK);
      int count = 0;
      ZELState_SwitchForEach([](SwitchState *, void *n) { return ++*static_cast<int *>(n), false; },
                             &count);
      EXPECT_EQ(count, 1);
      ZELState_ConfigReset();
    }
    std::free(blob);
  }
}

// The port catch-all row is the last one a port walks; these act on the loaded element.
uint32_t FailNextKeyRead(const zp::LoadArgs &a) {
  // The next read is p2's "key".
  if (cfgtest::Str(a.object, "key") == "p1") cs::testing::FailNext(Op::kGetValueStr, cs::kStorage);
  return 0;
}
uint32_t AbsentForP2(const zp::LoadArgs &a) {
  return cfgtest::Str(a.object, "key") == "p2" ? 6 : 0;
}

TEST_F(PersistLoad, AnUnreadablePortIsSkippedAndTheOthersLoad) {
  Put("sw", kThreePorts);
  ScopedKinds kind36({36}, zp::KindCase{NoSave, NoLoad});
  using Ports = std::vector<std::pair<std::string, Props>>;
  const Ports expected = {{"p1", {{"com.zorlan.common.port.alias", Text("one")}}},
                          {"p3", {{"com.zorlan.common.port.alias", Text("three")}}}};
  const std::pair<zp::LoadFn, const char *> cases[] = {
      {FailNextKeyRead, "Failed to get port key, rc: 7\n"},
      {AbsentForP2, "Faild to load prop: DEFAULT, key: data, type:33 from configstore, rc: 6\n"
                    "Load zel props from configstore failed, props type:p2\n"}};
  for (const auto &[load, message] : cases) {
    ScopedKinds kind33({33}, zp::KindCase{NoSave, load});
    zeltest::ScopedLevel level(zelconfigstore_debug, 0);
    Loaded sw;
    std::string out = zeltest::CaptureStdout([&] { sw = LoadOne(); });
    EXPECT_EQ(sw.ports, expected);  // p2's properties are filed under no other key
    EXPECT_EQ(out, message);
  }
  // A port keyed like an entry of the switch list would overwrite it.
  Put("sw",
      Object("sw", "6.6.0", R"(,"resource_management":{},"ports":[{"key":"className","name":"x"}])"));
  Loaded sw = LoadOne();
  EXPECT_TRUE(sw.ports.empty());
  EXPECT_EQ(sw.className, Text("vswitch"));
}

TEST_F(PersistLoad, DesiredLayerPairsObjectsByPosition) {
  Put("a", Object("a", "6.6.0", R"(,"portset_name":"current-a")"));
  Put("b", Object("b", "6.6.0", R"(,"portset_name":"current-b")"));
  Put("a", Object("a", "5.0", ""), true);  // unloadable: shows that the desired layer is read
  uint32_t status = 0;
  LoadAll(&status, true);
  EXPECT_EQ(status, kFail);  // one desired, two current
  Put("a", Object("a", "6.5.0", R"(,"portset_name":"desired-a")"), true);
  Put("b", Object("b", "6.0.0", ""), true);
  auto loaded = LoadAll(&status, true);
  ASSERT_EQ(status, 0u);
  ASSERT_EQ(loaded.size(), 2u);
  EXPECT_EQ(loaded[0].second.version, 5u);
  EXPECT_EQ(loaded[0].second.host, (Props{{"com.zorlan.common.host.portset", Text("current-a")}}));
  EXPECT_EQ(loaded[1].second.version, 4u);
  EXPECT_EQ(loaded[1].second.host, (Props{{"com.zorlan.common.host.portset", Text("current-b")}}));

  cs::testing::FailNext(Op::kGetDesiredUserConfigInstances, cs::kBusy);
  zeltest::ScopedLevel level(zelconfigstore_debug, 0);
  std::string out = zeltest::CaptureStdout([&] { LoadAll(&status, true); });
  EXPECT_EQ(status, 8u);
  EXPECT_EQ(out, "Failed to get zel desired user config instances");
}

// Every allocation of the load's lists fails once in turn: the load fails cleanly (nothing
// handed back, nothing left allocated) until none fails.
TEST_F(PersistLoad, AllocationFailures) {
  Put("sw", Object("sw", "6.6.0", R"(,"name":"sky")"));
  namespace fa = zeltest::failalloc;
  zp::testing::SetLoadAllocator(fa::Alloc, fa::Free);
  zeltest::ScopedLevel level(zelconfigstore_debug, 1);
  bool sawListMessage = false;
  for (uint64_t k = 1;; ++k) {
    SCOPED_TRACE(k);
    fa::FailAt(k);
    void *blob = nullptr;
    uint32_t length = 0, status = 0;
    std::string out = zeltest::CaptureStdout(
        [&] { status = ZELState_LoadFromConfigStoreAsBuf(&blob, &length, false); });
    if (status == 0) {
      EXPECT_GT(k, 4u);
      fa::Free(blob);
      break;
    }
    EXPECT_EQ(blob, nullptr);
    EXPECT_EQ(fa::Live(), 0);
    sawListMessage |= out.find("Load zel: sw from configstore failed, error: ") != std::string::npos;
  }
  EXPECT_TRUE(sawListMessage);
  fa::FailAt(0);
  EXPECT_EQ(fa::Live(), 0);
}

}  // namespace
