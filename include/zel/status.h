/**
 * @file
 * libzel status values and the export macro shared by every public header.
 *
 * A ReturnStatus is a 32-bit unsigned value in the host kernel's numbering:
 * 0 is success, failures are 0x0BAD00xx.  No function of the library throws;
 * every failure comes back as one of these values.
 */
#ifndef ZEL_STATUS_H
#define ZEL_STATUS_H

#include <stdbool.h>
#include <stdint.h>

/** Marks a declaration exported from libzel.so. */
#if defined(__GNUC__) || defined(__clang__)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif

/** @def ZEL_EXTERN_C_BEGIN
 *  Opens C linkage for a header's declarations when C++ reads it.
 *  @def ZEL_EXTERN_C_END
 *  Closes what ZEL_EXTERN_C_BEGIN opened. */
#ifdef __cplusplus
#define ZEL_EXTERN_C_BEGIN extern "C" {
#define ZEL_EXTERN_C_END }
#else
#define ZEL_EXTERN_C_BEGIN
#define ZEL_EXTERN_C_END
#endif

/** The result of most functions: STATUS_OK or a failure value. */
typedef uint32_t ReturnStatus;

#define STATUS_OK ((ReturnStatus)0u)                        /**< success */
#define STATUS_FAILURE ((ReturnStatus)0x0BAD0001u)          /**< failure without a more precise value */
#define STATUS_NOT_FOUND ((ReturnStatus)0x0BAD0003u)        /**< no such switch, port, property or file */
#define STATUS_EXISTS ((ReturnStatus)0x0BAD0005u)           /**< already present */
#define STATUS_LIMIT_EXCEEDED ((ReturnStatus)0x0BAD0006u)   /**< no room: a full table, a short buffer */
#define STATUS_BAD_PARAM ((ReturnStatus)0x0BAD0007u)        /**< an argument or input that cannot be used */
#define STATUS_FILE_EMPTY ((ReturnStatus)0x0BAD0008u)       /**< the file is empty */
#define STATUS_IO_ERROR ((ReturnStatus)0x0BAD000Au)         /**< a file cannot be opened or verified */
#define STATUS_READ_ERROR ((ReturnStatus)0x0BAD000Bu)       /**< a read failed */
#define STATUS_WRITE_ERROR ((ReturnStatus)0x0BAD000Cu)      /**< a write or rename failed */
#define STATUS_NO_MEMORY ((ReturnStatus)0x0BAD0014u)        /**< an allocation failed */
#define STATUS_NOT_SUPPORTED ((ReturnStatus)0x0BAD0020u)    /**< a value or request not supported */
#define STATUS_BAD_CHECKSUM ((ReturnStatus)0x0BAD003Au)     /**< serialized data whose checksum does not match */

#endif /* ZEL_STATUS_H */
