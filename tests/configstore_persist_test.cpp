// The load and save drivers over the store: hand-written objects loaded or refused, the desired
// layer; objects rewritten and deleted all or nothing, the save's output; the state file's switch.
#include <stdlib.h>

#include <regex>
#include <string>
#include <tuple>

#include "configstore_persist_support.h"
#include "state/state_testing.h"
#include "zel/file.h"

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
  const std::string u64(64, 'u');
  const std::string twoPorts = R"(,"resource_management":{},"ports":[{"key":"1"},{"key":"2"}])";
  std::vector<std::string> many;
  for (int i = 0; i <= ZEL_MAX_SWITCHES; ++i)
    many.push_back(Object("s" + std::to_string(i), "7.0.0", "", 1));
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
      // The ports of the switches before count against the host's.
      {{Object("sw-blue", "7.0.0", twoPorts, 2, "fabric"),
        Object("sw-red", "7.0.0", "", 63, "fabric")}, kFail,
       "Switch sw-red: max_ports 63 for 0 ports does not fit the 62 free ports of the host\n" +
           failed("sw-red")},
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
  if (cfgtest::Str(a.object, "key") == "p1") cs::testing::FailNext(Op::kGetValueStr, cs::kStorage);
  return 0;
}
uint32_t AbsentForP2(const zp::LoadArgs &a) {
  return cfgtest::Str(a.object, "key") == "p2" ? 6 : 0;
}

TEST_F(PersistLoad, AnUnreadablePortIsSkippedAndTheOthersLoad) {
  Put("sw", kThreePorts);
  ScopedKinds kind36({36}, zp::KindCase{NoSave, NoLoad});
  const decltype(Loaded::ports) expected = {
      {"p1", {{"com.zorlan.common.port.alias", Text("one")}}},
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
  Put("sw", Object("sw", "6.6.0",
                  R"(,"resource_management":{},"ports":[{"key":"className","name":"x"}])"));
  Loaded sw = LoadOne();
  EXPECT_TRUE(sw.ports.empty());
  EXPECT_EQ(sw.className, Text("vswitch"));
}

// With the data layer tracing, each switch list is nested into the outer
// list as it loads; otherwise all are written into the blob at the end.
// Both give the same bytes.
TEST_F(PersistLoad, TracedAndDirectLoadsGiveTheSameBlob) {
  Put("a", Object("a", "6.6.0",
                  R"(,"resource_management":{},"ports":[{"key":"p1","name":"one"},)"
                  R"({"key":"p2","name":"two","connection_cookie":7}])"));
  Put("b", Object("b", "6.5.0", R"(,"name":"sky")"));
  auto load = [](int level) {
    zeltest::ScopedLevel traced(zeldata_debug, level);
    void *blob = nullptr;
    uint32_t length = 0;
    std::string out = zeltest::CaptureStdout(
        [&] { EXPECT_EQ(ZELState_LoadFromConfigStoreAsBuf(&blob, &length, false), 0u); });
    EXPECT_EQ(out.empty(), level < 2);
    Bytes bytes(static_cast<uint8_t *>(blob), static_cast<uint8_t *>(blob) + length);
    std::free(blob);
    return bytes;
  };
  const Bytes direct = load(0);
  EXPECT_EQ(DecodeBlob(direct.data(), U32Size(direct)).size(), 2u);
  EXPECT_EQ(load(2), direct);
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
    const char *listMessage = "Load zel: sw from configstore failed, error: ";
    sawListMessage |= out.find(listMessage) != std::string::npos;
  }
  EXPECT_TRUE(sawListMessage);
  fa::FailAt(0);
  EXPECT_EQ(fa::Live(), 0);
}

SwitchDef Switch(const std::string &id, const std::string &alias) {
  SwitchDef s;
  s.id = id;
  s.global = {{"com.zorlan.common.alias", Text(alias)}, {"com.zorlan.common.version", U32(6)}};
  return s;
}

// What a save writes for Switch(id, alias) of class etherswitch.
std::string Minimal(const std::string &id, const std::string &alias) {
  return R"({"@types":{"max_ports":"int32"},"max_ports":4096,"name":")" + alias +
         R"(","product":{"forwarding_class":"etherswitch","version":"6.6.0"},"uuid":")" + id +
         R"("})";
}

class PersistSave : public PersistTest {};

