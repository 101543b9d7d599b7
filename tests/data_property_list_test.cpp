// Property lists: entry sizes, order, duplicate names, updates, removal,
// diagnostics and allocation failure.
#include "data/property_list_internal.h"
#include "state_fixture.h"

namespace {

using namespace zelstatetest;
namespace fa = zeltest::failalloc;

struct ListGuard {
  PropertyList *list = MakeList({});
  ~ListGuard() { ZELData_Free(list); }
  uint32_t Size() const { return ZELData_SerializedSize(list, 0); }
  uint32_t TypeOf(const char *name) const {
    PropertyEntry *e = nullptr;
    EXPECT_EQ(ZELData_Lookup(list, name, &e), STATUS_OK);
    return e ? ZELData_PropType(e) : 0;
  }
};

std::vector<std::string> Names(PropertyList *list) {
  std::vector<std::string> names;
  for (const auto &[name, value] : ListProps(list)) names.push_back(name);
  return names;
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
    EXPECT_EQ(g.Size(), expected += c.entryLength) << "value length " << c.len;
  }
}

// Lookups and removals act on the first entry of a name; names are cut to 127.
TEST(PropertyListTest, DuplicateAndLongNames) {
  ListGuard g;
  ASSERT_EQ(ZELData_Append(g.list, "dup", U32(1).data(), 4, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(g.list, "dup", U32(2).data(), 4, 24), STATUS_OK);
  EXPECT_EQ(g.TypeOf("dup"), 16u);
  uint32_t type = 0;
  ASSERT_EQ(ZELDataRemove(g.list, "dup", &type), STATUS_OK);
  EXPECT_EQ(type, 16u);
  EXPECT_EQ(ListProps(g.list), (Props{{"dup", U32(2)}}));
  EXPECT_EQ(g.Size(), 16u + 148);
  const std::string longName(130, 'n');
  ASSERT_EQ(ZELData_Append(g.list, longName.c_str(), "x", 1, 16), STATUS_OK);
  PropertyEntry *e = nullptr;
  EXPECT_EQ(ZELData_Lookup(g.list, longName.c_str(), &e), STATUS_NOT_FOUND);
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{"dup", longName.substr(0, 127)}));
}

TEST(PropertyListTest, UpdateKeepsPlaceOnSameLengthAndMovesOtherwise) {
  ListGuard g;
  ASSERT_EQ(ZELData_Append(g.list, "a", U32(7).data(), 4, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(g.list, "b", U32(7).data(), 4, 16), STATUS_OK);
  // Same length: in place, and an update without a type sets 32.
  ASSERT_EQ(ZELData_UpdateProp(g.list, "a", U32(9).data(), 4), STATUS_OK);
  EXPECT_EQ(ListProps(g.list), (Props{{"a", U32(9)}, {"b", U32(7)}}));
  EXPECT_EQ(g.TypeOf("a"), 32u);
  // Other length: to the tail, keeping the replaced entry's type.
  const uint64_t big = 1;
  ASSERT_EQ(ZELData_UpdateProp(g.list, "b", &big, 8), STATUS_OK);
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{"a", "b"}));
  ASSERT_EQ(ZELData_UpdateProp(g.list, "a", &big, 8), STATUS_OK);
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(g.TypeOf("a"), 32u);
  EXPECT_EQ(g.TypeOf("b"), 16u);
  EXPECT_EQ(g.Size(), 16u + 2 * 152);
  // Absent names are appended with the given type, or 32 for none.
  ASSERT_EQ(ZELData_Update(g.list, "c", "v", 2, 24), STATUS_OK);
  ASSERT_EQ(ZELData_Update(g.list, "d", "v", 2, 0), STATUS_OK);
  EXPECT_EQ(g.TypeOf("c"), 24u);
  EXPECT_EQ(g.TypeOf("d"), 32u);
  // A caller may pass the value pointer it got from ZELData_Data.
  const char text[] = "abcdefgh";
  ASSERT_EQ(ZELData_Update(g.list, "d", text, sizeof text, 16), STATUS_OK);
  PropertyEntry *e = nullptr;
  void *data = nullptr;
  ASSERT_EQ(ZELData_Lookup(g.list, "d", &e), STATUS_OK);
  ZELData_Data(e, &data);
  ASSERT_EQ(ZELData_Update(g.list, "d", data, 4, 16), STATUS_OK);
  EXPECT_EQ(ListProps(g.list).back(),
            (std::pair<std::string, Bytes>{"d", Bytes{'a', 'b', 'c', 'd'}}));
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
  EXPECT_EQ(g.Size(), 16u + 2 * 144);
}

