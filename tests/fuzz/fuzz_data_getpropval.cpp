// Fuzzes the single-value reader on exact-size copies of arbitrary input.
#include <cstdlib>
#include <cstring>

#include "data_seeds.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zelfuzz::MaybeWriteSeeds(zelfuzz::DataSeeds());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 1 << 20) return 0;
  auto *copy = static_cast<uint8_t *>(std::malloc(size ? size : 1));
  if (size) std::memcpy(copy, data, size);
  uint8_t value[64];
  const uint32_t capacity = size ? data[0] % (sizeof value + 1) : 0;
  for (const char *name : {"com.zorlan.common.prop0", "com.zorlan.common.prop2", ""}) {
    ZELData_DeserializeGetPropVal(copy, static_cast<uint32_t>(size), name, value, capacity);
  }
  std::free(copy);
  return 0;
}
