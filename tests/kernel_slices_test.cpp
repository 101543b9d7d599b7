// The name-pattern routines on lists built here, and the switch- and
// port-level slices of states built in the emulated module.
#include "kernel_fixture.h"

namespace {

using namespace zelkerneltest;

// Other types go, the pattern goes, exception names (whole names only) stay
// whatever their type.  Lists from outside may repeat a name: removal by name
// must never free an entry the walk still stands on.
TEST(KernelNamePatterns, ExceptionsRepeatedNamesAndPrefixes) {
  const char *exceptions[] = {"b", "com.zorlan.x.c", nullptr};
  const char *whole[] = {"com.zorlan.x.", nullptr};
  const struct {
    Props in;
    const char *const *exceptions;
    Props out;
  } cases[] = {
      {{{"a.com.zorlan.x", {1}}, {"b", {2}, 32}, {"com.zorlan.x.c", {3}}, {"keep", {4}},
        {"d", {5}, 24}},
       exceptions,
       {{"b", {2}, 32}, {"com.zorlan.x.c", {3}}, {"keep", {4}}}},
      {{{"com.zorlan.x.X", {1}}, {"com.zorlan.x.", {1}}}, whole, {{"com.zorlan.x.", {1}}}},
      {{{"dup", {1}}, {"keep", {2}}, {"dup", {3}, 32}}, nullptr, {{"keep", {2}}}},
      {{{"dup", {1}, 32}, {"dup", {2}}, {"x", {3}, 32}}, nullptr, {{"dup", {2}}}},
  };
  for (const auto &c : cases) {
    PropertyList *list = MakeList(c.in);
    const ReturnStatus walked = ZELPYXStripNamedPropForType(list, "com.zorlan.x", c.exceptions, 16);
    EXPECT_EQ(walked, STATUS_NOT_FOUND);  // the end of the walk
    EXPECT_EQ(Entries(list), c.out);
    ZELData_Free(list);
  }
  PropertyList *list = MakeList({});
  EXPECT_EQ(ZELPYXExtractNamedPropForType(list, nullptr, 16), STATUS_BAD_PARAM);
  ZELData_Free(list);
  // Prefixes match at the start only, and whole.
  EXPECT_TRUE(IsQorProp("com.zorlan.qor."));
  for (const char *name : {"com.zorlan.qor", "com.zorlan.vswitch.disable"})
    EXPECT_FALSE(IsQorProp(name)) << name;
}

class KernelSlicesTest : public KernelTest {
 protected:
  using ListFn = ReturnStatus (*)(const char *, PropertyList **, uint32_t);
  // The names in the slice; the list handed out is the caller's to free.
  static V Slice(ListFn fn, const char *sw, uint32_t type) {
    return Take([&](PropertyList **list) { return fn(sw, list, type); });
  }
  static V Take(const std::function<ReturnStatus(PropertyList **)> &fn) {
    PropertyList *list = nullptr;
    EXPECT_EQ(fn(&list), STATUS_OK);
    EXPECT_TRUE(DatabaseEmpty());
    const V out = Names(Entries(list));
    ZELData_Free(list);
    return out;
  }
  static V Qor(const char *sw, uint32_t type, int global) {
    return Take([&](PropertyList **list) { return ZELPYX_QorPropList(sw, type, global, list); });
  }
};

TEST_F(KernelSlicesTest, VendorListsAndTheVersion107Strip) {
  AddSwitch("sky");
  SetGlobal("sky", {{"com.zorlan.common.alias", Text("sky")},
                    {"acme.feature", Text("on")},
                    {"acme.other", Text("x"), 32},
                    {"com.zorlan.vswitch.disabled", Text("no")},
                    {"com.zorlan.vswitch.mtu", U32(9000)},
                    {"com.zorlan.etherswitch.lacp", {1}},
                    {"dvfilter-generic-acme", {1}},
                    {"com.zorlan.qorData.a", {1}},
                    {"com.zorlan.extraconfig.k", Text("v")},
                    {"vendor.com.zorlan.common.inside", {1}},
                    {"com.zorlan.qor.vdr.dvptracking", {1}}});
  SetHost("sky", {{"com.zorlan.common.host.portset", Text("ps")},
                  {"com.zorlan.extraconfig.h", Text("v")},
                  {"acme.host", Text("h")},
                  {"com.zorlan.qor.vdr.dvptracking", {1}}});

  // No version property: the query fails and is ignored.
  EXPECT_EQ(Slice(ZELPYX_VendorGlobalPropList, "sky", 16),
            (V{"acme.feature", "com.zorlan.vswitch.disabled", "com.zorlan.qor.vdr.dvptracking"}));
  EXPECT_EQ(Slice(ZELPYX_VendorGlobalPropList, "sky", 32), V{"acme.other"});

  SetGlobal("sky", {{"com.zorlan.common.version", U32(107)}});
  EXPECT_EQ(Slice(ZELPYX_VendorGlobalPropList, "sky", 16),
            (V{"acme.feature", "com.zorlan.vswitch.disabled"}));
  // The host list keeps extra-config names.
  EXPECT_EQ(Slice(ZELPYX_VendorHostPropList, "sky", 16),
            (V{"com.zorlan.extraconfig.h", "acme.host"}));
}

// Failures hand nothing out, leave the database empty and release the lock.
// Then the extra-config and policy lists of a switch, and a port's lists.
TEST_F(KernelSlicesTest, ExtraConfigQorAndPortListsAfterFailures) {
  AddSwitch("sw", "etherswitch", 6);
  PropertyList *sentinel = reinterpret_cast<PropertyList *>(&kernel);
  PropertyList *list = sentinel;
  EXPECT_EQ(ZELPYX_VendorGlobalPropList("nosw", &list, 16), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELPYX_ExtraConfigPropList(nullptr, &list, 16), STATUS_NOT_FOUND);
  kernel.InjectFault({{}, ZELPYX_REQ_STATE_GET, STATUS_NO_MEMORY, ENOMEM});
  EXPECT_EQ(ZELPYX_VendorHostPropList("sw", &list, 16), STATUS_NO_MEMORY);
  kernel.InjectFault({{}, ZELPYX_REQ_PORT_STATE_GET, STATUS_NOT_FOUND, ENOENT});
  EXPECT_EQ(ZELPYX_VendorPortPropList("sw", "p", &list, 16), STATUS_NOT_FOUND);
  EXPECT_EQ(list, sentinel);

  SetGlobal("sw", {{"com.zorlan.extraconfig.k", Text("1")},
                   {"com.zorlan.extraconfig.j", Text("2"), 24},
                   {"x.com.zorlan.extraconfig.m", Text("3")},
                   {"com.zorlan.extraconfigX", Text("4")},
                   {"com.zorlan.qor.a", {1}},
                   {"com.zorlan.qor.b", {2}, 24},
                   {"com.zorlan.net.portset.fc.x", {3}, 32},
                   {"com.zorlan.net.portset.fc.y", {4}, 24},
                   {"x.com.zorlan.qor.c", {5}},
                   {"com.zorlan.vswitch.teamingPolicy", {6}}});
  SetHost("sw", {{"com.zorlan.host.feature.container", {1}}, {"com.zorlan.qor.h", {2}, 32}});

  EXPECT_EQ(Slice(ZELPYX_ExtraConfigPropList, "sw", 16),
            (V{"com.zorlan.extraconfig.k", "x.com.zorlan.extraconfig.m"}));
  EXPECT_EQ(Slice(ZELPYX_ExtraConfigPropList, "sw", 24), V{"com.zorlan.extraconfig.j"});
  // Type 16 also takes every "com.zorlan.net.portset.fc." name, whatever its type.
  EXPECT_EQ(Qor("sw", 16, 1),
            (V{"com.zorlan.qor.a", "com.zorlan.net.portset.fc.x", "com.zorlan.net.portset.fc.y",
               "com.zorlan.vswitch.teamingPolicy"}));
  EXPECT_EQ(Qor("sw", 24, 1), (V{"com.zorlan.qor.b", "com.zorlan.net.portset.fc.y"}));
  EXPECT_EQ(Qor("sw", 16, 0), V{"com.zorlan.host.feature.container"});
  EXPECT_EQ(Qor("sw", 32, 0), V{"com.zorlan.qor.h"});

  AddPort("sw", "p", {{"com.zorlan.common.port.alias", Text("a")},
                      {"acme.port", Text("1")},
                      {"acme.port32", Text("2"), 32},
                      {"com.zorlan.net.foo", Text("3"), 32},
                      {"com.zorlan.net.bar", Text("4"), 24},
                      {"com.zorlan.port.extraConfig.a", Text("5")},
                      {"com.zorlan.port.extraConfigB", Text("6")},
                      {"com.zorlan.port.opaque.networkX", Text("7")},
                      {"com.zorlan.vswitch.port.vlan", Text("8")},
                      {"dvfilter-generic-1", Text("9")}});
  auto port = [](ReturnStatus (*fn)(const char *, const char *, PropertyList **, uint32_t),
                 uint32_t type) {
    return Take([&](PropertyList **list) { return fn("sw", "p", list, type); });
  };
  EXPECT_EQ(port(ZELPYX_VendorPortPropList, 16), (V{"acme.port", "com.zorlan.port.extraConfigB"}));
  EXPECT_EQ(port(ZELPYX_VendorPortPropList, 32), V{"acme.port32"});
  EXPECT_EQ(port(ZELPYX_VendorPortPropList, 24), V{"com.zorlan.net.bar"});
  // Port-level slices use neither the channel lock's scratch space nor the database.
  const uint64_t stateGets = kernel.IoctlCount(ZELPYX_REQ_STATE_GET);
  EXPECT_EQ(port(ZELPYX_ExtraConfigPortPropList, 16),
            (V{"com.zorlan.port.extraConfig.a", "com.zorlan.port.extraConfigB"}));
  EXPECT_EQ(kernel.IoctlCount(ZELPYX_REQ_STATE_GET), stateGets);
}

// The port list: 8 bytes of header, then 52-byte entries without gaps.
TEST_F(KernelSlicesTest, SwitchPortListLayout) {
  AddSwitch("sw");
  AddPort("sw", "p1", {{"com.zorlan.common.port.connectid", U32(0x11223344)}});
  AddPort("sw", "p2", {{"com.zorlan.common.port.connectid", U32(9)}}, PORT_KIND_SHADOW);
  AddPort("sw", "p3");
  AddPort("sw", "p4", {{"com.zorlan.common.port.connectid", {0x05, 0x06}}});  // short value
  AddPort("sw", "p5", {}, PORT_KIND_ZOMBIE);
  AddSwitch("empty");
  const struct {
    const char *sw;
    uint32_t kind;
    std::vector<std::pair<const char *, uint32_t>> rows;
  } cases[] = {{"sw", PORT_KIND_NORMAL, {{"p1", 0x11223344}, {"p3", 0}, {"p4", 0x0605}}},
               {"sw", PORT_KIND_SHADOW, {{"p2", 9}}},
               {"empty", PORT_KIND_NORMAL, {}}};
  for (const auto &c : cases) {
    ZELPYXPortList *list = nullptr;
    ASSERT_EQ(ZELPYX_SwitchPortList(c.sw, &list, c.kind), STATUS_OK);
    Bytes expected(8 + c.rows.size() * 52, 0);
    std::memcpy(expected.data(), U32(uint32_t(c.rows.size())).data(), 4);
    std::memcpy(expected.data() + 4, U32(c.kind).data(), 4);
    for (size_t i = 0; i < c.rows.size(); ++i) {
      std::memcpy(expected.data() + 8 + 52 * i, c.rows[i].first, 2);
      std::memcpy(expected.data() + 56 + 52 * i, &c.rows[i].second, 4);
    }
    const auto *raw = reinterpret_cast<uint8_t *>(list);
    EXPECT_EQ(Bytes(raw, raw + expected.size()), expected);
    ZELPYX_DataFree(list);
  }
}

}  // namespace
