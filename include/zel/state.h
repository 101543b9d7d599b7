/**
 * @file
 * libzel switch state database: the process-wide table of up to 32 switches,
 * their ports and property lists, and the state blob that carries the whole
 * table.
 *
 * Switch and port handles are owned by the table.  A find releases the table
 * lock before it returns, so a handle stays valid only while no other thread
 * removes its switch or port: callers that use handles across several calls
 * hold ZelSwitchHandleLock around the whole sequence.  The lock is recursive;
 * every operation may be called with it held.
 *
 * Diagnostics print on standard output when zel_debug is at least the
 * message's level (0 failures, 1 switch and port progress, 2 details,
 * 3 entries read while deserializing).
 *
 * Null input: the accessors and finders return NULL, 0 or false
 * (ZEL_SwitchName and ZEL_PortAlias NULL, not "unknown"); the walks and
 * array operations without a status do nothing; every other operation gives
 * STATUS_BAD_PARAM for a null switch, port, id, name, list, callback, blob
 * or output pointer it needs, and changes nothing, except that a property
 * Set with a null value gives STATUS_FAILURE.
 *
 * Values read through the database (the *value of the Read and Get calls, an
 * entry of a Lookup) point into the owning list: valid until the property is
 * changed or removed, never freed by the caller.  The Set calls copy the
 * caller's bytes.
 */
#ifndef ZEL_STATE_H
#define ZEL_STATE_H

#include <stdbool.h>
#include <stdint.h>

#include "zel/data.h"
#include "zel/status.h"

ZEL_EXTERN_C_BEGIN

/** A switch of the table; opaque, owned by the table. */
typedef struct SwitchState SwitchState;
/** A port of a switch; opaque, owned by its switch. */
typedef struct PortState PortState;
/** A process-wide recursive lock of the host layer. */
typedef struct ZelRecLock ZelRecLock;

/** Kind of a port; a port of kind 0 is left out of the state blob. */
typedef uint32_t PortKind;
#define PORT_KIND_NONE 0u        /**< left out of the state blob */
#define PORT_KIND_NORMAL 1u      /**< an ordinary port */
#define PORT_KIND_SHADOW 2u      /**< a shadow port */
#define PORT_KIND_ZOMBIE 3u      /**< a zombie port; several may share an id */
#define PORT_KIND_LOCAL_CACHE 4u /**< a port of the local cache */

#define ZEL_MAX_SWITCHES 32      /**< slots of the switch table */
#define ZEL_SWITCH_ID_SIZE 64    /**< id field, NUL included */
#define ZEL_CLASS_NAME_SIZE 128  /**< class-name field, NUL included */
#define ZEL_PORT_ID_SIZE 48      /**< port id field, NUL included */

/** Global property holding a switch's alias (NUL-terminated text). */
#define ZEL_PROP_SWITCH_ALIAS "com.zorlan.common.alias"
/** Port property holding a port's alias (NUL-terminated text). */
#define ZEL_PROP_PORT_ALIAS "com.zorlan.common.port.alias"
/** Global property whose nonzero first byte keeps a switch out of the persisted state. */
#define ZEL_PROP_NOPERSIST "com.zorlan.common.volatile.nopersist"
/** Port property carrying the port's kind inside the state blob (u32). */
#define ZEL_PROP_PORT_TYPE "com.zorlan.common.port.volatile.type"
/** Port property marking a port that is not persisted. */
#define ZEL_PROP_PORT_PERSIST "com.zorlan.common.port.volatile.persist"

/** Diagnostics level of the state database; -1 prints nothing. */
ZEL_API extern int zel_debug;
/** The host's system-wide port limit: 0 until the first switch is added. */
ZEL_API extern uint32_t uwMaxNumActivePortsSystemWide;

