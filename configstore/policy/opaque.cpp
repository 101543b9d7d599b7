// Opaque, vendor-specific and extra-config data (kinds 22 and 33).
// No conversion is in place yet: registering nothing
// leaves the kinds rejected by both dispatchers as unknown kinds.
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

void RegisterOpaqueKinds(KindTable & /*table*/) {}

}  // namespace zel::persist::policy
