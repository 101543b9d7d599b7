/**
 * @file
 * libzel property lists: ordered lists of named binary values, and their
 * checksummed serialized form.
 *
 * Memory: a list, its entries and every buffer a serializer makes for it come
 * from the allocFn given to ZELData_Alloc (or to a deserializer) and go back
 * through its freeFn.  Serialized buffers the library allocated are released
 * with ZELData_FreeAssocData on the same list.  A list has no lock: one thread
 * at a time per list.
 *
 * A name longer than 127 characters is cut to 127 when it is stored.  A
 * function that returns a status gives STATUS_BAD_PARAM for a null list,
 * name, output, buffer or length pointer it needs (nothing changes); the
 * others say below what they do with null input.
 */
#ifndef ZEL_DATA_H
#define ZEL_DATA_H

#include <stddef.h>
#include <stdint.h>

#include "zel/status.h"

ZEL_EXTERN_C_BEGIN

/** A property list; opaque, made by ZELData_Alloc or a deserializer. */
typedef struct PropertyList PropertyList;
/** One entry of a list; owned by the list, valid until the entry is removed,
 *  replaced by a change of length, or the list is freed. */
typedef struct PropertyEntry PropertyEntry;

/** Allocator of a list: returns byteCount bytes, or NULL. */
typedef void *(*ZELDataAllocFn)(uint64_t byteCount);
/** Releases what the matching ZELDataAllocFn returned. */
typedef void (*ZELDataFreeFn)(void *ptr);
/** Callback of ZELData_ForEach, given each entry's name, value, value length,
 *  property type and the caller's context; returns true to stop the walk. */
typedef bool (*ZELDataForEachFn)(const char *name, const void *value, uint32_t dataLength,
                                 uint32_t propType, void *context);

#define ZELDATA_PROPTYPE_LIBRARY 16u   /**< property type of entries the state database writes */
#define ZELDATA_PROPTYPE_OPAQUE 24u    /**< type of opaque values restored from the configuration store */
#define ZELDATA_PROPTYPE_UPDATE 32u    /**< type given by an update without a type */
#define ZELDATA_DEFAULT_TYPE_MASK 0x3Cu /**< types ZELData_Deserialize keeps */

#define ZELDATA_NAME_SIZE 128u         /**< name field, NUL included */
#define ZELDATA_EMPTY_SERIAL_SIZE 16u  /**< serialized size of an empty list: header and end marker */

/** Diagnostics level of this family (on standard output); -1, the initial
 *  value, prints nothing. */
ZEL_API extern int zeldata_debug;

/** @name The list
 *  @{ */

/** Makes an empty list whose memory comes from allocFn and goes back through
 *  freeFn.
 *
 *  On success *out is the new list, owned by the caller and released with
 *  ZELData_Free.  Returns STATUS_OK; STATUS_BAD_PARAM for a null out, allocFn
 *  or freeFn; STATUS_NO_MEMORY when allocFn fails.  *out is written only on
 *  success. */
ZEL_API ReturnStatus ZELData_Alloc(PropertyList **out, ZELDataAllocFn allocFn, ZELDataFreeFn freeFn);
/** Releases list and every entry through the list's freeFn; NULL is ignored.
 *  Serialized buffers the library made for the list are not released. */
ZEL_API void ZELData_Free(PropertyList *list);
/** Releases ptr, a buffer a serializer allocated for list, through the
 *  list's freeFn; with a null list or ptr it does nothing. */
ZEL_API void ZELData_FreeAssocData(PropertyList *list, void *ptr);
/** Stores list's freeFn in *out (out may be null) and returns it; a null
 *  list returns null and leaves *out alone. */
ZEL_API ZELDataFreeFn ZELData_GetMemFreeFn(PropertyList *list, ZELDataFreeFn *out);
/** Finds the first entry named name.
 *
 *  Returns STATUS_OK with *out set to the entry (owned by the list), or
 *  STATUS_NOT_FOUND with *out untouched. */
ZEL_API ReturnStatus ZELData_Lookup(PropertyList *list, const char *name, PropertyEntry **out);
/** The entry's NUL-terminated name, inside the entry (not to be freed);
 *  null for a null entry. */
ZEL_API char *ZELData_Name(PropertyEntry *entry);
/** The entry's property type; 0 for a null entry. */
ZEL_API uint32_t ZELData_PropType(PropertyEntry *entry);
/** Sets *out (out may be null) to the entry's value, inside the entry (not
 *  to be freed), and returns the value's length in bytes; a null entry gives
 *  a null value and 0. */
ZEL_API uint32_t ZELData_Data(PropertyEntry *entry, void **out);
/** Steps through the list in order: current NULL gives the first entry.
 *
 *  Returns STATUS_OK with *out the next entry, or STATUS_NOT_FOUND with *out
 *  set to NULL at the end of the list. */
ZEL_API ReturnStatus ZELData_Next(PropertyList *list, PropertyEntry *current, PropertyEntry **out);
/** Calls callback on each entry in order with context, until it returns true.
 *  The callback must not change the list.  A null list or callback does
 *  nothing. */
ZEL_API void ZELData_ForEach(PropertyList *list, ZELDataForEachFn callback, void *context);
/** Adds an entry at the end of the list with a copy of dataLength bytes of
 *  value (value may be NULL when dataLength is 0); a name already present is
 *  added again, and lookups find the first.
 *
 *  Returns STATUS_OK; STATUS_BAD_PARAM for a null value with a nonzero
 *  dataLength, or when the entry or the list's serialized size would not fit
 *  in 32 bits; STATUS_NO_MEMORY when the allocation fails.  On failure the
 *  list is unchanged. */
