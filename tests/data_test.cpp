// Property lists, their serialized form and its two readers, allocation
// failures, and the word loops of each instruction set at every alignment.
#include <sys/mman.h>

#include <cstdlib>
#include <random>

#include "data/property_list_internal.h"
#include "data/simd.h"
#include "host/large_buffer.h"
#include "state_fixture.h"

namespace {

using namespace zelstatetest;
using zel::data::Isa;
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

// The names in order, by the callback walk (ListProps takes the other one).
std::vector<std::string> Names(PropertyList *list) {
  std::vector<std::string> names;
  const auto add = [](const char *name, const void *, uint32_t, uint32_t, void *ctx) {
    return static_cast<std::vector<std::string> *>(ctx)->push_back(name), false;
  };
  ZELData_ForEach(list, add, &names);
  return names;
}

// Lookups and removals act on the first entry of a name; a removal reports
// the type (32 when absent) and keeps the head and tail right; names are cut
// to 127.
TEST(PropertyListTest, RemovalDuplicateAndLongNames) {
  ListGuard g;
  uint32_t type = 0;
  EXPECT_EQ(ZELDataRemove(g.list, "missing", &type), STATUS_NOT_FOUND);
  EXPECT_EQ(type, 32u);
  ASSERT_EQ(ZELData_Append(g.list, "dup", U32(1).data(), 4, 16), STATUS_OK);
  ASSERT_EQ(ZELData_Append(g.list, "dup", U32(2).data(), 4, 24), STATUS_OK);
  EXPECT_EQ(g.TypeOf("dup"), 16u);
  ASSERT_EQ(ZELDataRemove(g.list, "dup", &type), STATUS_OK);  // the head
  EXPECT_EQ(type, 16u);
  EXPECT_EQ(ListProps(g.list), (Props{{"dup", U32(2)}}));
  ASSERT_EQ(ZELData_Append(g.list, "c", "3", 1, 8), STATUS_OK);
  ASSERT_EQ(ZELDataRemove(g.list, "c", &type), STATUS_OK);  // the tail
  EXPECT_EQ(type, 8u);
  const std::string longName(130, 'n');
  ASSERT_EQ(ZELData_Append(g.list, longName.c_str(), "x", 1, 16), STATUS_OK);  // after the tail
  PropertyEntry *e = nullptr;
  EXPECT_EQ(ZELData_Lookup(g.list, longName.c_str(), &e), STATUS_NOT_FOUND);
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{"dup", longName.substr(0, 127)}));
  EXPECT_EQ(g.Size(), 16u + 148 + 144);
  ASSERT_EQ(ZELData_Remove(g.list, "dup"), STATUS_OK);
  EXPECT_EQ(Names(g.list), (std::vector<std::string>{longName.substr(0, 127)}));
  EXPECT_EQ(ZELData_Lookup(g.list, longName.substr(0, 127).c_str(), &e), STATUS_OK);
  // A decoded name field may hold bytes after its NUL: the name ends there.
  const Bytes field = Encode({{std::string("abc\0xyz", 7), U32(1)}});
  PropertyList *decoded = nullptr;
  ASSERT_EQ(ZELData_Deserialize(&decoded, field.data(), uint32_t(field.size()), Malloc, std::free),
            STATUS_OK);
  EXPECT_EQ(ZELData_Lookup(decoded, "abc", &e), STATUS_OK);
  for (const char *other : {"ab", "abcxyz", "abd", "bbc", ""}) {
    EXPECT_EQ(ZELData_Lookup(decoded, other, &e), STATUS_NOT_FOUND) << other;
  }
  ZELData_Free(decoded);
}