/** Callback of ZELState_SwitchForEach; returns true to stop the walk. */
typedef bool (*ZELStateSwitchFn)(SwitchState *sw, void *context);
/** Callback of ZELState_PortForEach; returns true to stop the walk. */
typedef bool (*ZELStatePortFn)(PortState *port, void *context);
/** Callback of the property walks: a result whose low byte is nonzero stops
 *  the walk and is what the walk returns. */
typedef uint32_t (*ZELStatePropFn)(PropertyEntry *entry, void *context);

/** @name The table lock
 *  @{ */
/** Takes the table's recursive lock ("zelstate") and returns its handle. */
ZEL_API ZelRecLock *ZelSwitchHandleLock(void);
/** Releases the lock taken by ZelSwitchHandleLock; NULL is ignored. */
ZEL_API void ZelSwitchHandleUnlock(ZelRecLock *lock);

/** @} */

/** @name Switches
 *  @{ */

/** Adds a switch with empty global and host lists to a free slot of the
 *  table.  The first add learns the host's system-wide port limit.  Classes
 *  "etherswitch", "stub-vswitch", "cswitch" and "vswitch" take the
 *  system-wide limit as their maxPorts; other classes must fit maxPorts in
 *  what the host has left.  className is cut to 127 characters.
 *
 *  Returns STATUS_OK; STATUS_BAD_PARAM for a null id or className or an id of
 *  64 characters or more; STATUS_EXISTS when the id is taken;
 *  STATUS_LIMIT_EXCEEDED when the table is full or the ports do not fit;
 *  STATUS_NO_MEMORY; or the status of learning the port limit.  On failure
 *  the table is unchanged. */
ZEL_API ReturnStatus ZELState_SwitchAdd(const char *id, const char *className, uint32_t maxPorts,
                                        uint32_t version);
/** The switch with this id, or NULL (also for a null id). */
ZEL_API SwitchState *ZELState_SwitchFind(const char *id);
/** The switch whose id is the 16 bytes of uuid written as "xx xx xx xx xx xx
 *  xx xx-xx xx xx xx xx xx xx xx" (lower-case hex), or NULL. */
ZEL_API SwitchState *ZELState_SwitchFindByUUID(const uint8_t uuid[16]);
/** The first switch (slot order) whose alias property equals alias, or NULL. */
ZEL_API SwitchState *ZELState_SwitchFindByAlias(const char *alias);
/** Calls callback on each switch in slot order, under the table lock, until
 *  it returns true. */
ZEL_API void ZELState_SwitchForEach(ZELStateSwitchFn callback, void *context);
/** Removes the switch with its ports and lists; every handle to them becomes
 *  invalid.  Returns STATUS_OK, STATUS_NOT_FOUND, or STATUS_BAD_PARAM for a
 *  null id. */
ZEL_API ReturnStatus ZELState_SwitchRemove(const char *id);
/** Sets the switch's version to one of 4, 5, 6, 7, 100 or 107.  Returns
 *  STATUS_OK; STATUS_NOT_SUPPORTED for any other version (checked first);
 *  STATUS_BAD_PARAM for a null id; STATUS_NOT_FOUND for an unknown switch.
 *  Nothing changes on failure. */
ZEL_API ReturnStatus ZELState_SwitchSetVersion(const char *id, uint32_t version);

/** The switch's id, inside the record. */
ZEL_API const char *ZEL_SwitchId(SwitchState *sw);
/** The switch's alias property as text, or "unknown" when it has none
 *  (NULL for a null sw). */
ZEL_API const char *ZEL_SwitchName(SwitchState *sw);
/** The switch's class name, inside the record. */
ZEL_API const char *ZEL_ClassName(SwitchState *sw);
/** Sets the class name (cut to 127 characters) and returns the stored copy;
 *  a null className changes nothing. */
