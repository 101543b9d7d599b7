// The mapping tables as exported, the row lookup of saving, the path helpers,
// the kind table and the save dispatcher's own refusals.
#include <algorithm>
#include <string>

#include "configstore_persist_support.h"

using namespace persisttest;

namespace {

bool AllZero(const char *field) {
  for (size_t i = 0; i < ZEL_CONFIG_PATH_SIZE; ++i)
    if (field[i] != 0) return false;
  return true;
}

std::string Path(const PropToConfigEntry &e) {
  std::string path;
  for (uint32_t c = 0; c < e.depth; ++c) path += (c > 0 ? "/" : "") + std::string(e.path[c]);
  return path;
}

// Checks the shape of a table (named rows of depth 1 to 3 with zero bytes
// past their depth and flags 16, the catch-all "DEFAULT" last, then the
// terminator) and returns its kinds in row order.
std::string Kinds(const PropToConfigEntry *table, size_t named, uint32_t catchAll) {
  std::string kinds;
  for (size_t i = 0; i < named; ++i) {
    const PropToConfigEntry &e = table[i];
    EXPECT_NE(e.name, nullptr) << i;
    EXPECT_GE(e.depth, 1u) << i;
    EXPECT_LE(e.depth, 3u) << i;
    for (uint32_t c = e.depth; c < ZEL_CONFIG_PATH_COMPONENTS; ++c) EXPECT_TRUE(AllZero(e.path[c]));
    EXPECT_EQ(e.flags, 16u) << i;
    kinds += (i > 0 ? " " : "") + std::to_string(e.kind);
  }
  EXPECT_STREQ(table[named - 1].name, "DEFAULT");
  EXPECT_EQ(Path(table[named - 1]), "data");
  EXPECT_EQ(table[named - 1].kind, catchAll);
  const PropToConfigEntry &end = table[named];
  EXPECT_EQ(end.name, nullptr);
  for (const auto &component : end.path) EXPECT_TRUE(AllZero(component));
  EXPECT_EQ(end.depth, 0u);
  EXPECT_EQ(end.kind, 37u);
  EXPECT_EQ(end.flags, 0u);
  return kinds;
}

TEST(PersistMapping, TablesAreWellFormed) {
  static_assert(sizeof zelGlobalProp2Config / sizeof zelGlobalProp2Config[0] == 29);
  static_assert(sizeof zelHostProp2Config / sizeof zelHostProp2Config[0] == 5);
  static_assert(sizeof zelPortProp2Config / sizeof zelPortProp2Config[0] == 25);
  EXPECT_EQ(Kinds(zelGlobalProp2Config, 28, 22),
            "1 15 21 21 21 4 20 16 5 2 6 7 8 9 9 10 1 1 1 11 11 12 13 3 1 0 18 22");
  EXPECT_EQ(Kinds(zelHostProp2Config, 4, 22), "1 14 19 22");
  EXPECT_EQ(Kinds(zelPortProp2Config, 24, 33),
            "1 0 31 32 23 23 1 17 18 24 25 34 26 26 27 28 29 36 1 0 9 9 35 33");
  // Rows the other checks do not reach.
  EXPECT_STREQ(zelGlobalProp2Config[18].name, zelGlobalProp2Config[16].name);
  EXPECT_EQ(Path(zelGlobalProp2Config[22]), "resource_management/network_resource_pool_keys");
  EXPECT_EQ(Path(zelGlobalProp2Config[10]), "settings/pvlans");
  EXPECT_EQ(Path(zelPortProp2Config[17]), "settings/network_resource_pools");
  EXPECT_EQ(Path(zelPortProp2Config[21]), "vspans");
  EXPECT_EQ(zelConfigMaps[0], zelGlobalProp2Config);
  EXPECT_EQ(zelConfigMaps[1], zelHostProp2Config);
  EXPECT_EQ(zelConfigMaps[2], zelPortProp2Config);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(GetConfigMap(i), zelConfigMaps[i]);
  EXPECT_EQ(GetConfigMap(3), nullptr);
  EXPECT_EQ(GetConfigMap(-1), nullptr);
}

TEST(PersistMapping, ResetListsNameWhatASaveClears) {
  auto list = [](const char *const *p) {
    std::vector<std::string> out;
    for (; *p != nullptr; ++p) out.emplace_back(*p);
    return out;
  };
  EXPECT_EQ(list(UNUSED_PRIMITIVE_PROPS),
            (std::vector<std::string>{"name", "portset_name", "max_ports", "is_opaque",
                                      "switch_address", "uplink_port_keys", "uplink_port_names",
                                      "uplink_port_groupKeys", "qor_enabled"}));
  EXPECT_EQ(list(UNUSED_SINGLETON_PROPS),
            (std::vector<std::string>{"settings", "resource_management", "product", "data"}));
  EXPECT_EQ(list(UNUSED_NON_SINGLETON_PROPS),
            (std::vector<std::string>{"ports", "uplink_ports", "pyxnic_ports", "vtep_ports",
                                      "health_checks"}));
}

TEST(PersistMapping, SavingFindsTheFirstRowOfANameElseTheCatchAll) {
  EXPECT_EQ(zp::FindRow(0, "com.zorlan.etherswitch.multicastFilter"), &zelGlobalProp2Config[16]);
  EXPECT_EQ(zp::FindRow(0, "com.zorlan.vswitch.mtu"), &zelGlobalProp2Config[3]);
  EXPECT_EQ(zp::FindRow(0, "com.other.vendor.thing"), &zelGlobalProp2Config[27]);
  EXPECT_EQ(zp::FindRow(0, "DEFAULT"), &zelGlobalProp2Config[27]);
  EXPECT_EQ(zp::FindRow(0, "com.zorlan.common.host.portset"), &zelGlobalProp2Config[27]);
  EXPECT_EQ(zp::FindRow(1, "com.zorlan.common.portset.qor"), &zelHostProp2Config[2]);
  EXPECT_EQ(zp::FindRow(1, "com.zorlan.common.alias"), &zelHostProp2Config[3]);
  EXPECT_EQ(zp::FindRow(2, "com.zorlan.vswitch.port.priority"), &zelPortProp2Config[19]);
  EXPECT_EQ(zp::FindRow(2, "anything"), &zelPortProp2Config[23]);
  EXPECT_EQ(zp::FindRow(3, "com.zorlan.common.alias"), nullptr);
}

TEST(PersistMapping, StringIndexCountsLeadingNullEntries) {
  const char *const pvlan[] = {nullptr, "PROMISCUOUS", "ISOLATED", "COMMUNITY", nullptr};
  const char *const discovery[] = {"CDP", "LLDP", nullptr};
  const char *const none[] = {nullptr, nullptr};
  EXPECT_EQ(zp::StringIndexInArray("ISOLATED", pvlan), 2);
  EXPECT_EQ(zp::StringIndexInArray("LLDP", discovery), 1);
  EXPECT_EQ(zp::StringIndexInArray("lldp", discovery), -1);
  EXPECT_EQ(zp::StringIndexInArray("CDP", none), -1);
  EXPECT_EQ(zp::StringIndexInArray(nullptr, discovery), -1);

  char a[] = "p1", b[] = "p2";
  char *keys[] = {a, b};
  EXPECT_TRUE(StringExistInArray("p2", keys, 2));
  EXPECT_FALSE(StringExistInArray("p2", keys, 1));
  EXPECT_FALSE(StringExistInArray("p", keys, 2));
  EXPECT_FALSE(StringExistInArray("p1", keys, 0));
  EXPECT_FALSE(StringExistInArray(nullptr, keys, 2));
  EXPECT_FALSE(StringExistInArray("p1", nullptr, 2));
}

class PersistPaths : public ::testing::Test {
 protected:
  void TearDown() override { cs::testing::ClearFailures(); }
  cfgtest::ObjectPtr sw_ = cfgtest::NewSwitch("sw");
};

TEST_F(PersistPaths, ResolveWalksOrCreatesSingletons) {
  const PropToConfigEntry &priority = zelPortProp2Config[19];
  cs::Object *parent = nullptr;
  const uint64_t calls = cs::testing::Calls(cs::testing::Op::kAny);
  EXPECT_EQ(zp::ResolvePropPath(zelPortProp2Config[0].path, 1, sw_.get(), &parent, false), 0u);
  EXPECT_EQ(parent, sw_.get());
  EXPECT_EQ(cs::testing::Calls(cs::testing::Op::kAny), calls);

  cs::Object *sentinel = reinterpret_cast<cs::Object *>(0x1);
  parent = sentinel;
  EXPECT_EQ(zp::ResolvePropPath(priority.path, priority.depth, sw_.get(), &parent, false), 6u);
  EXPECT_EQ(parent, sentinel);

  ASSERT_EQ(zp::ResolvePropPath(priority.path, priority.depth, sw_.get(), &parent, true), 0u);
  cs::Object *settings = nullptr, *vlan = nullptr;
  ASSERT_EQ(cs::GetSubObject(sw_.get(), "settings", nullptr, &settings), 0);
  ASSERT_EQ(cs::GetSubObject(settings, "vlan", nullptr, &vlan), 0);
  EXPECT_EQ(parent, vlan);
}

TEST_F(PersistPaths, GetOrCreateReportsOnlyRealFailures) {
  zeltest::ScopedLevel level(zelconfigstore_debug, 0);
  cs::Object *child = nullptr;
  std::string out = zeltest::CaptureStdout(
      [&] { EXPECT_EQ(zp::GetOrCreateSubObject(false, sw_.get(), "settings", nullptr, &child), 6u); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(child, nullptr);

  cs::testing::FailNext(cs::testing::Op::kGetSubObject, cs::kTypeMismatch);
  out = zeltest::CaptureStdout(
      [&] { EXPECT_EQ(zp::GetOrCreateSubObject(true, sw_.get(), "settings", nullptr, &child), 3u); });
  EXPECT_EQ(out, "GetOrCreateSubObject for prop: settings failed, failure code: 3\n");

  cs::testing::FailNext(cs::testing::Op::kCreateSubObject, cs::kNoMemory);
  out = zeltest::CaptureStdout(
      [&] { EXPECT_EQ(zp::GetOrCreateSubObject(true, sw_.get(), "ports", "p1", &child), 5u); });
  EXPECT_EQ(out, "Create sub object for key: ports failed\n");
  EXPECT_EQ(child, nullptr);

  ASSERT_EQ(zp::GetOrCreateSubObject(true, sw_.get(), "ports", "p1", &child), 0u);
  cs::Object *again = nullptr;
  EXPECT_EQ(zp::GetOrCreateSubObject(false, sw_.get(), "ports", "p1", &again), 0u);
  EXPECT_EQ(again, child);
}

TEST_F(PersistPaths, DispatcherRefusesBeforeTouchingTheStore) {
  const uint32_t v = 5;
  const uint64_t calls = cs::testing::Calls(cs::testing::Op::kAny);
  zeltest::ScopedLevel level(zelconfigstore_debug, 10);
  std::string out = zeltest::CaptureStdout([&] {
    // Neither bit 0x08 nor 0x10: not persisted, nothing printed.
    for (uint32_t type : {0u, 4u, 0x20u, 0xFFFFFFE7u})
      EXPECT_EQ(zp::SavePropToConfigStore(sw_.get(), "com.zorlan.common.resv.threshold", &v, 4, 0,
                                          type),
                0u);
    EXPECT_EQ(zp::SavePropToConfigStore(sw_.get(), "com.zorlan.common.alias", &v, 4, 3, 16), kFail);
  });
  EXPECT_EQ(out, "");
  EXPECT_EQ(cs::testing::Calls(cs::testing::Op::kAny), calls);
}

TEST(PersistKinds, OnlyThePlainKindsAreInPlace) {
  for (uint32_t k : {0, 1, 2, 3, 4, 5, 14, 15, 19, 20, 21, 23, 31, 32, 34})
    EXPECT_NE(zp::FindKind(k), nullptr) << k;
  // The policy kinds whose conversions are in place.
  const std::vector<uint32_t> done = {6,  7,  8,  9,  10, 11, 12, 13, 16, 17, 18, 22,
                                       24, 25, 26, 27, 28, 29, 33, 35, 36};
  for (uint32_t k : done) EXPECT_NE(zp::FindKind(k), nullptr) << k;
  for (uint32_t k : PolicyKinds()) {
    if (std::find(done.begin(), done.end(), k) == done.end()) {
      EXPECT_EQ(zp::FindKind(k), nullptr) << k;
    }
  }
  for (uint32_t k : {30u, 37u, 38u, 1000u}) EXPECT_EQ(zp::FindKind(k), nullptr) << k;
  zp::KindTable table;
  EXPECT_FALSE(table.Add(30, NoSave, NoLoad));
  EXPECT_FALSE(table.Add(37, NoSave, NoLoad));
  EXPECT_TRUE(table.Add(36, NoSave, NoLoad));
  EXPECT_EQ(table.Find(30), nullptr);
  EXPECT_NE(table.Find(36), nullptr);
}

}  // namespace
