/**
 * @file
 * libzel kernel channel: the command record exchanged with the kernel switch
 * module through its character device, the request numbers, and the one-call
 * wrappers around every request.
 *
 * Every request is one ioctl on the device whose argument is the address of a
 * ZELPYXCommand.  Three shapes of exchange exist:
 *   - plain: ZELPYX_Ioctl on one process-wide descriptor (opened on first use,
 *     never closed); a failing ioctl prints "ioctl failed: ..." on standard
 *     error and yields the record's status;
 *   - reply: the library allocates the reply buffer (32768 bytes first, larger
 *     when the kernel answers STATUS_LIMIT_EXCEEDED naming the size it needs);
 *     the caller owns it on success and releases it with ZELPYX_DataFree;
 *   - command execution: ZELPYX_CmdExec, the same growth rule on its output.
 * A failed reply or command exchange never returns 0 (a failed ioctl whose
 * record says 0 gives STATUS_FAILURE) and sets the buffer pointer to null,
 * the length to the record's last length field (neither is written when an
 * argument is refused or the device cannot be opened).  Both give
 * STATUS_LIMIT_EXCEEDED when the kernel names a size above 256 MiB or still
 * asks for more after 16 calls.
 * Kernel-channel failures go to standard error whatever any debug level says.
 * The exchanges take no lock; they may be called from any thread.  When the
 * device cannot be opened they print a message and return STATUS_FAILURE.
 * Text arguments are copied into the record and cut to their fields; a null
 * text is sent empty.  A null output pointer gives STATUS_BAD_PARAM, and so
 * does a null value or input with a nonzero length (nothing is sent).
 */
#ifndef ZEL_KERNEL_H
#define ZEL_KERNEL_H

#include <stddef.h>
#include <stdint.h>

#include "zel/data.h"
#include "zel/status.h"

ZEL_EXTERN_C_BEGIN

/** The kernel module's character device. */
#define ZELPYX_DEVICE_PATH "/tarn/devices/char/pyxdriver/zeldev"

#define ZELPYX_SWITCH_NAME_SIZE 64u   /**< switch name field, NUL included */
#define ZELPYX_PORT_ID_SIZE 48u       /**< port id field, NUL included */
#define ZELPYX_NAME_SIZE 128u         /**< property, class name or uplink index field */
#define ZELPYX_COMMAND_TEXT_SIZE 128u /**< command name field of request 28 */
/** Capacity of the first reply or command-output buffer. */
#define ZELPYX_FIRST_REPLY_SIZE 32768u

/**
 * The command record: 424 bytes, little-endian, no gaps (cmdIn sits at a
 * 4-byte boundary, hence the packing).  Text fields are NUL-terminated and
 * cut to their size less one.  Addresses travel as 64-bit integers.
 */
#pragma pack(push, 1)
typedef struct ZELPYXCommand {
  char switchName[ZELPYX_SWITCH_NAME_SIZE]; /**< offset 0: switch name */
  char portId[ZELPYX_PORT_ID_SIZE];         /**< 64: port id */
  char name[ZELPYX_NAME_SIZE];              /**< 112: property, class name or uplink index */
  uint32_t maxPorts;                        /**< 240: port capacity */
  uint32_t version;                         /**< 244: switch version */
  uint32_t propType;                        /**< 248: property type */
  uint32_t reserved;                        /**< 252: zero */
  uint32_t status;                          /**< 256: preset to STATUS_FAILURE, the kernel's status */
  uint32_t dataLen;                         /**< 260: length of data (capacity of a reply) */
  uint64_t data;                            /**< 264: address of the value or reply */
  char command[ZELPYX_COMMAND_TEXT_SIZE];   /**< 272: command name of request 28 */
  uint32_t cmdInLen;                        /**< 400: length of the command input */
  uint64_t cmdIn;                           /**< 404: address of the command input */
  uint32_t cmdOutLen;                       /**< 412: capacity, then length, of the output */
  uint64_t cmdOut;                          /**< 416: address of the command output */
} ZELPYXCommand;
#pragma pack(pop)

/** Compile-time check of the record layout, in C and in C++. */
#ifdef __cplusplus
#define ZELPYX_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define ZELPYX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
ZELPYX_STATIC_ASSERT(sizeof(ZELPYXCommand) == 424, "ZELPYXCommand is 424 bytes");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, switchName) == 0, "switchName offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, portId) == 64, "portId offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, name) == 112, "name offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, maxPorts) == 240, "maxPorts offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, version) == 244, "version offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, propType) == 248, "propType offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, reserved) == 252, "reserved offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, status) == 256, "status offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, dataLen) == 260, "dataLen offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, data) == 264, "data offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, command) == 272, "command offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, cmdInLen) == 400, "cmdInLen offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, cmdIn) == 404, "cmdIn offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, cmdOutLen) == 412, "cmdOutLen offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXCommand, cmdOut) == 416, "cmdOut offset");

