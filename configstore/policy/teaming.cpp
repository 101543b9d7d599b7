// Uplink teaming and failover policy (kinds 17 and 18): the 2616-byte
// UplinkTeamingPolicy record of a switch or port, kept in the store as the
// singleton "uplink_teaming_policy" with its "failure_criteria" and
// "uplink_port_order" sub-objects.
//
// Kind 17 (the etherswitch port property) saves on every switch but loads
// only on switches that are neither vswitch nor cswitch; kind 18 (the vswitch
// properties) saves and loads only on vswitch and cswitch switches.  So one
// stored object comes back under the property of the switch's class.
//
// What the store gets back differs from the record in known ways: only bits
// 5 and 7 of the failure flags and bits 1-5 of the teaming flags are kept,
// and a load sets failure bit 9 whenever "failure_criteria" exists (a save
// always writes it).
//
// Values are not trusted:
//   - a value shorter than the record is refused (kFailure) before anything
//     is written;
//   - counts that claim more than the 32 name slots are cut: the active
//     count to 32, the standby count to the slots left after it;
//   - a slot without its NUL gives at most 80 characters.
// On load, at most 32 names in all are taken (active names first) and each
// is cut to 80 characters, so the record always holds them with their NULs.
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "configstore/policy/policy.h"

const char *const TEAMING_POLICY_SCHEMA[7] = {
    nullptr,           "LOADBALANCE_IP", "LOADBALANCE_SRCMAC", "LOADBALANCE_SRCID",
    "LOADBALANCE_LOADBASED", "FAILOVER_EXPLICIT", nullptr,
};
const uint32_t TEAMING_POLICY_ENUM[6] = {0, 1, 2, 3, 5, 4};
const char *const NIC_TEAMING_POLICY_MODE_2_CHARS[5] = {
    "LOADBALANCE_IP", "LOADBALANCE_SRCMAC", "LOADBALANCE_SRCID", "FAILOVER_EXPLICIT",
    "LOADBALANCE_LOADBASED",
};

namespace zel::persist::policy {

namespace {

constexpr uint32_t kMaxUplinks = 32;
constexpr uint32_t kUplinkSlot = 81;

struct UplinkTeamingPolicy {
  uint32_t policy;
  uint32_t failureFlags;
  uint8_t percentage;
  uint8_t fullDuplex;
  uint16_t speed;
  uint32_t teamingFlags;
  uint32_t numActive;
  uint32_t numStandby;
  char uplinkNames[kMaxUplinks][kUplinkSlot];
};
static_assert(sizeof(UplinkTeamingPolicy) == 2616);
static_assert(offsetof(UplinkTeamingPolicy, speed) == 10);
static_assert(offsetof(UplinkTeamingPolicy, teamingFlags) == 12);
static_assert(offsetof(UplinkTeamingPolicy, uplinkNames) == 24);

constexpr uint32_t kCheckBeacon = 0x20;
constexpr uint32_t kLinkState = 0x80;
constexpr uint32_t kCriteriaLoaded = 0x200;

// The teaming options, in the order they are written.
constexpr struct {
  const char *key;
  uint32_t bit;
} kTeamingBits[] = {
    {"reverse_policy", 0x02}, {"rolling_order", 0x08}, {"notify_switches", 0x20},
    {"best_effort", 0x04},    {"shotgun", 0x10},
};

constexpr const char *kFailureCriteria = "failure_criteria";
constexpr const char *kPortOrder = "uplink_port_order";
constexpr const char *kActive = "active_uplink_ports";
constexpr const char *kStandby = "standby_uplink_ports";


// The schema name of a policy value, or null for a value without one.
const char *TeamingPolicyName(uint32_t value) {
  for (size_t i = 1; TEAMING_POLICY_SCHEMA[i] != nullptr; ++i) {
    if (TEAMING_POLICY_ENUM[i] == value) {
      return TEAMING_POLICY_SCHEMA[i];
    }
  }
  return nullptr;
}

// The policy value of a schema name; 0 for a name the schema lacks.
uint32_t TeamingPolicyFromName(const char *name, uint32_t *value) {
  *value = 0;
  for (size_t i = 1; TEAMING_POLICY_SCHEMA[i] != nullptr; ++i) {
    if (std::strcmp(TEAMING_POLICY_SCHEMA[i], name) == 0) {
      *value = TEAMING_POLICY_ENUM[i];
      break;
    }
  }
  return 0;
}

// Runs setters on one object in turn; once one fails, the later ones are
// not called and the first failure is kept.
class Writer {
 public:
  explicit Writer(cs::Object *object) : object_(object) {}
  Writer &Bool(const char *key, bool v) { return Run(cs::SetValueBool, key, v); }
  Writer &U16(const char *key, uint16_t v) { return Run(cs::SetValueUint16, key, v); }
  Writer &I32(const char *key, int32_t v) { return Run(cs::SetValueInt, key, v); }
  Writer &EmptyList(const char *key) {
    if (status_ == 0) {
      status_ = Status(cs::SetValueEmptyList(object_, key));
    }
    return *this;
  }
  Writer &Append(const char *key, const char *v) { return Run(cs::AppendValueString, key, v); }
  uint32_t status() const { return status_; }

