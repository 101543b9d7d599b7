// Fuzzes the whole-list reader: any input either decodes to a list that
// serializes back to data the reader accepts again, or is refused cleanly.
#include <cstdlib>
#include <cstring>

#include "data_seeds.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zelfuzz::MaybeWriteSeeds(zelfuzz::DataSeeds());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 1 << 20) return 0;
  // The reader gets an exact-size copy so that any over-read is caught.
  auto *copy = static_cast<uint8_t *>(std::malloc(size ? size : 1));
  if (size) std::memcpy(copy, data, size);
  PropertyList *list = nullptr;
  uint32_t mask = size ? data[size - 1] : 0x3C;
  if (ZELData_DeserializeWithPropType(&list, copy, static_cast<uint32_t>(size), zelfuzz::SeedAlloc,
                                      std::free, mask) == STATUS_OK) {
    void *buf = nullptr;
    uint32_t len = 0;
    if (ZELData_Serialize(list, &buf, &len, 5) != STATUS_OK) std::abort();
    PropertyList *again = nullptr;
    if (ZELData_Deserialize(&again, buf, len, zelfuzz::SeedAlloc, std::free) != STATUS_OK)
      std::abort();
    ZELData_Free(again);
    ZELData_FreeAssocData(list, buf);
    ZELData_Free(list);
  }
  std::free(copy);
  return 0;
}
