// The host's two configuration-store feature flags, which choose between the
// state file and the configuration store (both on: the store).
//
// Source, in order: a value set through SetConfigStoreFeatures; else the
// environment variable ZEL_CONFIGSTORE_FEATURES, two flags separated by a
// comma ("1,1" turns both on; "0", "1,0", unset or anything else leaves the
// state file in use).
#pragma once

namespace zel::host {

struct ConfigStoreFeatures {
  bool first = false;
  bool second = false;
};

ConfigStoreFeatures GetConfigStoreFeatures();
// Overrides the environment until ClearConfigStoreFeatures.
void SetConfigStoreFeatures(bool first, bool second);
void ClearConfigStoreFeatures();
inline bool ConfigStoreEnabled() {
  const ConfigStoreFeatures f = GetConfigStoreFeatures();
  return f.first && f.second;
}

}  // namespace zel::host
