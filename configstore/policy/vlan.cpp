// VLAN and private-VLAN settings: a port's VLAN policy (kinds 24 and 25,
// the singleton "vlan" under the port's "settings") and a switch's
// private-VLAN map (kinds 6 and 7, the list "pvlans" under "settings").
//
// Port VLAN policy: u16 flags (bit 0 trunk, bit 1 private VLAN), u16 VLAN
// id, u16 reserved, u16 range count, then the trunk ranges (u16 start, u16
// end).  Stored as "vlan_id", "pvlan_id" or the "trunk_vlan_ids" instances.
// Kind 24 saves on every switch and loads only on switches that are neither
// vswitch nor cswitch; kind 25 saves and loads only on vswitch and cswitch
// switches.
//
// Private-VLAN map: 8-byte entries (u16 primary, u16 secondary, u8 type, 3
// reserved bytes), as many as whole entries fit the value.  Both kinds save
// alike; the load gives the map to the vswitch property on a "cswitch"
// switch or one of version code 107, else to the etherswitch property.
//
// Values are not trusted:
//   - a port value shorter than 8 bytes, or a trunk shorter than its ranges,
//     is refused (kFailure) before anything is written;
//   - a map entry whose type has no name (0 or above 3) refuses the whole
//     map before anything is written;
//   - a trunk loads at most 65535 ranges (what the u16 count can say); the
//     instances after that are not read.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "configstore/policy/policy.h"

const char *const PVLAN_2_CHARS[5] = {nullptr, "PROMISCUOUS", "ISOLATED", "COMMUNITY", nullptr};
const int32_t CHARS_2_PVLAN[5] = {-1, 1, 2, 3, -1};

namespace zel::persist::policy {

namespace {

constexpr uint16_t kTrunk = 0x1;
constexpr uint16_t kPrivate = 0x2;
constexpr uint32_t kHeaderSize = 8;
constexpr uint32_t kRangeSize = 4;
constexpr uint32_t kMaxRanges = UINT16_MAX;
constexpr uint32_t kEntrySize = 8;

constexpr const char *kTrunkIds = "trunk_vlan_ids";
constexpr const char *kEtherPvlanMap = "com.zorlan.etherswitch.pvlanMap";
constexpr const char *kVswitchPvlanMap = "com.zorlan.vswitch.pvlanMap";


uint16_t ReadU16(const uint8_t *at) {
  uint16_t v = 0;
  std::memcpy(&v, at, sizeof v);
  return v;
}

void WriteU16(uint8_t *at, uint16_t v) { std::memcpy(at, &v, sizeof v); }

// Releases what a load holds on every path.
struct Held {
  cs::Filter *filter = nullptr;
  cs::Object **instances = nullptr;
  uint8_t *value = nullptr;
  char *text = nullptr;
  ~Held() {
    std::free(text);
    std::free(value);
    std::free(instances);
    if (filter != nullptr) {
      cs::DestroyFilterSpecObject(filter);
    }
  }
};

// Creates a new instance of the list `list` under parent and hands it to
// fill; the instance id is released on every path.
template <typename Fill>
uint32_t AddInstance(cs::Object *parent, const char *list, Fill fill) {
  char *id = nullptr;
  if (int s = cs::GenerateInstanceId(&id); s != cs::kOk) {
    return Status(s);
  }
  cs::Object *instance = nullptr;
  uint32_t status = GetOrCreateSubObject(true, parent, list, id, &instance);
  std::free(id);
  return status != 0 ? status : fill(instance);
}

// --- port VLAN policy ---

uint32_t SavePortVlan(const SaveArgs &a, bool vswitch) {
  if (vswitch && currentSwitchClass == kClassOther) {
    return 0;
  }
  if (a.value == nullptr || a.length < kHeaderSize) {
    CS_ERROR("Prop: %s is %u bytes, a VLAN policy needs %u\n", a.name, a.length, kHeaderSize);
    return kFailure;
  }
  const uint16_t flags = ReadU16(a.value);
  const uint16_t vlanId = ReadU16(a.value + 2);
  const uint32_t ranges = ReadU16(a.value + 6);
  if ((flags & kTrunk) != 0 && a.length < kHeaderSize + kRangeSize * ranges) {
    CS_ERROR("Prop: %s is %u bytes, too short for its %u trunk ranges\n", a.name, a.length,
             ranges);
    return kFailure;
  }
  cs::Object *vlan = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, nullptr, &vlan); s != 0) {
    return s;
  }
  if (int s = cs::SetValueEmptyList(vlan, kTrunkIds); s != cs::kOk) {
    return Status(s);
  }
  if ((flags & kTrunk) == 0) {
    const char *key = (flags & kPrivate) != 0 ? "pvlan_id" : "vlan_id";
    return Status(cs::SetValueUint16(vlan, key, vlanId));
  }
  for (uint32_t i = 0; i < ranges; ++i) {
    const uint8_t *range = a.value + kHeaderSize + kRangeSize * i;
    const uint32_t status = AddInstance(vlan, kTrunkIds, [range](cs::Object *instance) {
      int s = cs::SetValueUint16(instance, "start", ReadU16(range));
      if (s == cs::kOk) {
        s = cs::SetValueUint16(instance, "end", ReadU16(range + 2));
      }
      return Status(s);
    });
    if (status != 0) {
      return status;
    }
  }
  return 0;
}

