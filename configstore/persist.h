// Shared internals of the configuration-store persistence: the switch-object
// address, the library-wide variables the conversions read, the path helpers
// of the mapping tables, and the two dispatchers.
//
// Statuses are u32: 0 success, kFailure (0xFFFFFFFF) for this code's own
// failures, otherwise a configuration-store status passed through (6 means
// that the object or value does not exist).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "host/configstore_client.h"
#include "host/diag.h"
#include "zel/configstore.h"
#include "zel/data.h"

// Failures print when zelconfigstore_debug >= 0, traces when it is > 0.
#define CS_ERROR(...) ::zel::host::DiagPrint(zelconfigstore_debug, 0, __VA_ARGS__)
#define CS_TRACE(...) ::zel::host::DiagPrint(zelconfigstore_debug, 1, __VA_ARGS__)

namespace zel::persist {

namespace cs = zel::cfgstore;

inline constexpr uint32_t kFailure = ZEL_CONFIGSTORE_FAILURE;

// A configuration-store status as the u32 the conversions return.
inline uint32_t Status(int status) { return static_cast<uint32_t>(status); }

// Little-endian numbers at any (possibly unaligned) offset of a record.
inline uint32_t ReadU32At(const uint8_t *p) {
  uint32_t v = 0;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline uint16_t ReadU16At(const uint8_t *p) {
  uint16_t v = 0;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void WriteU32At(uint8_t *p, uint32_t v) { std::memcpy(p, &v, sizeof v); }
inline void WriteU16At(uint8_t *p, uint16_t v) { std::memcpy(p, &v, sizeof v); }
inline constexpr uint32_t kAbsent = static_cast<uint32_t>(cs::kNotFound);

// Table indices of zelConfigMaps.
inline constexpr uint32_t kTableGlobal = 0;
inline constexpr uint32_t kTableHost = 1;
inline constexpr uint32_t kTablePort = 2;
inline constexpr uint32_t kNumTables = 3;

// Property type of every property a load creates.
inline constexpr uint32_t kLibraryType = ZELDATA_PROPTYPE_LIBRARY;
// A property is saved only when its type has one of these bits.
inline constexpr uint32_t kPersistTypeBits = 0x18;

// Selectors of every switch object; its instance id is the switch id.
inline constexpr const char *kSwitchSel1 = "switches";
inline constexpr const char *kSwitchSel2 = "network_zel";
inline constexpr const char *kSwitchSel3 = "orn";

// Switch classes as the class-dependent conversions see them.
inline constexpr int32_t kClassOther = 0;
inline constexpr int32_t kClassVswitch = 1;
inline constexpr int32_t kClassCswitch = 2;
int32_t ClassCode(const char *className);

// Set per switch by the save (class and QOR flag) and by the load (class);
// configStoreTimeMs sums the store time of the current save.  No lock: a
// save and a load must not run at the same time.
extern int32_t currentSwitchClass;
extern bool currentSwitchIsQor;
extern int64_t configStoreTimeMs;

// Monotonic clock in whole milliseconds.
int64_t NowMs();

// --- mapping tables ---

// The row that saves a property: the first row carrying the name, else the
// table's catch-all row.  Null for an unknown table index.
const PropToConfigEntry *FindRow(uint32_t tableIndex, const char *name);
// The row's last path component: the key of its value.
const char *RowKey(const PropToConfigEntry &row);
// The sub-object `name` (a singleton when instanceId is null or "") of
// parent, created when absent and `create` is set.  *child is null unless 0
// is returned.
uint32_t GetOrCreateSubObject(bool create, cs::Object *parent, const char *name,
                              const char *instanceId, cs::Object **child);
// The parent object of a row's key: owner for depth 0 or 1, else the
// singleton sub-objects named by the first depth - 1 components.  *parent is
// written only on success.
uint32_t ResolvePropPath(const char (*path)[ZEL_CONFIG_PATH_SIZE], uint32_t depth,
                         cs::Object *owner, cs::Object **parent, bool create);
// Position of name in a table of `size` entries that may start with null
// entries (values without a name) and ends at the first null entry after a
// non-null one; -1 when absent, also for a table of null entries only.
int StringIndexInArray(const char *name, const char *const *table, size_t size);
template <size_t N>
int StringIndexInArray(const char *name, const char *const (&table)[N]) {
  return StringIndexInArray(name, table, N);
}

// --- dispatchers ---

// Saves one property into `object` (the switch object for tables 0 and 1,
// the port's element for table 2).  Properties whose type lacks both
// kPersistTypeBits are passed over.
uint32_t SavePropToConfigStore(cs::Object *object, const char *name, const void *value,
                               uint32_t length, uint32_t tableIndex, uint32_t propType);
// Walks every row of a table over `object`, and adds the properties found,
// serialized with `version`, to switchList under listName.  For an uplink
// port, resourceManagement is the switch's "resource_management" object.
uint32_t LoadPropsFromConfigStore(const char *listName, cs::Object *object,
                                  PropertyList *switchList, uint32_t tableIndex, uint32_t version,
                                  cs::Object *resourceManagement);

// --- switch-level readers ---

// The switch's "product"/"forwarding_class" text (malloc'ed; caller frees).
uint32_t GetForwardingClass(cs::Object *switchObject, char **className);
// The version code from "product"/"version" and "qor_enabled".
uint32_t GetConfigSwitchVersion(cs::Object *switchObject, uint32_t *version);

namespace testing {
// Allocator of the property lists a load builds (and of the blob it hands
// back); null functions restore malloc and free.
void SetLoadAllocator(ZELDataAllocFn allocFn, ZELDataFreeFn freeFn);
}  // namespace testing

}  // namespace zel::persist
