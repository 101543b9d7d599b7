// The checksummed serialized form of property lists, and its two readers.
//
// Readers trust nothing in the data: besides the header checks, every entry
// must have an entryLength of at least 144, a multiple of 4, that holds its
// dataLength (dataLength <= entryLength - 140); anything else is refused with
// STATUS_BAD_PARAM and a "bad data" message, before any byte of the entry
// beyond its length word is read.

#include <cstdio>
#include <cstring>

#include "data/property_list_internal.h"
#include "data/simd.h"
#include "host/diag.h"
#include "host/large_buffer.h"

using namespace zel::data;
using zel::host::DiagPrint;

namespace {

constexpr uint16_t kVersion = 1;
constexpr uint32_t kMinHeaderSize = 16;
constexpr uint32_t kFirstSummedOffset = 32;

uint32_t HeaderSize(const uint8_t *d) { return LoadU32(d); }
uint32_t HeaderChecksum(const uint8_t *d) { return LoadU32(d + 4); }
uint16_t HeaderVersion(const uint8_t *d) {
  uint16_t v;
  std::memcpy(&v, d + 8, sizeof v);
  return v;
}

bool Excluded(PropertyEntry *e, const char *pattern) {
  if (pattern == nullptr) {
    return false;
  }
  const char *name = NameOf(e);
  return std::strstr(name, pattern) != nullptr &&
         std::strstr(name, "com.zorlan.common.port.volatile.persist") == nullptr;
}

uint32_t SizeExcluding(PropertyList *list, const char *pattern) {
  if (pattern == nullptr) {
    return list->serialSize;
  }
  uint32_t size = ZELDATA_EMPTY_SERIAL_SIZE;
  for (PropertyEntry *e = list->head; e != nullptr; e = NextOf(e)) {
    if (!Excluded(e, pattern)) {
      size += EntryLengthFor(DataLengthOf(e));
    }
  }
  return size;
}

// Takes the caller's buffer (capacity in *length) or allocates one of `needed`
// bytes from the list's allocator.  On success *owned tells who allocated.
ReturnStatus AcquireBuffer(PropertyList *list, void **buffer, uint32_t *length, uint32_t needed,
                           bool *owned) {
  if (*buffer != nullptr) {
    if (*length < needed) {
      return STATUS_LIMIT_EXCEEDED;
    }
    *length = needed;
    *owned = false;
    return STATUS_OK;
  }
  *length = needed;
  *buffer = list->allocFn(needed);
  if (*buffer == nullptr) {
    return STATUS_NO_MEMORY;
  }
  zel::host::AdviseWholeWrite(*buffer, needed);
  *owned = true;
  return STATUS_OK;
}

void Seal(uint8_t *out, uint32_t size) {
  StoreU32(out + size - kEndMarkerSize, 0);
  StoreU32(out + 4, Checksum(out, size));
}

// The words of the output at offsets 12 to 31 lie outside the checksum; when
// the list has an entry they are the first five words of the first entry.
uint32_t UnsummedPrefix(const uint8_t *out) {
  uint32_t sum = 0;
  for (uint32_t off = kHeaderSize; off < kFirstSummedOffset; off += 4) {
    sum += LoadU32(out + off);
  }
  return sum;
}

// Where the copy of a list's entries into serialized data ended, and the
// wrapping sum of every word it copied.
struct CopyWalk {
  PropertyEntry *stoppedAt;  // the entry that disagreed with serialSize, or null
  uint32_t remaining;        // what serialSize leaves after the entries walked
  uint32_t pos;              // the next free offset of the output
  uint32_t sum;
};

// Copies the entries that the pattern keeps to out[12...].  The walk trusts
// serialSize only as far as the entries agree with it; the write position is
// also bounded by `needed`.  The words are summed while they are in registers,
// in vector lanes reduced once at the end (entries of a list are at least 144
// bytes long, as the word loops need).  kPlain is the common walk, without a
// pattern and without tracing: it calls nothing, so the sum stays in a
// register.
template <bool kPlain>
ZEL_ALWAYS_INLINE inline CopyWalk CopyEntries(PropertyList *list, uint8_t *out, uint32_t needed,
                                              const char *pattern) {
  vec::Vec sum = {};
  uint32_t remaining = list->serialSize - kHeaderSize;
  uint32_t pos = kHeaderSize;
  PropertyEntry *e = list->head;
  for (; e != nullptr; e = NextOf(e)) {
    const uint32_t entryLength = EntryLength(e);
    if (entryLength >= remaining) {
      break;
    }
    remaining -= entryLength;
    if (!kPlain && Excluded(e, pattern)) {
      continue;
    }
    if (uint64_t{pos} + entryLength + kEndMarkerSize > needed) {
      break;
    }
    vec::CopyAndSumWords(out + pos, Serial(e), entryLength, sum);
    pos += entryLength;
    if (!kPlain) {
      DiagPrint(zeldata_debug, 2, "serializing %s: %u/%u data/serial bytes\n", NameOf(e),
                DataLengthOf(e), entryLength);
    }
  }
  return {e, remaining, pos, vec::Lanes(sum)};
}

// The outcome of walking an entry chain of serialized data.
enum class Walk { kEnd, kEntry, kBad };

// Checks the entry at `offset` with `remaining` bytes left of the header size.
// Prints the "bad data" messages of the readers.
Walk CheckEntry(const uint8_t *d, uint32_t offset, uint32_t remaining) {
  const uint32_t entryLength = LoadU32(d + offset);
  if (entryLength == 0) {
    return Walk::kEnd;
  }
  if (entryLength > remaining) {
    DiagPrint(zeldata_debug, 0, "bad data: data length smaller than data block size %d\n",
              static_cast<int>(entryLength));
    return Walk::kBad;
  }
  // dataLength is read only once the entry is known to be long enough to hold it.
  if (entryLength < kMinEntryLength || entryLength % 4 != 0 ||
      LoadU32(d + offset + kDataLengthOffset) > entryLength - kDataOffset) {
    DiagPrint(zeldata_debug, 0, "bad data: malformed entry of length %u\n", entryLength);
    return Walk::kBad;
  }
  return Walk::kEntry;
}

// The header checks shared by both readers (data length, header size, data
// length against header size).
bool HeaderFits(const uint8_t *d, uint32_t dataLength) {
  if (zeldata_debug >= 2) {  // tested here: a call per disabled message shows on short data
    DiagPrint(zeldata_debug, 2, "Deserialize data, length = %d\n", static_cast<int>(dataLength));
  }
  if (dataLength < kMinHeaderSize) {
    DiagPrint(zeldata_debug, 0, "bad data: buffer size %d smaller than minimum header size\n",
              static_cast<int>(dataLength));
    return false;
  }
  const uint32_t size = HeaderSize(d);
  if (size < kMinHeaderSize) {
    DiagPrint(zeldata_debug, 0, "bad data: data size %d in header smaller than minimum header size\n",
              static_cast<int>(size));
    return false;
  }
  if (dataLength < size) {
    DiagPrint(zeldata_debug, 0, "bad data: buffer size %d smaller than size %d in header\n",
              static_cast<int>(dataLength), static_cast<int>(size));
    return false;
  }
  return true;
}

bool ChecksumMatches(const uint8_t *d) {
  const uint32_t stored = HeaderChecksum(d);
  const uint32_t computed = Checksum(d, HeaderSize(d));
  if (stored != computed) {
    DiagPrint(zeldata_debug, 0, "bad chksum: expected 0x%x, actual 0x%x\n", stored, computed);
    return false;
  }
  return true;
}

// The checks of ZELData_DeserializeWithPropType before the entries: the
// header, the version, then the checksum.
ReturnStatus CheckHeader(const uint8_t *d, uint32_t dataLength) {
  if (!HeaderFits(d, dataLength)) {
    return STATUS_BAD_PARAM;
  }
  if (HeaderVersion(d) != kVersion) {
    DiagPrint(zeldata_debug, 0, "Bad data: expected header version %d, actual %d\n", kVersion,
              HeaderVersion(d));
    return STATUS_BAD_PARAM;
  }
  if (!ChecksumMatches(d)) {
    return STATUS_BAD_CHECKSUM;
  }
  return STATUS_OK;
}

// Moves past an entry; false (with its message) when fewer than 4 bytes remain.
bool Advance(const uint8_t *d, uint32_t *offset, uint32_t *remaining) {
  const uint32_t entryLength = LoadU32(d + *offset);
  *remaining -= entryLength;
  *offset += entryLength;
  if (*remaining < kEndMarkerSize) {
    DiagPrint(zeldata_debug, 0, "bad data: not end with 4 (zero) marker bytes\n");
    return false;
  }
  return true;
}

// Appends a copy of an entry that CheckEntry accepted and whose length is
// what its value needs: one block, copied whole (bytes after the name's NUL
// and the padding carry no meaning and are kept as they came).  A name
// without a NUL is cut to 127 characters.  kPlain leaves out the traces.
template <bool kPlain>
ZEL_ALWAYS_INLINE inline ReturnStatus AppendCopy(PropertyList *list, ZELDataAllocFn allocFn,
                                                 const uint8_t *entry, uint32_t entryLength,
                                                 uint32_t dataLength) {
  const char *name = reinterpret_cast<const char *>(entry + kNameOffset);
  if (!kPlain) {
    DiagPrint(zeldata_debug, 2, "added data %.*s, len %d, start serialSize = %d\n",
              static_cast<int>(strnlen(name, kMaxNameLength)), name, static_cast<int>(dataLength),
              static_cast<int>(list->serialSize));
  }
  if (!FitsFormat(list, dataLength)) {
    return STATUS_BAD_PARAM;
  }
  auto *e = static_cast<PropertyEntry *>(allocFn(uint64_t{kLinkSize} + entryLength));
  if (e == nullptr) {
    return STATUS_NO_MEMORY;
  }
  SetNext(e, nullptr);
  vec::CopyBytes(Serial(e), entry, entryLength);
  NameOf(e)[kMaxNameLength] = '\0';
  LinkAtTail(list, e);
  if (!kPlain) {
    DiagPrint(zeldata_debug, 2, "added data %s, serialSize = %d\n", NameOf(e),
              static_cast<int>(list->serialSize));
  }
  return STATUS_OK;
}

// Appends the entries of checked data whose type has a bit of typeMask to
// list.  kPlain is the walk without traces: on its way through well-formed
// data it calls nothing but the allocator.
template <bool kPlain>
ZEL_ALWAYS_INLINE inline ReturnStatus AppendEntries(PropertyList *list, const uint8_t *d,
                                                    uint32_t typeMask) {
  uint32_t remaining = HeaderSize(d) - kHeaderSize;
  uint32_t offset = kHeaderSize;
  // Read once: the allocator cannot reach the list it is building.
  const ZELDataAllocFn allocFn = list->allocFn;
  for (;;) {
    const Walk w = CheckEntry(d, offset, remaining);
    if (w == Walk::kEnd) {
      if (!kPlain) {
        DiagPrint(zeldata_debug, 2, "Deserialize data done, serializeSize = %d\n",
                  static_cast<int>(list->serialSize));
      }
      return STATUS_OK;
    }
    if (w == Walk::kBad) {
      return STATUS_BAD_PARAM;
    }
    const uint8_t *entry = d + offset;
    const uint32_t entryLength = LoadU32(entry);
    const uint32_t propType = LoadU32(entry + kPropTypeOffset);
    const uint32_t dataLength = LoadU32(entry + kDataLengthOffset);
    if (!kPlain) {
      const char *name = reinterpret_cast<const char *>(entry + kNameOffset);
      DiagPrint(zeldata_debug, 3, "deserializing %.*s: %u/%u data/serial bytes %d flag\n",
                static_cast<int>(strnlen(name, kMaxNameLength)), name, dataLength, entryLength,
                static_cast<int>(propType));
    }
    if ((propType & typeMask) != 0) {
      ReturnStatus status;
      if (entryLength == EntryLengthFor(dataLength)) {
        status = AppendCopy<kPlain>(list, allocFn, entry, entryLength, dataLength);
      } else {
        // Longer than its value needs: rebuilt in the canonical length.
        const char *name = reinterpret_cast<const char *>(entry + kNameOffset);
        status = AppendNamed(list, name, strnlen(name, kMaxNameLength), entry + kDataOffset,
                             dataLength, propType);
      }
      if (status != STATUS_OK) {
        return status;
      }
    }
    if (!Advance(d, &offset, &remaining)) {
      return STATUS_BAD_PARAM;
    }
  }
}

}  // namespace

