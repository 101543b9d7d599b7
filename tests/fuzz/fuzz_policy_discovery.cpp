// Fuzzes the mirror-session, link discovery, LACP and IPFIX conversions: the
// first byte picks the kind (low bits) and the entry width (bit 7), the rest
// is the value.  Each value is saved into an in-memory switch object and
// whatever was written is loaded back; a load must hand back a value whose
// length matches its own counts.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "fuzz_support.h"

namespace {

namespace cs = zel::cfgstore;
namespace zp = zel::persist;

struct Row {
  uint32_t kind;
  const char *key;
  const char *name;
};
constexpr Row kRows[] = {
    {9, "vspans", "com.zorlan.etherswitch.mirrorSessions"},
    {8, "link_discovery_protocol", "com.zorlan.etherswitch.cdp"},
    {16, "lacp_groups", "com.zorlan.etherswitch.lacp"},
    {35, "lacp_policy", "com.zorlan.etherswitch.port.lacp"},
    {10, "ipfix", "com.zorlan.etherswitch.ipfix"},
};

std::vector<uint8_t> Seed(uint8_t selector, size_t size, std::initializer_list<size_t> nonZero) {
  std::vector<uint8_t> b(size + 1, 0);
  b[0] = selector;
  for (size_t at : nonZero) b.at(at + 1) = 1;
  return b;
}

zelfuzz::Seeds Seeds() {
  // One session with one destination entry; one LACP group; the fixed records.
  std::vector<uint8_t> mirror = Seed(0, 20 + 232 + 36, {8, 20, 20 + 216});
  std::vector<uint8_t> lacp = Seed(2, 4 + 93, {0, 4, 4 + 65, 4 + 89});
  return {mirror, Seed(1, 2, {0, 1}), lacp, Seed(3, 8, {0, 4}), Seed(4, 36, {8, 24, 31})};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zelfuzz::MaybeWriteSeeds(Seeds());
  zelconfigstore_debug = -1;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > (1 << 16)) return 0;
  const Row &row = kRows[(data[0] & 0x7F) % (sizeof kRows / sizeof kRows[0])];
  const bool wide = (data[0] & 0x80) != 0;
  // An exact-size copy, so that any read past the value is caught.
  const size_t length = size - 1;
  auto *value = static_cast<uint8_t *>(std::malloc(length ? length : 1));
  if (length) std::memcpy(value, data + 1, length);

  zp::currentSwitchClass = zp::kClassOther;
  zp::currentSwitchIsQor = wide;
  cs::Object *object = nullptr, *settings = nullptr;
  if (cs::CreateObject("switches", "network_zel", "orn", "fuzz", "{}", &object) == 0 &&
      cs::CreateSubObject(object, "settings", nullptr, &settings) == 0) {
    const zp::SaveArgs save{object, settings, row.key, row.name, value,
                            static_cast<uint32_t>(length), 0, 16};
    zp::FindKind(row.kind)->save(save);
    PropertyList *list = nullptr;
    if (ZELData_Alloc(&list, [](uint64_t n) { return std::malloc(n); }, std::free) == 0) {
      const zp::LoadArgs load{object, settings, row.key, list, row.name, 16, 0, wide ? 107u : 7u};
      zp::FindKind(row.kind)->load(load);
      PropertyEntry *entry = nullptr;
      if (row.kind == 9 && ZELData_Lookup(list, row.name, &entry) == 0) {
        void *bytes = nullptr;
        const uint32_t n = ZELData_Data(entry, &bytes);
        uint32_t sessions = 0, entries = 0;
        std::memcpy(&sessions, static_cast<uint8_t *>(bytes) + 8, 4);
        std::memcpy(&entries, static_cast<uint8_t *>(bytes) + 12, 4);
        if (n != 20 + 232ull * sessions + (wide ? 52ull : 36ull) * entries) std::abort();
      }
      ZELData_Free(list);
    }
  }
  cs::DestroyConfigStoreObject(object);
  std::free(value);
  return 0;
}
