// Property lists: an ordered, singly linked list of named binary values whose
// entries are laid out as their serialized form (see property_list_internal.h).

#include <cstdio>
#include <cstring>

#include "data/property_list_internal.h"
#include "host/diag.h"

extern "C" {
ZEL_API int zeldata_debug = -1;
}

using namespace zel::data;
using zel::host::DiagPrint;

namespace {

// Whether the name field of an entry matches `name` of `length` characters
// (at most ZELDATA_NAME_SIZE counted), as NameMatches tells.  A name shorter
// than the field matches when the field holds its characters and then a NUL;
// that NUL and the last character are looked at first, which turns most
// other names of a list (of other lengths, or sharing a long prefix) away
// without a compare.
inline bool FieldMatches(const char *field, const char *name, size_t length) {
  if (length >= ZELDATA_NAME_SIZE) {
    return NameMatches(field, name);
  }
  return field[length] == '\0' && (length == 0 || field[length - 1] == name[length - 1]) &&
         std::memcmp(field, name, length) == 0;
}

// The first entry matching name, and its predecessor (null at the head).
PropertyEntry *FindEntry(PropertyList *list, const char *name, PropertyEntry **prev) {
  const size_t length = strnlen(name, ZELDATA_NAME_SIZE);
  PropertyEntry *before = nullptr;
  for (PropertyEntry *e = list->head; e != nullptr; e = NextOf(e)) {
    if (FieldMatches(NameOf(e), name, length)) {
      if (prev != nullptr) {
        *prev = before;
      }
      return e;
    }
    before = e;
  }
  return nullptr;
}

void Unlink(PropertyList *list, PropertyEntry *e, PropertyEntry *prev) {
  PropertyEntry *next = NextOf(e);
  if (prev == nullptr) {
    list->head = next;
  } else {
    SetNext(prev, next);
  }
  if (list->tail == e) {
    list->tail = prev;
  }
  list->serialSize -= EntryLength(e);
}

// Makes a detached entry block; null when the value is too large for the
// format or the allocator fails.
PropertyEntry *MakeEntry(PropertyList *list, const char *name, size_t nameLength, const void *value,
                         uint32_t dataLength, uint32_t propType) {
  uint32_t entryLength = EntryLengthFor(dataLength);
  auto *e = static_cast<PropertyEntry *>(list->allocFn(uint64_t{kLinkSize} + entryLength));
  if (e == nullptr) {
    return nullptr;
  }
  uint8_t *s = Serial(e);
  SetNext(e, nullptr);
  StoreU32(s, entryLength);
  // Unused name bytes and the padding are zeroed so serialized data is
  // deterministic.
  std::memset(s + kNameOffset, 0, ZELDATA_NAME_SIZE);
  std::memcpy(s + kNameOffset, name, nameLength);
  StoreU32(s + kPropTypeOffset, propType);
  StoreU32(s + kDataLengthOffset, dataLength);
  if (dataLength != 0) {
    std::memcpy(s + kDataOffset, value, dataLength);
  }
  std::memset(s + kDataOffset + dataLength, 0, entryLength - kDataOffset - dataLength);
  return e;
}

}  // namespace

namespace zel::data {

ReturnStatus AppendNamed(PropertyList *list, const char *name, size_t nameLength,
                         const void *value, uint32_t dataLength, uint32_t propType) {
  if (zeldata_debug >= 2) {  // checked here: appends are the deserializer's hot path
    DiagPrint(zeldata_debug, 2, "added data %.*s, len %d, start serialSize = %d\n",
              static_cast<int>(nameLength), name, static_cast<int>(dataLength),
              static_cast<int>(list->serialSize));
  }
  if (!FitsFormat(list, dataLength)) {
    return STATUS_BAD_PARAM;
  }
  PropertyEntry *e = MakeEntry(list, name, nameLength, value, dataLength, propType);
  if (e == nullptr) {
    return STATUS_NO_MEMORY;
  }
  LinkAtTail(list, e);
  if (zeldata_debug >= 2) {
    DiagPrint(zeldata_debug, 2, "added data %s, serialSize = %d\n", NameOf(e),
              static_cast<int>(list->serialSize));
  }
  return STATUS_OK;
}

}  // namespace zel::data