/** @name Request numbers
 * Passed to ioctl unchanged (no direction or size bits).
 * @{ */
#define ZELPYX_REQ_STATE_INIT 0             /**< ZELPYX_StateInit */
#define ZELPYX_REQ_STATE_CLEANUP 1          /**< ZELPYX_StateCleanup */
#define ZELPYX_REQ_STATE_SANITIZE 2         /**< ZELPYX_StateSanitize */
#define ZELPYX_REQ_STATE_GET 3              /**< ZELPYX_StateGet */
#define ZELPYX_REQ_SWITCH_ADD 4             /**< ZELPYX_SwitchAdd */
#define ZELPYX_REQ_SWITCH_REMOVE 5          /**< ZELPYX_SwitchRemove */
#define ZELPYX_REQ_SWITCH_ASSOCIATE 6       /**< ZELPYX_SwitchAssociate */
#define ZELPYX_REQ_SWITCH_DISSOCIATE 7      /**< ZELPYX_SwitchDissociate */
#define ZELPYX_REQ_GLOBAL_PROP_GET 8        /**< ZELPYX_GlobalPropGet */
#define ZELPYX_REQ_GLOBAL_PROP_SET 9        /**< ZELPYX_GlobalPropSet */
#define ZELPYX_REQ_GLOBAL_PROP_CLEAR 10     /**< ZELPYX_GlobalPropClear */
#define ZELPYX_REQ_HOST_PROP_GET 11         /**< ZELPYX_HostPropGet */
#define ZELPYX_REQ_HOST_PROP_SET 12         /**< ZELPYX_HostPropSet */
#define ZELPYX_REQ_HOST_PROP_CLEAR 13       /**< ZELPYX_HostPropClear */
#define ZELPYX_REQ_PORT_ADD 14              /**< ZELPYX_PortAdd */
#define ZELPYX_REQ_PORT_REMOVE 15           /**< ZELPYX_PortRemove */
#define ZELPYX_REQ_PORT_DATA_GET 16         /**< ZELPYX_PortDataGet */
#define ZELPYX_REQ_PORT_DATA_SET 17         /**< ZELPYX_PortDataSet */
#define ZELPYX_REQ_PORT_DATA_CLEAR 18       /**< ZELPYX_PortDataClear */
#define ZELPYX_REQ_PORT_STATE_GET 19        /**< ZELPYX_PortStateGet */
#define ZELPYX_REQ_PORT_FIND 20             /**< ZELPYX_PortFind */
#define ZELPYX_REQ_SWITCH_SET_MAX_PORTS 21  /**< ZELPYX_SwitchSetMaxPorts */
#define ZELPYX_REQ_SWITCH_SET_VERSION 22    /**< ZELPYX_SwitchSetVersion */
#define ZELPYX_REQ_UPLINK_DATA_SET 26       /**< ZELPYX_UplinkDataSet */
#define ZELPYX_REQ_UPLINK_DATA_GET 27       /**< ZELPYX_UplinkDataGet */
#define ZELPYX_REQ_CMD_EXEC 28              /**< ZELPYX_CmdExec */
/** @} */

/** @name The channel lock
 * "zelpyx", a process-wide recursive lock (rank 0xFEFFFFFE), created on first
 * use.  Holders of both locks take it before the state database's "zelstate".
 * The retrievals that use the state database as scratch space hold it from
 * loading the kernel's state to emptying the database again.
 * @{ */
/** A process-wide recursive lock of the host layer (as in zel/state.h). */
typedef struct ZelRecLock ZelRecLock;
#define ZELPYX_LOCK_NAME "zelpyx"        /**< name of the channel lock */
#define ZELPYX_LOCK_RANK 0xFEFFFFFEu     /**< rank of the channel lock */

/** Takes the channel lock (creating it on first use) and returns its handle;
 *  the lock is recursive. */
ZEL_API ZelRecLock *ZelSwitchPYXLock(void);
/** Releases the channel lock; a null handle is ignored. */
ZEL_API void ZelSwitchPYXUnlock(ZelRecLock *lock);

