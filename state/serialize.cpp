// The state blob: serialized property data nested three levels deep.
//
//   level 1  switch id -> switch blob, in table slot order (version 5)
//   level 2  "switchVersion" (u32), "className" (128 bytes), "maxPorts" (u32,
//            the configured limit), "globalPropList", "hostPropList", then
//            port id -> port list for each port in slot order
//   level 3  a property list (global, host or port)
// Every entry written here has type 16.
//
// Reading refuses values outside that layout with STATUS_BAD_PARAM before
// anything of the switch or port is added: a "switchVersion", "maxPorts" or
// port-kind ("com.zorlan.common.port.volatile.type") value shorter than 4
// bytes, and a "className" without a NUL within its length.  Longer number
// values are read from their first 4 bytes.
#include <cstdlib>
#include <cstring>

#include "data/property_list_internal.h"
#include "host/large_buffer.h"
#include "state/state_db.h"

namespace zel::state {

namespace {

constexpr uint32_t kStateBlobVersion = 5;
constexpr const char *kSwitchVersion = "switchVersion";
constexpr const char *kClassName = "className";
constexpr const char *kMaxPorts = "maxPorts";
constexpr const char *kGlobalPropList = "globalPropList";
constexpr const char *kHostPropList = "hostPropList";

// Serializes `inner` under `name` in `outer`; a null inner list stores nothing.
ReturnStatus StoreNestedList(PropertyList *outer, const char *name, PropertyList *inner,
                             uint32_t version) {
  if (inner == nullptr) {
    return STATUS_OK;
  }
  return zel::data::SerializeInto(outer, name, inner, version, kTypeLibrary, ZELData_Update);
}

// Takes the entry `name` out of `outer` and deserializes it into *inner
// (left null when the entry is absent).
ReturnStatus ExtractNestedList(PropertyList *outer, const char *name, PropertyList **inner) {
  *inner = nullptr;
  PropertyEntry *entry = nullptr;
  if (ZELData_Lookup(outer, name, &entry) != STATUS_OK) {
    return STATUS_OK;
  }
  void *value = nullptr;
  uint32_t length = ZELData_Data(entry, &value);
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Deserialize(&list, value, length, AllocFn(), FreeFn());
  ZELData_Remove(outer, name);
  if (status == STATUS_OK) {
    *inner = list;
  }
  return status;
}

// Reads a u32 value.  STATUS_NOT_FOUND when absent, STATUS_BAD_PARAM when
// shorter than 4 bytes.
ReturnStatus ReadU32(PropertyList *list, const char *name, uint32_t *out) {
  void *value = nullptr;
  uint32_t length = 0;
  ReturnStatus status = ReadValue(list, name, &value, &length);
  if (status != STATUS_OK) {
    return status;
  }
  if (length < sizeof(uint32_t)) {
    return STATUS_BAD_PARAM;
  }
  std::memcpy(out, value, sizeof(uint32_t));
  return STATUS_OK;
}

// The parts of a switch blob that come before the switch can be added.
struct SwitchHeader {
  uint32_t version = 0;
  uint32_t maxPorts = 0;
  char className[ZEL_CLASS_NAME_SIZE] = {};
};

ReturnStatus ReadSwitchHeader(PropertyList *list, SwitchHeader *header) {
  ReturnStatus status = ReadU32(list, kSwitchVersion, &header->version);
  if (status == STATUS_NOT_FOUND) {
    header->version = 0;
  } else if (status != STATUS_OK) {
    return status;
  }
  PropertyEntry *entry = nullptr;
  status = ZELData_Lookup(list, kClassName, &entry);
  if (status != STATUS_OK) {
    return status;
  }
  const char *className = EntryText(entry);
  if (className == nullptr) {
    return STATUS_BAD_PARAM;
  }
  std::snprintf(header->className, sizeof header->className, "%s", className);
  return ReadU32(list, kMaxPorts, &header->maxPorts);
}

// Replaces one of the switch's (empty) lists with `list`.
void ReplaceList(PropertyList **slot, PropertyList *list) {
  if (list != nullptr) {
    ZELData_Free(*slot);
    *slot = list;
  }
}

// ---- The state blob written in place ----
//
// Built level by level, every byte of a port list is copied four times (into
// its serialized form, the switch list, the switch blob, the outer list, the
// blob).  When the library allocates the blob with the system allocator and
// no per-entry traces are asked for, the size of every level is computed
// first from the lists' serialSize, and each byte is written once, straight
// to its place in the blob, its words summed on the way for the checksums of
// the levels that hold it.  The bytes are those of the level-by-level build;
// so are the messages, and a list whose serialSize disagrees with its entries
// fails the same way (the serializer is run on it for its message).

namespace zd = zel::data;

constexpr uint64_t kTooLarge = uint64_t{1} << 40;

// The entry length of a nested value, or kTooLarge when the value would not
// fit the format (the level-by-level build refuses it).
uint64_t NestedEntry(uint64_t dataLength) {
  return dataLength > zd::kMaxDataLength ? kTooLarge : zd::EntryLengthFor(uint32_t(dataLength));
}

bool Serialized(const PortState *port) { return port->kind != PORT_KIND_NONE; }

template <class Fn>
void ForEachSerializedPort(SwitchState *sw, Fn &&fn) {
  for (int64_t i = sw->inUse->NextBit(0, true); i != zel::host::BitVector::kNone;
       i = sw->inUse->NextBit(static_cast<uint32_t>(i) + 1, true)) {
    if (Serialized(sw->ports[i]) && !fn(sw->ports[i])) {
      return;
    }
  }
}

// The size of a switch blob, or kTooLarge.
uint64_t SwitchBlobSize(SwitchState *sw) {
  uint64_t size = zd::kHeaderSize + zd::kEndMarkerSize + zd::EntryLengthFor(sizeof sw->version) +
                  zd::EntryLengthFor(sizeof sw->className) +
                  zd::EntryLengthFor(sizeof sw->newMaxPorts);
  for (PropertyList *list : {sw->globalProps, sw->hostProps}) {
    if (list != nullptr) {
      size += NestedEntry(list->serialSize);
    }
  }
  ForEachSerializedPort(sw, [&](PortState *port) {
    size += NestedEntry(port->data->serialSize);
    return size < kTooLarge;
  });
  return size;
}

void VersionNotice(uint32_t version) {
  if (version < 4) {
    zel::host::DiagPrint(zeldata_debug, 0, "ZEL version %d is smaller than 6.0.\n",
                         static_cast<int>(version));
  }
}

// Writes the blob, counting where each level is.
class BlobWriter {
 public:
  explicit BlobWriter(uint8_t *out) : out_(out) {}

