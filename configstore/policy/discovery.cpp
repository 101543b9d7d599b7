// Link discovery, LACP and IPFIX (kinds 8, 10, 16 and 35): four small switch
// and port policies, each a packed little-endian record, converted to and
// from a sub-object of "settings".
//
//   kind 8   LinkDiscoveryConfig  2 bytes: protocol u8, operation u8
//   kind 16  LACPTable            u32 count, then 93-byte groups: name[65],
//                                 key[16], mode u32, algorithm u32, uplinks u32
//                                 (the u32 fields are unaligned)
//   kind 35  LacpPortPolicy       8 bytes: enabled u8, 3 reserved, mode u32
//   kind 10  IpfixSettings        36 bytes (layout at the IPFIX offsets below)
//
// Values are not trusted: a value shorter than its layout needs (for kind 16,
// than its count of groups needs) is refused with kFailure and nothing is
// written.  A number without a name (a protocol above 1, an operation above
// 3, a mode outside 0-2 such as the -1 of an unknown loaded mode, an
// algorithm above 20) is written as its decimal text, which loads back as an
// unknown name.  A group without a key cannot be addressed and is refused.
// Loaded group names and keys are cut to 64 and 15 characters; a missing
// collector address leaves the address zero (IPv4).
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "configstore/policy/discovery_fields.h"
#include "configstore/policy/policy.h"

ZEL_EXTERN_C_BEGIN

const char *const CDP_MODE_2_CHARS[3] = {"CDP", "LLDP", nullptr};
const uint32_t CHARS_2_CDP_MODE[3] = {0, 1, 2};
const char *const CDP_OPERATION_2_CHARS[5] = {"NONE", "LISTEN", "ADVERTISE", "BOTH", nullptr};
const uint32_t CHARS_2_CDP_OPERATION[5] = {0, 1, 2, 3, 4};
const char *const LACP_MODE_2_CAHRS[4] = {"NONE", "ACTIVE", "PASSIVE", nullptr};
const char *const LACP_LB_POLICY_SCHEMA[22] = {
    "NONE",          "DSTMAC",
    "SRCMAC",        "SRCMAC_DSTMAC",
    "DSTIP",         "SRCIP",
    "SRCIP_DSTIP",   "VLAN",
    "DSTIP_VLAN",    "SRCIP_VLAN",
    "SRCIP_DSTIP_VLAN", "DSTPORT",
    "SRCPORT",       "SRCPORT_DSTPORT",
    "DSTIP_DSTPORT", "SRCIP_SRCPORT",
    "SRCIP_DSTIP_SRCPORT_DSTPORT", "DSTIP_DSTPORT_VLAN",
    "SRCIP_SRCPORT_VLAN", "SRCIP_DSTIP_SRCPORT_DSTPORT_VLAN",
    "SRCID",         nullptr,
};

ZEL_EXTERN_C_END

