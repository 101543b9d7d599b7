// Traffic shaping, MAC management and filter policy (kinds 26, 27, 28 and 29).
// No conversion is in place yet: registering nothing
// leaves the kinds rejected by both dispatchers as unknown kinds.
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

void RegisterPortPolicyKinds(KindTable & /*table*/) {}

}  // namespace zel::persist::policy