  // A small value copied as it is.
  uint32_t Value(const char *name, const void *value, uint32_t length) {
    uint8_t *entry = out_ + pos_;
    uint32_t sum = zd::WriteEntryHeader(entry, name, kTypeLibrary, length);
    std::memcpy(entry + zd::kDataOffset, value, length);
    const uint32_t entryLength = zd::EntryLengthFor(length);
    for (uint32_t off = zd::kDataOffset; off < entryLength; off += 4) {
      sum += zd::LoadU32(entry + off);
    }
    pos_ += entryLength;
    return sum;
  }

  // A list serialized with `version` as the value; null when the list
  // disagrees with its serialSize.
  PropertyList *List(const char *name, PropertyList *list, uint32_t version, uint32_t *sum) {
    if (!zd::WriteListEntry(out_ + pos_, name, kTypeLibrary, list, sum)) {
      return nullptr;
    }
    VersionNotice(version);
    pos_ += zd::EntryLengthFor(list->serialSize);
    return list;
  }

  // Opens a nested blob of `size` bytes as the value of an entry named
  // `name`; returns where the blob starts and sets *headerSum.
  uint32_t Open(const char *name, uint32_t size, uint32_t *headerSum) {
    *headerSum = zd::WriteEntryHeader(out_ + pos_, name, kTypeLibrary, size);
    const uint32_t blobStart = pos_ + zd::kDataOffset;
    zd::WriteSerialHeader(out_ + blobStart, size);
    pos_ = blobStart + zd::kHeaderSize;
    return blobStart;
  }
  // Seals the blob opened at blobStart, whose entries sum to entrySum, and
  // moves past its entry; returns the words sum of the blob.
  uint32_t Close(uint32_t blobStart, uint32_t size, uint32_t entrySum) {
    pos_ = blobStart - zd::kDataOffset + zd::EntryLengthFor(size);
    return zd::SealSerialized(out_ + blobStart, size, entrySum);
  }

