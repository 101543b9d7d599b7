// Port mirroring sessions (kind 9).
// No conversion is in place yet: registering nothing
// leaves the kinds rejected by both dispatchers as unknown kinds.
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

void RegisterMirrorKinds(KindTable & /*table*/) {}

}  // namespace zel::persist::policy
