// Fuzzes the state-blob reader: any input is loaded into the table (or
// refused), the table is written back out and emptied; nothing may crash or
// leak, and the table must be empty afterwards.  Each input is tried as it
// is and once more with the checksums of its three levels made right, so
// that mutations reach the switch and port readers instead of stopping at
// the outer checksum.
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
  ZELState_SwitchAdd("sw-1", "etherswitch", 0, 7);
  seeds.push_back(Blob());
  ZELState_SwitchAdd("sw-2", "mine", 16, 6);
  ZELState_GlobalPropSet("sw-2", ZEL_PROP_SWITCH_ALIAS, "sky", 4, 0);
  ZELState_HostPropSet("sw-2", "com.zorlan.common.host.portset", "ps", 3, 0);
  AddPort("sw-1", "10", PORT_KIND_NORMAL, 0);
  AddPort("sw-1", "10", PORT_KIND_SHADOW, PORT_KIND_SHADOW);
  AddPort("sw-1", "11", PORT_KIND_ZOMBIE, PORT_KIND_ZOMBIE);
  AddPort("sw-1", "11", PORT_KIND_ZOMBIE, PORT_KIND_ZOMBIE);
  AddPort("sw-2", "1", PORT_KIND_LOCAL_CACHE, PORT_KIND_LOCAL_CACHE);
  AddPort("sw-2", "2", PORT_KIND_NORMAL, 0);
  seeds.push_back(Blob());
  ZELState_ConfigReset();
  seeds.push_back(VersionlessBlob());
  return seeds;
}

uint32_t Load32(const uint8_t *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// Rewrites the checksum of serialized data at p (and of the serialized data
// nested in its values, down to the port lists) when its header size fits.
void FixChecksums(uint8_t *p, size_t n, int depth) {
  if (n < 16) return;
  uint32_t size = Load32(p);
  if (size < 16 || size > n) return;
  if (depth < 2) {
    for (uint32_t off = 12; off + 4 <= size;) {
      uint32_t len = Load32(p + off);
      if (len < 144 || len > size - off) break;
      uint32_t dataLength = Load32(p + off + 136);
      if (dataLength <= len - 140) FixChecksums(p + off + 140, dataLength, depth + 1);
      off += len;
    }
  }
  uint32_t sum = 0;
  uint32_t words = size / 4;
  for (uint32_t off = 32; off + 4 <= 4 * words; off += 4) sum += Load32(p + off);
  for (uint32_t off = 4 * (words > 8 ? words : 8); off < size; ++off) sum += p[off];
  std::memcpy(p + 4, &sum, 4);
}

void RunOne(const uint8_t *data, uint32_t size) {
  if (ZELState_ConfigDeserialize(data, size) == STATUS_OK) {
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
  RunOne(copy, static_cast<uint32_t>(size));
  FixChecksums(copy, size, 0);
  RunOne(copy, static_cast<uint32_t>(size));
  std::free(copy);
  return 0;
}