  void set_pos(uint32_t pos) { pos_ = pos; }

 private:
  uint8_t *out_;
  uint32_t pos_ = 0;
};

// Writes one switch blob as the entry named by its id; false after the
// messages of a list that disagrees with its serialSize.
bool WriteSwitch(BlobWriter &w, SwitchState *sw, uint32_t size, uint32_t *outerSum) {
  ZEL_LOG(1, "ZELState_SwitchSerialize %s\n", sw->id);
  uint32_t headerSum = 0;
  const uint32_t start = w.Open(sw->id, size, &headerSum);
  uint32_t sum = w.Value(kSwitchVersion, &sw->version, sizeof sw->version);
  sum += w.Value(kClassName, sw->className, sizeof sw->className);
  sum += w.Value(kMaxPorts, &sw->newMaxPorts, sizeof sw->newMaxPorts);
  PropertyList *failed = nullptr;
  const char *const names[] = {kGlobalPropList, kHostPropList};
  PropertyList *const lists[] = {sw->globalProps, sw->hostProps};
  for (int i = 0; i < 2 && failed == nullptr; ++i) {
    if (lists[i] != nullptr && w.List(names[i], lists[i], sw->version, &sum) == nullptr) {
      failed = lists[i];
    }
  }
  if (failed == nullptr) {
    ForEachSerializedPort(sw, [&](PortState *port) {
      ZEL_LOG(2, "ZELState_PortSerialize %s\n", port->id);
      if (w.List(port->id, port->data, sw->version, &sum) == nullptr) {
        failed = port->data;
      }
      return failed == nullptr;
    });
  }
  if (failed != nullptr) {
    // The serializer refuses the list again, with its messages.
    void *scratch = nullptr;
    uint32_t length = 0;
    const ReturnStatus status = ZELData_Serialize(failed, &scratch, &length, sw->version);
    if (status == STATUS_OK) {
      ZELData_FreeAssocData(failed, scratch);
    }
    ZEL_LOG(0, "ZELStateConfigSerializeCB ZEL %s failed %s\n", sw->id,
            StatusText(status == STATUS_OK ? STATUS_LIMIT_EXCEEDED : status));
    return false;
  }
  VersionNotice(sw->version);
  *outerSum += headerSum + w.Close(start, size, sum);
  return true;
}

enum class Direct { kDone, kNotApplicable };

// The state blob written in place into a new buffer; kNotApplicable (nothing
// done, nothing printed) when a size does not fit the format or the buffer
// cannot be had, so that the level-by-level build gives its own result.
Direct SerializeInPlace(void **buffer, uint32_t *length, ReturnStatus *status) {
  TableLock lock;
  uint32_t sizes[kNumSlots] = {};
  uint64_t total = zd::kHeaderSize + zd::kEndMarkerSize;
  for (int i = 0; i < kNumSlots; ++i) {
    if (SwitchState *sw = globalSwsArray[i]; sw != nullptr) {
      const uint64_t size = SwitchBlobSize(sw);
      if (size >= kTooLarge || size > zd::kMaxDataLength) {
        return Direct::kNotApplicable;
      }
      sizes[i] = static_cast<uint32_t>(size);
      total += zd::EntryLengthFor(sizes[i]);
    }
  }
  if (total > 0xFFFFFFFFu) {
    return Direct::kNotApplicable;
  }
  auto *out = static_cast<uint8_t *>(std::malloc(total));
  if (out == nullptr) {
    return Direct::kNotApplicable;
  }
  zel::host::AdviseWholeWrite(out, total);
  zd::WriteSerialHeader(out, static_cast<uint32_t>(total));
  BlobWriter w(out);
  w.set_pos(zd::kHeaderSize);
  uint32_t sum = 0;
  for (int i = 0; i < kNumSlots; ++i) {
    if (SwitchState *sw = globalSwsArray[i];
        sw != nullptr && !WriteSwitch(w, sw, sizes[i], &sum)) {
      std::free(out);
      *status = STATUS_EXISTS;
      return Direct::kDone;
    }
  }
  zd::SealSerialized(out, static_cast<uint32_t>(total), sum);
  *buffer = out;
  *length = static_cast<uint32_t>(total);
  *status = STATUS_OK;
  return Direct::kDone;
}

// ---- The state blob read in place ----
//
// The outer blob and each switch blob are checked as the deserializer checks
// them and then read where they lie; only the lists the table keeps (host,
// global and port lists) are built.  The entries seen are those the
// deserializer would keep (type mask 0x3C), looked up by the same first-match
// rule, and each of the five named entries of a switch blob is taken out at
// its first occurrence, so every other entry, in order, is a port.  With
// traces of the deserializer asked for (zeldata_debug 2 or more) the lists
// are built as before, for those messages.

bool ReadInPlace() { return zeldata_debug < 2; }

// Checked serialized data, read in place.
class CheckedData {
 public:
  explicit CheckedData(const void *data) : d_(static_cast<const uint8_t *>(data)) {}

