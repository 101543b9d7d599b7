// The save driver read back from the store: objects written, rewritten and deleted,
// the all-or-nothing transaction, what it prints and logs.
#include <regex>
#include <string>

#include "configstore_persist_support.h"

using namespace persisttest;
using Op = cs::testing::Op;

namespace {

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

// Log lines with every number replaced by N.
std::vector<std::pair<int, std::string>> Lines(zeltest::LogCapture &log) {
  std::vector<std::pair<int, std::string>> out;
  for (auto [priority, line] : log.Sys())
    out.emplace_back(priority, std::regex_replace(line, std::regex("[0-9]+"), "N"));
  return out;
}

class PersistSave : public PersistTest {};

TEST_F(PersistSave, StaleSwitchObjectsAreDeleted) {
  Put("old-1", "{}");
  Put("old-2", R"({"uuid":"old-2"})");
  ASSERT_EQ(Save({Switch("A", "a1")}), 0u);
  // An object whose "uuid" cannot be read cannot be matched and stays.
  EXPECT_EQ(Json("old-1"), "{}");
  EXPECT_EQ(Json("old-2"), "");
  EXPECT_EQ(Json("A"), Minimal("A", "a1"));

  // A blob without switches clears every switch object that carries its id.
  ASSERT_EQ(Save(std::vector<SwitchDef>{}), 0u);
  EXPECT_EQ(Json("A"), "");
  EXPECT_EQ(Json("old-1"), "{}");
  EXPECT_TRUE(DatabaseEmpty());
}

TEST_F(PersistSave, ByInstanceTouchesOnlyItsSwitch) {
  ASSERT_EQ(Save({Switch("A", "a1"), Switch("B", "b1")}), 0u);
  const Bytes blob = Blob({Switch("A", "a2"), Switch("C", "c1")});

  ASSERT_EQ(Save(blob, "A"), 0u);
  EXPECT_EQ(Json("A"), Minimal("A", "a2"));
  EXPECT_EQ(Json("B"), Minimal("B", "b1"));  // absent from the blob, yet untouched
  EXPECT_EQ(Json("C"), "");                  // in the blob, but not the one asked for

  ASSERT_EQ(Save(blob, "B"), 0u);  // stored but not in the blob: deleted
  EXPECT_EQ(Json("B"), "");
  EXPECT_EQ(Json("A"), Minimal("A", "a2"));

  const std::string before = Dump();
  ASSERT_EQ(Save(blob, "X"), 0u);  // neither stored nor in the blob
  EXPECT_EQ(Dump(), before);
  EXPECT_TRUE(DatabaseEmpty());
}

TEST_F(PersistSave, AFailingPropertyCancelsTheWholeSave) {
  WithoutKinds rejected({16, 22, 33});
  ASSERT_EQ(Save({Switch("A", "a1"), Switch("Z", "z1")}), 0u);
  const std::string before = Dump();

  // A is rewritten and Z is stale, but B fails: nothing of it reaches the
  // store, and C (after B) is not attempted.
  SwitchDef b = Switch("B", "b1");
  b.global.emplace_back("com.zorlan.etherswitch.lacp", U32(0));  // a kind not in place
  zelconfigstore_debug = 1;
  std::string out = zeltest::CaptureStdout(
      [&] { EXPECT_EQ(Save({Switch("A", "a2"), b, Switch("C", "c1")}), kFail); });
  EXPECT_EQ(Dump(), before);
  EXPECT_TRUE(DatabaseEmpty());
  EXPECT_NE(out.find("Unknow prop type: 16\nSet prop: com.zorlan.etherswitch.lacp failed\n"
                     "Failed to save zel: B to configstore\nFailed to save zel to configstore"),
            std::string::npos)
      << out;
  EXPECT_EQ(out.find("SaveZEL: c1"), std::string::npos);

  // Unlisted names fall to the catch-all rows, whose kinds are not in place.
  zelconfigstore_debug = 0;
  SwitchDef vendor = Switch("A", "a2");
  vendor.global.emplace_back("com.vendor.opaque", Text("x"));
  out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save({vendor}), kFail); });
  EXPECT_EQ(out, "Unknow prop type: 22\nSet prop: com.vendor.opaque failed\n"
                 "Failed to save zel: A to configstore\nFailed to save zel to configstore");
  SwitchDef port = Switch("A", "a2");
  port.ports = {{"p1", {{"com.vendor.port.opaque", Text("x")}}}};
  out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save({port}), kFail); });
  EXPECT_EQ(out.substr(0, 25), "Unknow prop type: 33\nSet ");

  // Store failures pass their status through, also a failing commit.
  zelconfigstore_debug = -1;
  SwitchDef mtu = Switch("A", "a3");
  mtu.global.emplace_back("com.zorlan.common.portset.mtu", U32(1500));
  const std::pair<Op, int> failures[] = {{Op::kSet, cs::kStorage},
                                         {Op::kCommitTransaction, cs::kBusy},
                                         {Op::kSetValueUint32, cs::kBusy},
                                         {Op::kCreateSubObject, cs::kNoMemory}};
  for (const auto &[op, status] : failures) {
    cs::testing::FailNext(op, status);
    EXPECT_EQ(Save({mtu}), static_cast<uint32_t>(status));
  }
  EXPECT_EQ(Dump(), before);
  EXPECT_TRUE(DatabaseEmpty());
}