ZEL_API char *ZEL_SetClassName(SwitchState *sw, const char *className);
/** The switch's version. */
ZEL_API uint32_t ZEL_Version(SwitchState *sw);
/** The switch's port capacity in force. */
ZEL_API uint32_t ZEL_GetMaxPorts(SwitchState *sw);
/** The capacity the switch is to take (the one its state blob carries). */
ZEL_API uint32_t ZEL_GetNewMaxPorts(SwitchState *sw);
/** Puts the new capacity in force and returns it. */
ZEL_API uint32_t ZEL_UpdateMaxPorts(SwitchState *sw);
/** The number of ports present on the switch, of every kind. */
ZEL_API uint32_t ZEL_NumPorts(SwitchState *sw);
/** The switch's global property list (owned by the switch; NULL only for a
 *  null sw). */
ZEL_API PropertyList *ZEL_GlobalPropList(SwitchState *sw);
/** The switch's host property list (owned by the switch; NULL only for a
 *  null sw). */
ZEL_API PropertyList *ZEL_HostPropList(SwitchState *sw);

/** @} */

/** @name Ports
 * Port ids are unique per kind on a switch (zombie ports excepted).  The
 * Find calls return NULL when the switch or port is missing or an argument
 * is null; the plain ones look for a normal port first, then for a
 * local-cache port.
 * @{ */

/** Adds a port of the given kind to the first free slot of the switch.  On
 *  success the switch owns list (released when the port is removed).
 *
 *  Returns STATUS_OK; STATUS_NOT_FOUND for an unknown switch;
 *  STATUS_BAD_PARAM for a null id or list, or a port id longer than 47
 *  characters (15 on switches of version 6 or lower); STATUS_EXISTS when a
 *  port of that kind and id exists (zombie ports excepted);
 *  STATUS_LIMIT_EXCEEDED when the switch or the host has no room;
 *  STATUS_NO_MEMORY.  On failure nothing changes and list stays the
 *  caller's. */
ZEL_API ReturnStatus ZELStatePortAdd(const char *switchId, const char *portId, PropertyList *list,
                                     PortKind kind);
/** ZELStatePortAdd of a normal port. */
ZEL_API ReturnStatus ZELState_PortAdd(const char *switchId, const char *portId, PropertyList *list);
/** ZELStatePortAdd of a local-cache port. */
ZEL_API ReturnStatus ZELState_LocalCachePortAdd(const char *switchId, const char *portId,
                                                PropertyList *list);
/** Adds a shadow port whose list is decoded from dataLength bytes of
 *  serialized property data (the data stays the caller's).  Returns the
 *  decoder's status, else ZELStatePortAdd's; on failure nothing is kept. */
ZEL_API ReturnStatus ZELState_PortAddShadow(const char *switchId, const char *portId,
                                            const void *data, uint32_t dataLength);
/** Removes the first port (slot order) of this kind and id, with its list.
 *  Returns STATUS_OK; STATUS_NOT_FOUND when the switch or port is missing;
 *  STATUS_BAD_PARAM for a null id. */
ZEL_API ReturnStatus ZELStatePortRemove(const char *switchId, const char *portId, PortKind kind);
/** ZELStatePortRemove of a normal port. */
ZEL_API ReturnStatus ZELState_PortRemove(const char *switchId, const char *portId);
/** ZELStatePortRemove of a shadow port. */
ZEL_API ReturnStatus ZELState_PortRemoveShadow(const char *switchId, const char *portId);
/** ZELStatePortRemove of a zombie port (the first of that id). */
ZEL_API ReturnStatus ZELState_PortRemoveZombie(const char *switchId, const char *portId);
/** ZELStatePortRemove of a local-cache port. */
ZEL_API ReturnStatus ZELState_LocalCachePortRemove(const char *switchId, const char *portId);