  // Calls fn(offset) for each kept entry in order while it returns true.
  template <class Fn>
  void ForEach(Fn &&fn) const {
    for (uint32_t off = zd::kHeaderSize;; off += zd::LoadU32(d_ + off)) {
      if (zd::LoadU32(d_ + off) == 0) {
        return;
      }
      if ((zd::LoadU32(d_ + off + zd::kPropTypeOffset) & ZELDATA_DEFAULT_TYPE_MASK) != 0 &&
          !fn(off)) {
        return;
      }
    }
  }
  // Calls fn(name, value, length) for each kept entry in order while it
  // returns STATUS_OK; returns the last result.
  template <class Fn>
  ReturnStatus ForEachNamed(Fn &&fn) const {
    ReturnStatus status = STATUS_OK;
    ForEach([&](uint32_t off) {
      char name[ZELDATA_NAME_SIZE];
      Name(off, name);
      status = fn(name, Value(off), Length(off));
      return status == STATUS_OK;
    });
    return status;
  }
  // The offset of the first kept entry named `name`, or 0.
  uint32_t Find(const char *name) const {
    uint32_t found = 0;
    ForEach([&](uint32_t off) {
      found = zd::NameMatches(RawName(off), name) ? off : 0;
      return found == 0;
    });
    return found;
  }
  // The name as a list entry holds it: at most 127 characters.
  void Name(uint32_t off, char (&out)[ZELDATA_NAME_SIZE]) const {
    const size_t n = strnlen(RawName(off), zd::kMaxNameLength);
    std::memcpy(out, RawName(off), n);
    out[n] = '\0';
  }
  const uint8_t *Value(uint32_t off) const { return d_ + off + zd::kDataOffset; }
  uint32_t Length(uint32_t off) const { return zd::LoadU32(d_ + off + zd::kDataLengthOffset); }

 private:
  const char *RawName(uint32_t off) const {
    return reinterpret_cast<const char *>(d_ + off + zd::kNameOffset);
  }
  const uint8_t *d_;
};

// The switch blob's five named entries (offset 0 when absent).
struct SwitchEntries {
  uint32_t version, className, maxPorts, global, host;
};

ReturnStatus ReadU32At(const CheckedData &data, uint32_t off, uint32_t *out) {
  if (data.Length(off) < sizeof(uint32_t)) {
    return STATUS_BAD_PARAM;
  }
  std::memcpy(out, data.Value(off), sizeof(uint32_t));
  return STATUS_OK;
}

// A switch blob as a list L, as the deserializer builds it: the source of
// the deserializer's traces.
class ListSource {
 public:
  explicit ListSource(PropertyList *list) : list_(list) {}
  ~ListSource() { ZELData_Free(list_); }
  ListSource(const ListSource &) = delete;
  ListSource &operator=(const ListSource &) = delete;

