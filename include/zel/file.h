/*
 * libzel state file: the state blob on disk, padded to a multiple of 512
 * bytes and replaced by rename; or, when the host's two configuration-store
 * features are on, the configuration store instead of the file.
 *
 * Read buffers: the blob is placed at a 512-byte aligned address inside an
 * allocation; the caller frees (blob - offset).  Through the configuration
 * store the blob is an ordinary allocation and *offset is not written, so
 * callers preset it to 0.
 */
#ifndef ZEL_FILE_H
#define ZEL_FILE_H

#include <stdint.h>

#include "zel/status.h"

ZEL_EXTERN_C_BEGIN

ZEL_API ReturnStatus ZELFile_Read(const char *path, void **blob, int32_t *length, uint32_t *offset);
ZEL_API ReturnStatus ZELFile_ReadClassical(const char *path, void **blob, int32_t *length,
                                           uint32_t *offset);
ZEL_API ReturnStatus ZELFile_Write(const char *path, const void *blob, uint32_t length);
ZEL_API ReturnStatus ZELFile_WriteClassical(const char *path, const void *blob, uint32_t length,
                                            int useTemporary);
/* Writes a message of this family to the host log. */
ZEL_API void ZELFileLog(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

ZEL_EXTERN_C_END

#endif /* ZEL_FILE_H */
