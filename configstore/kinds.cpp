// The table of conversion kinds, built once on first use from the plain
// kinds and every policy family's registration hook.
#include "configstore/kinds.h"

#include "configstore/policy/policy.h"

namespace zel::persist {

bool KindTable::Add(uint32_t kind, SaveFn save, LoadFn load) {
  if (kind == kKindNone || kind >= kKindEnd) {
    return false;
  }
  cases_[kind] = KindCase{save, load};
  return true;
}

const KindCase *KindTable::Find(uint32_t kind) const {
  if (kind == kKindNone || kind >= kKindEnd) {
    return nullptr;
  }
  const KindCase &c = cases_[kind];
  return c.save != nullptr && c.load != nullptr ? &c : nullptr;
}

KindCase *KindTable::Slot(uint32_t kind) { return kind < kNumKinds ? &cases_[kind] : nullptr; }

namespace {

KindTable &Table() {
  static KindTable table = [] {
    KindTable t;
    RegisterScalarKinds(t);
    policy::RegisterOpaqueKinds(t);
    policy::RegisterResourcePoolKinds(t);
    policy::RegisterTeamingKinds(t);
    policy::RegisterVlanKinds(t);
    policy::RegisterMirrorKinds(t);
    policy::RegisterDiscoveryKinds(t);
    policy::RegisterPortPolicyKinds(t);
    return t;
  }();
  return table;
}

}  // namespace

const KindCase *FindKind(uint32_t kind) { return Table().Find(kind); }

namespace testing {

KindCase ReplaceKind(uint32_t kind, KindCase replacement) {
  KindCase *slot = Table().Slot(kind);
  if (slot == nullptr) {
    return {};
  }
  KindCase previous = *slot;
  *slot = replacement;
  return previous;
}

}  // namespace testing

}  // namespace zel::persist
