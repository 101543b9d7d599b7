// Index from port id to the port slots of one switch, so that adding, finding
// and removing a port by id does not walk every occupied slot.
//
// Open addressing with linear probing and backward-shift deletion.  The table
// lives inside the switch record (one allocation) and has room for at least
// twice as many buckets as the switch can hold ports, so it never fills up.
// In a large room only a power-of-two prefix is in use, cleared when taken: a
// switch whose limit is the host's (tens of thousands of ports) but that holds
// a few hundred does not clear and walk half a megabyte.  When one more entry
// would fill more than half of the buckets in use, the owner widens the index
// and inserts every entry again.  Entries of equal id (a normal and a shadow
// port, zombies) are all kept; lookups pick the lowest slot among the matches.
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
  // An index with room for `buckets` (a power of two), of which a few are in use.
  static PortIndex *Init(void *memory, uint64_t buckets);

  // True when one more entry would fill more than half of the buckets in use
  // and the room allows more.
  bool Crowded() const { return 2 * (count_ + 1) > mask_ + 1 && mask_ + 1 < room_; }
  // Doubles the buckets in use and empties the index; returns how many
  // entries it held, which the owner inserts again.
  uint64_t Widen();

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

  uint64_t mask_ = 0;   // buckets in use - 1
  uint64_t room_ = 0;   // buckets that fit
  uint64_t count_ = 0;  // entries
};

}  // namespace zel::state