  ReturnStatus ReadHeader(SwitchHeader *header) { return ReadSwitchHeader(list_, header); }
  ReturnStatus Nested(const char *name, PropertyList **inner) {
    return ExtractNestedList(list_, name, inner);
  }
  // Takes the header entries out, so that every other entry is a port.
  void DropHeader() {
    ZELData_Remove(list_, kClassName);
    ZELData_Remove(list_, kMaxPorts);
    ZELData_Remove(list_, kSwitchVersion);
  }
  // Calls fn(name, value, length) for each entry left while it returns
  // STATUS_OK; once the header and the nested lists are out, the ports.
  template <class Fn>
  ReturnStatus ForEachEntry(Fn &&fn) {
    PropertyEntry *entry = nullptr;
    while (ZELData_Next(list_, entry, &entry) == STATUS_OK) {
      void *value = nullptr;
      const uint32_t length = ZELData_Data(entry, &value);
      if (ReturnStatus status = fn(ZELData_Name(entry), value, length); status != STATUS_OK) {
        return status;
      }
    }
    return STATUS_OK;
  }

 private:
  PropertyList *list_;
};

// A checked switch blob read in place.  Each named entry counts at its first
// occurrence, as the list's lookups find it.
class BlobSource {
 public:
  explicit BlobSource(const void *blob)
      : data_(blob),
        at_{data_.Find(kSwitchVersion), data_.Find(kClassName), data_.Find(kMaxPorts),
            data_.Find(kGlobalPropList), data_.Find(kHostPropList)} {}

  ReturnStatus ReadHeader(SwitchHeader *header) const {
    if (at_.version != 0) {
      if (ReturnStatus status = ReadU32At(data_, at_.version, &header->version);
          status != STATUS_OK) {
        return status;
      }
    }
    if (at_.className == 0) {
      return STATUS_NOT_FOUND;
    }
    const auto *text = reinterpret_cast<const char *>(data_.Value(at_.className));
    if (std::memchr(text, '\0', data_.Length(at_.className)) == nullptr) {
      return STATUS_BAD_PARAM;
    }
    std::snprintf(header->className, sizeof header->className, "%s", text);
    return at_.maxPorts == 0 ? STATUS_NOT_FOUND : ReadU32At(data_, at_.maxPorts, &header->maxPorts);
  }
  ReturnStatus Nested(const char *name, PropertyList **inner) const {
    *inner = nullptr;
    const uint32_t off = std::strcmp(name, kHostPropList) == 0 ? at_.host : at_.global;
    return off == 0 ? STATUS_OK
                    : ZELData_Deserialize(inner, data_.Value(off), data_.Length(off), AllocFn(),
                                          FreeFn());
  }
  void DropHeader() const {}
  // Calls fn(portId, value, length) for each entry other than the five
  // named ones while it returns STATUS_OK.
  template <class Fn>
  ReturnStatus ForEachEntry(Fn &&fn) const {
    ReturnStatus status = STATUS_OK;
    data_.ForEach([&](uint32_t off) {
      if (off == at_.version || off == at_.className || off == at_.maxPorts || off == at_.global ||
          off == at_.host) {
        return true;
      }
      char portId[ZELDATA_NAME_SIZE];
      data_.Name(off, portId);
      status = fn(portId, data_.Value(off), data_.Length(off));
      return status == STATUS_OK;
    });
    return status;
  }

