// Health checks and network resource pools (kinds 11, 12, 13 and 36).
//
// Values (packed, little-endian):
//  - health check: enable byte at 0, u32 interval at 1 (5 bytes);
//  - pool configuration: u32 count, then count records of 212 bytes: pool
//    key text in 128 bytes at 0, u32 reservation at the unaligned offset
//    129, u32 shares at 200, s32 limit at 204; the other bytes are not
//    stored and load as zero;
//  - pool key list: u32 count, then count slots of 200 bytes, each one key
//    text.
//
// Decisions of our own:
//  - The health-check enable flag is "enabled" in both directions.
//  - Values are not trusted on saving: a health check shorter than 5 bytes,
//    a value without its count, and a count claiming more records or slots
//    than the value holds are refused with kFailure before anything is
//    written.  A pool key is read up to 127 characters (its slot keeps room
//    for the NUL), a list key up to 199; a record with an empty pool key is
//    refused, since an empty instance id would address a singleton instead
//    of an instance.
//  - On loading, keys longer than 127 characters are cut to 127.
//  - The health-check value lives on the stack, so its load has no
//    allocation to fail.
#include "configstore/policy/resource_pools.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "configstore/kinds.h"
#include "configstore/policy/opaque_instances.h"
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

namespace {

constexpr const char *kVlanMtuCheck = "com.zorlan.common.vlanmtucheck.deploy";
constexpr const char *kTeamingCheck = "com.zorlan.common.teamcheck.deploy";
constexpr const char *kEnableField = "enabled";
constexpr const char *kTrafficResources = "traffic_resources";

constexpr uint32_t kHealthCheckSize = 5;
constexpr size_t kIntervalOffset = 1;

constexpr uint32_t kCountSize = sizeof(uint32_t);
constexpr uint32_t kPoolRecordSize = 212;
constexpr size_t kPoolKeySize = 128;
constexpr size_t kReservationOffset = 129;
constexpr size_t kSharesOffset = 200;
constexpr size_t kLimitOffset = 204;
constexpr uint32_t kKeySlotSize = 200;
constexpr size_t kMaxLoadedKey = 127;



// The health check's instance id of "health_checks", or null.
const char *HealthCheckId(const char *name) {
  if (std::strcmp(name, kVlanMtuCheck) == 0) {
    return "VLAN_MTU";
  }
  if (std::strcmp(name, kTeamingCheck) == 0) {
    return "TEAMING";
  }
  return nullptr;
}

// The record count of a counted value whose records are `size` bytes.
// False when the value has no count or fewer records than it claims.
bool CountedRecords(const SaveArgs &a, uint32_t size, uint32_t *count) {
  if (a.value == nullptr || a.length < kCountSize) {
    return false;
  }
  *count = ReadU32At(a.value);
  if (*count > (a.length - kCountSize) / size) {
    CS_ERROR("Prop: %s holds %u of its %u records\n", a.name, (a.length - kCountSize) / size,
             *count);
    return false;
  }
  return true;
}

// --- kind 11 ---

uint32_t SaveHealthCheck(const SaveArgs &a) {
  const char *id = HealthCheckId(a.name);
  if (id == nullptr) {
    CS_ERROR("Unknown health check type %s\n", a.name);
    return kFailure;
  }
  if (a.value == nullptr || a.length < kHealthCheckSize) {
    return kFailure;
  }
  cs::Object *check = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, id, &check); s != 0) {
    return s;
  }
  if (int s = cs::SetValueBool(check, kEnableField, a.value[0] != 0); s != cs::kOk) {
    return Status(s);
  }
  return Status(cs::SetValueUint32(check, "interval", ReadU32At(a.value + kIntervalOffset)));
}