TEST_F(PersistSave, SwitchObjectIsRewrittenWhole) {
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
  ASSERT_EQ(Save({a}), 0u);
  // Only keys outside the reset lists survive.
  EXPECT_EQ(Json("A"), R"({"@types":{"max_ports":"int32"},"custom":"kept","max_ports":4096,)"
                       R"("name":"a1","ports":[{"key":"p1","name":"nic"}],)"
                       R"("product":{"forwarding_class":"etherswitch","version":"6.6.0"},)"
                       R"("uuid":"A"})");
}

TEST_F(PersistSave, OnlyPropertiesWithBit8Or16AreSaved) {
  // Types 4 and 32 survive the state blob, but are not persisted: even names
  // that would fall to the catch-all row are passed over.
  for (uint32_t type : {4u, 32u, 36u}) {
    SCOPED_TRACE(type);
    SwitchDef a = Switch("A", "a1");
    a.type = type;
    a.host = {{"com.zorlan.common.host.portset", Text("ps")}, {"com.vendor.x", Text("x")}};
    a.ports = {{"p1", {{"com.zorlan.common.port.alias", Text("nic")}}}};
    ASSERT_EQ(Save({a}), 0u);
    EXPECT_EQ(Json("A"), R"({"@types":{"max_ports":"int32"},"max_ports":4096,"name":"a1",)"
                         R"("ports":[{"key":"p1"}],"product":{"forwarding_class":"etherswitch"},)"
                         R"("uuid":"A"})");
  }
  SwitchDef a = Switch("A", "a1");
  a.type = 24;
  ASSERT_EQ(Save({a}), 0u);
  EXPECT_EQ(Json("A"), Minimal("A", "a1"));
}

TEST_F(PersistSave, StateDatabaseIsEmptiedAndBadBlobsNeverReachTheStore) {
  ASSERT_EQ(Save({Switch("A", "a1")}), 0u);
  const std::string before = Dump();

  // What the database held before the call is not saved.
  Bytes blob = Blob({Switch("A", "a1")});
  ASSERT_EQ(ZELState_SwitchAdd("stray", "etherswitch", 8, 7), STATUS_OK);
  ASSERT_EQ(Save(blob), 0u);
  EXPECT_EQ(Json("stray"), "");
  EXPECT_TRUE(DatabaseEmpty());

  Bytes corrupt = blob;
  corrupt[40] ^= 1;
  const uint64_t opened = cs::testing::Calls(Op::kGetStore);
  EXPECT_EQ(Save(corrupt), STATUS_BAD_CHECKSUM);
  EXPECT_EQ(Save(Bytes(blob.begin(), blob.begin() + 10)), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELState_SaveBufToConfigStore(nullptr, 0), STATUS_BAD_PARAM);
  EXPECT_EQ(cs::testing::Calls(Op::kGetStore), opened);
  EXPECT_EQ(Dump(), before);
  EXPECT_TRUE(DatabaseEmpty());

  zelconfigstore_debug = 0;
  cs::testing::FailNext(Op::kGetStore, cs::kStorage);
  std::string out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save(blob), kFail); });
  EXPECT_EQ(out, "Get store failed");
  cs::testing::FailNext(Op::kBeginTransaction, cs::kBusy);
  out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save(blob), 8u); });
  EXPECT_EQ(out, "");
  cs::testing::FailNext(Op::kGet, cs::kStorage, 1);  // the switch's own read, after the listing
  cs::testing::FailNext(Op::kCreateObject, cs::kNoMemory);
  out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save(blob, "A"), kFail); });
  EXPECT_EQ(out, "Get/Create zel_switch:A failed\nFailed to save zel to configstore");
  EXPECT_EQ(Dump(), before);
  EXPECT_TRUE(DatabaseEmpty());
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
  using L = std::vector<std::pair<int, std::string>>;
  EXPECT_EQ(Lines(log),
            (L{{7, "Start ZELState_SaveBufToConfigStore_ByInstance, swId:[]"},
               {7, "ZELState_SaveBufToConfigStore_ByInstance GetInstances time: Nms"},
               {7, "End ZELState_SaveBufToConfigStore_ByInstance, configStore time: Nms"}}));

  // Errors only at level 0; the log lines do not depend on the level.
  zeltest::LogCapture failing;
  zelconfigstore_debug = 0;
  cs::testing::FailNext(Op::kCommitTransaction, cs::kBusy);
  out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save(blob, "A"), 8u); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(Lines(failing),
            (L{{7, "Start ZELState_SaveBufToConfigStore_ByInstance, swId:[A]"},
               {7, "End ZELState_SaveBufToConfigStore_ByInstance, configStore time: Nms"},
               {7, "End ZELState_SaveBufToConfigStore_ByInstance with error, configStore time: Nms"}}));
  // The error line follows the reset of the counter.
  EXPECT_EQ(failing.Sys().back().second,
            "End ZELState_SaveBufToConfigStore_ByInstance with error, configStore time: 0ms");

  zeltest::LogCapture quiet;
  zelconfigstore_debug = -1;
  out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save({Switch("B", "b")}, "B"), 0u); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(quiet.Sys().size(), 2u);
}

}  // namespace
