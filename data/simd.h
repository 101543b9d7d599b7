// The word loops of serialization and its checksum, on 32-byte vectors of the
// compiler's vector extension, and the choice of instruction set they run
// with.
//
// The loops are written once and inlined into one function per instruction
// set (WithBestIsa): a baseline build lowers each vector to two 16-byte
// operations, an AVX2 build to one.  The AVX2 build runs on processors that
// have it; both give the same bytes and sums, which the tests check.  Every
// piece here is always inlined, so no copy of it compiled for one instruction
// set is ever called from the other.
//
// A length that is not a multiple of 32 ends with one more 32-byte step that
// overlaps the previous one: it copies the last 32 bytes again (the same
// values) and adds only the lanes beyond the previous step.
#pragma once

#include <cstdint>
#include <cstring>

#define ZEL_ALWAYS_INLINE __attribute__((always_inline))
#if defined(__x86_64__)
#define ZEL_HAVE_AVX2 1
#endif

namespace zel::data {

enum class Isa { kBaseline, kAvx2 };

// The instruction set the word loops run with: AVX2 where the processor has it.
Isa ActiveIsa();

namespace testing {
// Makes ActiveIsa() return `isa`; false, changing nothing, when the processor
// lacks it.
bool ForceIsa(Isa isa);
// Back to the processor's best.
void ResetIsa();
}  // namespace testing

template <class F>
auto RunBaseline(F &&body) {
  return body();
}
#if defined(ZEL_HAVE_AVX2)
template <class F>
[[gnu::target("avx2")]] auto RunAvx2(F &&body) {
  return body();
}
#endif

// Runs body(), a lambda marked ZEL_ALWAYS_INLINE, compiled for the active
// instruction set: the lambda's code is inlined into each instantiation.
template <class F>
auto WithBestIsa(F &&body) {
#if defined(ZEL_HAVE_AVX2)
  if (ActiveIsa() == Isa::kAvx2) {
    return RunAvx2(body);
  }
#endif
  return RunBaseline(body);
}

}  // namespace zel::data

namespace zel::data::vec {

using Vec = uint32_t __attribute__((vector_size(32)));
using Half = uint32_t __attribute__((vector_size(16)));
inline constexpr uint32_t kBytes = sizeof(Vec);

inline constexpr uint32_t kAll = 0xFFFFFFFFu;
// kTailMask[n] keeps the top n lanes of a vector.
inline constexpr Vec kTailMask[8] = {
    {0, 0, 0, 0, 0, 0, 0, 0},
    {0, 0, 0, 0, 0, 0, 0, kAll},
    {0, 0, 0, 0, 0, 0, kAll, kAll},
    {0, 0, 0, 0, 0, kAll, kAll, kAll},
    {0, 0, 0, 0, kAll, kAll, kAll, kAll},
    {0, 0, 0, kAll, kAll, kAll, kAll, kAll},
    {0, 0, kAll, kAll, kAll, kAll, kAll, kAll},
    {0, kAll, kAll, kAll, kAll, kAll, kAll, kAll},
};

// Vectors travel by reference: the baseline build has no 32-byte registers to
// pass them in.
ZEL_ALWAYS_INLINE inline void Load(Vec &v, const uint8_t *p) { std::memcpy(&v, p, sizeof v); }
ZEL_ALWAYS_INLINE inline void Store(uint8_t *p, const Vec &v) { std::memcpy(p, &v, sizeof v); }

// The wrapping sum of the lanes, by halving: three vector additions.
ZEL_ALWAYS_INLINE inline uint32_t Lanes(const Vec &v) {
  Half s = Half(__builtin_shufflevector(v, v, 0, 1, 2, 3)) +
           Half(__builtin_shufflevector(v, v, 4, 5, 6, 7));
  s += __builtin_shufflevector(s, s, 2, 3, 0, 1);
  s += __builtin_shufflevector(s, s, 1, 0, 3, 2);
  return s[0];
}

// Copies `length` bytes, a multiple of 4 of at least 32, between ranges that
// do not overlap, and adds their words lane by lane into acc.
ZEL_ALWAYS_INLINE inline void CopyAndSumWords(uint8_t *dst, const uint8_t *src, uint32_t length,
                                              Vec &acc) {
  Vec v, w;
  uint32_t i = 0;
  // Two vectors a step: entries are a few hundred bytes, and the loop's own
  // instructions would otherwise cost as much as the copy.
  for (; i + 2 * kBytes <= length; i += 2 * kBytes) {
    Load(v, src + i);
    Load(w, src + i + kBytes);
    Store(dst + i, v);
    Store(dst + i + kBytes, w);
    acc += v + w;
  }
  if (i + kBytes <= length) {
    Load(v, src + i);
    Store(dst + i, v);
    acc += v;
    i += kBytes;
  }
  if (i < length) {
    Load(v, src + length - kBytes);
    Store(dst + length - kBytes, v);
    acc += v & kTailMask[(length - i) / 4];
  }
}

// Copies `length` bytes, at least 32, between ranges that do not overlap.
// Every store but the first and the last is aligned to 32 bytes: a store that
// straddles two cache lines costs two.
ZEL_ALWAYS_INLINE inline void CopyBytes(uint8_t *dst, const uint8_t *src, uint32_t length) {
  Vec head, tail, v, w;
  Load(head, src);
  Load(tail, src + length - kBytes);
  Store(dst, head);
  uint32_t i = kBytes - static_cast<uint32_t>(reinterpret_cast<uintptr_t>(dst) % kBytes);
  for (; i + 2 * kBytes <= length; i += 2 * kBytes) {
    Load(v, src + i);
    Load(w, src + i + kBytes);
    Store(dst + i, v);
    Store(dst + i + kBytes, w);
  }
  if (i + kBytes <= length) {
    Load(v, src + i);
    Store(dst + i, v);
    i += kBytes;
  }
  if (i < length) {
    Store(dst + length - kBytes, tail);
  }
}

// The wrapping sum of `count` words.
ZEL_ALWAYS_INLINE inline uint32_t SumWords(const uint8_t *data, uint32_t count) {
  const uint64_t length = uint64_t{count} * 4;
  uint64_t i = 0;
  if (length < kBytes) {
    uint32_t sum = 0;
    for (; i < length; i += 4) {
      uint32_t w;
      std::memcpy(&w, data + i, sizeof w);
      sum += w;
    }
    return sum;
  }
  // Two accumulators keep both load ports busy on long data.
  Vec a = {}, b = {}, v, w;
  for (; i + 2 * kBytes <= length; i += 2 * kBytes) {
    Load(v, data + i);
    Load(w, data + i + kBytes);
    a += v;
    b += w;
  }
  if (i + kBytes <= length) {
    Load(v, data + i);
    a += v;
    i += kBytes;
  }
  if (i < length) {
    Load(v, data + length - kBytes);
    b += v & kTailMask[(length - i) / 4];
  }
  a += b;
  return Lanes(a);
}

}  // namespace zel::data::vec
