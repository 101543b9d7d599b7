// Field helpers shared by the mirror-session and the discovery/LACP/IPFIX
// conversions: fixed-size text slots,
// address text, the name written for a value, and the listing of a list of
// sub-object instances.
#pragma once

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/configstore_client.h"

namespace zel::persist::policy {

// The text of a NUL-terminated slot.  A slot without a NUL is cut to
// slot - 1 characters, the most a loaded text can hold, so that a saved text
// loads back unchanged.
inline std::string SlotText(const uint8_t *slotStart, size_t slot) {
  const auto *text = reinterpret_cast<const char *>(slotStart);
  return std::string(text, strnlen(text, slot - 1));
}

// Copies text into a zeroed slot, cut to slot - 1 characters.
inline void CopyToSlot(uint8_t *slotStart, size_t slot, const char *text) {
  if (text != nullptr) std::memcpy(slotStart, text, strnlen(text, slot - 1));
}

// Address text: IPv6 as eight groups of four lower-case hexadecimal digits
// without shortening, IPv4 as dotted decimal.  text holds at least 40 bytes.
inline void FormatAddress(const uint8_t *bytes, bool ipv6, char *text, size_t size) {
  if (ipv6) {
    const uint8_t *b = bytes;
    std::snprintf(text, size,
                  "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x", b[0],
                  b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
                  b[14], b[15]);
    return;
  }
  char dotted[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, bytes, dotted, sizeof dotted);
  std::snprintf(text, size, "%s", dotted);
}

// The name of `value` in a table of `count` names.  A value without a name is
// written as its decimal number, which no table holds, so that the load takes
// it for an unknown name and gives that kind's value for one.
inline const char *NameOrNumber(const char *const *table, size_t count, uint32_t value,
                                char (&spare)[12]) {
  if (value < count && table[value] != nullptr) return table[value];
  std::snprintf(spare, sizeof spare, "%u", value);
  return spare;
}

// The instances of a list of sub-objects; the array is freed on scope exit
// (the instances belong to their object).
struct Instances {
  cfgstore::Object **items = nullptr;
  int count = 0;
  Instances() = default;
  Instances(const Instances &) = delete;
  Instances &operator=(const Instances &) = delete;
  ~Instances() { std::free(items); }
};

// Lists the instances of the list `key` under parent.  A missing list (6) or
// an empty one gives count 0 and status 0; other failures are returned.
inline uint32_t ListInstances(cfgstore::Object *parent, const char *key, Instances *out) {
  cfgstore::Filter *filter = nullptr;
  if (int s = cfgstore::CreateFilterSpecObject(key, "", "", "", &filter); s != cfgstore::kOk) {
    return static_cast<uint32_t>(s);
  }
  const int listed = cfgstore::GetSubObjectInstances(parent, filter, &out->items, &out->count);
  cfgstore::DestroyFilterSpecObject(filter);
  if (listed == cfgstore::kOk || listed == cfgstore::kNotFound) {
    if (listed != cfgstore::kOk || out->count < 1) out->count = 0;
    return 0;
  }
  out->count = 0;
  return static_cast<uint32_t>(listed);
}

}  // namespace zel::persist::policy