/** The first port (slot order) of this kind and id on sw, or NULL. */
ZEL_API PortState *ZELStatePortFindOnZelSwitch(SwitchState *sw, const char *portId, PortKind kind);
/** The normal, else the local-cache port of this id on sw, or NULL. */
ZEL_API PortState *ZELState_PortFindOnZelSwitch(SwitchState *sw, const char *portId);
/** The normal, else the local-cache port of this id on the switch, or NULL. */
ZEL_API PortState *ZELState_PortFind(const char *switchId, const char *portId);
/** The shadow port of this id on the switch, or NULL. */
ZEL_API PortState *ZELState_PortFindShadow(const char *switchId, const char *portId);
/** The first zombie port of this id on the switch, or NULL. */
ZEL_API PortState *ZELState_PortFindZombie(const char *switchId, const char *portId);
/** The local-cache port of this id on the switch, or NULL. */
ZEL_API PortState *ZELState_LocalCachePortFind(const char *switchId, const char *portId);
/** ZELState_PortFind on the switch ZELState_SwitchFindByUUID finds. */
ZEL_API PortState *ZELState_PortFindByUUID(const uint8_t uuid[16], const char *portId);
/** ZELState_PortFindShadow on the switch ZELState_SwitchFindByUUID finds. */
ZEL_API PortState *ZELState_PortFindShadowByUUID(const uint8_t uuid[16], const char *portId);
/** The first port (slot order) of this kind on sw whose alias property
 *  equals portAlias, or NULL. */
ZEL_API PortState *ZELStatePortFindByAliasOnZEL(SwitchState *sw, const char *portAlias,
                                                PortKind kind);
/** The same as ZELStatePortFindByAliasOnZEL. */
ZEL_API PortState *ZELState_PortFindByAliasType(SwitchState *sw, const char *portAlias,
                                                PortKind kind);
/** The normal, else the local-cache port on sw with this alias, or NULL. */
ZEL_API PortState *ZELState_PortFindByAliasOnZEL(SwitchState *sw, const char *portAlias);
/** The port of this kind and alias on the switch found by switchAlias, or NULL. */
ZEL_API PortState *ZELStatePortFindByAlias(const char *switchAlias, const char *portAlias,
                                           PortKind kind);
/** ZELStatePortFindByAlias of a normal port. */
ZEL_API PortState *ZELState_PortFindByAlias(const char *switchAlias, const char *portAlias);
/** ZELStatePortFindByAlias of a shadow port. */
ZEL_API PortState *ZELState_PortFindShadowByAlias(const char *switchAlias, const char *portAlias);

/** Sets *value to the port property's bytes (inside the list) and, when
 *  length is not NULL, *length to their count.  Returns STATUS_OK or
 *  STATUS_NOT_FOUND (outputs untouched; a message is printed). */
ZEL_API ReturnStatus ZELState_PortDataGet(PortState *port, const char *name, void **value,
                                          uint32_t *length);
/** Sets a port property to a copy of length bytes of value (ZELData_Update,
 *  propType 0 as there).  Returns STATUS_OK; STATUS_BAD_PARAM for a null
 *  port or name; STATUS_FAILURE for a null value or length 0 (nothing
 *  changes); otherwise ZELData_Update's status. */
ZEL_API ReturnStatus ZELState_PortDataSet(PortState *port, const char *name, const void *value,
                                          uint32_t length, uint32_t propType);
/** Removes a port property.  Returns STATUS_OK or STATUS_NOT_FOUND. */
ZEL_API ReturnStatus ZELState_PortDataClear(PortState *port, const char *name);
/** ZELState_PortDataGet without the failure message. */
ZEL_API ReturnStatus ZELState_PortDataRead(PortState *port, const char *name, void **value,
                                           uint32_t *length);
/** Calls callback on each port property in order (see ZELStatePropFn);
 *  returns the result that stopped the walk, STATUS_NOT_FOUND at the end, or
 *  STATUS_BAD_PARAM for a null port or callback. */
ZEL_API ReturnStatus ZELState_PortDataForEach(PortState *port, ZELStatePropFn callback,
                                              void *context);
/** Calls callback on each port of sw, every kind, in slot order, until it
 *  returns true.  Takes no lock. */
ZEL_API void ZELState_PortForEach(SwitchState *sw, ZELStatePortFn callback, void *context);
/** The port's id, inside the record. */
ZEL_API const char *ZEL_PortId(PortState *port);
/** The port's alias property as text, or "unknown" when it has none (NULL
 *  for a null port). */
