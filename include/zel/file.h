/**
 * @file
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

/** Reads the stored state blob: from the configuration store when the
 *  host's two configuration-store features are on (path is then unused),
 *  otherwise from the state file at path (ZELFile_ReadClassical).
 *
 *  On success *blob is the caller's (see the read-buffer rule above) and
 *  *length its size.  A null blob or length gives STATUS_BAD_PARAM; path and
 *  offset are checked only on the file path.  Through the store: STATUS_OK,
 *  or STATUS_FAILURE when the load fails (outputs not written). */
ZEL_API ReturnStatus ZELFile_Read(const char *path, void **blob, int32_t *length, uint32_t *offset);
/** Reads the whole state file at path into a 512-byte aligned buffer.
 *
 *  On success *blob points at the data, *length is the file's size (padding
 *  included) and *offset the distance from the allocation, freed with
 *  free(*blob - *offset).  Returns STATUS_OK; STATUS_BAD_PARAM for a null or
 *  empty path or a null output; STATUS_NOT_FOUND when the file cannot be
 *  opened; STATUS_FILE_EMPTY for an empty file; STATUS_IO_ERROR for what is
 *  not a regular file (refused without blocking) or a length that is not a
 *  multiple of 512 or too large; STATUS_NO_MEMORY; STATUS_READ_ERROR when
 *  the read fails.  On failure no buffer is left to the caller. */
ZEL_API ReturnStatus ZELFile_ReadClassical(const char *path, void **blob, int32_t *length,
                                           uint32_t *offset);
/** Stores length bytes of blob: into the configuration store when the host's
 *  two configuration-store features are on (path unused; STATUS_FAILURE when
 *  the save fails), otherwise into the state file at path through a temporary
 *  file and rename (ZELFile_WriteClassical with useTemporary 1).
 *  Returns STATUS_OK on success; the blob stays the caller's. */
ZEL_API ReturnStatus ZELFile_Write(const char *path, const void *blob, uint32_t length);
/** Writes blob to the state file at path, padded with zeros to a multiple of
 *  512 bytes and flushed to the device, as a regular file owned by the
 *  caller with mode 0600.  With useTemporary nonzero it writes "path.tmp" (never through
 *  a symbolic link) and renames it over path, so readers see the old or the
 *  new file, then flushes the directory; with 0 it rewrites path in place.
 *  Writers of one path wait for each other on "path.lock", created with mode
 *  0600 and never removed.
 *
 *  Returns STATUS_OK; STATUS_BAD_PARAM for a null or empty path, a null or
 *  empty blob or one longer than 0xFFFFFE00 bytes (nothing touched);
 *  STATUS_IO_ERROR when the lock cannot be taken, the file cannot be opened
 *  (a symbolic link at "path.tmp" included), is not a regular file, belongs
 *  to another user, or its mode cannot be set or it cannot be truncated;
 *  STATUS_NO_MEMORY; STATUS_WRITE_ERROR when the write, its flush or the
 *  rename fails (nothing renamed), or when the directory flush fails (the
 *  new file is in place but may not survive a power loss).  After any other
 *  failure with useTemporary the file at path is unchanged (a partial
 *  "path.tmp" may remain). */
ZEL_API ReturnStatus ZELFile_WriteClassical(const char *path, const void *blob, uint32_t length,
                                            int useTemporary);
/** Writes a printf-style message of this family to the host log; a null
 *  fmt does nothing. */
ZEL_API void ZELFileLog(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

ZEL_EXTERN_C_END

#endif /* ZEL_FILE_H */
