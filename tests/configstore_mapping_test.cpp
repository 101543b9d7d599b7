// The mapping tables as exported: no empty path component within a row's depth, how each table
// ends, and the stored places of rows that no other test compares.
#include <string>

#include "configstore_persist_support.h"

using namespace persisttest;

namespace {

std::string Path(const PropToConfigEntry &e) {
  std::string path;
  for (uint32_t c = 0; c < e.depth; ++c) path += (c > 0 ? "/" : "") + std::string(e.path[c]);
  return path;
}

TEST(PersistMapping, RowPathsAndTableEnds) {
  const size_t named[] = {28, 4, 24};
  const uint32_t catchAll[] = {22, 22, 33};
  for (int t = 0; t < 3; ++t) {
    const PropToConfigEntry *table = GetConfigMap(t);
    for (size_t i = 0; i < named[t]; ++i) {
      ASSERT_LE(table[i].depth, 3u) << i;
      for (uint32_t c = 0; c < table[i].depth; ++c) EXPECT_NE(table[i].path[c][0], '\0') << i;
    }
    EXPECT_STREQ(table[named[t] - 1].name, "DEFAULT");
    EXPECT_EQ(Path(table[named[t] - 1]), "data");
    EXPECT_EQ(table[named[t] - 1].kind, catchAll[t]);
    const PropToConfigEntry &end = table[named[t]];
    EXPECT_TRUE(end.name == nullptr && end.depth == 0 && end.kind == 37 && end.flags == 0) << t;
  }
  EXPECT_EQ(GetConfigMap(3), nullptr);
  EXPECT_EQ(GetConfigMap(-1), nullptr);
  EXPECT_STREQ(zelGlobalProp2Config[18].name, zelGlobalProp2Config[16].name);
  EXPECT_EQ(Path(zelGlobalProp2Config[22]), "resource_management/network_resource_pool_keys");
  EXPECT_EQ(Path(zelGlobalProp2Config[10]), "settings/pvlans");
  EXPECT_EQ(Path(zelPortProp2Config[17]), "settings/network_resource_pools");
  EXPECT_EQ(Path(zelPortProp2Config[21]), "vspans");
}

}  // namespace