ZEL_API const char *ZEL_PortAlias(PortState *port);
/** The port's kind. */
ZEL_API PortKind ZEL_PortKind(PortState *port);
/** Changes the port's kind; kind 0 leaves the port out of the state blob.
 *  A null port is ignored. */
ZEL_API void ZEL_PortSetKind(PortState *port, PortKind kind);
/** The port's property list (owned by the port). */
ZEL_API PropertyList *ZEL_PortData(PortState *port);
/** The switch the port belongs to. */
ZEL_API SwitchState *ZEL_PortSwitch(PortState *port);

/** @} */

/** @name Global and host properties
 * The same operations on a switch's global (switch-wide) list and on its
 * host list.
 * @{ */

/** Sets a global property of the switch to a copy of length bytes of value
 *  (ZELData_Update).  Returns STATUS_OK; STATUS_FAILURE for a null value or
 *  length 0 (checked before the other arguments); STATUS_BAD_PARAM for a
 *  null switchId or name; STATUS_NOT_FOUND for an unknown switch; otherwise
 *  ZELData_Update's status. */
ZEL_API ReturnStatus ZELState_GlobalPropSet(const char *switchId, const char *name,
                                            const void *value, uint32_t length, uint32_t propType);
/** Removes a global property.  Returns STATUS_OK, or STATUS_NOT_FOUND when
 *  the switch or the property is missing. */
ZEL_API ReturnStatus ZELState_GlobalPropClear(const char *switchId, const char *name);
/** Sets *entry to the global property's entry (owned by the list).  Returns
 *  STATUS_OK, or STATUS_NOT_FOUND (switch or property missing; *entry
 *  untouched). */
ZEL_API ReturnStatus ZELState_GlobalPropLookup(const char *switchId, const char *name,
                                               PropertyEntry **entry);
/** Sets *value to the global property's bytes (inside the list) and, when
 *  length is not NULL, *length to their count.  Returns STATUS_OK or
 *  STATUS_NOT_FOUND (outputs untouched). */
ZEL_API ReturnStatus ZELState_GlobalPropRead(SwitchState *sw, const char *name, void **value,
                                             uint32_t *length);
/** True when sw has a global property of this name. */
ZEL_API bool ZELState_GlobalPropIsSet(SwitchState *sw, const char *name);
/** Calls callback on each global property in order (see ZELStatePropFn);
 *  returns the result that stopped the walk, STATUS_NOT_FOUND at the end, or
 *  STATUS_BAD_PARAM for a null sw or callback. */
ZEL_API ReturnStatus ZELState_GlobalPropForEach(SwitchState *sw, ZELStatePropFn callback,
                                                void *context);
/** ZELState_GlobalPropSet on the host list. */
ZEL_API ReturnStatus ZELState_HostPropSet(const char *switchId, const char *name,
                                          const void *value, uint32_t length, uint32_t propType);
/** ZELState_GlobalPropClear on the host list. */
ZEL_API ReturnStatus ZELState_HostPropClear(const char *switchId, const char *name);
/** ZELState_GlobalPropLookup on the host list. */
ZEL_API ReturnStatus ZELState_HostPropLookup(const char *switchId, const char *name,
                                             PropertyEntry **entry);
/** ZELState_GlobalPropRead on the host list. */
ZEL_API ReturnStatus ZELState_HostPropRead(SwitchState *sw, const char *name, void **value,
                                           uint32_t *length);
/** True when sw has a host property of this name. */
ZEL_API bool ZELState_HostPropIsSet(SwitchState *sw, const char *name);
/** ZELState_GlobalPropForEach on the host list. */
ZEL_API ReturnStatus ZELState_HostPropForEach(SwitchState *sw, ZELStatePropFn callback,
                                              void *context);

/** @} */

