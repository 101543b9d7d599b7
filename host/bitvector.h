// A fixed-size bit vector that lives in memory its owner provides, so that it
// can share one allocation with the record that uses it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::host {

class BitVector {
 public:
  static constexpr int64_t kNone = -1;

  // Bytes needed for a vector of numBits bits (a multiple of 8).
  static size_t AllocSize(uint32_t numBits);
  // Builds a vector with every bit clear in memory of AllocSize(numBits)
  // bytes, aligned for 8-byte words.
  static BitVector *Init(void *memory, uint32_t numBits);

  uint32_t Size() const { return numBits_; }
  void Set(uint32_t index);
  void Clear(uint32_t index);
  bool Test(uint32_t index) const;
  // Index of the first bit at or after `from` whose value is `value`, or
  // kNone when there is none.
  int64_t NextBit(uint32_t from, bool value) const;

 private:
  BitVector() = default;
  uint64_t *Words() { return reinterpret_cast<uint64_t *>(this + 1); }
  const uint64_t *Words() const { return reinterpret_cast<const uint64_t *>(this + 1); }

  uint32_t numBits_ = 0;
  uint32_t numWords_ = 0;
};

}  // namespace zel::host
