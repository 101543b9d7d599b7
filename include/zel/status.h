/*
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

#if defined(__GNUC__) || defined(__clang__)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif

#ifdef __cplusplus
#define ZEL_EXTERN_C_BEGIN extern "C" {
#define ZEL_EXTERN_C_END }
#else
#define ZEL_EXTERN_C_BEGIN
#define ZEL_EXTERN_C_END
#endif

typedef uint32_t ReturnStatus;

#define STATUS_OK ((ReturnStatus)0u)
#define STATUS_FAILURE ((ReturnStatus)0x0BAD0001u)
#define STATUS_NOT_FOUND ((ReturnStatus)0x0BAD0003u)
#define STATUS_EXISTS ((ReturnStatus)0x0BAD0005u)
#define STATUS_LIMIT_EXCEEDED ((ReturnStatus)0x0BAD0006u)
#define STATUS_BAD_PARAM ((ReturnStatus)0x0BAD0007u)
#define STATUS_FILE_EMPTY ((ReturnStatus)0x0BAD0008u)
#define STATUS_IO_ERROR ((ReturnStatus)0x0BAD000Au)
#define STATUS_READ_ERROR ((ReturnStatus)0x0BAD000Bu)
#define STATUS_WRITE_ERROR ((ReturnStatus)0x0BAD000Cu)
#define STATUS_NO_MEMORY ((ReturnStatus)0x0BAD0014u)
#define STATUS_NOT_SUPPORTED ((ReturnStatus)0x0BAD0020u)
#define STATUS_BAD_CHECKSUM ((ReturnStatus)0x0BAD003Au)

#endif /* ZEL_STATUS_H */
