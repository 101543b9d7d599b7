// Index from port id to the port slots of one switch, so that adding, finding
// and removing a port by id does not walk every occupied slot.
//
// Open addressing with linear probing and backward-shift deletion.  The table
// lives inside the switch record (one allocation) and has at least twice as
// many buckets as the switch can hold ports, so it never fills up and never
// grows.  Entries of equal id (a normal and a shadow port, zombies) are all
// kept; lookups pick the lowest slot among the matches.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::state {

class PortIndex {
 public:
  struct Bucket {
    uint32_t slotPlus1;  // 0: empty
    uint32_t hash;
  };

  static uint32_t Hash(const char *id);
  // Buckets for a switch of maxPorts ports: a power of two, at least 2 * maxPorts.
  static uint64_t BucketsFor(uint32_t maxPorts);
  static size_t AllocSize(uint64_t buckets) { return sizeof(PortIndex) + buckets * sizeof(Bucket); }
  static PortIndex *Init(void *memory, uint64_t buckets);

  void Insert(uint32_t hash, uint32_t slot);
  void Erase(uint32_t hash, uint32_t slot);

  // Calls fn(slot) for every entry stored under `hash`, in bucket order.
  template <typename Fn>
  void ForEachCandidate(uint32_t hash, Fn fn) const {
    const Bucket *buckets = Buckets();
    for (uint64_t i = hash & mask_; buckets[i].slotPlus1 != 0; i = (i + 1) & mask_) {
      if (buckets[i].hash == hash) {
        fn(buckets[i].slotPlus1 - 1);
      }
    }
  }

 private:
  PortIndex() = default;
  Bucket *Buckets() { return reinterpret_cast<Bucket *>(this + 1); }
  const Bucket *Buckets() const { return reinterpret_cast<const Bucket *>(this + 1); }

  uint64_t mask_ = 0;
};

}  // namespace zel::state
