// Fuzzes the state-blob reader: any input is loaded into the table (or
// refused), the table is written back out and emptied; nothing may crash or
// leak, and the table must be empty afterwards.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "state/state_testing.h"
#include "zel/state.h"

namespace {

void *SysAlloc(uint64_t n) { return std::malloc(n); }

std::vector<uint8_t> Blob() {
  void *buf = nullptr;
  uint32_t len = 0;
  if (ZELState_ConfigSerialize(&buf, &len) != STATUS_OK) std::abort();
  std::vector<uint8_t> out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
  std::free(buf);
  return out;
}

void AddPort(const char *sw, const char *port, PortKind kind, uint32_t typeProp) {
  PropertyList *list = nullptr;
  ZELData_Alloc(&list, SysAlloc, std::free);
  ZELData_Append(list, ZEL_PROP_PORT_ALIAS, "web", 4, 16);
  if (typeProp != 0) ZELData_Append(list, ZEL_PROP_PORT_TYPE, &typeProp, 4, 16);
  if (ZELStatePortAdd(sw, port, list, kind) != STATUS_OK) ZELData_Free(list);
}

// A switch blob without "switchVersion" and with one port, built by hand.
std::vector<uint8_t> VersionlessBlob() {
  PropertyList *port = nullptr, *sw = nullptr, *outer = nullptr;
  ZELData_Alloc(&port, SysAlloc, std::free);
  ZELData_Alloc(&sw, SysAlloc, std::free);
  ZELData_Alloc(&outer, SysAlloc, std::free);
  uint32_t maxPorts = 8;
  ZELData_Append(sw, "className", "mine", 5, 16);
  ZELData_Append(sw, "maxPorts", &maxPorts, 4, 16);
  void *buf = nullptr;
  uint32_t len = 0;
  ZELData_Serialize(port, &buf, &len, 0);
  ZELData_Append(sw, "port-1", buf, len, 16);
  ZELData_FreeAssocData(port, buf);
  buf = nullptr;
  ZELData_Serialize(sw, &buf, &len, 0);
  ZELData_Append(outer, "legacy", buf, len, 16);
  ZELData_FreeAssocData(sw, buf);
  buf = nullptr;
  ZELData_Serialize(outer, &buf, &len, 5);
  std::vector<uint8_t> out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
  ZELData_FreeAssocData(outer, buf);
  ZELData_Free(port);
  ZELData_Free(sw);
  ZELData_Free(outer);
  return out;
}

zelfuzz::Seeds StateSeeds() {
  zelfuzz::Seeds seeds;
  seeds.push_back(Blob());  // empty table
  ZELState_SwitchAdd("dvs-1", "etherswitch", 0, 7);
  seeds.push_back(Blob());
  ZELState_SwitchAdd("dvs-2", "mine", 16, 6);
  ZELState_GlobalPropSet("dvs-2", ZEL_PROP_SWITCH_ALIAS, "dvs", 4, 0);
  ZELState_HostPropSet("dvs-2", "com.zorlan.common.host.portset", "ps", 3, 0);
  AddPort("dvs-1", "10", PORT_KIND_NORMAL, 0);
  AddPort("dvs-1", "10", PORT_KIND_SHADOW, PORT_KIND_SHADOW);
  AddPort("dvs-1", "11", PORT_KIND_ZOMBIE, PORT_KIND_ZOMBIE);
  AddPort("dvs-1", "11", PORT_KIND_ZOMBIE, PORT_KIND_ZOMBIE);
  AddPort("dvs-2", "1", PORT_KIND_LOCAL_CACHE, PORT_KIND_LOCAL_CACHE);
  AddPort("dvs-2", "2", PORT_KIND_NORMAL, 0);
  seeds.push_back(Blob());
  ZELState_ConfigReset();
  seeds.push_back(VersionlessBlob());
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zel::state::testing::SetPortLimit(4096);
  zelfuzz::MaybeWriteSeeds(StateSeeds());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 1 << 20) return 0;
  // An exact-size copy, so that any over-read is caught.
  auto *copy = static_cast<uint8_t *>(std::malloc(size ? size : 1));
  if (size) std::memcpy(copy, data, size);
  if (ZELState_ConfigDeserialize(copy, static_cast<uint32_t>(size)) == STATUS_OK) {
    void *buf = nullptr;
    uint32_t len = 0;
    if (ZELState_ConfigSerialize(&buf, &len) != STATUS_OK) std::abort();
    std::free(buf);
  }
  if (ZELState_ConfigReset() != STATUS_OK) std::abort();
  for (int slot = 0; slot < ZEL_MAX_SWITCHES; ++slot) {
    if (zel::state::testing::SwitchAtSlot(slot) != nullptr) std::abort();
  }
  if (zel::state::testing::NumActivePortsSystemWide() != 0) std::abort();
  std::free(copy);
  return 0;
}