/** @} */

/** @name Exchanges and state requests
 *  @{ */

/** The plain exchange: presets cmd->status to STATUS_FAILURE and sends
 *  request with cmd.  Returns 0 when the ioctl succeeded (the kernel may have
 *  written into cmd), otherwise cmd->status as the kernel left it;
 *  STATUS_BAD_PARAM for a null cmd. */
ZEL_API ReturnStatus ZELPYX_Ioctl(int request, ZELPYXCommand *cmd);
/** Runs the named command of the kernel module on switchName with inputLen
 *  bytes of input (request 28; input may be null only when inputLen is 0).
 *
 *  On success *output is the caller's (ZELPYX_DataFree) and *outputLen its
 *  length.  Returns 0; the kernel's status; STATUS_FAILURE when the ioctl
 *  failed with a record status of 0; STATUS_LIMIT_EXCEEDED past the bounds
 *  above; STATUS_NO_MEMORY when the output buffer cannot be had;
 *  STATUS_BAD_PARAM for null outputs or null input with a nonzero inputLen.
 *  On failure nothing is left to release. */
ZEL_API ReturnStatus ZELPYX_CmdExec(const char *switchName, const char *command,
                                    const void *input, uint32_t inputLen, void **output,
                                    uint32_t *outputLen);
/** Hands a whole state blob to the kernel, which takes its state from it
 *  (the blob stays the caller's).  Returns the plain exchange's status;
 *  STATUS_BAD_PARAM for a null blob with a nonzero blobLen. */
ZEL_API ReturnStatus ZELPYX_StateInit(const void *blob, uint32_t blobLen);
/** Sends the state clean-up request (1). */
ZEL_API ReturnStatus ZELPYX_StateCleanup(void);
/** Sends the state sanitize request (2). */
ZEL_API ReturnStatus ZELPYX_StateSanitize(void);
/** The kernel's whole state as a state blob (reply exchange): on success
 *  *blob is the caller's (ZELPYX_DataFree) and *blobLen its length; on
 *  failure nothing is left to release.  Returns 0, the kernel's status,
 *  STATUS_FAILURE, STATUS_LIMIT_EXCEEDED or STATUS_NO_MEMORY. */
ZEL_API ReturnStatus ZELPYX_StateGet(void **blob, uint32_t *blobLen);
/** Releases a reply buffer of any exchange; NULL is ignored. */
ZEL_API void ZELPYX_DataFree(void *buffer);

/** @} */

/** @name Switch and port commands
 * One request each, on the plain exchange (0 or the kernel's status) or, for
 * the Get calls, the reply exchange: on success *buffer is the caller's
 * (ZELPYX_DataFree) and *length its length; on failure nothing is left to
 * release.
 * Values sent stay the caller's; a null value with a nonzero length gives
 * STATUS_BAD_PARAM.  None touches the local state database.
 * @{ */

/** Adds a switch of class className to the kernel (request 4). */
ZEL_API ReturnStatus ZELPYX_SwitchAdd(const char *switchName, const char *className,
                                      uint32_t maxPorts, uint32_t version);
/** Removes a switch from the kernel (request 5). */
ZEL_API ReturnStatus ZELPYX_SwitchRemove(const char *switchName);
/** Sends the associate request (6) for the switch. */
ZEL_API ReturnStatus ZELPYX_SwitchAssociate(const char *switchName);
/** Sends the dissociate request (7) for the switch. */
ZEL_API ReturnStatus ZELPYX_SwitchDissociate(const char *switchName);
/** Sets the switch's port capacity in the kernel (request 21). */
ZEL_API ReturnStatus ZELPYX_SwitchSetMaxPorts(const char *switchName, uint32_t maxPorts);
/** Sets the switch's version in the kernel (request 22). */
ZEL_API ReturnStatus ZELPYX_SwitchSetVersion(const char *switchName, uint32_t version);

/** A global property's value from the kernel (request 8, reply exchange). */
ZEL_API ReturnStatus ZELPYX_GlobalPropGet(const char *switchName, const char *propName,
                                          void **buffer, uint32_t *length);
/** Sets a global property to dataLen bytes of data with propType (request 9). */
ZEL_API ReturnStatus ZELPYX_GlobalPropSet(const char *switchName, const char *propName,
                                          const void *data, uint32_t dataLen, uint32_t propType);
