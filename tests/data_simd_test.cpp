// The baseline and AVX2 builds of the word loops give the same bytes and the
// same checksums, for every tail length, buffer alignment and walk.
#include <cstdlib>
#include <random>

#include "data/property_list_internal.h"
#include "data/simd.h"
#include "state_fixture.h"

namespace {

using zel::data::Isa;
using zelstatetest::Bytes;

// The checksum as the format states it, one word or byte at a time.
uint32_t ReferenceChecksum(const uint8_t *d, uint32_t size) {
  const uint32_t words = size / 4;
  uint32_t sum = 0;
  for (uint32_t w = 8; w < words; ++w) {
    uint32_t v;
    std::memcpy(&v, d + 4 * w, 4);
    sum += v;
  }
  for (uint32_t off = 4 * (words > 8 ? words : 8); off < size; ++off) sum += d[off];
  return sum;
}

// Expects the same result of fn under the baseline and (where present) AVX2.
template <class F>
void ExpectSameUnderEachIsa(F fn) {
  std::vector<decltype(fn())> results;
  for (Isa isa : {Isa::kBaseline, Isa::kAvx2}) {
    if (zel::data::testing::ForceIsa(isa)) results.push_back(fn());
  }
  zel::data::testing::ResetIsa();
  ASSERT_FALSE(results.empty());
  for (size_t i = 1; i < results.size(); ++i) EXPECT_EQ(results[i], results[0]);
}

TEST(WordLoopsTest, ChecksumOfEveryLengthAndAlignment) {
  std::mt19937 rng(1);
  Bytes data(700 + 32);
  for (auto &b : data) b = static_cast<uint8_t>(rng());
  for (uint32_t shift = 0; shift < 32; shift += 3) {
    for (uint32_t size = 0; size <= 700; ++size) {
      const uint8_t *d = data.data() + shift;
      ExpectSameUnderEachIsa([&] {
        const uint32_t sum = zel::data::Checksum(d, size);
        EXPECT_EQ(sum, ReferenceChecksum(d, size)) << "size " << size << " shift " << shift;
        return sum;
      });
    }
  }
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
// the other one) give the same bytes under each instruction set.
TEST(WordLoopsTest, BytesAgreeForEveryWalkAndAlignment) {
  // Entries with values of 0 to 72 bytes: entry lengths 144 to 216, every
  // remainder modulo 32, in non-zero random bytes.
  zelstatetest::Props props;
  std::mt19937 rng(7);
  for (uint32_t len = 0; len <= 72; ++len) {
    props.emplace_back("com.zorlan.test." + std::to_string(len), Bytes(len));
    for (auto &b : props.back().second) b = static_cast<uint8_t>(rng() | 1);
  }
  PropertyList *list = zelstatetest::MakeList(props);
  const uint32_t size = ZELData_SerializedSize(list, 0);
  for (const char *pattern : {static_cast<const char *>(nullptr), "no.such.name"}) {
    for (int level : {-1, 2}) {
      for (uint32_t shift = 0; shift < 4; ++shift) {
        ExpectSameUnderEachIsa([&] {
          zeltest::ScopedLevel quiet(zeldata_debug, level);
          Bytes buf(size + shift), again;
          void *p = buf.data() + shift;
          uint32_t len = size;
          g_shift = 8 * shift;
          zeltest::CaptureStdout([&] {
            EXPECT_EQ(ZELData_SerializeExNamedProp(list, &p, &len, 5, pattern), STATUS_OK);
            PropertyList *decoded = nullptr;
            EXPECT_EQ(ZELData_Deserialize(&decoded, p, size, ShiftedAlloc, ShiftedFree), STATUS_OK);
            again = zelstatetest::Serialize(decoded);
            ZELData_Free(decoded);
          });
          Bytes out(buf.begin() + shift, buf.end());
          EXPECT_EQ(zelstatetest::Get32(out, 4), ReferenceChecksum(out.data(), size));
          EXPECT_EQ(again, out);
          return out;
        });
      }
    }
  }
  ZELData_Free(list);
}

}  // namespace
