// Slices of the kernel's property lists: the name-pattern routines on lists
// built here, and the switch- and port-level lists against states built in
// the emulated module.
#include "kernel_fixture.h"

namespace {

using namespace zelkerneltest;

// --- name-pattern routines ---

TEST(KernelNamePatterns, StripExtractAndPrefixes) {
  const Props base = {{"a.com.zorlan.x", {1}, 16}, {"b", {2}, 32}, {"com.zorlan.x.c", {3}, 16},
                      {"keep.me", {4}, 16},        {"d", {5}, 24}};
  PropertyList *list = MakeList(base);
  EXPECT_EQ(ZELPYXStripNamedProp(list, "com.zorlan.x"), STATUS_NOT_FOUND);  // end of the walk
  EXPECT_EQ(Names(Entries(list)), (std::vector<std::string>{"b", "keep.me", "d"}));
  ZELData_Free(list);

  // Other types go, the pattern goes, exception names stay whatever their type.
  list = MakeList(base);
  const char *exceptions[] = {"b", "com.zorlan.x.c", nullptr};
  EXPECT_EQ(ZELPYXStripNamedPropForType(list, "com.zorlan.x", exceptions, 16), STATUS_NOT_FOUND);
  EXPECT_EQ(Names(Entries(list)), (std::vector<std::string>{"b", "com.zorlan.x.c", "keep.me"}));
  ZELData_Free(list);

  list = MakeList(base);
  EXPECT_EQ(ZELPYXExtractNamedPropForType(list, "com.zorlan.x", 16), STATUS_NOT_FOUND);
  EXPECT_EQ(Names(Entries(list)), (std::vector<std::string>{"a.com.zorlan.x", "com.zorlan.x.c"}));
  ZELData_Free(list);

  // Exception names match whole names only.
  list = MakeList({{"com.zorlan.vswitch.disabledX", {1}, 16}, {"com.zorlan.vswitch.disabled", {1}, 16}});
  const char *disabled[] = {"com.zorlan.vswitch.disabled", nullptr};
  ZELPYXStripNamedPropForType(list, "com.zorlan.vswitch.", disabled, 16);
  EXPECT_EQ(Names(Entries(list)), (std::vector<std::string>{"com.zorlan.vswitch.disabled"}));
  ZELData_Free(list);

  EXPECT_EQ(ZELPYXStripNamedProp(nullptr, "x"), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELPYXExtractNamedPropForType(list = MakeList({}), nullptr, 16), STATUS_BAD_PARAM);
  ZELData_Free(list);

  for (const char *name :
       {"com.zorlan.qorData.x", "com.zorlan.vswitch.teamingPolicy", "com.zorlan.qor.", "com.zorlan.common.opaqueZel.a",
        "com.zorlan.host.feature.container", "com.zorlan.extraconfig.opaqueZel.b",
        "com.zorlan.vswitch.disabled", "com.zorlan.net.portset.fc.1",
        "com.zorlan.port.extraConfig.sddcaas.z"}) {
    EXPECT_TRUE(IsQorProp(name)) << name;
  }
  for (const char *name : std::initializer_list<const char *>{"x.com.zorlan.qor.a", "com.zorlan.qor",
                                                             "com.zorlan.vswitch.disable", "", nullptr}) {
    EXPECT_FALSE(IsQorProp(name)) << (name ? name : "null");
  }
}

// Lists from outside may repeat a name; removal by name must never free an
// entry the walk still stands on.
TEST(KernelNamePatterns, RepeatedNames) {
  PropertyList *list = MakeList({{"dup", {1}, 16}, {"keep", {2}, 16}, {"dup", {3}, 32}});
  ZELPYXStripNamedPropForType(list, "zzz", nullptr, 16);
  EXPECT_EQ(Entries(list), (Props{{"keep", {2}, 16}}));
  ZELData_Free(list);

  list = MakeList({{"dup", {1}, 32}, {"dup", {2}, 16}, {"x", {3}, 32}});
  ZELPYXStripNamedPropForType(list, "zzz", nullptr, 16);
  EXPECT_EQ(Entries(list), (Props{{"dup", {2}, 16}}));
  ZELData_Free(list);
}

// --- switch-level slices ---

class KernelSlicesTest : public KernelTest {
 protected:
  using ListFn = ReturnStatus (*)(const char *, PropertyList **, uint32_t);
  // The slice's entries; the list handed out is the caller's to free.
  static Props Slice(ListFn fn, const char *sw, uint32_t type) {
    PropertyList *list = nullptr;
    EXPECT_EQ(fn(sw, &list, type), STATUS_OK);
    EXPECT_TRUE(DatabaseEmpty());
    Props out = Entries(list);
    ZELData_Free(list);
    return out;
  }
  static Props Qor(const char *sw, uint32_t type, int global) {
    PropertyList *list = nullptr;
    EXPECT_EQ(ZELPYX_QorPropList(sw, type, global, &list), STATUS_OK);
    Props out = Entries(list);
    ZELData_Free(list);
    return out;
  }
};

TEST_F(KernelSlicesTest, VendorListsAndTheVersion107Strip) {
  AddSwitch("sky");
  SetGlobal("sky", {{"com.zorlan.common.alias", Text("sky"), 16},
                    {"acme.feature", Text("on"), 16},
                    {"acme.other", Text("x"), 32},
                    {"com.zorlan.vswitch.disabled", Text("no"), 16},
                    {"com.zorlan.vswitch.mtu", U32(9000), 16},
                    {"com.zorlan.etherswitch.lacp", {1}, 16},
                    {"dvfilter-generic-acme", {1}, 16},
                    {"com.zorlan.qorData.a", {1}, 16},
                    {"com.zorlan.extraconfig.k", Text("v"), 16},
                    {"vendor.com.zorlan.common.inside", {1}, 16},
                    {"com.zorlan.qor.vdr.dvptracking", {1}, 16}});
  SetHost("sky", {{"com.zorlan.common.host.portset", Text("ps"), 16},
                  {"com.zorlan.extraconfig.h", Text("v"), 16},
                  {"acme.host", Text("h"), 16},
                  {"acme.host24", {7}, 24},
                  {"com.zorlan.qor.vdr.dvptracking", {1}, 16}});

  // No version property: the query fails and is ignored.
  const uint64_t queries = kernel.IoctlCount(ZELPYX_REQ_GLOBAL_PROP_GET);
  EXPECT_EQ(Names(Slice(ZELPYX_VendorGlobalPropList, "sky", 16)),
            (std::vector<std::string>{"acme.feature", "com.zorlan.vswitch.disabled",
                                      "com.zorlan.qor.vdr.dvptracking"}));
  EXPECT_EQ(kernel.IoctlCount(ZELPYX_REQ_GLOBAL_PROP_GET) - queries, 1u);
  EXPECT_EQ(Slice(ZELPYX_VendorGlobalPropList, "sky", 32), (Props{{"acme.other", Text("x"), 32}}));
  // The host list keeps extra-config names.
  EXPECT_EQ(Names(Slice(ZELPYX_VendorHostPropList, "sky", 16)),
            (std::vector<std::string>{"com.zorlan.extraconfig.h", "acme.host",
                                      "com.zorlan.qor.vdr.dvptracking"}));

  SetGlobal("sky", {{"com.zorlan.common.version", U32(107), 16}});
  EXPECT_EQ(Names(Slice(ZELPYX_VendorGlobalPropList, "sky", 16)),
            (std::vector<std::string>{"acme.feature", "com.zorlan.vswitch.disabled"}));
  EXPECT_EQ(Names(Slice(ZELPYX_VendorHostPropList, "sky", 24)),
            (std::vector<std::string>{"acme.host24"}));
  EXPECT_EQ(Names(Slice(ZELPYX_VendorHostPropList, "sky", 16)),
            (std::vector<std::string>{"com.zorlan.extraconfig.h", "acme.host"}));
  SetGlobal("sky", {{"com.zorlan.common.version", U32(7), 16}});
  EXPECT_EQ(Slice(ZELPYX_VendorGlobalPropList, "sky", 16).size(), 3u);
  EXPECT_EQ(ZELPYXVendorPropList("sky", nullptr, 16, 0), STATUS_BAD_PARAM);
}

TEST_F(KernelSlicesTest, ExtraConfigAndQorLists) {
  AddSwitch("sw", "etherswitch", 6);
  SetGlobal("sw", {{"com.zorlan.extraconfig.k", Text("1"), 16},
                   {"com.zorlan.extraconfig.j", Text("2"), 24},
                   {"x.com.zorlan.extraconfig.m", Text("3"), 16},
                   {"com.zorlan.extraconfigX", Text("4"), 16},
                   {"com.zorlan.qor.a", {1}, 16},
                   {"com.zorlan.qor.b", {2}, 24},
                   {"com.zorlan.net.portset.fc.x", {3}, 32},
                   {"com.zorlan.net.portset.fc.y", {4}, 24},
                   {"x.com.zorlan.qor.c", {5}, 16},
                   {"com.zorlan.vswitch.teamingPolicy", {6}, 16}});
  SetHost("sw", {{"com.zorlan.host.feature.container", {1}, 16}, {"com.zorlan.qor.h", {2}, 32}});

  EXPECT_EQ(Names(Slice(ZELPYX_ExtraConfigPropList, "sw", 16)),
            (std::vector<std::string>{"com.zorlan.extraconfig.k", "x.com.zorlan.extraconfig.m"}));
  EXPECT_EQ(Names(Slice(ZELPYX_ExtraConfigPropList, "sw", 24)),
            (std::vector<std::string>{"com.zorlan.extraconfig.j"}));

  // Type 16 also takes every "com.zorlan.net.portset.fc." name, whatever its type.
  EXPECT_EQ(Names(Qor("sw", 16, 1)),
            (std::vector<std::string>{"com.zorlan.qor.a", "com.zorlan.net.portset.fc.x",
                                      "com.zorlan.net.portset.fc.y", "com.zorlan.vswitch.teamingPolicy"}));
  EXPECT_EQ(Names(Qor("sw", 24, 1)),
            (std::vector<std::string>{"com.zorlan.qor.b", "com.zorlan.net.portset.fc.y"}));
  EXPECT_EQ(Names(Qor("sw", 16, 0)), (std::vector<std::string>{"com.zorlan.host.feature.container"}));
  EXPECT_EQ(Names(Qor("sw", 32, 0)), (std::vector<std::string>{"com.zorlan.qor.h"}));
}

// The port list: 8 bytes of header, then 52-byte entries without gaps.
TEST_F(KernelSlicesTest, SwitchPortListLayout) {
  AddSwitch("sw");
  AddPort("sw", "p1", {{"com.zorlan.common.port.connectid", U32(0x11223344), 16}});
  AddPort("sw", "p2", {{"com.zorlan.common.port.connectid", U32(9), 16}}, PORT_KIND_SHADOW);
  AddPort("sw", "p3");
  AddPort("sw", "p4", {{"com.zorlan.common.port.connectid", {0x05, 0x06}, 16}});  // short value
  AddPort("sw", "p5", {}, PORT_KIND_ZOMBIE);
  AddPort("sw", std::string(47, 'L').c_str(), {}, PORT_KIND_LOCAL_CACHE);
  AddSwitch("empty");

  auto list = [](const char *sw, uint32_t kind) {
    ZELPYXPortList *out = nullptr;
    EXPECT_EQ(ZELPYX_SwitchPortList(sw, &out, kind), STATUS_OK);
    return out;
  };
  ZELPYXPortList *normal = list("sw", PORT_KIND_NORMAL);
  Bytes expected(8 + 3 * 52, 0);
  std::memcpy(expected.data(), U32(3).data(), 4);
  std::memcpy(expected.data() + 4, U32(1).data(), 4);
  const std::pair<const char *, uint32_t> rows[] = {{"p1", 0x11223344}, {"p3", 0}, {"p4", 0x0605}};
  for (int i = 0; i < 3; ++i) {
    std::memcpy(expected.data() + 8 + 52 * i, rows[i].first, 2);
    std::memcpy(expected.data() + 56 + 52 * i, &rows[i].second, 4);
  }
  EXPECT_EQ(Bytes(reinterpret_cast<uint8_t *>(normal), reinterpret_cast<uint8_t *>(normal) + expected.size()),
            expected);
  ZELPYX_DataFree(normal);

  ZELPYXPortList *shadow = list("sw", PORT_KIND_SHADOW);
  ASSERT_EQ(shadow->count, 1u);
  EXPECT_STREQ(shadow->entries[0].portId, "p2");
  EXPECT_EQ(shadow->entries[0].connectId, 9u);
  ZELPYX_DataFree(shadow);
  ZELPYXPortList *cache = list("sw", PORT_KIND_LOCAL_CACHE);
  ASSERT_EQ(cache->count, 1u);
  EXPECT_EQ(std::string(cache->entries[0].portId), std::string(47, 'L'));
  ZELPYX_DataFree(cache);
  ZELPYXPortList *none = list("empty", PORT_KIND_NORMAL);
  EXPECT_EQ(none->count, 0u);
  EXPECT_EQ(none->portKind, PORT_KIND_NORMAL);
  ZELPYX_DataFree(none);
}

// Failures hand nothing out, leave the database empty and release the lock.
TEST_F(KernelSlicesTest, FailuresLeaveNothingBehind) {
  AddSwitch("sw");
  PropertyList *sentinel = reinterpret_cast<PropertyList *>(&kernel);
  PropertyList *list = sentinel;
  ZELPYXPortList *ports = reinterpret_cast<ZELPYXPortList *>(&kernel);
  EXPECT_EQ(ZELPYX_VendorGlobalPropList("nosw", &list, 16), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELPYX_QorPropList("nosw", 16, 1, &list), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELPYX_ExtraConfigPropList(nullptr, &list, 16), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELPYX_SwitchPortList("nosw", &ports, 1), STATUS_NOT_FOUND);
  EXPECT_EQ(ports, reinterpret_cast<ZELPYXPortList *>(&kernel));

  using Kind = zel::sim::EmulatedKernel::FaultKind;
  kernel.InjectFault({Kind::kFailWithStatus, ZELPYX_REQ_STATE_GET, STATUS_NO_MEMORY, ENOMEM});
  EXPECT_EQ(ZELPYX_VendorHostPropList("sw", &list, 16), STATUS_NO_MEMORY);
  kernel.InjectFault({Kind::kFailWithStatus, ZELPYX_REQ_PORT_STATE_GET, STATUS_NOT_FOUND, ENOENT});
  EXPECT_EQ(ZELPYX_VendorPortPropList("sw", "p", &list, 16), STATUS_NOT_FOUND);
  EXPECT_EQ(list, sentinel);

  // A state blob that does not decode: the decoder's status, lock released.
  class Corrupting : public zel::host::DeviceTransport {
   public:
    explicit Corrupting(zel::host::DeviceTransport &inner) : inner_(inner) {}
    int Open(const char *path, int flags) override { return inner_.Open(path, flags); }
    int Close(int fd) override { return inner_.Close(fd); }
    int Ioctl(int fd, unsigned long request, void *arg) override {
      const int rc = inner_.Ioctl(fd, request, arg);
      auto *cmd = static_cast<ZELPYXCommand *>(arg);
      if (rc == 0 && request == ZELPYX_REQ_STATE_GET) {
        reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(cmd->data))[cmd->dataLen / 2] ^= 0x5A;
      }
      return rc;
    }

   private:
    zel::host::DeviceTransport &inner_;
  } corrupting(kernel);
  ASSERT_EQ(ZELPYX_GlobalPropSet("sw", "acme", "x", 2, 16), STATUS_OK);
  {
    zel::kernel::ScopedTransport useCorrupting(&corrupting);
    EXPECT_EQ(ZELPYX_ExtraConfigPropList("sw", &list, 16), STATUS_BAD_CHECKSUM);
    EXPECT_EQ(list, sentinel);
  }
  EXPECT_EQ(Slice(ZELPYX_VendorGlobalPropList, "sw", 16), (Props{{"acme", Text("x"), 16}}));
}