namespace zel::persist::policy {

namespace {

constexpr size_t kProtocolNames = 2;
constexpr size_t kOperationNames = 4;
constexpr size_t kModeNames = 3;
constexpr size_t kAlgorithmNames = 21;

// LinkDiscoveryConfig.
constexpr uint32_t kDiscoverySize = 2;

// LACPTable.
constexpr uint32_t kGroupSize = 93;
constexpr size_t kGroupName = 0, kGroupNameSlot = 65;
constexpr size_t kGroupKey = 65, kGroupKeySlot = 16;
constexpr size_t kGroupMode = 81, kGroupAlgorithm = 85, kGroupUplinks = 89;

// LacpPortPolicy.
constexpr uint32_t kPortPolicySize = 8;

// IpfixSettings.
constexpr uint32_t kIpfixSize = 36;
constexpr size_t kIdleTimeout = 0, kActiveTimeout = 4, kCollector = 8, kCollectorPort = 24,
                 kSamplingRate = 26, kInternalOnly = 30, kCollectorIsV6 = 31, kDomainId = 32;


bool LongEnough(const SaveArgs &a, uint64_t needed) {
  if (a.value != nullptr && a.length >= needed) return true;
  CS_ERROR("Prop: %s is %u bytes, needs %llu\n", a.name, a.length,
           static_cast<unsigned long long>(needed));
  return false;
}

uint32_t Add(const LoadArgs &a, const void *bytes, uint32_t length) {
  return ZELData_Update(a.list, a.name, bytes, length, a.propType);
}

// A text from the store, freed on scope exit.
struct Text {
  char *text = nullptr;
  ~Text() { std::free(text); }
};

// Position of name among the first `count` names of table, else `unknown`.
uint32_t IndexOr(const char *name, const char *const *table, size_t count, uint32_t unknown) {
  const int i = StringIndexInArray(name, table, count);
  return i < 0 ? unknown : static_cast<uint32_t>(i);
}

uint32_t LacpModeFromName(const char *name) {
  const int i = StringIndexInArray(name, LACP_MODE_2_CAHRS);
  if (i < 0) {
    CS_ERROR("Unknown lacp mode %s\n", name);
    return UINT32_MAX;
  }
  return static_cast<uint32_t>(i);
}

// --- kind 8: link discovery ---

uint32_t SaveLinkDiscovery(const SaveArgs &a) {
  if (!LongEnough(a, kDiscoverySize)) return kFailure;
  cs::Object *obj = nullptr;
  if (GetOrCreateSubObject(true, a.parent, a.key, nullptr, &obj) != 0 || obj == nullptr) {
    return kFailure;
  }
  char spare[12];
  const char *protocol = NameOrNumber(CDP_MODE_2_CHARS, kProtocolNames, a.value[0], spare);
  if (int s = cs::SetValueStr(obj, "protocol", protocol); s != cs::kOk) return Status(s);
  const char *operation = NameOrNumber(CDP_OPERATION_2_CHARS, kOperationNames, a.value[1], spare);
  return Status(cs::SetValueStr(obj, "operation", operation));
}

uint32_t LoadLinkDiscovery(const LoadArgs &a) {
  cs::Object *obj = nullptr;
  if (int s = cs::GetSubObject(a.parent, a.key, "", &obj); s != cs::kOk) {
    return s == cs::kNotFound ? 0 : Status(s);
  }
  Text protocol, operation;
  if (int s = cs::GetValueStr(obj, "protocol", &protocol.text); s != cs::kOk) return Status(s);
  if (int s = cs::GetValueStr(obj, "operation", &operation.text); s != cs::kOk) return Status(s);
  const uint8_t value[kDiscoverySize] = {
      static_cast<uint8_t>(CHARS_2_CDP_MODE[IndexOr(protocol.text, CDP_MODE_2_CHARS, 3, 2)]),
      static_cast<uint8_t>(
          CHARS_2_CDP_OPERATION[IndexOr(operation.text, CDP_OPERATION_2_CHARS, 5, 4)]),
  };
  return Add(a, value, sizeof value);
}

// --- kind 16: LACP groups ---

uint32_t SaveLacpGroups(const SaveArgs &a) {
  if (!LongEnough(a, sizeof(uint32_t))) return kFailure;
  const uint32_t count = ReadU32At(a.value);
  if (!LongEnough(a, sizeof(uint32_t) + uint64_t{count} * kGroupSize)) return kFailure;
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t *g = a.value + sizeof(uint32_t) + size_t{i} * kGroupSize;
    const std::string key = SlotText(g + kGroupKey, kGroupKeySlot);
    if (key.empty()) {
      CS_ERROR("Prop: %s: LACP group %u has no key\n", a.name, i);
      return kFailure;
    }
    cs::Object *obj = nullptr;
    if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, key.c_str(), &obj); s != 0) {
      return s;
    }
    char spare[12];
    const std::string name = SlotText(g + kGroupName, kGroupNameSlot);
    if (int s = cs::SetValueStr(obj, "name", name.c_str()); s != cs::kOk) return Status(s);
    const char *mode = NameOrNumber(LACP_MODE_2_CAHRS, kModeNames, ReadU32At(g + kGroupMode), spare);
    if (int s = cs::SetValueStr(obj, "mode", mode); s != cs::kOk) return Status(s);
    const char *algorithm = NameOrNumber(LACP_LB_POLICY_SCHEMA, kAlgorithmNames,
                                         ReadU32At(g + kGroupAlgorithm), spare);
    if (int s = cs::SetValueStr(obj, "load_balance_algorithm", algorithm); s != cs::kOk) {
      return Status(s);
    }
    if (int s = cs::SetValueUint32(obj, "uplink_num", ReadU32At(g + kGroupUplinks)); s != cs::kOk) {
      return Status(s);
    }
  }
  return 0;
}

