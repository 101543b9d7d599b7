#include "host/bitvector.h"

#include <cstring>
#include <new>

namespace zel::host {

static_assert(sizeof(BitVector) == 8, "the words follow an 8-byte header");

size_t BitVector::AllocSize(uint32_t numBits) {
  return sizeof(BitVector) + ((static_cast<size_t>(numBits) + 63) / 64) * sizeof(uint64_t);
}

BitVector *BitVector::Init(void *memory, uint32_t numBits) {
  BitVector *bv = new (memory) BitVector();
  bv->numBits_ = numBits;
  bv->numWords_ = static_cast<uint32_t>((static_cast<uint64_t>(numBits) + 63) / 64);
  std::memset(bv->Words(), 0, bv->numWords_ * sizeof(uint64_t));
  return bv;
}

void BitVector::Set(uint32_t index) {
  if (index < numBits_) {
    Words()[index / 64] |= uint64_t{1} << (index % 64);
  }
}

void BitVector::Clear(uint32_t index) {
  if (index < numBits_) {
    Words()[index / 64] &= ~(uint64_t{1} << (index % 64));
  }
}

bool BitVector::Test(uint32_t index) const {
  return index < numBits_ && (Words()[index / 64] >> (index % 64) & 1) != 0;
}

int64_t BitVector::NextBit(uint32_t from, bool value) const {
  if (from >= numBits_) {
    return kNone;
  }
  const uint64_t *words = Words();
  uint32_t w = from / 64;
  // Bits below `from` in the first word are masked off.
  uint64_t word = (value ? words[w] : ~words[w]) & (~uint64_t{0} << (from % 64));
  while (true) {
    if (word != 0) {
      int64_t index = int64_t{w} * 64 + __builtin_ctzll(word);
      return index < numBits_ ? index : kNone;
    }
    if (++w == numWords_) {
      return kNone;
    }
    word = value ? words[w] : ~words[w];
  }
}

}  // namespace zel::host