 private:
  CheckedData data_;
  SwitchEntries at_;
};

// Rebuilds the switch from its source once it was added.
template <class Source>
ReturnStatus FillSwitch(const char *switchId, Source &source, PropertyList *hostList) {
  source.DropHeader();
  SwitchState *sw = ZELState_SwitchFind(switchId);
  if (sw == nullptr) {
    ZEL_LOG(0, "ZEL %s acquire failed\n", switchId);
    ZELData_Free(hostList);
    return STATUS_NOT_FOUND;
  }
  ReplaceList(&sw->hostProps, hostList);
  PropertyList *globalList = nullptr;
  ReturnStatus status = source.Nested(kGlobalPropList, &globalList);
  if (status != STATUS_OK) {
    return status;
  }
  ReplaceList(&sw->globalProps, globalList);
  return source.ForEachEntry([&](const char *portId, const void *value, uint32_t length) {
    return ZELState_PortDeserialize(switchId, portId, value, length);
  });
}

// ZELState_SwitchDeserialize once its blob was read.
template <class Source>
ReturnStatus SwitchDeserializeFrom(const char *switchId, Source &source) {
  SwitchHeader header;
  PropertyList *hostList = nullptr;
  ReturnStatus status = source.ReadHeader(&header);
  if (status == STATUS_OK) {
    status = source.Nested(kHostPropList, &hostList);
  }
  if (status == STATUS_OK) {
    status = ZELState_SwitchAdd(switchId, header.className, header.maxPorts, header.version);
    if (status != STATUS_OK) {
      ZEL_LOG(0, "ZELState_SwitchDeserialize Switch add failed %s/%s/%s/%d\n", switchId,
              header.className, "", static_cast<int>(header.maxPorts));
      ZELData_Free(hostList);
    }
  }
  if (status != STATUS_OK) {
    ZEL_LOG(1, "ZELState_SwitchDeserialize zel %s return %s\n", switchId, StatusText(status));
    return status;
  }
  status = FillSwitch(switchId, source, hostList);
  if (status != STATUS_OK) {
    SwitchRemoveNoLock(switchId);
    ZEL_LOG(0, "ZELState_SwitchDeserialize zel %s return %s\n", switchId, StatusText(status));
    return status;
  }
  ZEL_LOG(1, "ZELState_SwitchDeserialize zel %s return %s\n", switchId, StatusText(status));
  return STATUS_OK;
}

}  // namespace

}  // namespace zel::state

using namespace zel::state;