// Level 1 shows the allocation of a list, level 2 every change too.
TEST(PropertyListTest, DiagnosticsFollowTheLevel) {
  const std::string alloc = "Allocing new handle\nZELData handle allocated, serialSize = 16\n";
  for (int level : {1, 2}) {
    zeltest::ScopedLevel scoped(zeldata_debug, level);
    PropertyList *list = nullptr;
    const std::string out = zeltest::CaptureStdout([&] {
      list = MakeList({{"p", {'a', 'b'}}});
      ASSERT_EQ(ZELData_UpdateProp(list, "p", "xy", 2), STATUS_OK);
      ASSERT_EQ(ZELData_UpdateProp(list, "p", "abcdef", 6), STATUS_OK);
      ASSERT_EQ(ZELData_Remove(list, "p"), STATUS_OK);
    });
    EXPECT_EQ(out, level == 1 ? alloc
                              : alloc +
                                    "added data p, len 2, start serialSize = 16\n"
                                    "added data p, serialSize = 164\n"
                                    "updated data p, datalen = 2, serialSize = 164\n"
                                    "remove data p, datalen = 2, serialSize = 16\n"
                                    "added data p, len 6, start serialSize = 16\n"
                                    "added data p, serialSize = 168\n"
                                    "removed data p, serialSize = 16\n");
    ZELData_Free(list);
  }
}

// Values too large for the format are refused before the value is read or
// anything is allocated.
TEST(PropertyListTest, ValuesTooLargeForTheFormatAreRefused) {
  ListGuard g;
  static const char byte = 0;
  EXPECT_EQ(ZELData_Append(g.list, "huge", &byte, 0xFFFFFFFFu, 16), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELData_Append(g.list, "huge", &byte, 0xFFFFFFFFu - 146, 16), STATUS_BAD_PARAM);
  ASSERT_EQ(ZELData_Append(g.list, "small", "x", 1, 16), STATUS_OK);
  EXPECT_EQ(ZELData_Update(g.list, "small", &byte, 0xFFFFFFF0u, 16), STATUS_BAD_PARAM);
  EXPECT_EQ(ListProps(g.list), (Props{{"small", {'x'}}}));
  EXPECT_EQ(g.Size(), 16u + 144);
}

TEST(PropertyListTest, AllocationFailureAtEveryPoint) {
  fa::FailAt(1);
  PropertyList *list = reinterpret_cast<PropertyList *>(0x1);
  EXPECT_EQ(ZELData_Alloc(&list, fa::Alloc, fa::Free), STATUS_NO_MEMORY);
  EXPECT_EQ(list, reinterpret_cast<PropertyList *>(0x1));
  EXPECT_EQ(fa::Live(), 0);
  fa::FailAt(0);
  ASSERT_EQ(ZELData_Alloc(&list, fa::Alloc, fa::Free), STATUS_OK);
  ASSERT_EQ(ZELData_Append(list, "a", "1234", 4, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(list, "b", "1234", 4, 16), STATUS_OK);
  const struct {
    const char *name, *value;  // an append of "c", else an update
    ReturnStatus status;
    std::vector<std::string> names;  // left after the failure
    uint32_t size;
  } rows[] = {{"c", "1", STATUS_NO_MEMORY, {"a", "b"}, 16 + 2 * 148},
              {"a", "4321", STATUS_OK, {"a", "b"}, 16 + 2 * 148},   // allocates nothing
              {"a", "123456", STATUS_NO_MEMORY, {"b"}, 16 + 148}};  // the property is gone
  for (const auto &r : rows) {
    fa::FailAt(1);
    const auto length = static_cast<uint32_t>(std::strlen(r.value));
    EXPECT_EQ(*r.name == 'c' ? ZELData_Append(list, r.name, r.value, length, 16)
                             : ZELData_UpdateProp(list, r.name, r.value, length),
              r.status);
    EXPECT_EQ(Names(list), r.names);
    EXPECT_EQ(ZELData_SerializedSize(list, 0), r.size);
  }
  fa::FailAt(0);
  ZELData_Free(list);
  EXPECT_EQ(fa::Live(), 0);
}

}  // namespace
