/*
 * libzel property lists: ordered lists of named binary values, and their
 * checksummed serialized form.
 *
 * Memory: a list, its entries and every buffer a serializer makes for it come
 * from the allocFn given to ZELData_Alloc (or to a deserializer) and go back
 * through its freeFn.  Serialized buffers the library allocated are released
 * with ZELData_FreeAssocData on the same list.  A list has no lock: one thread
 * at a time per list.
 */
#ifndef ZEL_DATA_H
#define ZEL_DATA_H

#include <stddef.h>
#include <stdint.h>

#include "zel/status.h"

ZEL_EXTERN_C_BEGIN

typedef struct PropertyList PropertyList;
typedef struct PropertyEntry PropertyEntry;

typedef void *(*ZELDataAllocFn)(uint64_t byteCount);
typedef void (*ZELDataFreeFn)(void *ptr);
/* Returns true to stop the walk. */
typedef bool (*ZELDataForEachFn)(const char *name, const void *value, uint32_t dataLength,
                                 uint32_t propType, void *context);

/* Property types. */
#define ZELDATA_PROPTYPE_LIBRARY 16u   /* entries the state database writes */
#define ZELDATA_PROPTYPE_OPAQUE 24u    /* opaque values restored from the configuration store */
#define ZELDATA_PROPTYPE_UPDATE 32u    /* type given by an update without a type */
#define ZELDATA_DEFAULT_TYPE_MASK 0x3Cu

#define ZELDATA_NAME_SIZE 128u         /* name field, NUL included */
#define ZELDATA_EMPTY_SERIAL_SIZE 16u  /* header and end marker */

/* Diagnostics level of this family; -1 prints nothing. */
ZEL_API extern int zeldata_debug;

/* --- the list --- */
ZEL_API ReturnStatus ZELData_Alloc(PropertyList **out, ZELDataAllocFn allocFn, ZELDataFreeFn freeFn);
ZEL_API void ZELData_Free(PropertyList *list);
ZEL_API void ZELData_FreeAssocData(PropertyList *list, void *ptr);
ZEL_API ZELDataFreeFn ZELData_GetMemFreeFn(PropertyList *list, ZELDataFreeFn *out);
ZEL_API ReturnStatus ZELData_Lookup(PropertyList *list, const char *name, PropertyEntry **out);
ZEL_API char *ZELData_Name(PropertyEntry *entry);
ZEL_API uint32_t ZELData_PropType(PropertyEntry *entry);
ZEL_API uint32_t ZELData_Data(PropertyEntry *entry, void **out);
ZEL_API ReturnStatus ZELData_Next(PropertyList *list, PropertyEntry *current, PropertyEntry **out);
ZEL_API void ZELData_ForEach(PropertyList *list, ZELDataForEachFn callback, void *context);
ZEL_API ReturnStatus ZELData_Append(PropertyList *list, const char *name, const void *value,
                                    uint32_t dataLength, uint32_t propType);
ZEL_API ReturnStatus ZELData_Update(PropertyList *list, const char *name, const void *value,
                                    uint32_t dataLength, uint32_t propType);
ZEL_API ReturnStatus ZELData_UpdateProp(PropertyList *list, const char *name, const void *value,
                                        uint32_t dataLength);
ZEL_API ReturnStatus ZELData_Remove(PropertyList *list, const char *name);
ZEL_API ReturnStatus ZELDataRemove(PropertyList *list, const char *name, uint32_t *outType);

/* --- serialized form --- */
ZEL_API uint32_t ZELData_SerializedSize(PropertyList *list, uint32_t ignored);
ZEL_API uint32_t ZELData_SerializedSizeExNamedProp(PropertyList *list, uint32_t ignored,
                                                   const char *excludePattern);
/*
 * Buffer convention: *buffer == NULL asks the serializer to allocate with the
 * list's allocFn (the caller then owns it); otherwise *length is the capacity
 * of *buffer.  On success *length is the serialized size.
 */
ZEL_API ReturnStatus ZELData_Serialize(PropertyList *list, void **buffer, uint32_t *length,
                                       uint32_t version);
ZEL_API ReturnStatus ZELData_SerializeExNamedProp(PropertyList *list, void **buffer,
                                                  uint32_t *length, uint32_t version,
                                                  const char *excludePattern);
ZEL_API ReturnStatus ZELData_SerializeEntry(PropertyList *list, const char *name, void **buffer,
                                            uint32_t *length);
ZEL_API ReturnStatus ZELData_Deserialize(PropertyList **out, const void *data, uint32_t dataLength,
                                         ZELDataAllocFn allocFn, ZELDataFreeFn freeFn);
ZEL_API ReturnStatus ZELData_DeserializeWithPropType(PropertyList **out, const void *data,
                                                     uint32_t dataLength, ZELDataAllocFn allocFn,
                                                     ZELDataFreeFn freeFn, uint32_t typeMask);
ZEL_API ReturnStatus ZELData_DeserializeGetPropVal(const void *data, uint32_t dataLength,
                                                   const char *name, void *valueBuffer,
                                                   uint32_t capacity);

ZEL_EXTERN_C_END

#endif /* ZEL_DATA_H */