// Fills one group from its instance; a missing "uplink_num" fails.
uint32_t LoadLacpGroup(cs::Object *obj, uint8_t *g) {
  Text name, key, mode, algorithm;
  if (cs::GetValueStr(obj, "name", &name.text) == cs::kOk) {
    CopyToSlot(g + kGroupName, kGroupNameSlot, name.text);
  }
  if (cs::GetValueStr(obj, "key", &key.text) == cs::kOk) {
    CopyToSlot(g + kGroupKey, kGroupKeySlot, key.text);
  }
  if (cs::GetValueStr(obj, "mode", &mode.text) == cs::kOk) {
    WriteU32At(g + kGroupMode, LacpModeFromName(mode.text));
  }
  if (cs::GetValueStr(obj, "load_balance_algorithm", &algorithm.text) == cs::kOk) {
    const int i = StringIndexInArray(algorithm.text, LACP_LB_POLICY_SCHEMA);
    if (i < 0) CS_ERROR("Unknown lacp lb policy %s\n", algorithm.text);
    WriteU32At(g + kGroupAlgorithm, static_cast<uint32_t>(i));
  }
  uint32_t uplinks = 0;
  if (int s = cs::GetValueUint32(obj, "uplink_num", &uplinks); s != cs::kOk) return Status(s);
  WriteU32At(g + kGroupUplinks, uplinks);
  return 0;
}

uint32_t LoadLacpGroups(const LoadArgs &a) {
  Instances groups;
  if (uint32_t s = ListInstances(a.parent, a.key, &groups); s != 0) return s;
  const int count = groups.count;
  if (count < 1) return 0;

  const uint64_t length = sizeof(uint32_t) + uint64_t(count) * kGroupSize;
  auto *value = length <= UINT32_MAX ? static_cast<uint8_t *>(std::calloc(1, length)) : nullptr;
  if (value == nullptr) {
    CS_ERROR("Failed to alloc memory for LACPTable");
    return kFailure;
  }
  WriteU32At(value, static_cast<uint32_t>(count));
  uint32_t status = 0;
  for (int i = 0; i < count && status == 0; ++i) {
    status = LoadLacpGroup(groups.items[i], value + sizeof(uint32_t) + size_t(i) * kGroupSize);
  }
  if (status == 0) status = Add(a, value, static_cast<uint32_t>(length));
  std::free(value);
  return status;
}

// --- kind 35: LACP port policy ---

uint32_t SavePortLacp(const SaveArgs &a) {
  if (!LongEnough(a, kPortPolicySize)) return kFailure;
  cs::Object *obj = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, nullptr, &obj); s != 0) return s;
  if (int s = cs::SetValueBool(obj, "enabled", a.value[0] != 0); s != cs::kOk) return Status(s);
  char spare[12];
  return Status(cs::SetValueStr(
      obj, "mode", NameOrNumber(LACP_MODE_2_CAHRS, kModeNames, ReadU32At(a.value + 4), spare)));
}

uint32_t LoadPortLacp(const LoadArgs &a) {
  cs::Object *obj = nullptr;
  if (cs::GetSubObject(a.parent, a.key, "", &obj) != cs::kOk) return 0;
  uint8_t enabled = 0;
  if (int s = cs::GetValueBool(obj, "enabled", &enabled); s != cs::kOk) return Status(s);
  Text mode;
  if (int s = cs::GetValueStr(obj, "mode", &mode.text); s != cs::kOk) return Status(s);
  uint8_t value[kPortPolicySize] = {};
  value[0] = enabled != 0 ? 1 : 0;
  WriteU32At(value + 4, LacpModeFromName(mode.text));
  return Add(a, value, sizeof value);
}