ReturnStatus ZELState_ConfigSerialize(void **buffer, uint32_t *length) {
  if (buffer == nullptr || length == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_ConfigSerialize\n");
  ReturnStatus status = STATUS_OK;
  if (*buffer == nullptr && zeldata_debug < 2 && SystemAllocator() &&
      SerializeInPlace(buffer, length, &status) == Direct::kDone) {
    return status;
  }
  PropertyList *outer = nullptr;
  status = ZELData_Alloc(&outer, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    ZEL_LOG(0, "ZELState_ConfigSerialize, alloc failed\n");
    return status;
  }
  {
    TableLock lock;
    for (SwitchState *sw : globalSwsArray) {
      if (sw == nullptr) {
        continue;
      }
      void *switchBlob = nullptr;
      uint32_t switchLength = 0;
      status = ZELState_SwitchSerialize(sw, &switchBlob, &switchLength);
      if (status == STATUS_OK) {
        status = ZELData_Update(outer, sw->id, switchBlob, switchLength, kTypeLibrary);
        // The switch blob came from the allocator the outer list was made with.
        ZELData_FreeAssocData(outer, switchBlob);
      }
      if (status != STATUS_OK) {
        ZEL_LOG(0, "ZELStateConfigSerializeCB ZEL %s failed %s\n", sw->id, StatusText(status));
        ZELData_Free(outer);
        return STATUS_EXISTS;
      }
    }
  }
  status = ZELData_Serialize(outer, buffer, length, kStateBlobVersion);
  ZELData_Free(outer);
  return status;
}

ReturnStatus ZELState_SwitchSerialize(SwitchState *sw, void **buffer, uint32_t *length) {
  if (sw == nullptr || buffer == nullptr || length == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_SwitchSerialize %s\n", sw->id);
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Alloc(&list, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    return status;
  }
  status = ZELData_Update(list, kSwitchVersion, &sw->version, sizeof sw->version, kTypeLibrary);
  if (status == STATUS_OK) {
    status = ZELData_Update(list, kClassName, sw->className, sizeof sw->className, kTypeLibrary);
  }
  if (status == STATUS_OK) {
    status = ZELData_Update(list, kMaxPorts, &sw->newMaxPorts, sizeof sw->newMaxPorts,
                            kTypeLibrary);
  }
  if (status == STATUS_OK) {
    status = StoreNestedList(list, kGlobalPropList, sw->globalProps, sw->version);
  }
  if (status == STATUS_OK) {
    status = StoreNestedList(list, kHostPropList, sw->hostProps, sw->version);
  }
  for (int64_t i = sw->inUse->NextBit(0, true);
       status == STATUS_OK && i != zel::host::BitVector::kNone;
       i = sw->inUse->NextBit(static_cast<uint32_t>(i) + 1, true)) {
    PortState *port = sw->ports[i];
    if (port->kind == PORT_KIND_NONE) {
      continue;
    }
    void *portBlob = nullptr;
    uint32_t portLength = 0;
    status = ZELState_PortSerialize(port, &portBlob, &portLength);
    if (status == STATUS_OK) {
      status = ZELData_Append(list, port->id, portBlob, portLength, kTypeLibrary);
      ZELData_FreeAssocData(port->data, portBlob);
    }
  }
  if (status == STATUS_OK) {
    status = ZELData_Serialize(list, buffer, length, sw->version);
  }
  ZELData_Free(list);
  return status;
}

ReturnStatus ZELState_PortSerialize(PortState *port, void **buffer, uint32_t *length) {
  if (port == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_PortSerialize %s\n", port->id);
  return ZELData_Serialize(port->data, buffer, length, port->sw->version);
}

ReturnStatus ZELState_ConfigDeserialize(const void *blob, uint32_t length) {
  if (blob == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_ConfigDeserialize\n");
  PropertyList *outer = nullptr;
  ReturnStatus status = ReadInPlace()
                            ? zd::CheckSerialized(blob, length)
                            : ZELData_Deserialize(&outer, blob, length, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    ZEL_LOG(0, "ZELState_ConfigDeserialize failed %s\n", StatusText(status));
    return status;
  }
  auto addSwitch = [](const char *switchId, const void *value, uint32_t valueLength) {
    const ReturnStatus added = ZELState_SwitchDeserialize(switchId, value, valueLength);
    if (added != STATUS_OK) {
      ZEL_LOG(0, "ZELState_SwitchDeserialize failed %s\n", StatusText(added));
      ZELState_ConfigReset();
    }
    return added;
  };
  if (outer == nullptr) {
    return CheckedData(blob).ForEachNamed(addSwitch);
  }
  ListSource list(outer);
  return list.ForEachEntry(addSwitch);
}

ReturnStatus ZELState_SwitchDeserialize(const char *switchId, const void *blob, uint32_t length) {
  if (switchId == nullptr || blob == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_SwitchDeserialize %s\n", switchId);
  if (ReadInPlace()) {
    const ReturnStatus status = zd::CheckSerialized(blob, length);
    if (status != STATUS_OK) {
      return status;
    }
    BlobSource source(blob);
    return SwitchDeserializeFrom(switchId, source);
  }
  PropertyList *list = nullptr;
  const ReturnStatus status = ZELData_Deserialize(&list, blob, length, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    return status;
  }
  ListSource source(list);
  return SwitchDeserializeFrom(switchId, source);
}

ReturnStatus ZELState_PortDeserialize(const char *switchId, const char *portId, const void *data,
                                      uint32_t length) {
  if (switchId == nullptr || portId == nullptr || data == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_PortDeserialize %s, %s\n", switchId, portId);
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Deserialize(&list, data, length, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    return status;
  }
  uint32_t kind = PORT_KIND_NORMAL;
  status = ReadU32(list, ZEL_PROP_PORT_TYPE, &kind);
  if (status == STATUS_NOT_FOUND) {
    ZEL_LOG(0, "ZELState_PortDeserialize: no type for %s, %s\n", switchId, portId);
    status = ZELState_PortAdd(switchId, portId, list);
  } else if (status == STATUS_OK) {
    status = ZELStatePortAdd(switchId, portId, list, kind);
    ZELData_Remove(list, ZEL_PROP_PORT_TYPE);
  }
  if (status != STATUS_OK) {
    ZELData_Free(list);
  }
  return status;
}