uint32_t SaveEtherPortVlan(const SaveArgs &a) { return SavePortVlan(a, false); }
uint32_t SaveVswitchPortVlan(const SaveArgs &a) { return SavePortVlan(a, true); }

uint32_t LoadPortVlan(const LoadArgs &a, bool vswitch) {
  if (vswitch == (currentSwitchClass == kClassOther)) {
    return 0;  // the row of the other switch classes
  }
  cs::Object *vlan = nullptr;
  if (cs::GetSubObject(a.parent, a.key, "", &vlan) != cs::kOk || vlan == nullptr) {
    return 0;
  }
  Held held;
  if (int s = cs::CreateFilterSpecObject(kTrunkIds, "", "", "", &held.filter); s != cs::kOk) {
    return Status(s);
  }
  if (held.filter == nullptr && vswitch) {
    return 0;
  }
  int count = 0;
  if (held.filter == nullptr ||
      cs::GetSubObjectInstances(vlan, held.filter, &held.instances, &count) != cs::kOk) {
    count = 0;
  }
  const uint32_t ranges = count > 0 ? std::min(static_cast<uint32_t>(count), kMaxRanges) : 0;
  const uint32_t length = kHeaderSize + kRangeSize * ranges;
  held.value = static_cast<uint8_t *>(std::calloc(1, length));
  if (held.value == nullptr) {
    CS_ERROR("Failed to alloc memory for %s", vswitch ? "VSPortVlanPolicy" : "ESPortVlanPolicy");
    return vswitch ? kFailure : 0;
  }
  if (ranges > 0) {
    WriteU16(held.value, kTrunk);
    WriteU16(held.value + 6, static_cast<uint16_t>(ranges));
    for (uint32_t i = 0; i < ranges; ++i) {
      uint8_t *range = held.value + kHeaderSize + kRangeSize * i;
      uint16_t v = 0;
      if (cs::GetValueUint16(held.instances[i], "start", &v) == cs::kOk) WriteU16(range, v);
      v = 0;
      if (cs::GetValueUint16(held.instances[i], "end", &v) == cs::kOk) WriteU16(range + 2, v);
    }
  } else {
    uint16_t id = 0;
    if (cs::GetValueUint16(vlan, "pvlan_id", &id) == cs::kOk) {
      WriteU16(held.value, kPrivate);
    } else if (cs::GetValueUint16(vlan, "vlan_id", &id) != cs::kOk) {
      id = 0;
    }
    WriteU16(held.value + 2, id);
  }
  return ZELData_Update(a.list, a.name, held.value, length, a.propType);
}

uint32_t LoadEtherPortVlan(const LoadArgs &a) { return LoadPortVlan(a, false); }
uint32_t LoadVswitchPortVlan(const LoadArgs &a) { return LoadPortVlan(a, true); }

// --- private-VLAN map ---

bool PvlanTypeFromName(const char *name, uint8_t *type) {
  const int i = StringIndexInArray(name, PVLAN_2_CHARS);
  if (i < 0) {
    CS_ERROR("Unknown PvlanType %s\n", name != nullptr ? name : "");
    return false;
  }
  *type = static_cast<uint8_t>(CHARS_2_PVLAN[i]);
  return true;
}

