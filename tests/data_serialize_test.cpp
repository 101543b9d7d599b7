#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "data/property_list_internal.h"
#include "test_support.h"
#include "zel/data.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace fa = zeltest::failalloc;

void *SysAlloc(uint64_t n) { return std::malloc(n); }

PropertyList *NewList() {
  PropertyList *list = nullptr;
  EXPECT_EQ(ZELData_Alloc(&list, SysAlloc, std::free), STATUS_OK);
  return list;
}

Bytes Serialize(PropertyList *list, const char *pattern = nullptr) {
  void *buf = nullptr;
  uint32_t len = 0;
  EXPECT_EQ(ZELData_SerializeExNamedProp(list, &buf, &len, 5, pattern), STATUS_OK);
  Bytes out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
  ZELData_FreeAssocData(list, buf);
  return out;
}

void Put32(Bytes &b, size_t off, uint32_t v) { std::memcpy(b.data() + off, &v, 4); }
uint32_t Get32(const Bytes &b, size_t off) {
  uint32_t v;
  std::memcpy(&v, b.data() + off, 4);
  return v;
}
// Recomputes the checksum after a test changed the data.
void Reseal(Bytes &b) { Put32(b, 4, zel::data::Checksum(b.data(), Get32(b, 0))); }

// The one-entry list {"maxPorts": u32 256, type 16}, byte by byte.
Bytes MaxPortsGolden() {
  Bytes b(164, 0);
  Put32(b, 0, 164);
  Put32(b, 4, 0x114);
  b[8] = 1;
  Put32(b, 12, 148);
  std::memcpy(b.data() + 16, "maxPorts", 8);
  Put32(b, 144, 16);
  Put32(b, 148, 4);
  Put32(b, 152, 256);
  return b;
}

ReturnStatus Decode(const Bytes &b, PropertyList **out, uint32_t mask = 0x3C) {
  return ZELData_DeserializeWithPropType(out, b.data(), static_cast<uint32_t>(b.size()), SysAlloc,
                                         std::free, mask);
}

// Runs both readers with messages on and returns {status of each, output}.
struct ReaderResult {
  ReturnStatus whole, single;
  std::string out;
};
ReaderResult ReadBoth(const Bytes &b, uint32_t length) {
  zeltest::ScopedLevel level(zeldata_debug, 0);
  ReaderResult r{};
  char value[16];
  r.out = zeltest::CaptureStdout([&] {
    PropertyList *list = nullptr;
    r.whole = ZELData_DeserializeWithPropType(&list, b.data(), length, SysAlloc, std::free, 0x3C);
    if (r.whole == STATUS_OK) ZELData_Free(list);
    r.single = ZELData_DeserializeGetPropVal(b.data(), length, "nothing", value, sizeof value);
  });
  return r;
}