/** @name The state blob
 * Output buffers follow the property-list convention: *buffer == NULL lets the
 * serializer allocate (released by the caller with free), otherwise *length is
 * the capacity of *buffer.  The serializers return ZELData_Serialize's
 * statuses (STATUS_LIMIT_EXCEEDED for a short caller buffer, STATUS_NO_MEMORY);
 * the table is never changed by them.
 * @{ */

/** The state blob of the whole table: one entry per switch, named by its id,
 *  holding ZELState_SwitchSerialize's data.  Takes the table lock.  Returns
 *  STATUS_EXISTS when a switch cannot be serialized. */
ZEL_API ReturnStatus ZELState_ConfigSerialize(void **buffer, uint32_t *length);
/** One switch's data: version, class name, new capacity, its global and host
 *  lists, and every port whose kind is not 0 with its kind. */
ZEL_API ReturnStatus ZELState_SwitchSerialize(SwitchState *sw, void **buffer, uint32_t *length);
/** One port's list, serialized; a new buffer comes from the port list's
 *  allocator (ZELData_FreeAssocData on ZEL_PortData(port)). */
ZEL_API ReturnStatus ZELState_PortSerialize(PortState *port, void **buffer, uint32_t *length);
/** Adds every switch of a state blob to the table (the blob stays the
 *  caller's).  Returns STATUS_OK, or the first failing status of decoding or
 *  of ZELState_SwitchDeserialize; on a switch's failure the whole table is
 *  emptied (ZELState_ConfigReset). */
ZEL_API ReturnStatus ZELState_ConfigDeserialize(const void *blob, uint32_t length);
/** Adds the switch switchId, with its lists and ports, from one switch's
 *  data.  Returns STATUS_OK; the decoder's status; the status of reading its
 *  header (STATUS_BAD_PARAM for a malformed value); or the status of adding
 *  the switch or a port.
 *  On failure the switch is not left in the table. */
ZEL_API ReturnStatus ZELState_SwitchDeserialize(const char *switchId, const void *blob,
                                                uint32_t length);
/** Adds a port to switchId from its serialized list; the kind comes from
 *  ZEL_PROP_PORT_TYPE (then removed from the list), else the port is
 *  normal.  Returns the decoder's or ZELStatePortAdd's status; on failure
 *  nothing is kept. */
ZEL_API ReturnStatus ZELState_PortDeserialize(const char *switchId, const char *portId,
                                              const void *data, uint32_t length);

/** @} */

/** @name Reset and persistence filtering
 * A switch array holds ZEL_MAX_SWITCHES switch pointers laid out like the
 * table; an id list holds ZEL_MAX_SWITCHES ids of ZEL_SWITCH_ID_SIZE bytes.
 * @{ */
/** Removes every switch with its ports and lists.  Returns STATUS_OK. */
ZEL_API ReturnStatus ZELState_ConfigReset(void);
/** Removes every switch whose ZEL_PROP_NOPERSIST has a nonzero first byte
 *  and writes the removed ids to ids.  With fileInUse true and at least one
 *  removal it moves the remaining switches into array (the table is then
 *  empty) and returns true; otherwise array is all NULL and it returns
 *  false.  A null array or ids returns false and changes nothing. */
ZEL_API bool ZELState_StripZelWithNoPersistFlag(SwitchState **array, char (*ids)[ZEL_SWITCH_ID_SIZE],
                                                bool fileInUse);
/** Moves the table's switches named in ids into the free places of array,
 *  in order, then swaps array and the table: the table holds array's
 *  switches and array the table's rest. */
ZEL_API void ZELState_UpdateGlobalSwsArray(SwitchState **array, char (*ids)[ZEL_SWITCH_ID_SIZE]);
/** Frees the table's switches and those of array; the table ends empty.
 *  array's slots keep their (dangling) pointers. */
ZEL_API void ZELState_FreeZELArray(SwitchState **array);
/** @} */

ZEL_EXTERN_C_END

#endif /* ZEL_STATE_H */
