// Internal layout of property lists, shared by the list operations, the
// serializer and the tests that need to tamper with a list.
#pragma once

#include <cstdint>
#include <cstring>

#include "zel/data.h"

// The list handle.  `tail` keeps appends constant-time; the observable order
// and lookups are those of a singly linked list walked from `head`.
struct PropertyList {
  uint32_t serialSize;
  PropertyEntry *head;
  PropertyEntry *tail;
  ZELDataAllocFn allocFn;
  ZELDataFreeFn freeFn;
};

namespace zel::data {

// An entry is one block from the list's allocFn: a next link followed by the
// entry exactly as it stands in serialized data, so serializing copies the
// block from `entryLength` to the end of its padding in one piece.
//
//   block + 0    next (pointer)
//   block + 8    entryLength   (serialized offset 0)
//   block + 12   name[128]     (serialized offset 4)
//   block + 140  propType      (serialized offset 132)
//   block + 144  dataLength    (serialized offset 136)
//   block + 148  data          (serialized offset 140)
inline constexpr uint32_t kLinkSize = 8;
inline constexpr uint32_t kNameOffset = 4;
inline constexpr uint32_t kPropTypeOffset = 132;
inline constexpr uint32_t kDataLengthOffset = 136;
inline constexpr uint32_t kDataOffset = 140;
inline constexpr uint32_t kMinEntryLength = 144;
inline constexpr uint32_t kHeaderSize = 12;
inline constexpr uint32_t kEndMarkerSize = 4;
inline constexpr uint32_t kMaxNameLength = ZELDATA_NAME_SIZE - 1;
// The largest value whose entryLength, (dataLength + 146) & ~3, fits in 32 bits.
inline constexpr uint32_t kMaxDataLength = 0xFFFFFFFFu - 146u;

static_assert(sizeof(void *) == kLinkSize, "entry blocks assume 64-bit links");

inline uint32_t EntryLengthFor(uint32_t dataLength) { return (dataLength + 146u) & ~3u; }

inline uint32_t LoadU32(const void *p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void StoreU32(void *p, uint32_t v) { std::memcpy(p, &v, sizeof v); }

inline uint8_t *Block(PropertyEntry *e) { return reinterpret_cast<uint8_t *>(e); }
// The serialized form of the entry inside its block.
inline uint8_t *Serial(PropertyEntry *e) { return Block(e) + kLinkSize; }

inline PropertyEntry *NextOf(PropertyEntry *e) {
  PropertyEntry *n;
  std::memcpy(&n, Block(e), sizeof n);
  return n;
}
inline void SetNext(PropertyEntry *e, PropertyEntry *n) { std::memcpy(Block(e), &n, sizeof n); }
inline uint32_t EntryLength(PropertyEntry *e) { return LoadU32(Serial(e)); }
inline char *NameOf(PropertyEntry *e) { return reinterpret_cast<char *>(Serial(e) + kNameOffset); }
inline uint32_t PropTypeOf(PropertyEntry *e) { return LoadU32(Serial(e) + kPropTypeOffset); }
inline void SetPropType(PropertyEntry *e, uint32_t t) { StoreU32(Serial(e) + kPropTypeOffset, t); }
inline uint32_t DataLengthOf(PropertyEntry *e) { return LoadU32(Serial(e) + kDataLengthOffset); }
inline uint8_t *DataOf(PropertyEntry *e) { return Serial(e) + kDataOffset; }

// Names match when their first 128 characters are equal.
inline bool NameMatches(const char *a, const char *b) {
  return std::strncmp(a, b, ZELDATA_NAME_SIZE) == 0;
}

// The checksum of serialized data whose header size field is `size`.  Bytes 0
// to 31 are not covered; the kernel module computes the same sum.
uint32_t Checksum(const uint8_t *data, uint32_t size);

// Writers of serialized data straight into a buffer laid out by the caller
// (nested data is written in place instead of being copied level by level).
// Each returns, or leaves in *wordSum, the wrapping sum of every 32-bit word
// it wrote, so that the enclosing level's checksum needs no second read.
//
// The header of serialized data of `size` bytes, its checksum still 0.
void WriteSerialHeader(uint8_t *out, uint32_t size);
// Completes serialized data whose entries (their words summing to entrySum)
// fill out[12, size - 4): the end marker and the checksum.  Returns the sum of
// all the words of the data.
uint32_t SealSerialized(uint8_t *out, uint32_t size, uint32_t entrySum);
// The header of an entry of type `propType` named `name` (cut to 127
// characters, the rest of the field zero) for a value of dataLength bytes that
// the caller writes at out + kDataOffset; the padding after the value is
// zeroed.  Returns the sum of the header's words (the padding adds nothing).
uint32_t WriteEntryHeader(uint8_t *out, const char *name, uint32_t propType, uint32_t dataLength);
// The serialized form of the whole list (list->serialSize bytes) at out, as
// ZELData_Serialize writes it.  False when serialSize disagrees with the
// entries; out then holds nothing usable.
bool WriteSerializedList(PropertyList *list, uint8_t *out, uint32_t *wordSum);
// An entry named `name` whose value is the whole list serialized, at out
// (EntryLengthFor(list->serialSize) bytes); adds the words it wrote to *sum.
// False, with nothing added, when serialSize disagrees with the entries.
bool WriteListEntry(uint8_t *out, const char *name, uint32_t propType, PropertyList *list,
                    uint32_t *sum);

// Serialized data whose entries are whole lists, each serialized under its
// name with `propType`, written once into one buffer of `size` bytes from
// allocFn.  `size` is the caller's sum of kHeaderSize, kEndMarkerSize and
// EntryLengthFor(list->serialSize) of each list.  STATUS_NO_MEMORY; or
// STATUS_LIMIT_EXCEEDED, as the serializer refuses a list whose serialSize
// disagrees with its entries, with the buffer released.
struct NamedList {
  const char *name;
  PropertyList *list;
};
ReturnStatus SerializeLists(const NamedList *lists, size_t count, uint32_t size,
                            uint32_t propType, ZELDataAllocFn allocFn, ZELDataFreeFn freeFn,
                            void **blob, uint32_t *length);

// ZELData_Serialize of `inner` with `version` into a buffer from its
// allocator, then `put` (ZELData_Append or ZELData_Update) of the bytes under
// `name` in `outer`; the buffer is released.  The first failing status.
using PutFn = ReturnStatus (*)(PropertyList *, const char *, const void *, uint32_t, uint32_t);
ReturnStatus SerializeInto(PropertyList *outer, const char *name, PropertyList *inner,
                           uint32_t version, uint32_t propType, PutFn put);

// ZELData_Serialize of `inner` (version 4 or above) followed by
// ZELData_Append of the bytes to `outer`, with the serialized form written
// straight into the new entry instead of a buffer between the two.  Only
// without traces (zeldata_debug below 2); a list whose serialSize disagrees
// with its entries, or a value too large for `outer`, goes the two calls'
// way for their statuses and messages.
ReturnStatus AppendSerialized(PropertyList *outer, const char *name, PropertyList *inner,
                              uint32_t version, uint32_t propType);

// Checks serialized data as ZELData_DeserializeWithPropType does, in the same
// order and with the same messages and statuses, without building a list.
// Data that passes can be walked in place: entries from offset kHeaderSize
// on, each entryLength long, up to an entryLength of 0.
ReturnStatus CheckSerialized(const void *data, uint32_t dataLength);

// Values whose entry would not fit the 32-bit lengths of the format (the
// entry itself, or the list's serialized size) are refused.
inline bool FitsFormat(const PropertyList *list, uint32_t dataLength) {
  return dataLength <= kMaxDataLength &&
         uint64_t{list->serialSize} + EntryLengthFor(dataLength) <= 0xFFFFFFFFu;
}

inline void LinkAtTail(PropertyList *list, PropertyEntry *e) {
  if (list->tail == nullptr) {
    list->head = e;
  } else {
    SetNext(list->tail, e);
  }
  list->tail = e;
  list->serialSize += EntryLength(e);
}

// Appends an entry whose name is given with its length (already cut to at most
// 127 characters).  Used by Append and by the deserializer for entries longer
// than their value needs.
ReturnStatus AppendNamed(PropertyList *list, const char *name, size_t nameLength,
                         const void *value, uint32_t dataLength, uint32_t propType);

}  // namespace zel::data