const char *PvlanTypeName(uint8_t type) {
  return type > 0 && type < 4 ? PVLAN_2_CHARS[type] : nullptr;
}

uint32_t SavePvlanMap(const SaveArgs &a) {
  const uint32_t count = a.value != nullptr ? a.length / kEntrySize : 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (const uint8_t type = a.value[i * kEntrySize + 4]; PvlanTypeName(type) == nullptr) {
      CS_ERROR("Prop: %s entry %u has the unknown PvlanType %u\n", a.name, i, type);
      return kFailure;
    }
  }
  if (int s = cs::SetValueEmptyList(a.parent, a.key); s != cs::kOk) {
    return Status(s);
  }
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t *entry = a.value + i * kEntrySize;
    const uint32_t status = AddInstance(a.parent, a.key, [entry](cs::Object *instance) {
      int s = cs::SetValueUint16(instance, "primary_id", ReadU16(entry));
      if (s == cs::kOk) {
        s = cs::SetValueUint16(instance, "secondary_id", ReadU16(entry + 2));
      }
      if (s == cs::kOk) {
        s = cs::SetValueStr(instance, "type", PvlanTypeName(entry[4]));
      }
      return Status(s);
    });
    if (status != 0) {
      return status;
    }
  }
  return 0;
}

uint32_t LoadPvlanMap(const LoadArgs &a) {
  Held held;
  if (uint32_t s = GetForwardingClass(a.object, &held.text); s != 0) {
    return s;
  }
  uint32_t version = 0;
  if (GetConfigSwitchVersion(a.object, &version) != 0) {
    return kFailure;
  }
  const bool vswitch = std::strcmp(held.text, "cswitch") == 0 || version == 107;
  if (std::strcmp(a.name, vswitch ? kVswitchPvlanMap : kEtherPvlanMap) != 0) {
    return 0;  // the map belongs to the other row
  }
  if (int s = cs::CreateFilterSpecObject(a.key, "", "", "", &held.filter); s != cs::kOk) {
    return Status(s);
  }
  int count = 0;
  if (int s = cs::GetSubObjectInstances(a.parent, held.filter, &held.instances, &count);
      s != cs::kOk) {
    return s == cs::kNotFound ? 0 : Status(s);
  }
  if (count <= 0) {
    return 0;
  }
  if (static_cast<uint32_t>(count) <= UINT32_MAX / kEntrySize) {
    held.value = static_cast<uint8_t *>(std::calloc(static_cast<size_t>(count), kEntrySize));
  }
  if (held.value == nullptr) {
    CS_ERROR("Failed to alloc memory for %s", vswitch ? "VSPvlanMapEntry" : "ESPvlanMapEntry");
    return kFailure;
  }
  for (int i = 0; i < count; ++i) {
    uint8_t *entry = held.value + static_cast<size_t>(i) * kEntrySize;
    uint16_t primary = 0;
    uint16_t secondary = 0;
    char *typeName = nullptr;
    if (int s = cs::GetValueUint16(held.instances[i], "primary_id", &primary); s != cs::kOk) {
      return Status(s);
    }
    if (int s = cs::GetValueUint16(held.instances[i], "secondary_id", &secondary); s != cs::kOk) {
      return Status(s);
    }
    if (int s = cs::GetValueStr(held.instances[i], "type", &typeName); s != cs::kOk) {
      return Status(s);
    }
    const bool known = PvlanTypeFromName(typeName, entry + 4);
    std::free(typeName);
    if (!known) {
      return kFailure;
    }
    WriteU16(entry, primary);
    WriteU16(entry + 2, secondary);
  }
  return ZELData_Update(a.list, a.name, held.value, static_cast<uint32_t>(count) * kEntrySize,
                        a.propType);
}

}  // namespace

void RegisterVlanKinds(KindTable &table) {
  table.Add(kKindEtherPvlanMap, SavePvlanMap, LoadPvlanMap);
  table.Add(kKindVswitchPvlanMap, SavePvlanMap, LoadPvlanMap);
  table.Add(kKindEtherPortVlan, SaveEtherPortVlan, LoadEtherPortVlan);
  table.Add(kKindVswitchPortVlan, SaveVswitchPortVlan, LoadVswitchPortVlan);
}

}  // namespace zel::persist::policy