uint32_t LoadHealthCheck(const LoadArgs &a) {
  const char *id = HealthCheckId(a.name);
  if (id == nullptr) {
    return kFailure;
  }
  cs::Object *check = nullptr;
  if (int s = cs::GetSubObject(a.parent, a.key, id, &check); s != cs::kOk) {
    return s == cs::kNotFound ? 0 : Status(s);
  }
  uint8_t value[kHealthCheckSize] = {};
  uint8_t enabled = 0;
  if (cs::GetValueBool(check, kEnableField, &enabled) == cs::kOk) {
    value[0] = enabled != 0 ? 1 : 0;
  }
  uint32_t interval = 0;
  if (cs::GetValueUint32(check, "interval", &interval) == cs::kOk) {
    WriteU32At(value + kIntervalOffset, interval);
  }
  return ZELData_Update(a.list, a.name, value, sizeof value, a.propType);
}

// --- kind 12 ---

uint32_t SavePool(cs::Object *pools, const char *listName, const uint8_t *record) {
  const auto *text = reinterpret_cast<const char *>(record);
  const std::string key(text, strnlen(text, kPoolKeySize - 1));
  if (key.empty()) {
    return kFailure;
  }
  cs::Object *pool = nullptr;
  cs::Object *allocation = nullptr;
  cs::Object *shares = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, pools, listName, key.c_str(), &pool); s != 0) {
    return s;
  }
  if (uint32_t s = GetOrCreateSubObject(true, pool, "allocation", "", &allocation); s != 0) {
    return s;
  }
  if (int s = cs::SetValueUint32(allocation, "reservation", ReadU32At(record + kReservationOffset));
      s != cs::kOk) {
    return Status(s);
  }
  if (uint32_t s = GetOrCreateSubObject(true, allocation, "shares", "", &shares); s != 0) {
    return s;
  }
  if (int s = cs::SetValueUint32(shares, "shares", ReadU32At(record + kSharesOffset)); s != cs::kOk) {
    return Status(s);
  }
  const auto limit = static_cast<int32_t>(ReadU32At(record + kLimitOffset));
  return Status(cs::SetValueInt(allocation, "limit", limit));
}

uint32_t SaveResourcePools(const SaveArgs &a) {
  uint32_t count = 0;
  if (!CountedRecords(a, kPoolRecordSize, &count)) {
    return kFailure;
  }
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t *record = a.value + kCountSize + size_t{i} * kPoolRecordSize;
    if (uint32_t s = SavePool(a.parent, a.key, record); s != 0) {
      return s;
    }
  }
  return 0;
}

// Copies a loaded key into a zeroed slot, cut to kMaxLoadedKey characters.
void CopyKey(uint8_t *slot, const char *key) {
  if (key != nullptr) {
    std::memcpy(slot, key, strnlen(key, kMaxLoadedKey));
  }
}

// Fills one zeroed record from a pool instance; fields that cannot be read
// stay zero.
void ReadPool(cs::Object *pool, uint8_t *record) {
  char *key = nullptr;
  if (cs::GetValueStr(pool, "key", &key) == cs::kOk) {
    CopyKey(record, key);
  }
  std::free(key);
  cs::Object *allocation = nullptr;
  if (cs::GetSubObject(pool, "allocation", "", &allocation) != cs::kOk) {
    return;
  }
  int32_t limit = 0;
  if (cs::GetValueInt(allocation, "limit", &limit) == cs::kOk) {
    WriteU32At(record + kLimitOffset, static_cast<uint32_t>(limit));
  }
  uint32_t reservation = 0;
  if (cs::GetValueUint32(allocation, "reservation", &reservation) == cs::kOk) {
    WriteU32At(record + kReservationOffset, reservation);
  }
  cs::Object *shares = nullptr;
  uint32_t value = 0;
  if (cs::GetSubObject(allocation, "shares", "", &shares) == cs::kOk &&
      cs::GetValueUint32(shares, "shares", &value) == cs::kOk) {
    WriteU32At(record + kSharesOffset, value);
  }
}

uint32_t LoadResourcePools(const LoadArgs &a) {
  return LoadTrafficResources(a.parent, a.list, kTrafficResources, a.name, a.propType);
}

// --- kind 13 ---

