#include "data/property_list_internal.h"
#include "state_fixture.h"

namespace {

using namespace zelstatetest;
namespace fa = zeltest::failalloc;

void *SysAlloc(uint64_t n) { return std::malloc(n); }

// The one-entry list {"maxPorts": u32 256, type 16}.
const Bytes kGolden = Encode({{"maxPorts", U32(256)}});
const Bytes kEmpty{16, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};

void Reseal(Bytes &b) { Put32(b, 4, zel::data::Checksum(b.data(), Get32(b, 0))); }

ReturnStatus Decode(const Bytes &b, PropertyList **out) {
  return ZELData_DeserializeWithPropType(out, b.data(), static_cast<uint32_t>(b.size()), SysAlloc,
                                         std::free, 0x3C);
}

std::string Out(const std::function<void()> &fn) {
  zeltest::ScopedLevel level(zeldata_debug, 0);
  return zeltest::CaptureStdout(fn);
}

TEST(SerializedDataTest, GoldenBytes) {
  PropertyList *list = MakeList({});
  EXPECT_EQ(Serialize(list, 5), kEmpty);
  ASSERT_EQ(ZELData_Append(list, "maxPorts", U32(256).data(), 4, 16), STATUS_OK);
  EXPECT_EQ(Serialize(list, 5), kGolden);
  void *buf = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(ZELData_SerializeEntry(list, "maxPorts", &buf, &len), STATUS_OK);
  EXPECT_EQ(AsBytes(buf, len), kGolden) << "one entry alone has the same form";
  ZELData_FreeAssocData(list, buf);
  len = 1000;
  EXPECT_EQ(ZELData_SerializeEntry(list, "absent", &buf, &len), STATUS_NOT_FOUND);
  EXPECT_EQ(len, 0u);
  // Into a caller's buffer: one byte short, or exactly big enough.
  uint8_t own[200];
  void *p = own;
  for (uint32_t size : {163u, 164u}) {
    len = size;
    EXPECT_EQ(ZELData_Serialize(list, &p, &len, 5),
              size == 164 ? STATUS_OK : STATUS_LIMIT_EXCEEDED);
  }
  EXPECT_EQ(AsBytes(own, len), kGolden);
  len = 163;
  EXPECT_EQ(ZELData_SerializeEntry(list, "maxPorts", &p, &len), STATUS_LIMIT_EXCEEDED);
  EXPECT_EQ(Out([&] { Serialize(list, 3); }), "ZEL version 3 is smaller than 6.0.\n");
  ZELData_Free(list);
}

TEST(SerializedDataTest, RoundTripKeepsTypesOfTheMask) {
  PropertyList *list = MakeList({});
  for (uint32_t type : {0u, 1u, 2u, 3u, 4u, 16u, 24u, 32u, 64u}) {
    const std::string name = "type" + std::to_string(type);
    ASSERT_EQ(ZELData_Append(list, name.c_str(), name.c_str(), name.size() + 1, type), STATUS_OK);
  }
  PropertyList *back = nullptr;
  ASSERT_EQ(Decode(Serialize(list, 5), &back), STATUS_OK);
  Props expected;
  for (const char *name : {"type4", "type16", "type24", "type32"})
    expected.push_back({name, Text(name)});
  EXPECT_EQ(ListProps(back), expected);
  EXPECT_EQ(ZELData_SerializedSize(back, 0), 16u + 4 * 152);
  ZELData_Free(back);
  ZELData_Free(list);
}

TEST(SerializedDataTest, InconsistentSizeIsRefusedAndOwnBufferReleased) {
  PropertyList *list = MakeList({{"a", U32(1234)}});
  const struct {
    uint32_t serialSize;
    std::string text;
  } rows[] = {{168, "buflen = 168, lenRemaining = 8, name NULL, size 0\n"},
              {156, "buflen = 156, lenRemaining = 144, name a, size 148\n"}};
  for (const auto &row : rows) {
    list->serialSize = row.serialSize;  // disagrees with its entries now
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(
        Out([&] { EXPECT_EQ(ZELData_Serialize(list, &buf, &len, 5), STATUS_LIMIT_EXCEEDED); }),
        "ZELData length changed during serialization, " + row.text);
    EXPECT_EQ(buf, nullptr);
  }
  list->serialSize = 16 + 148;
  ZELData_Free(list);
}

struct ReaderResult {
  ReturnStatus whole, single;
  std::string out;
};
ReaderResult ReadBoth(const Bytes &b, uint32_t length) {
  ReaderResult r{};
  char value[16];
  r.out = Out([&] {
    PropertyList *list = nullptr;
    r.whole = ZELData_DeserializeWithPropType(&list, b.data(), length, SysAlloc, std::free, 0x3C);
    if (r.whole == STATUS_OK) ZELData_Free(list);
    r.single = ZELData_DeserializeGetPropVal(b.data(), length, "nothing", value, sizeof value);
  });
  return r;
}

// Each row damages the golden bytes; both readers print `text` (only its start
// when it does not end in a newline).
TEST(SerializedDataTest, Refusals) {
  const std::string kMalformed = "bad data: malformed entry of length ";
  const struct {
    uint32_t at, value, length;
    bool reseal;
    ReturnStatus status;
    std::string text;
  } rows[] = {
      {0, 164, 15, false, STATUS_BAD_PARAM,
       "bad data: buffer size 15 smaller than minimum header size\n"},
      {0, 15, 164, false, STATUS_BAD_PARAM,
       "bad data: data size 15 in header smaller than minimum header size\n"},
      {0, 164, 163, false, STATUS_BAD_PARAM,
       "bad data: buffer size 163 smaller than size 164 in header\n"},
      {100, 1, 164, false, STATUS_BAD_CHECKSUM, ""},
      {12, 156, 164, true, STATUS_BAD_PARAM,
       "bad data: data length smaller than data block size 156\n"},
      {0, 162, 164, true, STATUS_BAD_PARAM, "bad data: not end with 4 (zero) marker bytes\n"},
      // Entries too short, not a multiple of 4, or shorter than their value.
      {12, 140, 164, true, STATUS_BAD_PARAM, kMalformed + "140"},
      {12, 146, 164, true, STATUS_BAD_PARAM, kMalformed + "146"},
      {148, 9, 164, true, STATUS_BAD_PARAM, kMalformed + "148"},
      {12, 8, 164, true, STATUS_BAD_PARAM, kMalformed + "8"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    Bytes b = kGolden;
    Put32(b, row.at, row.value);
    if (row.reseal) Reseal(b);
    const ReaderResult r = ReadBoth(b, row.length);
    EXPECT_EQ(r.whole, row.status);
    EXPECT_EQ(r.single, row.status);
    const bool exact = !row.text.empty() && row.text.back() == '\n';
    EXPECT_EQ(exact ? r.out : r.out.substr(0, row.text.size()),
              exact ? row.text + row.text : row.text);
  }
  Bytes bad = kGolden;
  bad[8] = 2;
  ReaderResult r = ReadBoth(bad, 164);
  EXPECT_EQ(r.single, STATUS_BAD_PARAM);
  EXPECT_EQ(r.out,
            "Bad data: expected header version 1, actual 2\nUnsupported ZEL data version 2\n");
  bad[100] = 1;  // and a wrong checksum: the readers check the two in opposite orders
  r = ReadBoth(bad, 164);
  EXPECT_EQ(r.whole, STATUS_BAD_PARAM);
  EXPECT_EQ(r.single, STATUS_BAD_CHECKSUM);
  EXPECT_EQ(r.out,
            "Bad data: expected header version 1, actual 2\n"
            "bad chksum: expected 0x114, actual 0x115\n");
}

TEST(SerializedDataTest, SingleValueReader) {
  const uint8_t *g = kGolden.data();
  uint32_t value = 0;
  EXPECT_EQ(ZELData_DeserializeGetPropVal(g, 164, "maxPorts", &value, 4), STATUS_OK);
  EXPECT_EQ(value, 256u);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(nullptr, 164, "maxPorts", &value, 4), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(g, 164, nullptr, &value, 4), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(g, 164, "maxPorts", nullptr, 4), STATUS_BAD_PARAM);
  EXPECT_EQ(Out([&] {
              EXPECT_EQ(ZELData_DeserializeGetPropVal(g, 164, "maxPorts", &value, 3),
                        STATUS_LIMIT_EXCEEDED);
            }),
            "propVal buffer of size 3 not sufficient to store value of size 4 for property "
            "maxPorts\n");
  EXPECT_EQ(ZELData_DeserializeGetPropVal(g, 164, "absent", &value, 4), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(kEmpty.data(), 16, "maxPorts", &value, 4),
            STATUS_NOT_FOUND);
  // Bytes after the end marker, within the header size, are ignored by both.
  Bytes trailing = kGolden;
  trailing.resize(200, 0xEE);
  Put32(trailing, 0, 200);
  Reseal(trailing);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(trailing.data(), 200, "maxPorts", &value, 4), STATUS_OK);
  PropertyList *list = nullptr;
  ASSERT_EQ(Decode(trailing, &list), STATUS_OK);
  EXPECT_EQ(ZELData_SerializedSize(list, 0), 164u);
  ZELData_Free(list);
}