TEST_F(PersistSave, StoredObjectsRewrittenWholeAndStaleOnesDeleted) {
  Put("old-1", "{}");
  Put("old-2", R"({"uuid":"old-2"})");
  Put("A", R"({"uuid":"A","name":"old","portset_name":"ps","max_ports":1,"is_opaque":true,)"
           R"("switch_address":"10.0.0.1","uplink_port_keys":["k"],"uplink_port_names":["n"],)"
           R"("uplink_port_groupKeys":["g"],"qor_enabled":true,"custom":"kept",)"
           R"("settings":{"beacon":1},"resource_management":{"enable":true},)"
           R"("product":{"forwarding_class":"vswitch","extra":1},"data":{"x":1},)"
           R"("ports":[{"key":"old-port"}],"uplink_ports":[{"key":"u"}],)"
           R"("pyxnic_ports":[{"key":"n"}],"vtep_ports":[{"key":"v"}],)"
           R"("health_checks":[{"key":"h"}]})");
  SwitchDef a = Switch("A", "a1");
  a.ports = {{"p1", {{"com.zorlan.common.port.alias", Text("nic")}}}};
  ASSERT_EQ(Save({a, Switch("B", "b1")}), 0u);
  // Only keys outside the reset lists survive.
  EXPECT_EQ(Json("A"), R"({"@types":{"max_ports":"int32"},"custom":"kept","max_ports":4096,)"
                       R"("name":"a1","ports":[{"key":"p1","name":"nic"}],)"
                       R"("product":{"forwarding_class":"etherswitch","version":"6.6.0"},)"
                       R"("uuid":"A"})");
  // An object whose "uuid" cannot be read cannot be matched and stays.
  EXPECT_EQ(Json("old-1"), "{}");
  EXPECT_EQ(Json("old-2"), "");

  // By instance: only that switch is written, or deleted when the blob lacks it.
  const Bytes blob = Blob({Switch("A", "a2"), Switch("C", "c1")});
  ASSERT_EQ(Save(blob, "A"), 0u);
  EXPECT_EQ(Json("A"), R"({"@types":{"max_ports":"int32"},"custom":"kept","max_ports":4096,)"
                       R"("name":"a2","product":{"forwarding_class":"etherswitch",)"
                       R"("version":"6.6.0"},"uuid":"A"})");
  EXPECT_EQ(Json("B"), Minimal("B", "b1"));
  EXPECT_EQ(Json("C"), "");
  ASSERT_EQ(Save(blob, "B"), 0u);
  EXPECT_EQ(Json("B"), "");
  const std::string before = Dump();
  ASSERT_EQ(Save(blob, "X"), 0u);  // neither stored nor in the blob
  EXPECT_EQ(Dump(), before);

  // A switch saved without a version is written, with a warning: no load can read it.
  SwitchDef unversioned = Switch("A", "a3");
  unversioned.global.pop_back();
  zelconfigstore_debug = 0;
  EXPECT_EQ(zeltest::CaptureStdout([&] { EXPECT_EQ(Save({unversioned}, "A"), 0u); }),
            "Warning: switch A is saved without \"com.zorlan.common.version\"; no load succeeds "
            "until it has one\n");

  // A blob without switches clears every switch object that carries its id.
  ASSERT_EQ(Save(std::vector<SwitchDef>{}), 0u);
  EXPECT_EQ(Dump(), "current|switches|network_zel|orn|old-1|{}|EXTERNAL\n");
  EXPECT_TRUE(DatabaseEmpty());
}

