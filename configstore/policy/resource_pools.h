// Network resource pools: the load shared by the switch's pool configuration
// and the copy every uplink port receives.
#pragma once

#include <cstdint>

#include "configstore/persist.h"

namespace zel::persist::policy {

// Builds a pool configuration value (u32 count, then one 212-byte record
// per instance of the list `listName` under `object`) and adds it to `list`
// under `name` with `propType`.  An absent or empty list adds nothing and
// returns 0.
uint32_t LoadTrafficResources(cs::Object *object, PropertyList *list, const char *listName,
                              const char *name, uint32_t propType);

}  // namespace zel::persist::policy