uint32_t SavePoolKeys(const SaveArgs &a) {
  uint32_t count = 0;
  if (!CountedRecords(a, kKeySlotSize, &count)) {
    return kFailure;
  }
  if (count == 0) {
    return 0;
  }
  cs::SetValueEmptyList(a.parent, a.key);
  for (uint32_t i = 0; i < count; ++i) {
    const auto *text = reinterpret_cast<const char *>(a.value + kCountSize + i * kKeySlotSize);
    const std::string key(text, strnlen(text, kKeySlotSize - 1));
    if (int s = cs::AppendValueString(a.parent, a.key, key.c_str()); s != cs::kOk) {
      return Status(s);
    }
  }
  return 0;
}

uint32_t LoadPoolKeys(const LoadArgs &a) {
  char **keys = nullptr;
  int count = 0;
  const int status = cs::GetValueStringArray(a.parent, a.key, &keys, &count);
  struct Release {
    char ***keys;
    int *count;
    ~Release() { cs::DestroyStringArrayValue(keys, *count); }
  } release{&keys, &count};
  if (status != cs::kOk) {
    return status == cs::kNotFound ? 0 : Status(status);
  }
  if (count < 1) {
    return 0;
  }
  const auto n = static_cast<uint32_t>(count);
  uint8_t *value = nullptr;
  if (n <= (UINT32_MAX - kCountSize) / kKeySlotSize) {
    value = static_cast<uint8_t *>(std::calloc(1, kCountSize + size_t{n} * kKeySlotSize));
  }
  if (value == nullptr) {
    CS_ERROR("Failed to alloc memory for ZELPropResPoolsList");
    return 0;
  }
  WriteU32At(value, n);
  for (uint32_t i = 0; i < n; ++i) {
    CopyKey(value + kCountSize + i * kKeySlotSize, keys[i]);
  }
  const uint32_t result =
      ZELData_Update(a.list, a.name, value, kCountSize + n * kKeySlotSize, a.propType);
  std::free(value);
  return result;
}

// --- kind 36 ---

// The port's copy is written by no one: the switch's pool configuration is
// the one stored.  Its load runs from the dispatcher for uplink ports only,
// with the switch's "resource_management" object as parent.
uint32_t SavePortPools(const SaveArgs & /*a*/) { return 0; }

}  // namespace

uint32_t LoadTrafficResources(cs::Object *object, PropertyList *list, const char *listName,
                              const char *name, uint32_t propType) {
  Instances pools;
  const int status = ListInstances(object, listName, pools);
  if (status == cs::kNotFound || (status == cs::kOk && pools.items == nullptr)) {
    return 0;
  }
  if (status != cs::kOk) {
    return Status(status);
  }
  const auto n = static_cast<uint32_t>(pools.count);
  uint8_t *value = nullptr;
  if (pools.count > 0 && n <= (UINT32_MAX - kCountSize) / kPoolRecordSize) {
    value = static_cast<uint8_t *>(std::calloc(1, kCountSize + size_t{n} * kPoolRecordSize));
  }
  if (value == nullptr) {
    CS_ERROR("Failed to alloc memory for ZELPropResPoolsCfg");
    return kFailure;
  }
  WriteU32At(value, n);
  for (uint32_t i = 0; i < n; ++i) {
    ReadPool(pools.items[i], value + kCountSize + i * kPoolRecordSize);
  }
  const uint32_t result =
      ZELData_Update(list, name, value, kCountSize + n * kPoolRecordSize, propType);
  std::free(value);
  return result;
}

void RegisterResourcePoolKinds(KindTable &table) {
  table.Add(kKindHealthChecks, SaveHealthCheck, LoadHealthCheck);
  table.Add(kKindResourcePools, SaveResourcePools, LoadResourcePools);
  table.Add(kKindResourcePoolKeys, SavePoolKeys, LoadPoolKeys);
  table.Add(kKindPortResourcePools, SavePortPools, LoadResourcePools);
}

}  // namespace zel::persist::policy