// Any failure leaves the store as it was (the transaction is cancelled whole), the database empty.
TEST_F(PersistSave, FailuresLeaveTheStoreUnchanged) {
  ScopedKinds rejected({16, 33}, zp::KindCase{});
  ASSERT_EQ(Save({Switch("A", "a1"), Switch("Z", "z1")}), 0u);
  const std::string before = Dump();

  SwitchDef lacp = Switch("B", "b1");
  lacp.global.emplace_back("com.zorlan.etherswitch.lacp", U32(0));  // a kind not in place
  SwitchDef port = Switch("A", "a2");  // unlisted names fall to the catch-all rows
  port.ports = {{"p1", {{"com.vendor.port.opaque", Text("x")}}}};
  SwitchDef mtu = Switch("A", "a3");
  mtu.global.emplace_back("com.zorlan.common.portset.mtu", U32(1500));
  const std::string failed = "Failed to save zel to configstore";
  using Fail = std::tuple<Op, int, int>;  // operation, its status, calls to let pass first
  struct Row {
    std::vector<SwitchDef> switches;
    const char *id;
    std::vector<Fail> fail;
    uint32_t status;
    std::string out;
  } rows[] = {
      {{Switch("A", "a2"), lacp, Switch("C", "c1")}, nullptr, {}, kFail,
       "Unknow prop type: 16\nSet prop: com.zorlan.etherswitch.lacp failed\n"
       "Failed to save zel: B to configstore\n" + failed},
      {{port}, nullptr, {}, kFail, "Unknow prop type: 33\nSet prop: com.vendor.port.opaque failed\n"
       "Failed to save zel: A to configstore\n" + failed},
      // A failed write ends the walk: the switch after it would otherwise clear the status.
      {{mtu, Switch("C", "c1")}, nullptr, {{Op::kSet, cs::kStorage, 0}}, 7,
       "Failed to save zel: A to configstore\n" + failed},
      {{mtu}, nullptr, {{Op::kCommitTransaction, cs::kBusy, 0}}, 8, ""},
      {{mtu}, nullptr, {{Op::kSetValueUint32, cs::kBusy, 0}}, 8,
       "Set prop: com.zorlan.common.portset.mtu failed\nFailed to save zel: A to configstore\n" +
           failed},
      {{mtu}, nullptr, {{Op::kCreateSubObject, cs::kNoMemory, 0}}, 5,
       "Create sub object for key: product failed\nFailed to save zel: A to configstore\n" +
           failed},
      {{mtu}, nullptr, {{Op::kGetStore, cs::kStorage, 0}}, kFail, "Get store failed"},
      {{mtu}, nullptr, {{Op::kBeginTransaction, cs::kBusy, 0}}, 8, ""},
      {{mtu}, "A", {{Op::kGet, cs::kStorage, 1}, {Op::kCreateObject, cs::kNoMemory, 0}}, kFail,
       "Get/Create zel_switch:A failed\n" + failed},
  };
  zelconfigstore_debug = 0;
  for (const Row &r : rows) {
    SCOPED_TRACE(r.out);
    const Bytes blob = Blob(r.switches);
    for (const auto &[op, status, skip] : r.fail) cs::testing::FailNext(op, status, skip);
    EXPECT_EQ(zeltest::CaptureStdout([&] { EXPECT_EQ(Save(blob, r.id), r.status); }), r.out);
    EXPECT_EQ(Dump(), before);
    EXPECT_TRUE(DatabaseEmpty());
  }

  // A bad blob never opens the store; what the database held before the call is not saved.
  Bytes blob = Blob({Switch("A", "a1")});
  Bytes corrupt = blob;
  corrupt[40] ^= 1;
  const uint64_t opened = cs::testing::Calls(Op::kGetStore);
  EXPECT_EQ(Save(corrupt), STATUS_BAD_CHECKSUM);
  EXPECT_EQ(ZELState_SaveBufToConfigStore(nullptr, 0), STATUS_BAD_PARAM);
  EXPECT_EQ(cs::testing::Calls(Op::kGetStore), opened);
  EXPECT_TRUE(DatabaseEmpty());
  ASSERT_EQ(ZELState_SwitchAdd("stray", "etherswitch", 8, 7), STATUS_OK);
  ASSERT_EQ(Save(blob), 0u);
  EXPECT_EQ(Json("stray"), "");
  EXPECT_TRUE(DatabaseEmpty());
}

TEST_F(PersistSave, OnlyPropertiesWithBit8Or16AreSaved) {
  // Types 4 and 32 survive the state blob but are not persisted, not even by the catch-all rows.
  for (uint32_t type : {4u, 32u, 36u, 24u}) {
    SCOPED_TRACE(type);
    SwitchDef a = Switch("A", "a1");
    a.type = type;
    if (type != 24) {
      a.host = {{"com.zorlan.common.host.portset", Text("ps")}, {"com.vendor.x", Text("x")}};
      a.ports = {{"p1", {{"com.zorlan.common.port.alias", Text("nic")}}}};
    }
    ASSERT_EQ(Save({a}), 0u);
    EXPECT_EQ(Json("A"),
              type == 24 ? Minimal("A", "a1")
                         : R"({"@types":{"max_ports":"int32"},"max_ports":4096,)"
                           R"("name":"a1","ports":[{"key":"p1"}],)"
                           R"("product":{"forwarding_class":"etherswitch"},"uuid":"A"})");
  }
}

// Log lines with every number replaced by N (a duration of 100 s or more would not be).
std::vector<std::pair<int, std::string>> Lines(zeltest::LogCapture &log) {
  std::vector<std::pair<int, std::string>> out;
  for (auto [priority, line] : log.Sys())
    out.emplace_back(priority, std::regex_replace(line, std::regex("[0-9]{1,5}(?![0-9])"), "N"));
  return out;
}