// --- kind 10: IPFIX ---

uint32_t SaveIpfix(const SaveArgs &a) {
  if (!LongEnough(a, kIpfixSize)) return kFailure;
  cs::Object *obj = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, nullptr, &obj); s != 0) return s;
  const uint8_t *v = a.value;
  char address[46] = {};
  FormatAddress(v + kCollector, v[kCollectorIsV6] != 0, address, sizeof address);
  int s = cs::SetValueUint32(obj, "idle_flow_timeout", ReadU32At(v + kIdleTimeout));
  if (s == cs::kOk) s = cs::SetValueUint32(obj, "active_flow_timeout", ReadU32At(v + kActiveTimeout));
  if (s == cs::kOk) s = cs::SetValueStr(obj, "collector_address", address);
  if (s == cs::kOk) s = cs::SetValueUint16(obj, "collector_port", ReadU16At(v + kCollectorPort));
  if (s == cs::kOk) s = cs::SetValueUint32(obj, "sampling_rate", ReadU32At(v + kSamplingRate));
  if (s == cs::kOk) s = cs::SetValueBool(obj, "internal_flows_only", v[kInternalOnly] != 0);
  if (s == cs::kOk) s = cs::SetValueUint32(obj, "observation_domain_id", ReadU32At(v + kDomainId));
  return Status(s);
}

uint32_t LoadIpfix(const LoadArgs &a) {
  cs::Object *obj = nullptr;
  if (int s = cs::GetSubObject(a.parent, a.key, "", &obj); s != cs::kOk) {
    return s == cs::kNotFound ? 0 : Status(s);
  }
  // Every key is optional: one that does not read leaves its field 0.
  uint8_t v[kIpfixSize] = {};
  uint32_t u32 = 0;
  if (cs::GetValueUint32(obj, "idle_flow_timeout", &u32) == cs::kOk) WriteU32At(v + kIdleTimeout, u32);
  u32 = 0;
  if (cs::GetValueUint32(obj, "active_flow_timeout", &u32) == cs::kOk) {
    WriteU32At(v + kActiveTimeout, u32);
  }
  u32 = 0;
  if (cs::GetValueUint32(obj, "sampling_rate", &u32) == cs::kOk) WriteU32At(v + kSamplingRate, u32);
  Text address;
  if (cs::GetValueStr(obj, "collector_address", &address.text) == cs::kOk) {
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, address.text, &v4) == 1) {
      std::memcpy(v + kCollector, &v4, sizeof v4);
      v[kCollectorIsV6] = 0;
    } else if (inet_pton(AF_INET6, address.text, &v6) == 1) {
      std::memcpy(v + kCollector, &v6, sizeof v6);
      v[kCollectorIsV6] = 1;
    }
  }
  uint16_t port = 0;
  if (cs::GetValueUint16(obj, "collector_port", &port) == cs::kOk) WriteU16At(v + kCollectorPort, port);
  uint8_t internal = 0;
  if (cs::GetValueBool(obj, "internal_flows_only", &internal) == cs::kOk) v[kInternalOnly] = internal;
  u32 = 0;
  if (cs::GetValueUint32(obj, "observation_domain_id", &u32) == cs::kOk) WriteU32At(v + kDomainId, u32);
  return Add(a, v, sizeof v);
}

}  // namespace

void RegisterDiscoveryKinds(KindTable &table) {
  table.Add(kKindLinkDiscovery, SaveLinkDiscovery, LoadLinkDiscovery);
  table.Add(kKindLacpGroups, SaveLacpGroups, LoadLacpGroups);
  table.Add(kKindPortLacp, SavePortLacp, LoadPortLacp);
  table.Add(kKindIpfix, SaveIpfix, LoadIpfix);
}

}  // namespace zel::persist::policy