ZEL_API ReturnStatus ZELData_Append(PropertyList *list, const char *name, const void *value,
                                    uint32_t dataLength, uint32_t propType);
/** Sets the value of the first entry named name, or appends it.
 *
 *  propType 0 means: ZELDATA_PROPTYPE_UPDATE for a new entry or an entry of
 *  the same length, the old type for an entry whose length changes.  An entry
 *  of the same length is changed in place; one of another length is removed
 *  and the new one appended at the end.  value may point into the list.
 *
 *  Returns STATUS_OK; STATUS_BAD_PARAM for a null value with a nonzero
 *  dataLength or a value that would not fit the format (nothing changes);
 *  STATUS_NO_MEMORY when the allocation fails (an existing entry of another
 *  length is then removed). */
ZEL_API ReturnStatus ZELData_Update(PropertyList *list, const char *name, const void *value,
                                    uint32_t dataLength, uint32_t propType);
/** ZELData_Update with propType 0. */
ZEL_API ReturnStatus ZELData_UpdateProp(PropertyList *list, const char *name, const void *value,
                                        uint32_t dataLength);
/** Removes and frees the first entry named name.
 *
 *  Returns STATUS_OK, or STATUS_NOT_FOUND when there is none. */
ZEL_API ReturnStatus ZELData_Remove(PropertyList *list, const char *name);
/** ZELData_Remove that also reports the removed entry's type in *outType
 *  (ZELDATA_PROPTYPE_UPDATE when nothing was found; outType may be NULL). */
ZEL_API ReturnStatus ZELDataRemove(PropertyList *list, const char *name, uint32_t *outType);

/** @} */

/** @name Serialized form
 * Buffer convention: *buffer == NULL asks the serializer to allocate with the
 * list's allocFn (the caller then owns it and releases it with
 * ZELData_FreeAssocData); otherwise *length is the capacity of *buffer.  On
 * success *length is the serialized size.
 * @{ */

/** The size in bytes ZELData_Serialize writes for list; 0 for a null list. */
ZEL_API uint32_t ZELData_SerializedSize(PropertyList *list, uint32_t ignored);
/** The size ZELData_SerializeExNamedProp writes for list and excludePattern
 *  (NULL excludes nothing); 0 for a null list. */
ZEL_API uint32_t ZELData_SerializedSizeExNamedProp(PropertyList *list, uint32_t ignored,
                                                   const char *excludePattern);
/** Encodes list into checksummed serialized property data, following the
 *  buffer convention above.  version changes no byte; below 4 it only prints
 *  a notice.
 *
 *  Returns STATUS_OK; STATUS_LIMIT_EXCEEDED when the caller's buffer is too
 *  small (nothing is written, *length unchanged); STATUS_NO_MEMORY when the
 *  allocation fails (*buffer stays NULL).  The list is never changed. */
ZEL_API ReturnStatus ZELData_Serialize(PropertyList *list, void **buffer, uint32_t *length,
                                       uint32_t version);
/** ZELData_Serialize without the entries whose names contain excludePattern
 *  (NULL excludes nothing); "com.zorlan.common.port.volatile.persist" is
 *  never excluded. */
ZEL_API ReturnStatus ZELData_SerializeExNamedProp(PropertyList *list, void **buffer,
                                                  uint32_t *length, uint32_t version,
                                                  const char *excludePattern);
/** Encodes the first entry named name alone, as a one-entry list, following
 *  the buffer convention.
 *
 *  Returns STATUS_OK; STATUS_NOT_FOUND when there is no such entry;
 *  STATUS_LIMIT_EXCEEDED when the caller's buffer is too small;
 *  STATUS_NO_MEMORY when the allocation fails.  *length is 0 on every
 *  failure. */
ZEL_API ReturnStatus ZELData_SerializeEntry(PropertyList *list, const char *name, void **buffer,
                                            uint32_t *length);
/** Decodes dataLength bytes of serialized property data into a new list
 *  whose memory comes from allocFn and freeFn, keeping the entries whose type
 *  shares a bit with ZELDATA_DEFAULT_TYPE_MASK.
 *
 *  On success *out is the caller's (ZELData_Free).  Returns STATUS_OK;
 *  STATUS_BAD_PARAM for a short buffer, a wrong version or a malformed entry;
 *  STATUS_BAD_CHECKSUM when the checksum does not match; STATUS_NO_MEMORY when
 *  an allocation fails.  On failure *out is not written and nothing is left
 *  allocated.  The data is not changed. */
ZEL_API ReturnStatus ZELData_Deserialize(PropertyList **out, const void *data, uint32_t dataLength,
                                         ZELDataAllocFn allocFn, ZELDataFreeFn freeFn);
/** ZELData_Deserialize keeping the entries whose type shares a bit with
 *  typeMask. */
ZEL_API ReturnStatus ZELData_DeserializeWithPropType(PropertyList **out, const void *data,
                                                     uint32_t dataLength, ZELDataAllocFn allocFn,
                                                     ZELDataFreeFn freeFn, uint32_t typeMask);
/** Copies the value of the first entry named name straight out of
 *  serialized data into valueBuffer, which holds capacity bytes.
 *
 *  Returns STATUS_OK; STATUS_NOT_FOUND when no entry has that name;
 *  STATUS_LIMIT_EXCEEDED when the value is longer than capacity (nothing is
 *  copied); STATUS_BAD_PARAM for null pointers, a wrong version or malformed
 *  data; STATUS_BAD_CHECKSUM when the checksum does not match. */
ZEL_API ReturnStatus ZELData_DeserializeGetPropVal(const void *data, uint32_t dataLength,
                                                   const char *name, void *valueBuffer,
                                                   uint32_t capacity);
/** @} */

ZEL_EXTERN_C_END

#endif /* ZEL_DATA_H */
