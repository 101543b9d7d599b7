/*
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
 * A null switch or port id gives an error status or a null result; switch,
 * port, name and output pointers must be valid unless a comment says so.
 */
#ifndef ZEL_STATE_H
#define ZEL_STATE_H

#include <stdbool.h>
#include <stdint.h>

#include "zel/data.h"
#include "zel/status.h"

ZEL_EXTERN_C_BEGIN

typedef struct SwitchState SwitchState;
typedef struct PortState PortState;
/* A process-wide recursive lock of the host layer. */
typedef struct ZelRecLock ZelRecLock;

/* Port kinds; a port of kind 0 is left out of the state blob. */
typedef uint32_t PortKind;
#define PORT_KIND_NONE 0u
#define PORT_KIND_NORMAL 1u
#define PORT_KIND_SHADOW 2u
#define PORT_KIND_ZOMBIE 3u
#define PORT_KIND_LOCAL_CACHE 4u

#define ZEL_MAX_SWITCHES 32
#define ZEL_SWITCH_ID_SIZE 64    /* id field, NUL included */
#define ZEL_CLASS_NAME_SIZE 128  /* class-name field, NUL included */
#define ZEL_PORT_ID_SIZE 48      /* port id field, NUL included */

/* Names the state database interprets itself. */
#define ZEL_PROP_SWITCH_ALIAS "com.zorlan.common.alias"
#define ZEL_PROP_PORT_ALIAS "com.zorlan.common.port.alias"
#define ZEL_PROP_NOPERSIST "com.zorlan.common.volatile.nopersist"
#define ZEL_PROP_PORT_TYPE "com.zorlan.common.port.volatile.type"
#define ZEL_PROP_PORT_PERSIST "com.zorlan.common.port.volatile.persist"

/* Diagnostics level of the state database; -1 prints nothing. */
ZEL_API extern int zel_debug;
/* The host's system-wide port limit: 0 until the first switch is added. */
ZEL_API extern uint32_t uwMaxNumActivePortsSystemWide;

/* Callbacks.  The walks stop at the first callback that returns true.  For
 * the property walks, a result whose low byte is non-zero stops the walk and
 * is returned by the walk. */
typedef bool (*ZELStateSwitchFn)(SwitchState *sw, void *context);
typedef bool (*ZELStatePortFn)(PortState *port, void *context);
typedef uint32_t (*ZELStatePropFn)(PropertyEntry *entry, void *context);

/* --- the table lock --- */
ZEL_API ZelRecLock *ZelSwitchHandleLock(void);
ZEL_API void ZelSwitchHandleUnlock(ZelRecLock *lock);

/* --- switches --- */
ZEL_API ReturnStatus ZELState_SwitchAdd(const char *id, const char *className, uint32_t maxPorts,
                                        uint32_t version);
ZEL_API SwitchState *ZELState_SwitchFind(const char *id);
ZEL_API SwitchState *ZELState_SwitchFindByUUID(const uint8_t uuid[16]);
ZEL_API SwitchState *ZELState_SwitchFindByAlias(const char *alias);
ZEL_API void ZELState_SwitchForEach(ZELStateSwitchFn callback, void *context);
ZEL_API ReturnStatus ZELState_SwitchRemove(const char *id);
ZEL_API ReturnStatus ZELState_SwitchSetVersion(const char *id, uint32_t version);

ZEL_API const char *ZEL_SwitchId(SwitchState *sw);
ZEL_API const char *ZEL_SwitchName(SwitchState *sw);
ZEL_API const char *ZEL_ClassName(SwitchState *sw);
ZEL_API char *ZEL_SetClassName(SwitchState *sw, const char *className);
ZEL_API uint32_t ZEL_Version(SwitchState *sw);
ZEL_API uint32_t ZEL_GetMaxPorts(SwitchState *sw);
ZEL_API uint32_t ZEL_GetNewMaxPorts(SwitchState *sw);
ZEL_API uint32_t ZEL_UpdateMaxPorts(SwitchState *sw);
/* Record accessors for the other families: ports present on the switch, and
 * the switch's own lists (owned by the switch, never null). */
