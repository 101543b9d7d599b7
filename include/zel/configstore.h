/*
 * libzel configuration-store persistence: the state blob saved into the host
 * configuration store as structured switch objects, and loaded back.
 *
 * These functions return a plain u32: 0 on success, 0xFFFFFFFF for the
 * library's own failures, otherwise the failing configuration-store status.
 * A save and a load, or two loads, must not run at the same time.
 */
#ifndef ZEL_CONFIGSTORE_H
#define ZEL_CONFIGSTORE_H

#include <stdint.h>

#include "zel/status.h"

ZEL_EXTERN_C_BEGIN

#define ZEL_CONFIGSTORE_FAILURE 0xFFFFFFFFu

/* Trace level of the configuration-store code; initially 10. */
ZEL_API extern int zelconfigstore_debug;

/* Saves every switch of the state blob (and deletes stored switches it lacks). */
ZEL_API uint32_t ZELState_SaveBufToConfigStore(const void *blob, uint32_t length);
/* The same, limited to one switch when switchId is not NULL. */
ZEL_API uint32_t ZELState_SaveBufToConfigStore_ByInstance(const void *blob, uint32_t length,
                                                          const char *switchId);
/* Builds a state blob from the stored switch objects (the desired layer when
 * desired is true).  *blob is allocated with malloc; the caller frees it. */
ZEL_API uint32_t ZELState_LoadFromConfigStoreAsBuf(void **blob, uint32_t *length, bool desired);
ZEL_API bool StringExistInArray(const char *text, char **array, int count);

ZEL_EXTERN_C_END

#endif /* ZEL_CONFIGSTORE_H */