namespace zel::data {

void WriteSerialHeader(uint8_t *out, uint32_t size) {
  StoreU32(out, size);
  StoreU32(out + 4, 0);
  std::memcpy(out + 8, &kVersion, sizeof kVersion);
  // Bytes 10 and 11 are reserved; zero keeps the output deterministic.
  out[10] = 0;
  out[11] = 0;
}

uint32_t SealSerialized(uint8_t *out, uint32_t size, uint32_t entrySum) {
  StoreU32(out + size - kEndMarkerSize, 0);
  // Data with an entry is at least 160 bytes, so its first five words lie
  // outside the checksum; an empty list's only word there is the end marker.
  const uint32_t checksum = size > kFirstSummedOffset ? entrySum - UnsummedPrefix(out) : 0;
  StoreU32(out + 4, checksum);
  return size + checksum + kVersion + entrySum;
}

uint32_t WriteEntryHeader(uint8_t *out, const char *name, uint32_t propType, uint32_t dataLength) {
  const uint32_t entryLength = EntryLengthFor(dataLength);
  StoreU32(out, entryLength);
  std::memset(out + kNameOffset, 0, ZELDATA_NAME_SIZE);
  std::memcpy(out + kNameOffset, name, strnlen(name, kMaxNameLength));
  StoreU32(out + kPropTypeOffset, propType);
  StoreU32(out + kDataLengthOffset, dataLength);
  std::memset(out + kDataOffset + dataLength, 0, entryLength - kDataOffset - dataLength);
  uint32_t sum = entryLength + propType + dataLength;
  for (uint32_t off = kNameOffset; off < kPropTypeOffset; off += 4) {
    sum += LoadU32(out + off);
  }
  return sum;
}

bool WriteSerializedList(PropertyList *list, uint8_t *out, uint32_t *wordSum) {
  const uint32_t size = list->serialSize;
  WriteSerialHeader(out, size);
  const CopyWalk walk = WithBestIsa(
      [&]() ZEL_ALWAYS_INLINE { return CopyEntries<true>(list, out, size, nullptr); });
  if (walk.stoppedAt != nullptr || walk.remaining != kEndMarkerSize ||
      walk.pos + kEndMarkerSize != size) {
    return false;
  }
  *wordSum = SealSerialized(out, size, walk.sum);
  return true;
}

bool WriteListEntry(uint8_t *out, const char *name, uint32_t propType, PropertyList *list,
                    uint32_t *sum) {
  uint32_t listSum = 0;
  if (!WriteSerializedList(list, out + kDataOffset, &listSum)) {
    return false;
  }
  *sum += WriteEntryHeader(out, name, propType, list->serialSize) + listSum;
  return true;
}

ReturnStatus SerializeLists(const NamedList *lists, size_t count, uint32_t size,
                            uint32_t propType, ZELDataAllocFn allocFn, ZELDataFreeFn freeFn,
                            void **blob, uint32_t *length) {
  auto *out = static_cast<uint8_t *>(allocFn(size));
  if (out == nullptr) {
    return STATUS_NO_MEMORY;
  }
  zel::host::AdviseWholeWrite(out, size);
  WriteSerialHeader(out, size);
  uint32_t pos = kHeaderSize;
  uint32_t sum = 0;
  for (size_t i = 0; i < count; ++i) {
    if (!WriteListEntry(out + pos, lists[i].name, propType, lists[i].list, &sum)) {
      freeFn(out);
      return STATUS_LIMIT_EXCEEDED;
    }
    pos += EntryLengthFor(lists[i].list->serialSize);
  }
  SealSerialized(out, size, sum);
  *blob = out;
  *length = size;
  return STATUS_OK;
}

ReturnStatus AppendSerialized(PropertyList *outer, const char *name, PropertyList *inner,
                              uint32_t version, uint32_t propType) {
  const uint32_t size = inner->serialSize;
  if (version >= 4 && zeldata_debug < 2 && FitsFormat(outer, size)) {
    const uint64_t blockSize = uint64_t{kLinkSize} + EntryLengthFor(size);
    auto *e = static_cast<PropertyEntry *>(outer->allocFn(blockSize));
    if (e == nullptr) {
      return STATUS_NO_MEMORY;
    }
    SetNext(e, nullptr);
    uint32_t sum = 0;
    if (WriteListEntry(Serial(e), name, propType, inner, &sum)) {
      LinkAtTail(outer, e);
      return STATUS_OK;
    }
    outer->freeFn(e);
  }
  return SerializeInto(outer, name, inner, version, propType, ZELData_Append);
}

ReturnStatus SerializeInto(PropertyList *outer, const char *name, PropertyList *inner,
                           uint32_t version, uint32_t propType, PutFn put) {
  void *buffer = nullptr;
  uint32_t length = 0;
  ReturnStatus status = ZELData_Serialize(inner, &buffer, &length, version);
  if (status == STATUS_OK) {
    status = put(outer, name, buffer, length, propType);
    ZELData_FreeAssocData(inner, buffer);
  }
  return status;
}

ReturnStatus CheckSerialized(const void *data, uint32_t dataLength) {
  const auto *d = static_cast<const uint8_t *>(data);
  if (ReturnStatus status = CheckHeader(d, dataLength); status != STATUS_OK) {
    return status;
  }
  uint32_t remaining = HeaderSize(d) - kHeaderSize;
  uint32_t offset = kHeaderSize;
  for (;;) {
    const Walk w = CheckEntry(d, offset, remaining);
    if (w == Walk::kEnd) {
      return STATUS_OK;
    }
    if (w == Walk::kBad || !Advance(d, &offset, &remaining)) {
      return STATUS_BAD_PARAM;
    }
  }
}

uint32_t Checksum(const uint8_t *data, uint32_t size) {
  const uint32_t words = size / 4;
  uint32_t sum = 0;
  if (words > kFirstSummedOffset / 4) {
    const uint32_t count = words - kFirstSummedOffset / 4;
    sum = WithBestIsa(
        [&]() ZEL_ALWAYS_INLINE { return vec::SumWords(data + kFirstSummedOffset, count); });
  }
  const uint32_t firstByte = 4 * (words > 8 ? words : 8);
  for (uint32_t off = firstByte; off < size; ++off) {
    sum += data[off];
  }
  return sum;
}

}  // namespace zel::data

