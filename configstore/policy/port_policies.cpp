// Traffic shaping, MAC management and filter policy (kinds 26, 27, 28 and 29):
// three port policies carried as packed little-endian records, each stored
// as a singleton sub-object of the port's "settings".
//
//   PortShaper (24 bytes): u64 averageBandwidth, peakBandwidth, burstSize.
//     Stored times 8 (modulo 2^64, as int64) beside "enabled" = true; loaded
//     back divided by 8 (signed, toward zero), "enabled" not read.
//   PortSecurityPolicy (4 bytes): u32 flags; bits 0-2 forbid promiscuous
//     mode, MAC changes and forged transmits.  Stored as the three
//     allowances; other bits are dropped.
//   DVFilterConfig: u32 numFilters, then per filter u32 slot, char[40]
//     agentName, u32 numParams, u32 onFailure and numParams parameter
//     records of u32 index and char[256] value.  Each filter is one
//     "network_filters" instance whose id is the slot in signed decimal.
//
// Values are not trusted:
//   - a save refuses (kFailure, before touching the store) a value shorter
//     than its fixed size, or than its counts claim: every filter record and
//     parameter must lie whole within the value.  Texts are read up to their
//     NUL or the end of their slot.
//   - a load cuts agent names to 39 characters and parameters to 255, so
//     every text keeps its NUL within its slot.
//   - the filter load sizes its value in a first pass over the instances and
//     fills it in a second; the second never writes more filters, nor more
//     parameters of a filter, than the first made room for (what it finds
//     fewer of leaves zeros at the value's end).  A size beyond
//     INT32_MAX counts as negative and fails with kFailure.
#include "configstore/policy/port_policies.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "configstore/persist.h"
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

namespace {

constexpr const char *kShaperInput = "com.zorlan.common.port.shaper.input";
constexpr const char *kShaperOutput = "com.zorlan.common.port.shaper.output";
constexpr const char *kInShaping = "in_shaping_policy";
constexpr const char *kOutShaping = "out_shaping_policy";
constexpr const char *kNetworkFilters = "network_filters";

constexpr uint32_t kShaperSize = 24;
constexpr uint32_t kSecuritySize = 4;
constexpr const char *kShaperKeys[3] = {"average_bandwidth", "peak_bandwidth", "burst_size"};
constexpr const char *kAllowKeys[3] = {"allow_promiscuous", "allow_mac_change",
                                       "allow_forged_transmit"};

// Filter record layout.
constexpr uint32_t kAgentNameSize = 40;
constexpr uint32_t kFilterHeader = 52;
constexpr uint32_t kParamValueSize = 256;
constexpr uint32_t kParamSize = 4 + kParamValueSize;
constexpr uint32_t kSlotOffset = 0;
constexpr uint32_t kAgentOffset = 4;
constexpr uint32_t kNumParamsOffset = 44;
constexpr uint32_t kOnFailureOffset = 48;
constexpr uint32_t kFailOpen = 1;


// A fixed-size text slot up to its NUL or its end.
std::string SlotText(const uint8_t *p, size_t size) {
  const auto *text = reinterpret_cast<const char *>(p);
  return std::string(text, strnlen(text, size));
}
// Copies text into a zeroed slot, cut so that its NUL fits.
void PutSlotText(uint8_t *p, size_t size, const char *text) {
  std::memcpy(p, text, strnlen(text, size - 1));
}

uint32_t Add(const LoadArgs &a, const void *bytes, uint32_t length) {
  return ZELData_Update(a.list, a.name, bytes, length, a.propType);
}

// A singleton sub-object a load reads; null when absent or unreadable.
cs::Object *ReadableSub(cs::Object *parent, const char *name) {
  cs::Object *sub = nullptr;
  return cs::GetSubObject(parent, name, "", &sub) == cs::kOk ? sub : nullptr;
}

struct StringArray {
  char **items = nullptr;
  int count = 0;
  ~StringArray() { cs::DestroyStringArrayValue(&items, count); }
};

struct FilterSpec {
  cs::Filter *filter = nullptr;
  ~FilterSpec() { cs::DestroyFilterSpecObject(filter); }
};

struct InstanceArray {
  cs::Object **items = nullptr;
  int count = 0;
  ~InstanceArray() { std::free(items); }
};

// --- traffic shaper ---

uint32_t SaveShaper(const SaveArgs &a) {
  if (a.value == nullptr || a.length < kShaperSize) {
    CS_ERROR("Prop: %s has %u bytes of its %u\n", a.name, a.length, kShaperSize);
    return kFailure;
  }
  cs::Object *shaper = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, nullptr, &shaper); s != 0) {
    return s;
  }
  int status = cs::SetValueBool(shaper, "enabled", true);
  for (uint32_t i = 0; i < 3 && status == cs::kOk; ++i) {
    uint64_t field = 0;
    std::memcpy(&field, a.value + 8 * i, sizeof field);
    status = cs::SetValueLong(shaper, kShaperKeys[i], static_cast<int64_t>(field * 8));
  }
  return Status(status);
}

