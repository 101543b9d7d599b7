// Health checks and network resource pools (kinds 11, 12, 13 and 36).
// No conversion is in place yet: registering nothing
// leaves the kinds rejected by both dispatchers as unknown kinds.
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

void RegisterResourcePoolKinds(KindTable & /*table*/) {}

}  // namespace zel::persist::policy