/** Removes a global property (request 10). */
ZEL_API ReturnStatus ZELPYX_GlobalPropClear(const char *switchName, const char *propName);
/** A host property's value from the kernel (request 11, reply exchange). */
ZEL_API ReturnStatus ZELPYX_HostPropGet(const char *switchName, const char *propName,
                                        void **buffer, uint32_t *length);
/** Sets a host property to dataLen bytes of data with propType (request 12). */
ZEL_API ReturnStatus ZELPYX_HostPropSet(const char *switchName, const char *propName,
                                        const void *data, uint32_t dataLen, uint32_t propType);
/** Removes a host property (request 13). */
ZEL_API ReturnStatus ZELPYX_HostPropClear(const char *switchName, const char *propName);
/** The clear behind both of the above: request 10 (global) or 13 (host). */
ZEL_API ReturnStatus ZELPYXSwitchPropClear(const char *switchName, const char *propName,
                                           int request);

/** Adds a port whose properties are dataLen bytes of serialized property
 *  data (request 14). */
ZEL_API ReturnStatus ZELPYX_PortAdd(const char *switchName, const char *portId, const void *data,
                                    uint32_t dataLen);
/** Removes a port (request 15). */
ZEL_API ReturnStatus ZELPYX_PortRemove(const char *switchName, const char *portId);
/** Asks the kernel for the port (request 20): 0 when it answers yes, else
 *  its status. */
ZEL_API ReturnStatus ZELPYX_PortFind(const char *switchName, const char *portId);
/** A port property's value (request 16, reply exchange). */
ZEL_API ReturnStatus ZELPYX_PortDataGet(const char *switchName, const char *portId,
                                        const char *propName, void **buffer, uint32_t *length);
/** Sets a port property to dataLen bytes of data with propType (request 17). */
ZEL_API ReturnStatus ZELPYX_PortDataSet(const char *switchName, const char *portId,
                                        const char *propName, const void *data, uint32_t dataLen,
                                        uint32_t propType);
/** Removes a port property (request 18). */
ZEL_API ReturnStatus ZELPYX_PortDataClear(const char *switchName, const char *portId,
                                          const char *propName);
/** The port's properties as serialized property data (request 19, reply
 *  exchange; ZELPYX_DataFree). */
ZEL_API ReturnStatus ZELPYX_PortStateGet(const char *switchName, const char *portId,
                                         void **buffer, uint32_t *length);

/** Sets the data of uplink uplinkIndex of the port (request 26); the index
 *  travels in the name field as signed decimal ("%d"). */
ZEL_API ReturnStatus ZELPYX_UplinkDataSet(const char *switchName, const char *portId,
                                          uint32_t uplinkIndex, const void *data,
                                          uint32_t dataLen, uint32_t propType);
/** The data of uplink uplinkIndex of the port (request 27, reply exchange). */
ZEL_API ReturnStatus ZELPYX_UplinkDataGet(const char *switchName, const char *portId,
                                          int32_t uplinkIndex, void **buffer, uint32_t *length);

/** @} */

/** @name Property lists from the kernel
 *
 * Name patterns: the strip and extract routines match a pattern anywhere in
 * a name; exception names match whole names (over at most 128 characters);
 * IsQorProp matches its prefixes at the start of a name.  The routines take
 * no lock: the list belongs to the caller alone.  They return the status of
 * their last ZELData_Next, STATUS_NOT_FOUND once the walk is complete.
 *
 * A list that repeats a name (serialized data from outside may) can only be
 * shortened by name: when one of the repeats must go while an earlier one
 * would stay, every entry of that name goes.  A null list or pattern gives
 * STATUS_BAD_PARAM and changes nothing.
 * @{ */

/** Removes every entry whose name contains pattern. */
ZEL_API ReturnStatus ZELPYXStripNamedProp(PropertyList *list, const char *pattern);
/** Removes every entry whose property type is not propType and every entry
 * whose name contains pattern, except the entries named exactly as one of
 * exceptions (a null-terminated array, or null for none). */
ZEL_API ReturnStatus ZELPYXStripNamedPropForType(PropertyList *list, const char *pattern,
                                                 const char *const *exceptions,
                                                 uint32_t propType);
/** Keeps only the entries of type propType whose names contain pattern. */
ZEL_API ReturnStatus ZELPYXExtractNamedPropForType(PropertyList *list, const char *pattern,
                                                   uint32_t propType);
/** True when name begins with one of the overlay prefixes ("com.zorlan.qorData.",
 * "com.zorlan.vswitch.teaming", "com.zorlan.qor.", "com.zorlan.common.opaqueZel.",
 * "com.zorlan.host.feature.container", "com.zorlan.extraconfig.opaqueZel.",
 * "com.zorlan.vswitch.disabled", "com.zorlan.net.portset.fc.",
 * "com.zorlan.port.extraConfig.sddcaas."); false for NULL. */
