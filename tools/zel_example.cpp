// Builds a property list, serializes it, decodes the bytes again and prints
// both the list and the serialized header: a first look at the library.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zel/data.h"

namespace {

void *SysAlloc(uint64_t n) { return std::malloc(n); }

bool PrintEntry(const char *name, const void *value, uint32_t length, uint32_t type, void *) {
  std::printf("  %-40s type %-3u %3u bytes:", name, type, length);
  const auto *bytes = static_cast<const uint8_t *>(value);
  for (uint32_t i = 0; i < length && i < 16; ++i) {
    std::printf(" %02x", bytes[i]);
  }
  std::printf(length > 16 ? " ...\n" : "\n");
  return false;
}

}  // namespace

int main() {
  PropertyList *list = nullptr;
  if (ZELData_Alloc(&list, SysAlloc, std::free) != STATUS_OK) {
    return 1;
  }
  const uint32_t maxPorts = 256;
  const char alias[] = "uplink-switch";
  ZELData_Append(list, "maxPorts", &maxPorts, sizeof maxPorts, ZELDATA_PROPTYPE_LIBRARY);
  ZELData_Append(list, "com.zorlan.common.alias", alias, sizeof alias, ZELDATA_PROPTYPE_LIBRARY);
  ZELData_Update(list, "com.zorlan.common.port.alias", "lan0", 5, 0);

  void *buf = nullptr;
  uint32_t len = 0;
  ReturnStatus status = ZELData_Serialize(list, &buf, &len, 5);
  if (status != STATUS_OK) {
    std::fprintf(stderr, "serialize failed: 0x%08x\n", status);
    return 1;
  }
  uint32_t checksum = 0;
  std::memcpy(&checksum, static_cast<uint8_t *>(buf) + 4, sizeof checksum);
  std::printf("serialized %u bytes, checksum 0x%x\n", len, checksum);

  PropertyList *decoded = nullptr;
  status = ZELData_Deserialize(&decoded, buf, len, SysAlloc, std::free);
  if (status != STATUS_OK) {
    std::fprintf(stderr, "deserialize failed: 0x%08x\n", status);
    return 1;
  }
  std::printf("decoded list, serialized size %u:\n", ZELData_SerializedSize(decoded, 0));
  ZELData_ForEach(decoded, PrintEntry, nullptr);
  ZELData_Free(decoded);
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
  return 0;
}