ZEL_API uint32_t ZEL_NumPorts(SwitchState *sw);
ZEL_API PropertyList *ZEL_GlobalPropList(SwitchState *sw);
ZEL_API PropertyList *ZEL_HostPropList(SwitchState *sw);

/* --- ports --- */
ZEL_API ReturnStatus ZELStatePortAdd(const char *switchId, const char *portId, PropertyList *list,
                                     PortKind kind);
ZEL_API ReturnStatus ZELState_PortAdd(const char *switchId, const char *portId, PropertyList *list);
ZEL_API ReturnStatus ZELState_LocalCachePortAdd(const char *switchId, const char *portId,
                                                PropertyList *list);
ZEL_API ReturnStatus ZELState_PortAddShadow(const char *switchId, const char *portId,
                                            const void *data, uint32_t dataLength);
ZEL_API ReturnStatus ZELStatePortRemove(const char *switchId, const char *portId, PortKind kind);
ZEL_API ReturnStatus ZELState_PortRemove(const char *switchId, const char *portId);
ZEL_API ReturnStatus ZELState_PortRemoveShadow(const char *switchId, const char *portId);
ZEL_API ReturnStatus ZELState_PortRemoveZombie(const char *switchId, const char *portId);
ZEL_API ReturnStatus ZELState_LocalCachePortRemove(const char *switchId, const char *portId);

ZEL_API PortState *ZELStatePortFindOnZelSwitch(SwitchState *sw, const char *portId, PortKind kind);
ZEL_API PortState *ZELState_PortFindOnZelSwitch(SwitchState *sw, const char *portId);
ZEL_API PortState *ZELState_PortFind(const char *switchId, const char *portId);
ZEL_API PortState *ZELState_PortFindShadow(const char *switchId, const char *portId);
ZEL_API PortState *ZELState_PortFindZombie(const char *switchId, const char *portId);
ZEL_API PortState *ZELState_LocalCachePortFind(const char *switchId, const char *portId);
ZEL_API PortState *ZELState_PortFindByUUID(const uint8_t uuid[16], const char *portId);
ZEL_API PortState *ZELState_PortFindShadowByUUID(const uint8_t uuid[16], const char *portId);
ZEL_API PortState *ZELStatePortFindByAliasOnZEL(SwitchState *sw, const char *portAlias,
                                                PortKind kind);
ZEL_API PortState *ZELState_PortFindByAliasType(SwitchState *sw, const char *portAlias,
                                                PortKind kind);
ZEL_API PortState *ZELState_PortFindByAliasOnZEL(SwitchState *sw, const char *portAlias);
ZEL_API PortState *ZELStatePortFindByAlias(const char *switchAlias, const char *portAlias,
                                           PortKind kind);
ZEL_API PortState *ZELState_PortFindByAlias(const char *switchAlias, const char *portAlias);
ZEL_API PortState *ZELState_PortFindShadowByAlias(const char *switchAlias, const char *portAlias);

ZEL_API ReturnStatus ZELState_PortDataGet(PortState *port, const char *name, void **value,
                                          uint32_t *length);
ZEL_API ReturnStatus ZELState_PortDataSet(PortState *port, const char *name, const void *value,
                                          uint32_t length, uint32_t propType);
ZEL_API ReturnStatus ZELState_PortDataClear(PortState *port, const char *name);
ZEL_API ReturnStatus ZELState_PortDataRead(PortState *port, const char *name, void **value,
                                           uint32_t *length);
ZEL_API ReturnStatus ZELState_PortDataForEach(PortState *port, ZELStatePropFn callback,
                                              void *context);