TEST(PropertyListTest, UpdateKeepsPlaceOnSameLengthMovesOtherwiseAndRefusesHugeValues) {
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
  // Values too large for the format are refused before the value is read or
  // anything is allocated.
  static const char byte = 0;
  EXPECT_EQ(ZELData_Append(g.list, "huge", &byte, 0xFFFFFFFFu, 16), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELData_Append(g.list, "huge", &byte, 0xFFFFFFFFu - 146, 16), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELData_Update(g.list, "d", &byte, 0xFFFFFFF0u, 16), STATUS_BAD_PARAM);
  EXPECT_EQ(ListProps(g.list).back(),
            (std::pair<std::string, Bytes>{"d", Bytes{'a', 'b', 'c', 'd'}}));
  EXPECT_EQ(g.Size(), 16u + 2 * 152 + 2 * 148);
}

TEST(PropertyListTest, AllocationFailureAtEveryPoint) {
  PropertyList *list = nullptr;
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
  for (int i = 0; i < 4; ++i) {
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
  // Deserialize: one allocation for the list (the first) and one per entry.
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

// The one-entry list {"maxPorts": u32 256, type 16}.
const Bytes kGolden = Encode({{"maxPorts", U32(256)}});
const Bytes kEmpty{16, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};

void Reseal(Bytes &b) { Put32(b, 4, zel::data::Checksum(b.data(), Get32(b, 0))); }

ReturnStatus Decode(const Bytes &b, PropertyList **out) {
  return ZELData_DeserializeWithPropType(out, b.data(), static_cast<uint32_t>(b.size()), fa::Alloc,
                                         fa::Free, 0x3C);
}

std::string Out(const std::function<void()> &fn) {
  zeltest::ScopedLevel level(zeldata_debug, 0);
  return zeltest::CaptureStdout(fn);
}

TEST(SerializedDataTest, GoldenBytesAndTheTypeMask) {
  PropertyList *list = MakeList({});
  EXPECT_EQ(Serialize(list, 5), kEmpty);
  ASSERT_EQ(ZELData_Append(list, "maxPorts", U32(256).data(), 4, 16), STATUS_OK);
  EXPECT_EQ(Serialize(list, 5), kGolden);
  for (uint32_t version : {3u, 4u}) {  // an old version is noted; the bytes stay the same
    EXPECT_EQ(Out([&] { EXPECT_EQ(Serialize(list, version), kGolden); }),
              version < 4 ? "ZEL version 3 is smaller than 6.0.\n" : "");
  }
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
  // A round trip keeps the entries whose type is in the mask.
  for (uint32_t type : {0u, 1u, 2u, 3u, 4u, 16u, 24u, 32u, 64u}) {
    const std::string name = "type" + std::to_string(type);
    ASSERT_EQ(ZELData_Append(list, name.c_str(), name.c_str(), name.size() + 1, type), STATUS_OK);
  }
  PropertyList *back = nullptr;
  ASSERT_EQ(Decode(Serialize(list, 5), &back), STATUS_OK);
  Props expected = {{"maxPorts", U32(256)}};
  for (const char *name : {"type4", "type16", "type24", "type32"})
    expected.push_back({name, Text(name)});
  EXPECT_EQ(ListProps(back), expected);
  EXPECT_EQ(ZELData_SerializedSize(back, 0), 16u + 148 + 4 * 152);
  ZELData_Free(back);
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
    r.whole = ZELData_DeserializeWithPropType(&list, b.data(), length, fa::Alloc, fa::Free, 0x3C);
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
  // Bytes after the end marker, within the header size, are ignored by both,
  // and an entry longer than its value needs is read in the canonical length.
  Bytes trailing = Encode({{"maxPorts", {0, 1, 0, 0, 9, 9, 9, 9}}});
  Put32(trailing, 148, 4);
  trailing.resize(200, 0xEE);
  Put32(trailing, 0, 200);
  Reseal(trailing);
  EXPECT_EQ(ZELData_DeserializeGetPropVal(trailing.data(), 200, "maxPorts", &value, 4), STATUS_OK);
  PropertyList *list = nullptr;
  ASSERT_EQ(Decode(trailing, &list), STATUS_OK);
  EXPECT_EQ(Serialize(list, 5), kGolden);
  ZELData_Free(list);
}

// Hands out blocks that start `g_shift` bytes past a 32-byte boundary, so the
// deserializer's copy meets every alignment of its destination that an
// allocator of 8-byte-aligned blocks can give.
uint32_t g_shift = 0;
void *ShiftedAlloc(uint64_t n) {
  auto *raw = static_cast<uint8_t *>(std::aligned_alloc(32, (n + 64 + 31) / 32 * 32));
  if (raw == nullptr) return nullptr;
  uint8_t *block = raw + 32 + g_shift;
  std::memcpy(block - sizeof raw, &raw, sizeof raw);
  return block;
}
void ShiftedFree(void *p) {
  uint8_t *raw;
  std::memcpy(&raw, static_cast<uint8_t *>(p) - sizeof raw, sizeof raw);
  std::free(raw);
}

// Serialized into a buffer at each byte offset and decoded into blocks at each
// 8-byte offset, both walks (a pattern that matches nothing, and tracing, take
// the other one) give the encoder's bytes under each instruction set.
TEST(WordLoopsTest, BytesAgreeForEveryWalkAndAlignment) {
  // Entries with values of 0 to 72 bytes: entry lengths 144 to 216, every
  // remainder modulo 32, in non-zero random bytes.
  std::vector<Entry> entries;
  std::mt19937 rng(7);
  for (uint32_t len = 0; len <= 72; ++len) {
    entries.push_back({"com.zorlan.test." + std::to_string(len), Bytes(len)});
    for (auto &b : entries.back().value) b = static_cast<uint8_t>(rng() | 1);
  }
  const Bytes expected = Encode(entries);
  Props props;
  for (const Entry &e : entries) props.emplace_back(e.name, e.value);
  PropertyList *list = MakeList(props);
  const auto size = static_cast<uint32_t>(expected.size());
  const std::string trace = "deserializing com.zorlan.test.9: 9/152 data/serial bytes 16 flag\n";
  // Level 2 traces the buffer, each entry written, and the data read.
  const std::string traces[] = {"allocating buffer size " + std::to_string(size) + "\n",
                                "serializing com.zorlan.test.9: 9/152 data/serial bytes\n",
                                "Deserialize data, length = " + std::to_string(size) + "\n",
                                "Deserialize data done, serializeSize = " + std::to_string(size) +
                                    "\n"};
  int isas = 0;
  for (Isa isa : {Isa::kBaseline, Isa::kAvx2}) {
    if (!zel::data::testing::ForceIsa(isa)) continue;
    ++isas;
    for (const char *pattern : {static_cast<const char *>(nullptr), "no.such.name"}) {
      for (int level : {-1, 2, 3}) {
        for (uint32_t shift = 0; shift < 4; ++shift) {
          zeltest::ScopedLevel quiet(zeldata_debug, level);
          Bytes buf(size + shift), again;
          void *p = buf.data() + shift;
          uint32_t len = size;
          g_shift = 8 * shift;
          const std::string out = zeltest::CaptureStdout([&] {
            EXPECT_EQ(ZELData_SerializeExNamedProp(list, &p, &len, 5, pattern), STATUS_OK);
            PropertyList *decoded = nullptr;
            EXPECT_EQ(ZELData_Deserialize(&decoded, p, size, ShiftedAlloc, ShiftedFree), STATUS_OK);
            again = Serialize(decoded);
            ZELData_Free(decoded);
          });
          EXPECT_EQ(Bytes(buf.begin() + shift, buf.end()), expected);
          EXPECT_EQ(again, expected);
          EXPECT_EQ(out.find(trace) != std::string::npos, level == 3);
          for (const std::string &line : traces)
            EXPECT_EQ(out.find(line) != std::string::npos, level >= 2) << line;
        }
      }
    }
  }
  zel::data::testing::ResetIsa();
  EXPECT_EQ(isas, zel::data::ActiveIsa() == Isa::kAvx2 ? 2 : 1);
  ZELData_Free(list);
}

// A large serialized buffer asks for huge pages on the whole 2 MiB pages
// inside it and nowhere else; a small one, and a caller's buffer, ask nothing.
struct Advice {
  uintptr_t begin = 0, end = 0;
  int advice = 0, calls = 0;
};
Advice g_advice;
int RecordAdvice(void *at, size_t bytes, int advice) {
  g_advice = {reinterpret_cast<uintptr_t>(at), reinterpret_cast<uintptr_t>(at) + bytes, advice,
              g_advice.calls + 1};
  return 0;
}

TEST(LargeBufferTest, HugePagesOnlyInsideALargeBufferThatIsWritten) {
  constexpr uintptr_t kMiB = 1 << 20;
  constexpr size_t kLarge = zel::host::kLargeBufferBytes;
  constexpr uintptr_t kTop = UINTPTR_MAX - kLarge + 1;  // kLarge below the end of memory
  const struct {
    uintptr_t at;
    size_t bytes;
    uintptr_t begin, end;  // the whole pages inside; 0, 0 for none
    bool advised;          // kLarge or more, with a whole page inside
  } rows[] = {
      {2 * kMiB, kLarge, 2 * kMiB, 2 * kMiB + kLarge, true},      // aligned at both ends
      {2 * kMiB + 1, kLarge, 4 * kMiB, 2 * kMiB + kLarge, true},  // rounded in at both ends
      {2 * kMiB + 16, 2 * kMiB, 0, 0, false},                     // no whole page
      {2 * kMiB, kLarge - 1, 2 * kMiB, kLarge, false},            // whole pages, but small
      {kTop, kLarge - 1, kTop, kTop + kLarge - 2 * kMiB, false},  // up to the last byte
      {kTop, kLarge, 0, 0, false},                                // past the end of memory
  };
  const auto previous = zel::host::testing::SetAdvise(RecordAdvice);
  for (const auto &r : rows) {
    const auto pages = zel::host::HugePagesInside(reinterpret_cast<const void *>(r.at), r.bytes);
    EXPECT_EQ(pages.begin, r.begin) << r.at;
    EXPECT_EQ(pages.end, r.end) << r.at;
    g_advice = {};
    zel::host::AdviseWholeWrite(reinterpret_cast<void *>(r.at), r.bytes);  // recorded, not made
    EXPECT_EQ(g_advice.calls, r.advised ? 1 : 0) << r.at;
    if (r.advised) {
      EXPECT_EQ(g_advice.begin, r.begin);
      EXPECT_EQ(g_advice.end, r.end);
      EXPECT_EQ(g_advice.advice, MADV_HUGEPAGE);
    }
  }
  g_advice = {};
  ListGuard big;
  const std::vector<uint8_t> value(zel::host::kLargeBufferBytes, 7);
  ASSERT_EQ(ZELData_Append(big.list, "big", value.data(), uint32_t(value.size()), 16), STATUS_OK);
  void *buffer = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(ZELData_Serialize(big.list, &buffer, &length, 5), STATUS_OK);
  const auto at = reinterpret_cast<uintptr_t>(buffer);
  EXPECT_EQ(g_advice.calls, 1);
  EXPECT_EQ(g_advice.advice, MADV_HUGEPAGE);
  EXPECT_EQ(g_advice.begin % (2 * kMiB), 0u);
  EXPECT_EQ(g_advice.end % (2 * kMiB), 0u);
  EXPECT_TRUE(at <= g_advice.begin && g_advice.begin < g_advice.end && g_advice.end <= at + length);
  EXPECT_EQ(ZELData_Serialize(big.list, &buffer, &length, 5), STATUS_OK);  // the caller's buffer
  std::free(buffer);
  ListGuard small;
  ASSERT_EQ(ZELData_Append(small.list, "small", value.data(), 4096, 16), STATUS_OK);
  buffer = nullptr;
  ASSERT_EQ(ZELData_Serialize(small.list, &buffer, &length, 5), STATUS_OK);
  std::free(buffer);
  EXPECT_EQ(g_advice.calls, 1);
  zel::host::testing::SetAdvise(previous);
}

}  // namespace