uint32_t LoadShaper(const LoadArgs &a) {
  const bool input = std::strcmp(a.name, kShaperInput) == 0 && std::strcmp(a.key, kInShaping) == 0;
  const bool output =
      std::strcmp(a.name, kShaperOutput) == 0 && std::strcmp(a.key, kOutShaping) == 0;
  if (!input && !output) {
    return 0;
  }
  cs::Object *shaper = ReadableSub(a.parent, a.key);
  if (shaper == nullptr) {
    return 0;
  }
  uint8_t value[kShaperSize] = {};
  for (uint32_t i = 0; i < 3; ++i) {
    int64_t stored = 0;
    if (cs::GetValueLong(shaper, kShaperKeys[i], &stored) == cs::kOk) {
      const auto field = static_cast<uint64_t>(stored / 8);
      std::memcpy(value + 8 * i, &field, sizeof field);
    }
  }
  return Add(a, value, sizeof value);
}

// --- MAC management ---

uint32_t SaveSecurity(const SaveArgs &a) {
  if (a.value == nullptr || a.length < kSecuritySize) {
    CS_ERROR("Prop: %s has %u bytes of its %u\n", a.name, a.length, kSecuritySize);
    return kFailure;
  }
  const uint32_t flags = ReadU32At(a.value);
  cs::Object *policy = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, nullptr, &policy); s != 0) {
    return s;
  }
  int status = cs::kOk;
  for (uint32_t bit = 0; bit < 3 && status == cs::kOk; ++bit) {
    status = cs::SetValueBool(policy, kAllowKeys[bit], (flags & (1u << bit)) == 0);
  }
  return Status(status);
}

uint32_t LoadSecurity(const LoadArgs &a) {
  cs::Object *policy = ReadableSub(a.parent, a.key);
  if (policy == nullptr) {
    return 0;
  }
  uint32_t flags = 0;
  for (uint32_t bit = 0; bit < 3; ++bit) {
    uint8_t allowed = 1;
    if (cs::GetValueBool(policy, kAllowKeys[bit], &allowed) == cs::kOk && allowed == 0) {
      flags |= 1u << bit;
    }
  }
  return Add(a, &flags, sizeof flags);
}

// The etherswitch property loads on switches of other classes only, the
// vswitch property on vswitch and cswitch switches only.
uint32_t LoadEtherSecurity(const LoadArgs &a) {
  return currentSwitchClass == kClassOther ? LoadSecurity(a) : 0;
}
uint32_t LoadVswitchSecurity(const LoadArgs &a) {
  return currentSwitchClass != kClassOther ? LoadSecurity(a) : 0;
}

// --- filter policy ---