extern "C" {

ZEL_API uint32_t ZELData_SerializedSize(PropertyList *list, uint32_t /*ignored*/) {
  return list != nullptr ? list->serialSize : 0;
}

ZEL_API uint32_t ZELData_SerializedSizeExNamedProp(PropertyList *list, uint32_t /*ignored*/,
                                                   const char *excludePattern) {
  return list != nullptr ? SizeExcluding(list, excludePattern) : 0;
}

ZEL_API ReturnStatus ZELData_SerializeExNamedProp(PropertyList *list, void **buffer,
                                                  uint32_t *length, uint32_t version,
                                                  const char *excludePattern) {
  if (list == nullptr || buffer == nullptr || length == nullptr) {
    return STATUS_BAD_PARAM;
  }
  if (version < 4) {
    DiagPrint(zeldata_debug, 0, "ZEL version %d is smaller than 6.0.\n", static_cast<int>(version));
  }
  const uint32_t needed = SizeExcluding(list, excludePattern);
  if (zeldata_debug >= 2) {  // tested here: a call per disabled message shows on short lists
    DiagPrint(zeldata_debug, 2, "allocating buffer size %d\n", static_cast<int>(needed));
  }
  bool owned = false;
  ReturnStatus status = AcquireBuffer(list, buffer, length, needed, &owned);
  if (status != STATUS_OK) {
    return status;
  }
  auto *out = static_cast<uint8_t *>(*buffer);
  WriteSerialHeader(out, needed);

  const bool plain = excludePattern == nullptr && zeldata_debug < 2;
  const CopyWalk walk = WithBestIsa([&]() ZEL_ALWAYS_INLINE {
    return plain ? CopyEntries<true>(list, out, needed, excludePattern)
                 : CopyEntries<false>(list, out, needed, excludePattern);
  });
  PropertyEntry *const e = walk.stoppedAt;
  const uint32_t remaining = walk.remaining;
  const uint32_t pos = walk.pos;
  uint32_t sum = walk.sum;
  if (e != nullptr || remaining != kEndMarkerSize || pos + kEndMarkerSize != needed) {
    DiagPrint(zeldata_debug, 0,
              "ZELData length changed during serialization, buflen = %u, lenRemaining = %u, "
              "name %s, size %u\n",
              needed, remaining, e != nullptr ? NameOf(e) : "NULL", e != nullptr ? EntryLength(e) : 0u);
    if (owned) {
      list->freeFn(*buffer);
      *buffer = nullptr;
    }
    return STATUS_LIMIT_EXCEEDED;
  }
  if (pos > kHeaderSize) {
    sum -= UnsummedPrefix(out);
  }
  StoreU32(out + needed - kEndMarkerSize, 0);
  StoreU32(out + 4, sum);
  return STATUS_OK;
}

ZEL_API ReturnStatus ZELData_Serialize(PropertyList *list, void **buffer, uint32_t *length,
                                       uint32_t version) {
  return ZELData_SerializeExNamedProp(list, buffer, length, version, nullptr);
}

ZEL_API ReturnStatus ZELData_SerializeEntry(PropertyList *list, const char *name, void **buffer,
                                            uint32_t *length) {
  if (list == nullptr || name == nullptr || buffer == nullptr || length == nullptr) {
    return STATUS_BAD_PARAM;
  }
  const uint32_t capacity = *length;
  *length = 0;
  PropertyEntry *e = nullptr;
  if (ZELData_Lookup(list, name, &e) != STATUS_OK) {
    return STATUS_NOT_FOUND;
  }
  const uint32_t entryLength = EntryLength(e);
  DiagPrint(zeldata_debug, 2, "serializing %s: %u/%u data/serial bytes\n", NameOf(e),
            DataLengthOf(e), entryLength);
  const uint32_t needed = entryLength + kHeaderSize + kEndMarkerSize;
  uint32_t granted = capacity;
  bool owned = false;
  ReturnStatus status = AcquireBuffer(list, buffer, &granted, needed, &owned);
  if (status != STATUS_OK) {
    return status;
  }
  auto *out = static_cast<uint8_t *>(*buffer);
  WriteSerialHeader(out, needed);
  std::memcpy(out + kHeaderSize, Serial(e), entryLength);
  Seal(out, needed);
  *length = needed;
  return STATUS_OK;
}

ZEL_API ReturnStatus ZELData_DeserializeWithPropType(PropertyList **out, const void *data,
                                                     uint32_t dataLength, ZELDataAllocFn allocFn,
                                                     ZELDataFreeFn freeFn, uint32_t typeMask) {
  if (out == nullptr || data == nullptr || allocFn == nullptr || freeFn == nullptr) {
    return STATUS_BAD_PARAM;
  }
  const auto *d = static_cast<const uint8_t *>(data);
  if (ReturnStatus status = CheckHeader(d, dataLength); status != STATUS_OK) {
    return status;
  }
  PropertyList *list = nullptr;
  if (ZELData_Alloc(&list, allocFn, freeFn) != STATUS_OK) {
    return STATUS_NO_MEMORY;
  }
  const bool plain = zeldata_debug < 2;
  const ReturnStatus status = WithBestIsa([&]() ZEL_ALWAYS_INLINE {
    return plain ? AppendEntries<true>(list, d, typeMask) : AppendEntries<false>(list, d, typeMask);
  });
  if (status != STATUS_OK) {
    ZELData_Free(list);
    return status;
  }
  *out = list;
  return STATUS_OK;
}

ZEL_API ReturnStatus ZELData_Deserialize(PropertyList **out, const void *data, uint32_t dataLength,
                                         ZELDataAllocFn allocFn, ZELDataFreeFn freeFn) {
  return ZELData_DeserializeWithPropType(out, data, dataLength, allocFn, freeFn,
                                         ZELDATA_DEFAULT_TYPE_MASK);
}

ZEL_API ReturnStatus ZELData_DeserializeGetPropVal(const void *data, uint32_t dataLength,
                                                   const char *name, void *valueBuffer,
                                                   uint32_t capacity) {
  if (data == nullptr || name == nullptr || valueBuffer == nullptr) {
    return STATUS_BAD_PARAM;
  }
  const auto *d = static_cast<const uint8_t *>(data);
  if (!HeaderFits(d, dataLength)) {
    return STATUS_BAD_PARAM;
  }
  if (!ChecksumMatches(d)) {
    return STATUS_BAD_CHECKSUM;
  }
  if (HeaderVersion(d) != kVersion) {
    DiagPrint(zeldata_debug, 0, "Unsupported ZEL data version %u\n", HeaderVersion(d));
    return STATUS_BAD_PARAM;
  }
  uint32_t remaining = HeaderSize(d) - kHeaderSize;
  uint32_t offset = kHeaderSize;
  for (;;) {
    const Walk w = CheckEntry(d, offset, remaining);
    if (w == Walk::kEnd) {
      return STATUS_NOT_FOUND;
    }
    if (w == Walk::kBad) {
      return STATUS_BAD_PARAM;
    }
    const uint8_t *entry = d + offset;
    const char *entryName = reinterpret_cast<const char *>(entry + kNameOffset);
    if (NameMatches(entryName, name)) {
      const uint32_t valueLength = LoadU32(entry + kDataLengthOffset);
      if (capacity < valueLength) {
        DiagPrint(zeldata_debug, 0,
                  "propVal buffer of size %u not sufficient to store value of size %u for "
                  "property %s\n",
                  capacity, valueLength, name);
        return STATUS_LIMIT_EXCEEDED;
      }
      std::memcpy(valueBuffer, entry + kDataOffset, valueLength);
      return STATUS_OK;
    }
    if (!Advance(d, &offset, &remaining)) {
      return STATUS_BAD_PARAM;
    }
  }
}

}  // extern "C"
