// Field helpers shared by the mirror-session and the discovery/LACP/IPFIX
// conversions: unaligned little-endian numbers, fixed-size text slots,
// address text, and the name written for a value.
#pragma once

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace zel::persist::policy {

inline uint32_t ReadU32At(const uint8_t *p) {
  uint32_t v = 0;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline uint16_t ReadU16At(const uint8_t *p) {
  uint16_t v = 0;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void WriteU32At(uint8_t *p, uint32_t v) { std::memcpy(p, &v, sizeof v); }
inline void WriteU16At(uint8_t *p, uint16_t v) { std::memcpy(p, &v, sizeof v); }

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

}  // namespace zel::persist::policy
