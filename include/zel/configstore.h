/**
 * @file
 * libzel configuration-store persistence: the state blob saved into the host
 * configuration store as structured switch objects, and loaded back.
 *
 * Every property name maps, through one of three tables, to a path inside
 * the switch object (or inside the port's element of its "ports" list) and
 * to the conversion kind that turns the property bytes into typed values and
 * back.
 *
 * These functions return a plain u32: 0 on success, 0xFFFFFFFF for the
 * library's own failures, otherwise the failing configuration-store status.
 * A save and a load, or two loads, must not run at the same time.
 */
#ifndef ZEL_CONFIGSTORE_H
#define ZEL_CONFIGSTORE_H

#include <stdbool.h>
#include <stdint.h>

#include "zel/status.h"

ZEL_EXTERN_C_BEGIN

/** The library's own failure value of this family. */
#define ZEL_CONFIGSTORE_FAILURE 0xFFFFFFFFu

/** Components of a mapping row's path. */
#define ZEL_CONFIG_PATH_COMPONENTS 5
/** Size of one path component, NUL included (at most 127 characters). */
#define ZEL_CONFIG_PATH_SIZE 128
/** The kind of every terminating row; never converted. */
#define ZEL_CONFIG_KIND_END 37u

/** One row of a mapping table.  `path[depth - 1]` is the key of the value (or
 *  the sub-object the conversion fills); the components before it name
 *  singleton sub-objects nested from the owning object.  A table ends with a
 *  row whose name is NULL, depth 0 and kind ZEL_CONFIG_KIND_END. */
typedef struct PropToConfigEntry {
  const char *name;                                           /**< property name */
  char path[ZEL_CONFIG_PATH_COMPONENTS][ZEL_CONFIG_PATH_SIZE]; /**< path inside the object */
  uint32_t depth;                                             /**< components of path in use */
  uint32_t kind;                                              /**< conversion kind */
  uint32_t flags; /**< property type of the properties a load creates (16) */
} PropToConfigEntry;

/** Mapping of the switch-wide (global) properties; table index 0. */
ZEL_API extern const PropToConfigEntry zelGlobalProp2Config[29];
/** Mapping of the host properties; table index 1. */
ZEL_API extern const PropToConfigEntry zelHostProp2Config[5];
/** Mapping of the port properties; table index 2. */
ZEL_API extern const PropToConfigEntry zelPortProp2Config[25];
/** The three tables at their indices 0, 1 and 2. */
ZEL_API extern const PropToConfigEntry *const zelConfigMaps[3];

/* What a save clears from an existing switch object before rewriting it.
 * Each list ends with NULL. */
/** Plain values a save clears from an existing switch object. */
ZEL_API extern const char *const UNUSED_PRIMITIVE_PROPS[10];
/** Singleton sub-objects a save clears. */
ZEL_API extern const char *const UNUSED_SINGLETON_PROPS[5];
/** Lists of sub-objects a save clears. */
ZEL_API extern const char *const UNUSED_NON_SINGLETON_PROPS[6];

/** Trace level of the configuration-store code; initially 10.  Failures print
 *  when it is >= 0, traces when it is > 0. */
ZEL_API extern int zelconfigstore_debug;

/** Names of the port-mirroring session types (0 to 4), indexed by value and
 *  ending with NULL. */
ZEL_API extern const char *const SESSION_TYPE_LOCAL_ENUM_2_SCHEMA[6];
/** Entries of SESSION_TYPE_LOCAL_ENUM_2_SCHEMA, the NULL end included (6). */
ZEL_API extern const uint32_t VSPAN_SESSION_TYPE_NUM;
/** Names of the mirroring encapsulation types (0 to 2), indexed by value. */
ZEL_API extern const char *const ENCAP_TYPE_LOCAL_ENUM_2SCHEMA[3];
/** Entries of ENCAP_TYPE_LOCAL_ENUM_2SCHEMA (3). */
ZEL_API extern const uint32_t VSPAN_ENCAP_TYPE_NUM;

/* Link discovery: names indexed by value and ending with NULL; CHARS_2_* give
 * the value of the name at each position, their last entry being the value
 * of a name not in the table. */
