// The mapping tables as exported.
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

// Checks the shape of a table (rows of depth 1 to 3, zero past their depth, flags 16,
// "DEFAULT" last, then the terminator) and returns its kinds in row order.
std::string Kinds(const PropToConfigEntry *table, size_t named, uint32_t catchAll) {
  std::string kinds;
  for (size_t i = 0; i < named; ++i) {
    const PropToConfigEntry &e = table[i];
    EXPECT_NE(e.name, nullptr) << i;
    EXPECT_TRUE(e.depth >= 1 && e.depth <= 3) << i;
    for (uint32_t c = e.depth; c < ZEL_CONFIG_PATH_COMPONENTS; ++c) EXPECT_TRUE(AllZero(e.path[c]));
    EXPECT_EQ(e.flags, 16u) << i;
    kinds += (i > 0 ? " " : "") + std::to_string(e.kind);
  }
  EXPECT_STREQ(table[named - 1].name, "DEFAULT");
  EXPECT_EQ(Path(table[named - 1]), "data");
  EXPECT_EQ(table[named - 1].kind, catchAll);
  const PropToConfigEntry &end = table[named];
  EXPECT_TRUE(end.name == nullptr && end.depth == 0 && end.kind == 37 && end.flags == 0);
  for (const auto &component : end.path) EXPECT_TRUE(AllZero(component));
  return kinds;
}

TEST(PersistMapping, TablesAreWellFormed) {
  EXPECT_EQ(Kinds(zelConfigMaps[0], 28, 22),
            "1 15 21 21 21 4 20 16 5 2 6 7 8 9 9 10 1 1 1 11 11 12 13 3 1 0 18 22");
  EXPECT_EQ(Kinds(zelConfigMaps[1], 4, 22), "1 14 19 22");
  EXPECT_EQ(Kinds(zelConfigMaps[2], 24, 33),
            "1 0 31 32 23 23 1 17 18 24 25 34 26 26 27 28 29 36 1 0 9 9 35 33");
  // Rows the other checks do not reach.
  EXPECT_STREQ(zelGlobalProp2Config[18].name, zelGlobalProp2Config[16].name);
  EXPECT_EQ(Path(zelGlobalProp2Config[22]), "resource_management/network_resource_pool_keys");
  EXPECT_EQ(Path(zelGlobalProp2Config[10]), "settings/pvlans");
  EXPECT_EQ(Path(zelPortProp2Config[17]), "settings/network_resource_pools");
  EXPECT_EQ(Path(zelPortProp2Config[21]), "vspans");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(GetConfigMap(i), zelConfigMaps[i]);
  EXPECT_EQ(GetConfigMap(3), nullptr);
  EXPECT_EQ(GetConfigMap(-1), nullptr);
}

}  // namespace