ZEL_API bool IsQorProp(const char *name);

/** One entry of ZELPYXPortList: 52 bytes, no gap between entries. */
#pragma pack(push, 1)
typedef struct ZELPYXPortListEntry {
  char portId[ZELPYX_PORT_ID_SIZE]; /**< the port's id, NUL-terminated, zero-filled */
  uint32_t connectId;               /**< first 32 bits of "com.zorlan.common.port.connectid", or 0 */
} ZELPYXPortListEntry;
/** The ports of one kind of a switch: one allocation of 8 + 52 * n bytes (n:
 *  the switch's ports of every kind), released with ZELPYX_DataFree. */
typedef struct ZELPYXPortList {
  uint32_t count;                /**< entries filled */
  uint32_t portKind;             /**< the kind asked for */
  ZELPYXPortListEntry entries[]; /**< count entries in slot order */
} ZELPYXPortList;
#pragma pack(pop)
ZELPYX_STATIC_ASSERT(sizeof(ZELPYXPortListEntry) == 52, "ZELPYXPortListEntry is 52 bytes");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXPortListEntry, connectId) == 48, "connectId offset");
ZELPYX_STATIC_ASSERT(offsetof(ZELPYXPortList, entries) == 8, "port list entries offset");

/** @} */

/** @name Switch-level slices
 * Each fetches the kernel's whole state, loads it into
 * the state database under the channel lock (the database must be empty and
 * is empty again on return), cuts the named switch's list down and hands it
 * to the caller, who releases it with ZELData_Free.  *list is written only
 * when the status is 0; an unknown switch gives STATUS_NOT_FOUND; a failed
 * fetch or load gives its status; a null list pointer STATUS_BAD_PARAM.
 * @{ */
/** The vendor global list: the switch's global list of the given type without the
 * library's own families ("com.zorlan.common.", "com.zorlan.etherswitch.",
 * "com.zorlan.vswitch." except "com.zorlan.vswitch.disabled",
 * "dvfilter-generic-", "com.zorlan.qorData.", and for the global list
 * "com.zorlan.extraconfig."); on a switch whose "com.zorlan.common.version"
 * is 107 also without "com.zorlan.qor.vdr.dvptracking". */
ZEL_API ReturnStatus ZELPYX_VendorGlobalPropList(const char *switchName, PropertyList **list,
                                                 uint32_t propType);
/** The vendor host list, cut down like the global one (without the
 *  "com.zorlan.extraconfig." step). */
ZEL_API ReturnStatus ZELPYX_VendorHostPropList(const char *switchName, PropertyList **list,
                                               uint32_t propType);
/** The routine behind both: host 0 for the global list, nonzero for the host list. */
ZEL_API ReturnStatus ZELPYXVendorPropList(const char *switchName, PropertyList **list,
                                          uint32_t propType, int host);
/** The global entries of the given type whose names contain "com.zorlan.extraconfig.". */
ZEL_API ReturnStatus ZELPYX_ExtraConfigPropList(const char *switchName, PropertyList **list,
                                                uint32_t propType);
/** The overlay entries (IsQorProp) of the given type of the global list
 * (global nonzero) or host list; with type 16 also every entry whose name
 * begins with "com.zorlan.net.portset.fc.", whatever its type. */
ZEL_API ReturnStatus ZELPYX_QorPropList(const char *switchName, uint32_t propType, int global,
                                        PropertyList **list);
/** The switch's ports of kind portKind in slot order, in a new
 *  ZELPYXPortList (ZELPYX_DataFree, not ZELData_Free); STATUS_NO_MEMORY when
 *  it cannot be allocated. */
ZEL_API ReturnStatus ZELPYX_SwitchPortList(const char *switchName, ZELPYXPortList **list,
                                           uint32_t portKind);

/** @} */

/** @name Port-level slices
 * One port's properties fetched from the kernel and cut
 * down; no lock, no state database.  The list is the caller's (ZELData_Free)
 * and *list is written only on success.  Returns the fetch's or the
 * decoder's status; a null list pointer gives STATUS_BAD_PARAM.
 * @{ */
/** The port's vendor list: without "com.zorlan.common.", "com.zorlan.etherswitch.", "com.zorlan.vswitch.",
 * "com.zorlan.port.extraConfig.", "com.zorlan.port.opaque.network",
 * "dvfilter-generic-", entries of other types, and with type 32 "com.zorlan.net.". */