// True when every filter record the value's count claims lies whole within
// the value.
bool FiltersFit(const uint8_t *value, uint32_t length) {
  if (value == nullptr || length < 4) {
    return false;
  }
  const uint32_t count = ReadU32At(value);
  uint64_t at = 4;
  for (uint32_t i = 0; i < count; ++i) {
    if (at + kFilterHeader > length) {
      return false;
    }
    at += kFilterHeader + uint64_t{kParamSize} * ReadU32At(value + at + kNumParamsOffset);
    if (at > length) {
      return false;
    }
  }
  return true;
}

uint32_t SaveFilter(cs::Object *policy, const uint8_t *filter) {
  const uint32_t slot = ReadU32At(filter + kSlotOffset);
  char id[16];
  std::snprintf(id, sizeof id, "%d", static_cast<int32_t>(slot));
  cs::Object *instance = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, policy, kNetworkFilters, id, &instance); s != 0) {
    return s;
  }
  const std::string agent = SlotText(filter + kAgentOffset, kAgentNameSize);
  if (int s = cs::SetValueStr(instance, "agent_name", agent.c_str()); s != cs::kOk) {
    return Status(s);
  }
  char slotText[12];
  std::snprintf(slotText, sizeof slotText, "%u", slot);
  if (int s = cs::SetValueStr(instance, "slot_number", slotText); s != cs::kOk) {
    return Status(s);
  }
  const bool open = ReadU32At(filter + kOnFailureOffset) == kFailOpen;
  if (int s = cs::SetValueStr(instance, "on_failure", open ? "FAIL_OPEN" : "FAIL_CLOSED");
      s != cs::kOk) {
    return Status(s);
  }
  if (int s = cs::SetValueEmptyList(instance, "parameters"); s != cs::kOk) {
    return Status(s);
  }
  const uint32_t numParams = ReadU32At(filter + kNumParamsOffset);
  for (uint32_t j = 0; j < numParams; ++j) {
    const uint8_t *param = filter + kFilterHeader + j * kParamSize;
    const std::string text = SlotText(param + 4, kParamValueSize);
    if (int s = cs::AppendValueString(instance, "parameters", text.c_str()); s != cs::kOk) {
      return Status(s);
    }
  }
  return 0;
}

uint32_t SaveFilterPolicy(const SaveArgs &a) {
  if (!FiltersFit(a.value, a.length)) {
    CS_ERROR("Prop: %s has %u bytes, fewer than its filters need\n", a.name, a.length);
    return kFailure;
  }
  cs::Object *policy = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, nullptr, &policy); s != 0) {
    return s;
  }
  if (int s = cs::SetValueEmptyList(policy, kNetworkFilters); s != cs::kOk) {
    return Status(s);
  }
  const uint32_t count = ReadU32At(a.value);
  const uint8_t *filter = a.value + 4;
  for (uint32_t i = 0; i < count; ++i) {
    if (uint32_t s = SaveFilter(policy, filter); s != 0) {
      return s;
    }
    filter += kFilterHeader + size_t{kParamSize} * ReadU32At(filter + kNumParamsOffset);
  }
  return 0;
}

// Lists the "network_filters" instances of the policy.  A failure to make
// the filter spec is returned; a list that cannot be read has no instances.
uint32_t ListFilters(cs::Object *policy, FilterSpec &spec, InstanceArray &instances) {
  if (int s = cs::CreateFilterSpecObject(kNetworkFilters, "", "", "", &spec.filter);
      s != cs::kOk) {
    return Status(s);
  }
  if (cs::GetSubObjectInstances(policy, spec.filter, &instances.items, &instances.count) !=
          cs::kOk ||
      instances.count < 0) {
    instances.count = 0;
  }
  return 0;
}

// Number of strings in an instance's "parameters" list (0 when it does not
// read); *params holds them.
uint32_t ReadParams(cs::Object *instance, StringArray &params) {
  if (cs::GetValueStringArray(instance, "parameters", &params.items, &params.count) != cs::kOk ||
      params.count < 0) {
    params.count = 0;
  }
  return static_cast<uint32_t>(params.count);
}