TEST_F(PersistSave, TracesAndSystemLogLines) {
  SwitchDef a = Switch("A", "a1");
  a.host = {{"com.zorlan.common.host.portset", Text("ps")}};
  a.ports = {{"p1", {{"com.zorlan.common.port.alias", Text("nic")}}}};
  const Bytes blob = Blob({a});

  zeltest::LogCapture log;
  zelconfigstore_debug = 1;
  std::string out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save(blob), 0u); });
  EXPECT_EQ(out,
            "Ready to save zel list"
            "SaveZEL: a1\n"
            "SaveGlobalProp: com.zorlan.common.alias\n"
            "Compare com.zorlan.common.alias : com.zorlan.common.alias success\n"
            "SaveGlobalProp: com.zorlan.common.version\n"
            "Compare com.zorlan.common.version : com.zorlan.common.version success\n"
            "SaveHostProp: com.zorlan.common.host.portset\n"
            "Compare com.zorlan.common.host.portset : com.zorlan.common.host.portset success\n"
            "Compare com.zorlan.common.port.alias : com.zorlan.common.port.alias success\n");
  // The log lines do not depend on the level; the error line follows the reset of the counter.
  zelconfigstore_debug = -1;
  cs::testing::FailNext(Op::kCommitTransaction, cs::kBusy);
  EXPECT_EQ(Save(blob, "A"), 8u);
  const std::string end = "End ZELState_SaveBufToConfigStore_ByInstance";
  EXPECT_EQ(Lines(log),
            (std::vector<std::pair<int, std::string>>{
                {7, "Start ZELState_SaveBufToConfigStore_ByInstance, swId:[]"},
                {7, "ZELState_SaveBufToConfigStore_ByInstance GetInstances time: Nms"},
                {7, end + ", configStore time: Nms"},
                {7, "Start ZELState_SaveBufToConfigStore_ByInstance, swId:[A]"},
                {7, end + ", configStore time: Nms"},
                {7, end + " with error, configStore time: Nms"}}));
  EXPECT_EQ(log.Sys().back().second, end + " with error, configStore time: 0ms");
}

TEST(PersistLoadUplinks, OnlyTheGivenCountOfNamesIsSearched) {
  char *names[] = {const_cast<char *>("p1"), const_cast<char *>("p2")};
  EXPECT_TRUE(StringExistInArray("p1", names, 1));
  EXPECT_FALSE(StringExistInArray("p2", names, 1));
}

TEST(FeatureFlagsTest, BothFlagsMustBeOn) {
  unsetenv("ZEL_CONFIGSTORE_FEATURES");
  EXPECT_FALSE(zel::host::ConfigStoreEnabled());
  for (const char *off : {"1,0", "0,1", "1", "11", "1,1,", "true,true", ""}) {
    setenv("ZEL_CONFIGSTORE_FEATURES", off, 1);
    EXPECT_FALSE(zel::host::ConfigStoreEnabled()) << off;
  }
  setenv("ZEL_CONFIGSTORE_FEATURES", "1,1", 1);
  EXPECT_TRUE(zel::host::ConfigStoreEnabled());
  // The API overrides the environment until cleared.
  zel::host::SetConfigStoreFeatures(true, false);
  EXPECT_FALSE(zel::host::ConfigStoreEnabled());
  zel::host::ClearConfigStoreFeatures();
  EXPECT_TRUE(zel::host::ConfigStoreEnabled());
  unsetenv("ZEL_CONFIGSTORE_FEATURES");
}

// With both flags on the state file goes to the store (the path, in no directory, is ignored);
// store errors become STATUS_FAILURE with a host-log message, the read leaves the offset alone.
TEST_F(PersistSave, StateFileInTheStore) {
  zel::host::SetConfigStoreFeatures(true, true);
  const char *kPath = "/nonexistent-dir/zel.state";
  SwitchDef sw;
  sw.id = "sw-store";
  sw.global = {{"com.zorlan.common.version", U32(7)},
               {"com.zorlan.common.respools.sched", Bytes{1}}};  // so that ports load
  sw.ports = {{"7", {{"com.zorlan.common.port.alias", Text("p7")}}}};
  const Bytes blob = Blob({sw});
  ASSERT_EQ(ZELFile_Write(kPath, blob.data(), U32Size(blob)), STATUS_OK);
  void *stored = nullptr;
  int32_t length = 0;
  uint32_t offset = 777;
  ASSERT_EQ(ZELFile_Read(kPath, &stored, &length, &offset), STATUS_OK);
  const auto loaded = DecodeBlob(stored, static_cast<uint32_t>(length));
  std::free(stored);  // an ordinary allocation
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0].first, "sw-store");
  EXPECT_EQ(loaded[0].second.ports, sw.ports);

  zeltest::LogCapture log;
  cs::testing::FailNext(Op::kCommitTransaction, 7);
  EXPECT_EQ(ZELFile_Write(kPath, blob.data(), U32Size(blob)), STATUS_FAILURE);
  cs::testing::FailNext(Op::kGetInstances, 7);
  stored = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(ZELFile_Read(kPath, &stored, &length, &offset), STATUS_FAILURE);
  EXPECT_EQ(stored, reinterpret_cast<void *>(0x1));
  EXPECT_EQ(offset, 777u);
  const std::vector<std::pair<int, std::string>> expected = {
      {110, "failed to write zelconfig to configstore, error: 7\n"},
      {110, "failed to read zelconfig from configstore, error: 7\n"}};
  EXPECT_EQ(log.Host(), expected);
}

}  // namespace
