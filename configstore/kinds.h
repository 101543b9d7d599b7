// Conversion kinds: the cases of the save and load dispatchers, held in one
// table indexed by kind.  The plain kinds register from scalar.cpp; each
// family of policy kinds registers from its own source under policy/ (see
// policy/policy.h).  A kind nobody registered, kind 30 and every kind above
// 36 are rejected by both dispatchers as unknown.
#pragma once

#include <cstdint>

#include "configstore/persist.h"
#include "zel/data.h"

namespace zel::persist {

enum Kind : uint32_t {
  kKindUint32 = 0,
  kKindString = 1,
  kKindInt32 = 2,
  kKindFlagByte = 3,
  kKindTextBool = 4,
  kKindIpv4 = 5,
  kKindEtherPvlanMap = 6,
  kKindVswitchPvlanMap = 7,
  kKindLinkDiscovery = 8,
  kKindMirrorSessions = 9,
  kKindIpfix = 10,
  kKindHealthChecks = 11,
  kKindResourcePools = 12,
  kKindResourcePoolKeys = 13,
  kKindUplinkPortKeys = 14,
  kKindVersion = 15,
  kKindLacpGroups = 16,
  kKindEtherPortTeaming = 17,
  kKindVswitchTeaming = 18,
  kKindQorFlag = 19,
  kKindUplinkPortNames = 20,
  kKindMtu = 21,
  kKindSwitchData = 22,
  kKindTxUplink = 23,
  kKindEtherPortVlan = 24,
  kKindVswitchPortVlan = 25,
  kKindShaping = 26,
  kKindEtherMacPolicy = 27,
  kKindVswitchMacPolicy = 28,
  kKindFilterPolicy = 29,
  kKindNone = 30,
  kKindPortBlocked = 31,
  kKindPassthrough = 32,
  kKindPortData = 33,
  kKindIpfixEnabled = 34,
  kKindPortLacp = 35,
  kKindPortResourcePools = 36,
  kKindEnd = 37,
};

// What a save case gets.
struct SaveArgs {
  cs::Object *object;   // the object the dispatcher was given (switch object or port element)
  cs::Object *parent;   // the object at the row's path, created as needed
  const char *key;      // the row's last path component
  const char *name;     // the property name
  const uint8_t *value; // the property bytes (null only when length is 0)
  uint32_t length;
  uint32_t tableIndex;
  uint32_t propType;    // the property's type word
};

// What a load case gets.  A case adds at most the properties of its row to
// `list` (ZELData_Update with the row's name and `propType`) and returns 0
// also when nothing is stored for it.
struct LoadArgs {
  cs::Object *object;  // the object the dispatcher was given (switch object or port element)
  cs::Object *parent;  // the object at the row's path
  const char *key;     // the row's last path component
  PropertyList *list;  // the list under construction
  const char *name;    // the row's property name
  uint32_t propType;   // the row's flags (16)
  uint32_t tableIndex;
  uint32_t version;    // the switch's version code
};

using SaveFn = uint32_t (*)(const SaveArgs &args);
using LoadFn = uint32_t (*)(const LoadArgs &args);

struct KindCase {
  SaveFn save = nullptr;
  LoadFn load = nullptr;
};

inline constexpr uint32_t kNumKinds = kKindEnd + 1;

class KindTable {
 public:
  // Registers both directions of a kind; kinds 30 and above 36 are refused.
  // Returns false when refused.
  bool Add(uint32_t kind, SaveFn save, LoadFn load);
  // The registered case, or null.
  const KindCase *Find(uint32_t kind) const;
  KindCase *Slot(uint32_t kind);

 private:
  KindCase cases_[kNumKinds] = {};
};

// The case of a kind, or null when the dispatchers must reject it.
const KindCase *FindKind(uint32_t kind);

// The plain kinds (0-5, 14, 15, 19-21, 23, 31, 32, 34).
void RegisterScalarKinds(KindTable &table);

// Loads shared by several cases: the uint32 under the key as 4 bytes, and
// the bool under the key as the text "true" or "false" with its NUL.  Nothing
// stored (status 6) adds nothing and returns 0.
uint32_t LoadUint32Prop(const LoadArgs &args);
uint32_t LoadBoolAsText(const LoadArgs &args);

namespace testing {
// Replaces the case of a kind (a case with null functions unregisters it)
// and returns the previous one.  Not for use while a save or load runs.
KindCase ReplaceKind(uint32_t kind, KindCase replacement);
}  // namespace testing

}  // namespace zel::persist