// Fills one filter record with at most roomForParams parameters and returns
// the number written.
uint32_t FillFilter(cs::Object *instance, uint8_t *filter, uint32_t roomForParams) {
  char *text = nullptr;
  if (cs::GetValueStr(instance, "slot_number", &text) == cs::kOk) {
    unsigned slot = 0;
    if (std::sscanf(text, "%u", &slot) == 1) {
      WriteU32At(filter + kSlotOffset, slot);
    }
    std::free(text);
  }
  if (cs::GetValueStr(instance, "agent_name", &text) == cs::kOk) {
    PutSlotText(filter + kAgentOffset, kAgentNameSize, text);
    std::free(text);
  }
  if (cs::GetValueStr(instance, "on_failure", &text) == cs::kOk) {
    WriteU32At(filter + kOnFailureOffset, std::strcmp(text, "FAIL_OPEN") == 0 ? kFailOpen : 0);
    std::free(text);
  }
  StringArray params;
  const uint32_t numParams = std::min(ReadParams(instance, params), roomForParams);
  WriteU32At(filter + kNumParamsOffset, numParams);
  for (uint32_t j = 0; j < numParams; ++j) {
    uint8_t *param = filter + kFilterHeader + j * kParamSize;
    WriteU32At(param, j);
    PutSlotText(param + 4, kParamValueSize,
                params.items[j] != nullptr ? params.items[j] : "");
  }
  return numParams;
}

void *(*filterAlloc)(size_t, size_t) = std::calloc;

uint32_t LoadFilterPolicy(const LoadArgs &a) {
  cs::Object *policy = nullptr;
  if (int s = cs::GetSubObject(a.parent, a.key, "", &policy); s != cs::kOk) {
    return s == cs::kNotFound ? 0 : Status(s);
  }

  // Size pass: room for every instance and every parameter that reads.
  std::vector<uint32_t> room;
  uint64_t size = 4;
  {
    FilterSpec spec;
    InstanceArray instances;
    if (uint32_t s = ListFilters(policy, spec, instances); s != 0) {
      return s;
    }
    for (int i = 0; i < instances.count; ++i) {
      StringArray params;
      room.push_back(ReadParams(instances.items[i], params));
      size += kFilterHeader + uint64_t{kParamSize} * room.back();
    }
  }
  if (size > INT32_MAX) {
    return kFailure;
  }
  auto *value = static_cast<uint8_t *>(filterAlloc(1, size));
  if (value == nullptr) {
    CS_ERROR("Failed to alloc memory for DVFilterConfig");
    return kFailure;
  }

  // Fill pass, within the room the size pass made.
  uint32_t status = 0;
  {
    FilterSpec spec;
    InstanceArray instances;
    status = ListFilters(policy, spec, instances);
    if (status == 0) {
      const uint32_t count = std::min(static_cast<uint32_t>(instances.count),
                                      static_cast<uint32_t>(room.size()));
      WriteU32At(value, count);
      uint8_t *filter = value + 4;
      for (uint32_t i = 0; i < count; ++i) {
        const uint32_t numParams = FillFilter(instances.items[i], filter, room[i]);
        filter += kFilterHeader + size_t{kParamSize} * numParams;
      }
      status = Add(a, value, static_cast<uint32_t>(size));
    }
  }
  std::free(value);
  return status;
}

}  // namespace

void RegisterPortPolicyKinds(KindTable &table) {
  table.Add(kKindShaping, SaveShaper, LoadShaper);
  table.Add(kKindEtherMacPolicy, SaveSecurity, LoadEtherSecurity);
  table.Add(kKindVswitchMacPolicy, SaveSecurity, LoadVswitchSecurity);
  table.Add(kKindFilterPolicy, SaveFilterPolicy, LoadFilterPolicy);
}

namespace testing {
void SetFilterAllocator(void *(*alloc)(size_t count, size_t size)) {
  filterAlloc = alloc != nullptr ? alloc : std::calloc;
}
}  // namespace testing

}  // namespace zel::persist::policy
