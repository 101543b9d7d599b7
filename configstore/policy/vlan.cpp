// VLAN and private-VLAN settings (kinds 6, 7, 24 and 25).
// No conversion is in place yet: registering nothing
// leaves the kinds rejected by both dispatchers as unknown kinds.
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

void RegisterVlanKinds(KindTable & /*table*/) {}

}  // namespace zel::persist::policy