ZEL_API ReturnStatus ZELPYX_VendorPortPropList(const char *switchName, const char *portId,
                                               PropertyList **list, uint32_t propType);
/** The entries of the given type whose names contain "com.zorlan.port.extraConfig". */
ZEL_API ReturnStatus ZELPYX_ExtraConfigPortPropList(const char *switchName, const char *portId,
                                                    PropertyList **list, uint32_t propType);

/** @} */

/** @name Persistent state retrieval
 *
 * The kernel's state reduced to what may survive a restart: switches flagged
 * "com.zorlan.common.volatile.nopersist" (nonzero first byte) are left out,
 * or, with a state path, replaced by their version in the stored state
 * (ZELFile_Read); every name containing ".volatile." is removed; on switches
 * whose host property "com.zorlan.common.portset.opaque" begins with "true"
 * normal ports with all-digit ids above 999 are dropped; only normal ports
 * without "com.zorlan.common.port.volatile.persist" are kept.
 * @{ */

/** The persistable state as a state blob.  *blob == NULL asks for a new
 *  allocation (released with free); otherwise *blobLen is its capacity.
 *  statePath may be null.  Holds the channel lock and uses the state
 *  database, which must be empty and is empty again on return.
 *
 *  Returns 0; the status of fetching the kernel's state, of reading the
 *  stored state, or of serializing (ZELState_ConfigSerialize);
 *  STATUS_BAD_PARAM for null outputs. */
ZEL_API ReturnStatus ZELPYX_PersistentStateGetWithFile(void **blob, uint32_t *blobLen,
                                                       const char *statePath);
/** ZELPYX_PersistentStateGetWithFile without a state path. */
ZEL_API ReturnStatus ZELPYX_PersistentStateGet(void **blob, uint32_t *blobLen);
/** One port's properties without ".volatile." names, serialized with version
 * (same buffer convention; a new buffer is released with free).  No lock.
 * Returns the fetch's, decoder's or ZELData_Serialize's status. */
ZEL_API ReturnStatus ZELPYX_PersistentPortStateGet(const char *switchName, const char *portId,
                                                   uint32_t version, void **buffer,
                                                   uint32_t *length);

/** The result of ZELPYX_PortGetByExternalId: 96 bytes, ZELPYX_DataFree. */
typedef struct ZELPYXExternalIdMatch {
  char portId[ZELPYX_PORT_ID_SIZE];     /**< first matching port, "" when none */
  char externalId[ZELPYX_PORT_ID_SIZE]; /**< the id searched for, cut to 47 characters */
} ZELPYXExternalIdMatch;
ZELPYX_STATIC_ASSERT(sizeof(ZELPYXExternalIdMatch) == 96, "ZELPYXExternalIdMatch is 96 bytes");

/**
 * Finds the first port (slot order) of the switch whose external id
 * ("com.zorlan.port.extraConfig.vnic.external.id", else
 * "com.zorlan.port.extraConfig.pyxnic.external.id") is a prefix of
 * externalId; an empty stored id matches any search.  Matching uses the
 * whole of externalId; only the copy in the result is cut to 47 characters
 * (a longer id never overruns the field).  Returns 0 with an empty portId
 * when nothing matched, STATUS_NOT_FOUND when the switch is missing.  On
 * success *result is a new record (ZELPYX_DataFree); otherwise it is not
 * written.  Also STATUS_NO_MEMORY, the status of fetching the kernel's
 * state, and STATUS_BAD_PARAM for a null externalId or result.
 */
ZEL_API ReturnStatus ZELPYX_PortGetByExternalId(const char *switchName, const char *externalId,
                                                ZELPYXExternalIdMatch **result);

/**
 * Saves the kernel's persistable state (ZELPYX_PersistentStateGet) into the
 * configuration store: every switch (switchId NULL), or only switchId's
 * object.  Returns what ZELState_SaveBufToConfigStore_ByInstance returns, or
 * 0xFFFFFFFF when the state cannot be fetched (the store is then not
 * touched).
 */
ZEL_API uint32_t ZELState_SaveToConfigStore_ByInstance(const char *switchId);
/** ZELState_SaveToConfigStore_ByInstance for every switch. */
ZEL_API uint32_t ZELState_SaveToConfigStore(void);
/** @} */

ZEL_EXTERN_C_END

#endif /* ZEL_KERNEL_H */
