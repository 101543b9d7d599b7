// Well-formed serialized property lists used as seeds by the data fuzz targets.
#pragma once

#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "zel/data.h"

namespace zelfuzz {

inline void *SeedAlloc(uint64_t n) { return std::malloc(n); }

inline std::vector<uint8_t> SerializedList(int entries, uint32_t valueLength) {
  PropertyList *list = nullptr;
  ZELData_Alloc(&list, SeedAlloc, std::free);
  std::string value(valueLength, 'v');
  for (int i = 0; i < entries; ++i) {
    std::string name = "com.zorlan.common.prop" + std::to_string(i);
    const uint32_t types[] = {16, 24, 32, 1};
    ZELData_Append(list, name.c_str(), value.data(), valueLength, types[i % 4]);
  }
  void *buf = nullptr;
  uint32_t len = 0;
  ZELData_Serialize(list, &buf, &len, 5);
  std::vector<uint8_t> out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
  return out;
}

inline Seeds DataSeeds() {
  return {SerializedList(0, 0), SerializedList(1, 4), SerializedList(3, 1), SerializedList(8, 37)};
}

}  // namespace zelfuzz