TEST(SerializedDataTest, GoldenBytes) {
  PropertyList *list = NewList();
  EXPECT_EQ(Serialize(list), (Bytes{16, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
  uint32_t v = 256;
  ASSERT_EQ(ZELData_Append(list, "maxPorts", &v, 4, 16), STATUS_OK);
  EXPECT_EQ(Serialize(list), MaxPortsGolden());
  // One entry serialized alone has the same form.
  void *buf = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(ZELData_SerializeEntry(list, "maxPorts", &buf, &len), STATUS_OK);
  EXPECT_EQ(Bytes(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len),
            MaxPortsGolden());
  ZELData_FreeAssocData(list, buf);
  len = 1000;
  EXPECT_EQ(ZELData_SerializeEntry(list, "absent", &buf, &len), STATUS_NOT_FOUND);
  EXPECT_EQ(len, 0u);
  // Into a caller's buffer: exactly big enough, or one byte short.
  uint8_t own[200];
  void *p = own;
  for (uint32_t size : {163u, 164u}) {
    len = size;
    EXPECT_EQ(ZELData_Serialize(list, &p, &len, 5),
              size == 164 ? STATUS_OK : STATUS_LIMIT_EXCEEDED);
  }
  EXPECT_EQ(len, 164u);
  EXPECT_EQ(Bytes(own, own + 164), MaxPortsGolden());
  len = 163;
  EXPECT_EQ(ZELData_SerializeEntry(list, "maxPorts", &p, &len), STATUS_LIMIT_EXCEEDED);
  ZELData_Free(list);
}

TEST(SerializedDataTest, RoundTripKeepsTypesOfTheMask) {
  PropertyList *list = NewList();
  for (uint32_t type : {0u, 1u, 2u, 3u, 4u, 16u, 24u, 32u, 64u}) {
    const std::string name = "type" + std::to_string(type);
    ASSERT_EQ(ZELData_Append(list, name.c_str(), name.c_str(), name.size() + 1, type), STATUS_OK);
  }
  const Bytes bytes = Serialize(list);
  ZELData_Free(list);
  PropertyList *back = nullptr;
  ASSERT_EQ(Decode(bytes, &back), STATUS_OK);
  std::vector<std::string> names;
  PropertyEntry *e = nullptr;
  while (ZELData_Next(back, e, &e) == STATUS_OK) {
    names.emplace_back(ZELData_Name(e));
    void *data = nullptr;
    ZELData_Data(e, &data);
    EXPECT_STREQ(static_cast<char *>(data), ZELData_Name(e));
  }
  EXPECT_EQ(names, (std::vector<std::string>{"type4", "type16", "type24", "type32"}));
  EXPECT_EQ(ZELData_SerializedSize(back, 0), 16u + 4 * 152);
  ZELData_Free(back);
}

TEST(SerializedDataTest, ExclusionPatternKeepsPersistMarker) {
  PropertyList *list = NewList();
  ASSERT_EQ(ZELData_Append(list, "com.zorlan.common.port.alias", "lan0", 5, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(list, "com.zorlan.common.port.volatile.persist", "1", 1, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(list, "other", "x", 1, 16), STATUS_OK);
  const uint32_t full = ZELData_SerializedSize(list, 0);
  const uint32_t reduced = ZELData_SerializedSizeExNamedProp(list, 0, "com.zorlan.common.port");
  EXPECT_EQ(reduced, full - 148);
  const Bytes bytes = Serialize(list, "com.zorlan.common.port");
  EXPECT_EQ(bytes.size(), reduced);
  PropertyList *back = nullptr;
  ASSERT_EQ(Decode(bytes, &back), STATUS_OK);
  PropertyEntry *e = nullptr;
  EXPECT_EQ(ZELData_Lookup(back, "com.zorlan.common.port.alias", &e), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELData_Lookup(back, "com.zorlan.common.port.volatile.persist", &e), STATUS_OK);
  EXPECT_EQ(ZELData_Lookup(back, "other", &e), STATUS_OK);
  ZELData_Free(back);
  ZELData_Free(list);
}

TEST(SerializedDataTest, VersionBelowFourIsReported) {
  zeltest::ScopedLevel level(zeldata_debug, 0);
  PropertyList *list = NewList();
  void *buf = nullptr;
  uint32_t len = 0;
  EXPECT_EQ(
      zeltest::CaptureStdout([&] { ASSERT_EQ(ZELData_Serialize(list, &buf, &len, 3), STATUS_OK); }),
      "ZEL version 3 is smaller than 6.0.\n");
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
}

TEST(SerializedDataTest, InconsistentSizeIsRefusedAndOwnBufferReleased) {
  PropertyList *list = NewList();
  ASSERT_EQ(ZELData_Append(list, "a", "1234", 4, 16), STATUS_OK);
  list->serialSize += 4;  // disagrees with its entries now
  zeltest::ScopedLevel level(zeldata_debug, 0);
  void *buf = nullptr;
  uint32_t len = 0;
  std::string out = zeltest::CaptureStdout(
      [&] { EXPECT_EQ(ZELData_Serialize(list, &buf, &len, 5), STATUS_LIMIT_EXCEEDED); });
  EXPECT_EQ(buf, nullptr);
  EXPECT_EQ(out,
            "ZELData length changed during serialization, buflen = 168, lenRemaining = 8, name "
            "NULL, size 0\n");
  list->serialSize = 16 + 140;  // the entry no longer fits what remains
  out = zeltest::CaptureStdout(
      [&] { EXPECT_EQ(ZELData_Serialize(list, &buf, &len, 5), STATUS_LIMIT_EXCEEDED); });
  EXPECT_EQ(out,
            "ZELData length changed during serialization, buflen = 156, lenRemaining = 144, name "
            "a, size 148\n");
  list->serialSize = 16 + 148;
  ZELData_Free(list);
}

// Each row damages the golden bytes; both readers print `text` (only its start
// when it does not end in a newline).
TEST(SerializedDataTest, Refusals) {
  const std::string kMalformed = "bad data: malformed entry of length ";
  const struct {
    uint32_t at, value, length;
    bool reseal;
    ReturnStatus whole, single;
    std::string text;
  } rows[] = {
      {0, 164, 15, false, STATUS_BAD_PARAM, STATUS_BAD_PARAM,
       "bad data: buffer size 15 smaller than minimum header size\n"},
      {0, 15, 164, false, STATUS_BAD_PARAM, STATUS_BAD_PARAM,
       "bad data: data size 15 in header smaller than minimum header size\n"},
      {0, 164, 163, false, STATUS_BAD_PARAM, STATUS_BAD_PARAM,
       "bad data: buffer size 163 smaller than size 164 in header\n"},
      {100, 1, 164, false, STATUS_BAD_CHECKSUM, STATUS_BAD_CHECKSUM, ""},
      {12, 156, 164, true, STATUS_BAD_PARAM, STATUS_BAD_PARAM,
       "bad data: data length smaller than data block size 156\n"},
      {0, 162, 164, true, STATUS_BAD_PARAM, STATUS_BAD_PARAM,
       "bad data: not end with 4 (zero) marker bytes\n"},
      // Entries too short, not a multiple of 4, or shorter than their value.
      {12, 140, 164, true, STATUS_BAD_PARAM, STATUS_BAD_PARAM, kMalformed + "140"},
      {12, 146, 164, true, STATUS_BAD_PARAM, STATUS_BAD_PARAM, kMalformed + "146"},
      {148, 9, 164, true, STATUS_BAD_PARAM, STATUS_BAD_PARAM, kMalformed + "148"},
      {12, 8, 164, true, STATUS_BAD_PARAM, STATUS_BAD_PARAM, kMalformed + "8"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    Bytes b = MaxPortsGolden();
    Put32(b, row.at, row.value);
    if (row.reseal) Reseal(b);
    const ReaderResult r = ReadBoth(b, row.length);
    EXPECT_EQ(r.whole, row.whole);
    EXPECT_EQ(r.single, row.single);
    const bool exact = !row.text.empty() && row.text.back() == '\n';
    EXPECT_EQ(exact ? r.out : r.out.substr(0, row.text.size()),
              exact ? row.text + row.text : row.text);
  }
  Bytes bad = MaxPortsGolden();
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

TEST(SerializedDataTest, DecodedEntriesAreCanonical) {
  // A name filling all 128 bytes is cut to 127 characters.
  Bytes full = MaxPortsGolden();
  std::memset(full.data() + 16, 'n', 128);
  Reseal(full);
  PropertyList *list = nullptr;
  ASSERT_EQ(Decode(full, &list), STATUS_OK);
  PropertyEntry *e = nullptr;
  ASSERT_EQ(ZELData_Next(list, nullptr, &e), STATUS_OK);
  EXPECT_EQ(std::string(ZELData_Name(e)), std::string(127, 'n'));
  ZELData_Free(list);
  // An entry longer than its value needs is rebuilt at the canonical length.
  Bytes roomy = MaxPortsGolden();
  roomy.insert(roomy.begin() + 160, 4, 0);
  Put32(roomy, 0, 168);
  Put32(roomy, 12, 152);
  Reseal(roomy);
  ASSERT_EQ(Decode(roomy, &list), STATUS_OK);
  EXPECT_EQ(ZELData_SerializedSize(list, 0), 164u);
  EXPECT_EQ(Serialize(list), MaxPortsGolden());
  ZELData_Free(list);
}

TEST(SerializedDataTest, SingleValueReader) {
  Bytes g = MaxPortsGolden();
  uint32_t value = 0;
  EXPECT_EQ(ZELData_DeserializeGetPropVal(g.data(), 164, "maxPorts", &value, 4), STATUS_OK);
  EXPECT_EQ(value, 256u);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(nullptr, 164, "maxPorts", &value, 4), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(g.data(), 164, nullptr, &value, 4), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(g.data(), 164, "maxPorts", nullptr, 4), STATUS_BAD_PARAM);
  {
    zeltest::ScopedLevel level(zeldata_debug, 0);
    std::string out = zeltest::CaptureStdout([&] {
      EXPECT_EQ(ZELData_DeserializeGetPropVal(g.data(), 164, "maxPorts", &value, 3),
                STATUS_LIMIT_EXCEEDED);
    });
    EXPECT_EQ(out,
              "propVal buffer of size 3 not sufficient to store value of size 4 for property "
              "maxPorts\n");
  }
  EXPECT_EQ(ZELData_DeserializeGetPropVal(g.data(), 164, "absent", &value, 4), STATUS_NOT_FOUND);
  const Bytes empty{16, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(ZELData_DeserializeGetPropVal(empty.data(), 16, "maxPorts", &value, 4),
            STATUS_NOT_FOUND);
  // Bytes after the end marker, within the header size, are ignored by both.
  Bytes trailing = g;
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
  ASSERT_EQ(ZELData_Serialize(list, &buf, &len, 5), STATUS_OK);
  const Bytes bytes(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
  ASSERT_EQ(fa::Live(), 0);
  // Deserialize: one allocation for the list and one per entry.
  for (uint64_t k = 1; k <= 6; ++k) {
    fa::FailAt(k);
    PropertyList *out = reinterpret_cast<PropertyList *>(0x1);
    EXPECT_EQ(ZELData_Deserialize(&out, bytes.data(), len, fa::Alloc, fa::Free), STATUS_NO_MEMORY)
        << "k=" << k;
    EXPECT_EQ(out, reinterpret_cast<PropertyList *>(0x1));
    EXPECT_EQ(fa::Live(), 0) << "k=" << k;
  }
  fa::FailAt(7);
  PropertyList *out = nullptr;
  ASSERT_EQ(ZELData_Deserialize(&out, bytes.data(), len, fa::Alloc, fa::Free), STATUS_OK);
  EXPECT_EQ(fa::Calls(), 6u);
  ZELData_Free(out);
  fa::FailAt(0);
  EXPECT_EQ(fa::Live(), 0);
}

}  // namespace
