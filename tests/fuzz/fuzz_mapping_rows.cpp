// Fuzzes every mapping row's conversion through the two dispatchers.  Byte 0
// picks the table, byte 1 the row, byte 2 the switch (bits 0-1 class code,
// bit 2 QOR, bits 3-5 version); the rest is the property's value.  The value
// is saved into an in-memory switch object (a port element for the port
// table) and the whole table is loaded back from it; a load that succeeds
// must add a list that decodes.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "fuzz_support.h"

namespace {

namespace cs = zel::cfgstore;
namespace zp = zel::persist;

constexpr uint32_t kVersions[] = {4, 5, 6, 7, 100, 107};
constexpr const char *kListNames[] = {"globalPropList", "hostPropList", "1"};
// The catch-all rows save any name they are given.
constexpr const char *kCatchAllName = "com.zorlan.fuzz.opaque";

void *SysAlloc(uint64_t n) { return std::malloc(n); }

int NumRows(uint32_t table) {
  int n = 0;
  while (GetConfigMap(static_cast<int>(table))[n].name != nullptr) ++n;
  return n;
}

zelfuzz::Seeds Seeds() {
  zelfuzz::Seeds seeds;
  for (uint8_t table = 0; table < zp::kNumTables; ++table) {
    for (int row = 0; row < NumRows(table); ++row) {
      const auto r = static_cast<uint8_t>(row);
      seeds.push_back({table, r, 0x19, 0, 0, 0, 0});                    // 4 zero bytes, 7.0.0
      seeds.push_back({table, r, 0x01, 't', 'r', 'u', 'e', 0});          // text
      std::vector<uint8_t> record(3 + 96, 0);                            // a one-entry record
      record[0] = table, record[1] = r, record[2] = 0x1D, record[3] = 1;
      seeds.push_back(record);
    }
  }
  return seeds;
}

// Saves the value with the row's name and loads the table back.
void SaveAndLoad(uint32_t table, const PropToConfigEntry &row, const uint8_t *value,
                 uint32_t length, uint32_t version) {
  cs::Object *object = nullptr;
  if (cs::CreateObject("switches", "network_zel", "orn", "fuzz", "{}", &object) != cs::kOk) return;
  cs::Object *owner = object;
  if (table != zp::kTablePort ||
      zp::GetOrCreateSubObject(true, object, "ports", "1", &owner) == 0) {
    const char *name = std::strcmp(row.name, "DEFAULT") == 0 ? kCatchAllName : row.name;
    zp::SavePropToConfigStore(owner, name, value, length, table, ZELDATA_PROPTYPE_LIBRARY);
    cs::Object *resources = nullptr;
    if (table == zp::kTablePort) cs::GetSubObject(object, "resource_management", "", &resources);
    PropertyList *switchList = nullptr;
    ZELData_Alloc(&switchList, SysAlloc, std::free);
    if (zp::LoadPropsFromConfigStore(kListNames[table], owner, switchList, table, version,
                                     resources) == 0) {
      PropertyEntry *entry = nullptr;
      if (ZELData_Lookup(switchList, kListNames[table], &entry) != STATUS_OK) std::abort();
      void *bytes = nullptr;
      const uint32_t n = ZELData_Data(entry, &bytes);
      PropertyList *loaded = nullptr;
      if (ZELData_Deserialize(&loaded, bytes, n, SysAlloc, std::free) != STATUS_OK) std::abort();
      ZELData_Free(loaded);
    }
    ZELData_Free(switchList);
  }
  cs::DestroyConfigStoreObject(object);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zelfuzz::MaybeWriteSeeds(Seeds());
  zelconfigstore_debug = -1;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3 || size > (1 << 16)) return 0;
  const uint32_t table = data[0] % zp::kNumTables;
  const PropToConfigEntry &row = GetConfigMap(static_cast<int>(table))[data[1] % NumRows(table)];
  zp::currentSwitchClass = data[2] & 3;
  zp::currentSwitchIsQor = (data[2] & 4) != 0;
  const uint32_t version = kVersions[(data[2] >> 3) % (sizeof kVersions / sizeof kVersions[0])];
  // An exact-size copy, so that any read past the value is caught.
  const std::vector<uint8_t> value(data + 3, data + size);
  SaveAndLoad(table, row, value.empty() ? nullptr : value.data(),
              static_cast<uint32_t>(value.size()), version);
  return 0;
}
