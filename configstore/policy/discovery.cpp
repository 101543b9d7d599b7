// Link discovery, LACP and IPFIX (kinds 8, 10, 16 and 35).
// No conversion is in place yet: registering nothing
// leaves the kinds rejected by both dispatchers as unknown kinds.
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

void RegisterDiscoveryKinds(KindTable & /*table*/) {}

}  // namespace zel::persist::policy
