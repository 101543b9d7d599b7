// Uplink teaming and failover policy (kinds 17 and 18).
// No conversion is in place yet: registering nothing
// leaves the kinds rejected by both dispatchers as unknown kinds.
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

void RegisterTeamingKinds(KindTable & /*table*/) {}

}  // namespace zel::persist::policy
