#include "host/feature_flags.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace zel::host {
namespace {

// Bit 0: an override is set; bits 1 and 2: the two flags.
std::atomic<unsigned> g_override{0};

bool FlagOn(const char *text, size_t length) { return length == 1 && text[0] == '1'; }

ConfigStoreFeatures FromEnvironment() {
  ConfigStoreFeatures f;
  const char *value = std::getenv("ZEL_CONFIGSTORE_FEATURES");
  if (value == nullptr) {
    return f;
  }
  const char *comma = std::strchr(value, ',');
  if (comma == nullptr) {
    return f;
  }
  f.first = FlagOn(value, static_cast<size_t>(comma - value));
  f.second = FlagOn(comma + 1, std::strlen(comma + 1));
  return f;
}

}  // namespace

ConfigStoreFeatures GetConfigStoreFeatures() {
  const unsigned o = g_override.load();
  if ((o & 1u) == 0) {
    return FromEnvironment();
  }
  return {(o & 2u) != 0, (o & 4u) != 0};
}

void SetConfigStoreFeatures(bool first, bool second) {
  g_override.store(1u | (first ? 2u : 0u) | (second ? 4u : 0u));
}

void ClearConfigStoreFeatures() { g_override.store(0); }

}  // namespace zel::host