// --- port-level slices ---

TEST_F(KernelSlicesTest, PortLists) {
  AddSwitch("sw");
  AddPort("sw", "p", {{"com.zorlan.common.port.alias", Text("a"), 16},
                      {"acme.port", Text("1"), 16},
                      {"acme.port32", Text("2"), 32},
                      {"com.zorlan.net.foo", Text("3"), 32},
                      {"com.zorlan.net.bar", Text("4"), 24},
                      {"com.zorlan.port.extraConfig.a", Text("5"), 16},
                      {"com.zorlan.port.extraConfigB", Text("6"), 16},
                      {"com.zorlan.port.opaque.networkX", Text("7"), 16},
                      {"com.zorlan.vswitch.port.vlan", Text("8"), 16},
                      {"dvfilter-generic-1", Text("9"), 16}});
  auto port = [](ReturnStatus (*fn)(const char *, const char *, PropertyList **, uint32_t),
                 uint32_t type) {
    PropertyList *list = nullptr;
    EXPECT_EQ(fn("sw", "p", &list, type), STATUS_OK);
    Props out = Entries(list);
    ZELData_Free(list);
    return Names(out);
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(port(ZELPYX_VendorPortPropList, 16), (V{"acme.port", "com.zorlan.port.extraConfigB"}));
  EXPECT_EQ(port(ZELPYX_VendorPortPropList, 32), (V{"acme.port32"}));
  EXPECT_EQ(port(ZELPYX_VendorPortPropList, 24), (V{"com.zorlan.net.bar"}));
  EXPECT_EQ(port(ZELPYX_ExtraConfigPortPropList, 16),
            (V{"com.zorlan.port.extraConfig.a", "com.zorlan.port.extraConfigB"}));
  // Port-level slices use neither the channel lock's scratch space nor the database.
  const uint64_t stateGets = kernel.IoctlCount(ZELPYX_REQ_STATE_GET);
  port(ZELPYX_ExtraConfigPortPropList, 24);
  EXPECT_EQ(kernel.IoctlCount(ZELPYX_REQ_STATE_GET), stateGets);
}

}  // namespace