 private:
  template <typename Setter, typename Value>
  Writer &Run(Setter setter, const char *key, Value v) {
    if (status_ == 0) {
      status_ = Status(setter(object_, key, v));
    }
    return *this;
  }
  cs::Object *object_;
  uint32_t status_ = 0;
};

uint32_t SaveTeaming(const SaveArgs &a, bool vswitch) {
  if (vswitch && currentSwitchClass == kClassOther) {
    return 0;
  }
  if (a.value == nullptr || a.length < sizeof(UplinkTeamingPolicy)) {
    CS_ERROR("Prop: %s is %u bytes, a teaming policy needs %zu\n", a.name, a.length,
             sizeof(UplinkTeamingPolicy));
    return kFailure;
  }
  UplinkTeamingPolicy rec;
  std::memcpy(&rec, a.value, sizeof rec);
  const uint32_t numActive = rec.numActive < kMaxUplinks ? rec.numActive : kMaxUplinks;
  const uint32_t room = kMaxUplinks - numActive;
  const uint32_t numStandby = rec.numStandby < room ? rec.numStandby : room;
  if (numActive != rec.numActive || numStandby != rec.numStandby) {
    CS_ERROR("Prop: %s claims %u active and %u standby uplinks, %u slots kept\n", a.name,
             rec.numActive, rec.numStandby, kMaxUplinks);
  }

  cs::Object *teaming = nullptr;
  uint32_t status = GetOrCreateSubObject(true, a.parent, a.key, nullptr, &teaming);
  if (status != 0) {
    return !vswitch && status == kAbsent ? 0 : status;
  }
  if (const char *name = TeamingPolicyName(rec.policy); name != nullptr) {
    if (int s = cs::SetValueStr(teaming, "policy", name); s != cs::kOk) {
      return Status(s);
    }
  }

  cs::Object *criteria = nullptr;
  if ((status = GetOrCreateSubObject(true, teaming, kFailureCriteria, nullptr, &criteria)) != 0) {
    return status;
  }
  Writer c(criteria);
  c.Bool("check_beacon", (rec.failureFlags & kCheckBeacon) != 0)
      .Bool("lc_link_state", (rec.failureFlags & kLinkState) != 0)
      .U16("percentage", rec.percentage)
      .Bool("full_duplex", rec.fullDuplex != 0);
  if (vswitch) {
    c.I32("speed", rec.speed);
  } else {
    c.U16("speed", rec.speed);
  }
  if (c.status() != 0) {
    return c.status();
  }

  Writer t(teaming);
  for (const auto &option : kTeamingBits) {
    t.Bool(option.key, (rec.teamingFlags & option.bit) != 0);
  }
  if (t.status() != 0) {
    return t.status();
  }

  cs::Object *order = nullptr;
  if ((status = GetOrCreateSubObject(true, teaming, kPortOrder, nullptr, &order)) != 0) {
    return status;
  }
  Writer o(order);
  o.EmptyList(kActive).EmptyList(kStandby);
  for (uint32_t i = 0; i < numActive + numStandby; ++i) {
    const char *slot = rec.uplinkNames[i];
    const std::string name(slot, strnlen(slot, kUplinkSlot - 1));
    o.Append(i < numActive ? kActive : kStandby, name.c_str());
  }
  return o.status();
}

uint32_t SaveEtherswitchTeaming(const SaveArgs &a) { return SaveTeaming(a, false); }
uint32_t SaveVswitchTeaming(const SaveArgs &a) { return SaveTeaming(a, true); }

bool ReadsTrue(cs::Object *object, const char *key) {
  uint8_t v = 0;
  return cs::GetValueBool(object, key, &v) == cs::kOk && v != 0;
}

// Copies the names of a stored list into the slots from `first` on, as many
// as fit; returns how many were copied.
uint32_t CopyNames(cs::Object *order, const char *key, UplinkTeamingPolicy *rec, uint32_t first) {
  char **names = nullptr;
  int count = 0;
  if (cs::GetValueStringArray(order, key, &names, &count) != cs::kOk) {
    return 0;
  }
  uint32_t copied = 0;
  for (int i = 0; i < count && first + copied < kMaxUplinks; ++i, ++copied) {
    const char *name = names[i] != nullptr ? names[i] : "";
    std::memcpy(rec->uplinkNames[first + copied], name, strnlen(name, kUplinkSlot - 1));
  }
  cs::DestroyStringArrayValue(&names, count);
  return copied;
}

uint32_t LoadTeaming(const LoadArgs &a) {
  cs::Object *teaming = nullptr;
  if (cs::GetSubObject(a.parent, a.key, "", &teaming) != cs::kOk || teaming == nullptr) {
    return 0;
  }
  UplinkTeamingPolicy rec{};
  char *policy = nullptr;
  if (cs::GetValueStr(teaming, "policy", &policy) == cs::kOk && policy != nullptr) {
    TeamingPolicyFromName(policy, &rec.policy);
  }
  std::free(policy);

  cs::Object *criteria = nullptr;
  if (cs::GetSubObject(teaming, kFailureCriteria, "", &criteria) == cs::kOk) {
    rec.failureFlags = (ReadsTrue(criteria, "check_beacon") ? kCheckBeacon : 0) |
                       (ReadsTrue(criteria, "lc_link_state") ? kLinkState : 0) | kCriteriaLoaded;
    uint16_t percentage = 0;
    if (cs::GetValueUint16(criteria, "percentage", &percentage) == cs::kOk) {
      rec.percentage = static_cast<uint8_t>(percentage & 0xFF);
    }
    rec.fullDuplex = ReadsTrue(criteria, "full_duplex") ? 1 : 0;
    uint16_t speed = 0;
    if (cs::GetValueUint16(criteria, "speed", &speed) == cs::kOk) {
      rec.speed = speed;
    }
  }

  for (const auto &option : kTeamingBits) {
    if (ReadsTrue(teaming, option.key)) {
      rec.teamingFlags |= option.bit;
    }
  }

  cs::Object *order = nullptr;
  if (cs::GetSubObject(teaming, kPortOrder, "", &order) == cs::kOk) {
    rec.numActive = CopyNames(order, kActive, &rec, 0);
    rec.numStandby = CopyNames(order, kStandby, &rec, rec.numActive);
  }
  return ZELData_Update(a.list, a.name, &rec, sizeof rec, a.propType);
}

uint32_t LoadTeamingEtherswitch(const LoadArgs &a) {
  return currentSwitchClass != kClassOther ? 0 : LoadTeaming(a);
}

uint32_t LoadTeamingVswitch(const LoadArgs &a) {
  return currentSwitchClass == kClassOther ? 0 : LoadTeaming(a);
}

}  // namespace

void RegisterTeamingKinds(KindTable &table) {
  table.Add(kKindEtherPortTeaming, SaveEtherswitchTeaming, LoadTeamingEtherswitch);
  table.Add(kKindVswitchTeaming, SaveVswitchTeaming, LoadTeamingVswitch);
}

}  // namespace zel::persist::policy