/** Link discovery protocol names, indexed by value, ending with NULL. */
ZEL_API extern const char *const CDP_MODE_2_CHARS[3];
/** The protocol value of each name of CDP_MODE_2_CHARS; last: a name not there. */
ZEL_API extern const uint32_t CHARS_2_CDP_MODE[3];
/** Link discovery operation names, indexed by value, ending with NULL. */
ZEL_API extern const char *const CDP_OPERATION_2_CHARS[5];
/** The operation value of each name of CDP_OPERATION_2_CHARS; last: a name not there. */
ZEL_API extern const uint32_t CHARS_2_CDP_OPERATION[5];

/** LACP mode names (0 to 2), indexed by value, ending with NULL. */
ZEL_API extern const char *const LACP_MODE_2_CAHRS[4];
/** LACP load-balance algorithm names (0 to 20), indexed by value, ending with NULL. */
ZEL_API extern const char *const LACP_LB_POLICY_SCHEMA[22];

/** Uplink teaming policy names by schema position (entry 0 and the last
 *  entry are NULL). */
ZEL_API extern const char *const TEAMING_POLICY_SCHEMA[7];
/** The policy value of each position of TEAMING_POLICY_SCHEMA. */
ZEL_API extern const uint32_t TEAMING_POLICY_ENUM[6];
/** The name of teaming policy value v at index v - 1. */
ZEL_API extern const char *const NIC_TEAMING_POLICY_MODE_2_CHARS[5];

/** Private-VLAN type names indexed by type (1 promiscuous, 2 isolated,
 *  3 community; entry 0 and the last entry are NULL). */
ZEL_API extern const char *const PVLAN_2_CHARS[5];
/** The private-VLAN type at each name's position (-1 where none). */
ZEL_API extern const int32_t CHARS_2_PVLAN[5];

/** The first row of table 0, 1 or 2; NULL for any other index. */
ZEL_API const PropToConfigEntry *GetConfigMap(int index);

/** ZELState_SaveBufToConfigStore_ByInstance for every switch: saves every
 *  switch of the state blob and deletes stored switches it lacks. */
ZEL_API uint32_t ZELState_SaveBufToConfigStore(const void *blob, uint32_t length);
/** Saves the switches of a state blob (only switchId's when it is not NULL)
 *  into the store as switch objects, in one transaction.  Holds the state
 *  database's lock and uses the database as scratch space: it is emptied
 *  before and after.  The blob stays the caller's.
 *
 *  Returns 0; the deserializer's status for a blob that does not decode
 *  (STATUS_BAD_PARAM for a null blob; the store is not opened);
 *  ZEL_CONFIGSTORE_FAILURE or a configuration-store status otherwise.  A
 *  failed save cancels its transaction and leaves the store as it was.  A
 *  switch saved without "com.zorlan.common.version" is written all the same
 *  (the status does not change) with a warning naming it: no load succeeds
 *  while the store holds it. */
ZEL_API uint32_t ZELState_SaveBufToConfigStore_ByInstance(const void *blob, uint32_t length,
                                                          const char *switchId);
/** Builds a state blob from the stored switch objects (the desired layer when
 *  desired is true).  *blob is allocated with malloc; the caller frees it.
 *  The outputs are written only on success.  A blob returned with 0 decodes
 *  into an empty state database (ZELState_ConfigDeserialize) with every
 *  switch it read, on a host whose port limit can be read.
 *
 *  The load fails, with a message naming the cause, on two switch objects
 *  with one uuid, a uuid over 63 characters, more than 32 switch objects, or
 *  ports beyond the switch's max_ports or the host's free ports.  A port
 *  whose key cannot be read, is too long for a port id or names an entry of
 *  the switch list is skipped with a message.
 *
 *  Returns 0; ZEL_CONFIGSTORE_FAILURE (also for null outputs); a
 *  configuration-store status; or the serializer's status for the blob. */
ZEL_API uint32_t ZELState_LoadFromConfigStoreAsBuf(void **blob, uint32_t *length, bool desired);
/** True when text equals one of the first count strings of array (NULL
 *  entries are skipped); false for a null text or array or count below 1. */
ZEL_API bool StringExistInArray(const char *text, char **array, int count);

ZEL_EXTERN_C_END

#endif /* ZEL_CONFIGSTORE_H */