extern "C" {

ZEL_API ReturnStatus ZELData_Alloc(PropertyList **out, ZELDataAllocFn allocFn, ZELDataFreeFn freeFn) {
  if (out == nullptr || allocFn == nullptr || freeFn == nullptr) {
    return STATUS_BAD_PARAM;
  }
  // Levels are tested here as well: deserializing a short list is a hot path,
  // and a call per disabled message shows in its cost.
  if (zeldata_debug >= 1) {
    DiagPrint(zeldata_debug, 1, "Allocing new handle\n");
  }
  auto *list = static_cast<PropertyList *>(allocFn(sizeof(PropertyList)));
  if (list == nullptr) {
    return STATUS_NO_MEMORY;
  }
  list->serialSize = ZELDATA_EMPTY_SERIAL_SIZE;
  list->head = nullptr;
  list->tail = nullptr;
  list->allocFn = allocFn;
  list->freeFn = freeFn;
  *out = list;
  if (zeldata_debug >= 1) {
    DiagPrint(zeldata_debug, 1, "ZELData handle allocated, serialSize = %d\n",
              static_cast<int>(list->serialSize));
  }
  return STATUS_OK;
}

ZEL_API void ZELData_Free(PropertyList *list) {
  if (list == nullptr) {
    return;
  }
  while (list->head != nullptr) {
    PropertyEntry *e = list->head;
    list->head = NextOf(e);
    list->freeFn(e);
  }
  list->freeFn(list);
}

// Without a list the free function is unknown: the buffer is left alone.
ZEL_API void ZELData_FreeAssocData(PropertyList *list, void *ptr) {
  if (list != nullptr && ptr != nullptr) {
    list->freeFn(ptr);
  }
}

ZEL_API ZELDataFreeFn ZELData_GetMemFreeFn(PropertyList *list, ZELDataFreeFn *out) {
  if (list == nullptr) {
    return nullptr;
  }
  if (out != nullptr) {
    *out = list->freeFn;
  }
  return list->freeFn;
}

ZEL_API ReturnStatus ZELData_Lookup(PropertyList *list, const char *name, PropertyEntry **out) {
  if (list == nullptr || name == nullptr || out == nullptr) {
    return STATUS_BAD_PARAM;
  }
  PropertyEntry *e = FindEntry(list, name, nullptr);
  if (e == nullptr) {
    return STATUS_NOT_FOUND;
  }
  *out = e;
  return STATUS_OK;
}

ZEL_API char *ZELData_Name(PropertyEntry *entry) {
  return entry != nullptr ? NameOf(entry) : nullptr;
}

ZEL_API uint32_t ZELData_PropType(PropertyEntry *entry) {
  return entry != nullptr ? PropTypeOf(entry) : 0;
}

// A null entry has no value: *out becomes null and the length is 0.
ZEL_API uint32_t ZELData_Data(PropertyEntry *entry, void **out) {
  if (out != nullptr) {
    *out = entry != nullptr ? DataOf(entry) : nullptr;
  }
  return entry != nullptr ? DataLengthOf(entry) : 0;
}

ZEL_API ReturnStatus ZELData_Next(PropertyList *list, PropertyEntry *current, PropertyEntry **out) {
  if (list == nullptr || out == nullptr) {
    return STATUS_BAD_PARAM;
  }
  *out = current == nullptr ? list->head : NextOf(current);
  return *out == nullptr ? STATUS_NOT_FOUND : STATUS_OK;
}

ZEL_API void ZELData_ForEach(PropertyList *list, ZELDataForEachFn callback, void *context) {
  if (list == nullptr || callback == nullptr) {
    return;
  }
  for (PropertyEntry *e = list->head; e != nullptr; e = NextOf(e)) {
    if (callback(NameOf(e), DataOf(e), DataLengthOf(e), PropTypeOf(e), context)) {
      return;
    }
  }
}

ZEL_API ReturnStatus ZELData_Append(PropertyList *list, const char *name, const void *value,
                                    uint32_t dataLength, uint32_t propType) {
  if (list == nullptr || name == nullptr || (value == nullptr && dataLength != 0)) {
    return STATUS_BAD_PARAM;
  }
  return AppendNamed(list, name, strnlen(name, kMaxNameLength), value, dataLength, propType);
}

ZEL_API ReturnStatus ZELData_Update(PropertyList *list, const char *name, const void *value,
                                    uint32_t dataLength, uint32_t propType) {
  if (list == nullptr || name == nullptr || (value == nullptr && dataLength != 0)) {
    return STATUS_BAD_PARAM;
  }
  const uint32_t effectiveType = propType != 0 ? propType : ZELDATA_PROPTYPE_UPDATE;
  PropertyEntry *prev = nullptr;
  PropertyEntry *old = FindEntry(list, name, &prev);
  if (old == nullptr) {
    return ZELData_Append(list, name, value, dataLength, effectiveType);
  }
  if (DataLengthOf(old) == dataLength) {
    if (dataLength != 0) {
      std::memmove(DataOf(old), value, dataLength);  // value may point into the entry
    }
    SetPropType(old, effectiveType);
    DiagPrint(zeldata_debug, 2, "updated data %s, datalen = %d, serialSize = %d\n", name,
              static_cast<int>(dataLength), static_cast<int>(list->serialSize));
    return STATUS_OK;
  }
  // A new length replaces the entry by a new one at the tail.  The new block is
  // made before the old one is released, because value may point into it.
  const uint32_t newType = propType != 0 ? propType : PropTypeOf(old);
  const size_t nameLength = strnlen(name, kMaxNameLength);
  const uint32_t oldDataLength = DataLengthOf(old);
  if (!FitsFormat(list, dataLength)) {
    return STATUS_BAD_PARAM;  // refused before anything changes
  }
  PropertyEntry *fresh = MakeEntry(list, name, nameLength, value, dataLength, newType);
  Unlink(list, old, prev);
  list->freeFn(old);
  DiagPrint(zeldata_debug, 2, "remove data %s, datalen = %d, serialSize = %d\n", name,
            static_cast<int>(oldDataLength), static_cast<int>(list->serialSize));
  DiagPrint(zeldata_debug, 2, "added data %.*s, len %d, start serialSize = %d\n",
            static_cast<int>(nameLength), name, static_cast<int>(dataLength),
            static_cast<int>(list->serialSize));
  if (fresh == nullptr) {
    return STATUS_NO_MEMORY;  // the property stays removed
  }
  LinkAtTail(list, fresh);
  DiagPrint(zeldata_debug, 2, "added data %s, serialSize = %d\n", NameOf(fresh),
            static_cast<int>(list->serialSize));
  return STATUS_OK;
}

ZEL_API ReturnStatus ZELData_UpdateProp(PropertyList *list, const char *name, const void *value,
                                        uint32_t dataLength) {
  return ZELData_Update(list, name, value, dataLength, 0);
}

ZEL_API ReturnStatus ZELDataRemove(PropertyList *list, const char *name, uint32_t *outType) {
  if (list == nullptr || name == nullptr) {
    return STATUS_BAD_PARAM;
  }
  if (outType != nullptr) {
    *outType = ZELDATA_PROPTYPE_UPDATE;
  }
  PropertyEntry *prev = nullptr;
  PropertyEntry *e = FindEntry(list, name, &prev);
  if (e == nullptr) {
    return STATUS_NOT_FOUND;
  }
  if (outType != nullptr) {
    *outType = PropTypeOf(e);
  }
  Unlink(list, e, prev);
  list->freeFn(e);
  DiagPrint(zeldata_debug, 2, "removed data %s, serialSize = %d\n", name,
            static_cast<int>(list->serialSize));
  return STATUS_OK;
}

ZEL_API ReturnStatus ZELData_Remove(PropertyList *list, const char *name) {
  return ZELDataRemove(list, name, nullptr);
}

}  // extern "C"
