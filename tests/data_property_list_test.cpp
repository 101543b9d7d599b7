// Property lists: entry sizes, order, duplicate names, updates, removal,
// diagnostics and allocation failure.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "data/property_list_internal.h"
#include "test_support.h"
#include "zel/data.h"

namespace {

using zeltest::failalloc::Alloc;
using zeltest::failalloc::Free;

void *SysAlloc(uint64_t n) { return std::malloc(n); }

struct ListGuard {
  PropertyList *list = nullptr;
  ListGuard() { EXPECT_EQ(ZELData_Alloc(&list, SysAlloc, std::free), STATUS_OK); }
  ~ListGuard() { ZELData_Free(list); }
};

std::vector<std::string> Names(PropertyList *list) {
  std::vector<std::string> names;
  PropertyEntry *e = nullptr;
  while (ZELData_Next(list, e, &e) == STATUS_OK) {
    names.emplace_back(ZELData_Name(e));
  }
  return names;
}

uint32_t TypeOf(PropertyList *list, const char *name) {
  PropertyEntry *e = nullptr;
  EXPECT_EQ(ZELData_Lookup(list, name, &e), STATUS_OK);
  return e ? ZELData_PropType(e) : 0;
}

TEST(PropertyListTest, EntryLengthFollowsValueLength) {
  ListGuard g;
  const uint8_t value[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const struct {
    uint32_t len, entryLength;
  } cases[] = {{0, 144}, {1, 144}, {2, 148}, {4, 148}, {5, 148}, {6, 152}, {8, 152}};
  uint32_t expected = 16;
  for (const auto &c : cases) {
    ASSERT_EQ(ZELData_Append(g.list, "v", value, c.len, 16), STATUS_OK);
    expected += c.entryLength;
    EXPECT_EQ(ZELData_SerializedSize(g.list, 0), expected) << "value length " << c.len;
  }
}

TEST(PropertyListTest, DuplicateNamesActOnTheFirst) {
  ListGuard g;
  uint32_t one = 1, two = 2;
  ASSERT_EQ(ZELData_Append(g.list, "dup", &one, 4, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(g.list, "dup", &two, 4, 24), STATUS_OK);
  EXPECT_EQ(ZELData_SerializedSize(g.list, 0), 16u + 2 * 148);
  EXPECT_EQ(TypeOf(g.list, "dup"), 16u);
  uint32_t type = 0;
  ASSERT_EQ(ZELDataRemove(g.list, "dup", &type), STATUS_OK);
  EXPECT_EQ(type, 16u);
  PropertyEntry *e = nullptr;
  ASSERT_EQ(ZELData_Lookup(g.list, "dup", &e), STATUS_OK);
  void *data = nullptr;
  ASSERT_EQ(ZELData_Data(e, &data), 4u);
  EXPECT_EQ(*static_cast<uint32_t *>(data), 2u);
  EXPECT_EQ(ZELData_SerializedSize(g.list, 0), 16u + 148);
}

TEST(PropertyListTest, LongNamesAreCutTo127Characters) {
  ListGuard g;
  const std::string longName(130, 'n');
  ASSERT_EQ(ZELData_Append(g.list, longName.c_str(), "x", 1, 16), STATUS_OK);
  PropertyEntry *e = nullptr;
  EXPECT_EQ(ZELData_Lookup(g.list, longName.c_str(), &e), STATUS_NOT_FOUND);
  ASSERT_EQ(ZELData_Lookup(g.list, longName.substr(0, 127).c_str(), &e), STATUS_OK);
  EXPECT_EQ(std::string(ZELData_Name(e)), longName.substr(0, 127));
}

TEST(PropertyListTest, UpdateKeepsPlaceOnSameLengthAndMovesOtherwise) {
  ListGuard g;
  uint32_t v = 7;
  ASSERT_EQ(ZELData_Append(g.list, "a", &v, 4, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(g.list, "b", &v, 4, 16), STATUS_OK);
  // Same length: in place, and an update without a type sets 32.
  uint32_t w = 9;
  ASSERT_EQ(ZELData_UpdateProp(g.list, "a", &w, 4), STATUS_OK);
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(TypeOf(g.list, "a"), 32u);
  // Other length: to the tail, keeping the replaced entry's type.
  const uint64_t big = 1;
  ASSERT_EQ(ZELData_UpdateProp(g.list, "b", &big, 8), STATUS_OK);
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{"a", "b"}));
  ASSERT_EQ(ZELData_UpdateProp(g.list, "a", &big, 8), STATUS_OK);
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(TypeOf(g.list, "a"), 32u);
  EXPECT_EQ(TypeOf(g.list, "b"), 16u);
  EXPECT_EQ(ZELData_SerializedSize(g.list, 0), 16u + 2 * 152);
  // Absent names are appended with the given type, or 32 for none.
  ASSERT_EQ(ZELData_Update(g.list, "c", &v, 4, 24), STATUS_OK);
  ASSERT_EQ(ZELData_Update(g.list, "d", &v, 4, 0), STATUS_OK);
  EXPECT_EQ(TypeOf(g.list, "c"), 24u);
  EXPECT_EQ(TypeOf(g.list, "d"), 32u);
}

TEST(PropertyListTest, UpdateFromTheEntrysOwnValue) {
  // A caller may pass the value pointer it got from ZELData_Data.
  ListGuard g;
  const char text[] = "abcdefgh";
  ASSERT_EQ(ZELData_Append(g.list, "t", text, sizeof text, 16), STATUS_OK);
  PropertyEntry *e = nullptr;
  void *data = nullptr;
  ASSERT_EQ(ZELData_Lookup(g.list, "t", &e), STATUS_OK);
  ZELData_Data(e, &data);
  ASSERT_EQ(ZELData_Update(g.list, "t", data, 4, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Lookup(g.list, "t", &e), STATUS_OK);
  ASSERT_EQ(ZELData_Data(e, &data), 4u);
  EXPECT_EQ(std::string(static_cast<char *>(data), 4), "abcd");
}

TEST(PropertyListTest, RemoveReportsTypeOrTheDefault) {
  ListGuard g;
  uint32_t type = 0;
  EXPECT_EQ(ZELDataRemove(g.list, "missing", &type), STATUS_NOT_FOUND);
  EXPECT_EQ(type, 32u);
  ASSERT_EQ(ZELData_Append(g.list, "a", "1", 1, 4), STATUS_OK);
  ASSERT_EQ(ZELData_Append(g.list, "b", "2", 1, 8), STATUS_OK);
  ASSERT_EQ(ZELData_Append(g.list, "c", "3", 1, 16), STATUS_OK);
  ASSERT_EQ(ZELDataRemove(g.list, "c", &type), STATUS_OK);  // the tail
  EXPECT_EQ(type, 16u);
  ASSERT_EQ(ZELData_Append(g.list, "d", "4", 1, 16), STATUS_OK);  // appends after the new tail
  ASSERT_EQ(ZELData_Remove(g.list, "a"), STATUS_OK);              // the head
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{"b", "d"}));
  EXPECT_EQ(ZELData_SerializedSize(g.list, 0), 16u + 2 * 144);
}

TEST(PropertyListTest, DiagnosticsFollowTheLevel) {
  zeltest::ScopedLevel level(zeldata_debug, 2);
  PropertyList *list = nullptr;
  std::string out = zeltest::CaptureStdout([&] {
    ASSERT_EQ(ZELData_Alloc(&list, SysAlloc, std::free), STATUS_OK);
    ASSERT_EQ(ZELData_Append(list, "p", "ab", 2, 16), STATUS_OK);
    ASSERT_EQ(ZELData_UpdateProp(list, "p", "xy", 2), STATUS_OK);
    ASSERT_EQ(ZELData_UpdateProp(list, "p", "abcdef", 6), STATUS_OK);
    ASSERT_EQ(ZELData_Remove(list, "p"), STATUS_OK);
  });
  ZELData_Free(list);
  EXPECT_EQ(out,
            "Allocing new handle\n"
            "ZELData handle allocated, serialSize = 16\n"
            "added data p, len 2, start serialSize = 16\n"
            "added data p, serialSize = 164\n"
            "updated data p, datalen = 2, serialSize = 164\n"
            "remove data p, datalen = 2, serialSize = 16\n"
            "added data p, len 6, start serialSize = 16\n"
            "added data p, serialSize = 168\n"
            "removed data p, serialSize = 16\n");
}

TEST(PropertyListTest, ValuesTooLargeForTheFormatAreRefused) {
  ListGuard g;
  static const char byte = 0;
  // Refused before the value is read or anything is allocated.
  EXPECT_EQ(ZELData_Append(g.list, "huge", &byte, 0xFFFFFFFFu, 16), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELData_Append(g.list, "huge", &byte, 0xFFFFFFFFu - 146, 16), STATUS_BAD_PARAM);
  ASSERT_EQ(ZELData_Append(g.list, "small", "x", 1, 16), STATUS_OK);
  EXPECT_EQ(ZELData_Update(g.list, "small", &byte, 0xFFFFFFF0u, 16), STATUS_BAD_PARAM);
  EXPECT_EQ(Names(g.list), std::vector<std::string>{"small"});
  EXPECT_EQ(ZELData_SerializedSize(g.list, 0), 16u + 144);
}

TEST(PropertyListTest, AllocationFailureAtEveryPoint) {
  namespace fa = zeltest::failalloc;
  // Alloc: the only allocation fails and out stays as it was.
  fa::FailAt(1);
  PropertyList *list = reinterpret_cast<PropertyList *>(0x1);
  EXPECT_EQ(ZELData_Alloc(&list, Alloc, Free), STATUS_NO_MEMORY);
  EXPECT_EQ(list, reinterpret_cast<PropertyList *>(0x1));
  EXPECT_EQ(fa::Live(), 0);

  fa::FailAt(0);
  ASSERT_EQ(ZELData_Alloc(&list, Alloc, Free), STATUS_OK);
  ASSERT_EQ(ZELData_Append(list, "a", "1234", 4, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(list, "b", "1234", 4, 16), STATUS_OK);
  // Append: the list is unchanged.
  fa::FailAt(1);
  EXPECT_EQ(ZELData_Append(list, "c", "1", 1, 16), STATUS_NO_MEMORY);
  EXPECT_EQ(Names(list), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(ZELData_SerializedSize(list, 0), 16u + 2 * 148);
  // Update of the same length allocates nothing.
  fa::FailAt(1);
  EXPECT_EQ(ZELData_UpdateProp(list, "a", "4321", 4), STATUS_OK);
  // Update to another length: the property is gone.
  fa::FailAt(1);
  EXPECT_EQ(ZELData_UpdateProp(list, "a", "123456", 6), STATUS_NO_MEMORY);
  EXPECT_EQ(Names(list), std::vector<std::string>{"b"});
  EXPECT_EQ(ZELData_SerializedSize(list, 0), 16u + 148);
  fa::FailAt(0);
  ZELData_Free(list);
  EXPECT_EQ(fa::Live(), 0);
}

}  // namespace
