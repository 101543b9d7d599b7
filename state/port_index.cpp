#include "state/port_index.h"

#include <cstring>
#include <new>
#include <utility>

namespace zel::state {

static_assert(sizeof(PortIndex) == 24, "the buckets follow a 24-byte header");

// A small index (up to 64 KiB, a switch of up to 4,096 ports) is used whole
// from the start: widening reads every port record again, which costs more
// than clearing it.  A larger one starts with 8 KiB of buckets, enough for
// 512 ports.
constexpr uint64_t kWholeUpTo = 8192;
constexpr uint64_t kFirstBuckets = 1024;

uint32_t PortIndex::Hash(const char *id) {
  uint32_t hash = 2166136261u;  // FNV-1a
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(id); *p != 0; ++p) {
    hash = (hash ^ *p) * 16777619u;
  }
  return hash;
}

uint64_t PortIndex::BucketsFor(uint32_t maxPorts) {
  uint64_t buckets = 4;
  while (buckets < uint64_t{2} * maxPorts) {
    buckets *= 2;
  }
  return buckets;
}

PortIndex *PortIndex::Init(void *memory, uint64_t buckets) {
  PortIndex *index = new (memory) PortIndex();
  index->room_ = buckets;
  index->mask_ = (buckets <= kWholeUpTo ? buckets : kFirstBuckets) - 1;
  std::memset(index->Buckets(), 0, (index->mask_ + 1) * sizeof(Bucket));
  return index;
}

uint64_t PortIndex::Widen() {
  mask_ = 2 * mask_ + 1;
  std::memset(Buckets(), 0, (mask_ + 1) * sizeof(Bucket));
  return std::exchange(count_, 0);
}

void PortIndex::Insert(uint32_t hash, uint32_t slot) {
  Bucket *buckets = Buckets();
  uint64_t i = hash & mask_;
  while (buckets[i].slotPlus1 != 0) {
    i = (i + 1) & mask_;
  }
  buckets[i] = Bucket{slot + 1, hash};
  ++count_;
}

void PortIndex::Erase(uint32_t hash, uint32_t slot) {
  Bucket *buckets = Buckets();
  uint64_t hole = hash & mask_;
  while (buckets[hole].slotPlus1 != slot + 1) {
    if (buckets[hole].slotPlus1 == 0) {
      return;  // not indexed
    }
    hole = (hole + 1) & mask_;
  }
  // Move later entries of the probe run back into the hole when their home
  // bucket does not lie between the hole and their position.
  uint64_t i = hole;
  while (true) {
    i = (i + 1) & mask_;
    if (buckets[i].slotPlus1 == 0) {
      break;
    }
    uint64_t home = buckets[i].hash & mask_;
    bool stays = hole <= i ? (hole < home && home <= i) : (hole < home || home <= i);
    if (!stays) {
      buckets[hole] = buckets[i];
      hole = i;
    }
  }
  buckets[hole] = Bucket{0, 0};
  --count_;
}

}  // namespace zel::state