ZEL_API void ZELState_PortForEach(SwitchState *sw, ZELStatePortFn callback, void *context);
ZEL_API const char *ZEL_PortId(PortState *port);
ZEL_API const char *ZEL_PortAlias(PortState *port);
/* Record accessors for the other families. */
ZEL_API PortKind ZEL_PortKind(PortState *port);
/* Setting kind 0 leaves the port out of the state blob. */
ZEL_API void ZEL_PortSetKind(PortState *port, PortKind kind);
ZEL_API PropertyList *ZEL_PortData(PortState *port);
ZEL_API SwitchState *ZEL_PortSwitch(PortState *port);

/* --- global and host properties --- */
ZEL_API ReturnStatus ZELState_GlobalPropSet(const char *switchId, const char *name,
                                            const void *value, uint32_t length, uint32_t propType);
ZEL_API ReturnStatus ZELState_GlobalPropClear(const char *switchId, const char *name);
ZEL_API ReturnStatus ZELState_GlobalPropLookup(const char *switchId, const char *name,
                                               PropertyEntry **entry);
ZEL_API ReturnStatus ZELState_GlobalPropRead(SwitchState *sw, const char *name, void **value,
                                             uint32_t *length);
ZEL_API bool ZELState_GlobalPropIsSet(SwitchState *sw, const char *name);
ZEL_API ReturnStatus ZELState_GlobalPropForEach(SwitchState *sw, ZELStatePropFn callback,
                                                void *context);
ZEL_API ReturnStatus ZELState_HostPropSet(const char *switchId, const char *name,
                                          const void *value, uint32_t length, uint32_t propType);
ZEL_API ReturnStatus ZELState_HostPropClear(const char *switchId, const char *name);
ZEL_API ReturnStatus ZELState_HostPropLookup(const char *switchId, const char *name,
                                             PropertyEntry **entry);
ZEL_API ReturnStatus ZELState_HostPropRead(SwitchState *sw, const char *name, void **value,
                                           uint32_t *length);
ZEL_API bool ZELState_HostPropIsSet(SwitchState *sw, const char *name);
ZEL_API ReturnStatus ZELState_HostPropForEach(SwitchState *sw, ZELStatePropFn callback,
                                              void *context);

/* --- the state blob ---
 * Output buffers follow the property-list convention: *buffer == NULL lets the
 * serializer allocate (released by the caller with free), otherwise *length is
 * the capacity of *buffer. */
ZEL_API ReturnStatus ZELState_ConfigSerialize(void **buffer, uint32_t *length);
ZEL_API ReturnStatus ZELState_SwitchSerialize(SwitchState *sw, void **buffer, uint32_t *length);
/* The buffer comes from the port list's allocator (ZELData_FreeAssocData). */
ZEL_API ReturnStatus ZELState_PortSerialize(PortState *port, void **buffer, uint32_t *length);
ZEL_API ReturnStatus ZELState_ConfigDeserialize(const void *blob, uint32_t length);
ZEL_API ReturnStatus ZELState_SwitchDeserialize(const char *switchId, const void *blob,
                                                uint32_t length);
ZEL_API ReturnStatus ZELState_PortDeserialize(const char *switchId, const char *portId,
                                              const void *data, uint32_t length);

/* --- reset and persistence filtering ---
 * A switch array holds ZEL_MAX_SWITCHES switch pointers laid out like the
 * table; an id list holds ZEL_MAX_SWITCHES ids of ZEL_SWITCH_ID_SIZE bytes. */
ZEL_API ReturnStatus ZELState_ConfigReset(void);
ZEL_API bool ZELState_StripZelWithNoPersistFlag(SwitchState **array, char (*ids)[ZEL_SWITCH_ID_SIZE],
                                                bool fileInUse);
ZEL_API void ZELState_UpdateGlobalSwsArray(SwitchState **array, char (*ids)[ZEL_SWITCH_ID_SIZE]);
ZEL_API void ZELState_FreeZELArray(SwitchState **array);

ZEL_EXTERN_C_END

#endif /* ZEL_STATE_H */