TEST(SerializedDataTest, AllocationFailureAtEveryPoint) {
  PropertyList *list = nullptr;
  ASSERT_EQ(ZELData_Alloc(&list, fa::Alloc, fa::Free), STATUS_OK);
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(ZELData_Append(list, ("e" + std::to_string(i)).c_str(), "value", 6, 16), STATUS_OK);
  }
  const int64_t live = fa::Live();
  void *buf = nullptr;
  uint32_t len = 0;
  fa::FailAt(1);
  EXPECT_EQ(ZELData_Serialize(list, &buf, &len, 5), STATUS_NO_MEMORY);
  EXPECT_EQ(buf, nullptr);
  fa::FailAt(1);
  EXPECT_EQ(ZELData_SerializeEntry(list, "e3", &buf, &len), STATUS_NO_MEMORY);
  EXPECT_EQ(fa::Live(), live);
  fa::FailAt(0);
  const Bytes bytes = Serialize(list, 5);
  ZELData_Free(list);
  // Deserialize: one allocation for the list and one per entry.
  for (uint64_t k = 1; k <= 7; ++k) {
    fa::FailAt(k);
    PropertyList *out = reinterpret_cast<PropertyList *>(0x1);
    const ReturnStatus status =
        ZELData_Deserialize(&out, bytes.data(), bytes.size(), fa::Alloc, fa::Free);
    EXPECT_EQ(status, k <= 6 ? STATUS_NO_MEMORY : STATUS_OK) << k;
    EXPECT_EQ(status == STATUS_OK, out != reinterpret_cast<PropertyList *>(0x1)) << k;
    if (status == STATUS_OK) ZELData_Free(out);
    EXPECT_EQ(fa::Live(), 0) << k;
  }
  fa::FailAt(0);
}

}  // namespace
