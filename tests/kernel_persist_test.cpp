// Persistent retrieval, port state, the search by external id and the save
// into the configuration store against the emulated module.
#include <latch>
#include <thread>

#include "hardening_support.h"
#include "host/configstore_client.h"
#include "host/feature_flags.h"
#include "host/status_text.h"
#include "kernel_fixture.h"
#include "log_capture.h"
#include "zel/configstore.h"
#include "zel/file.h"

namespace {

using namespace zelkerneltest;
constexpr const char *kVnic = "com.zorlan.port.extraConfig.vnic.external.id";

std::vector<SwitchView> Persistent(const char *statePath, ReturnStatus expect = STATUS_OK) {
  void *blob = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(ZELPYX_PersistentStateGetWithFile(&blob, &length, statePath), expect);
  std::vector<SwitchView> out;
  if (blob != nullptr) out = View(blob, length);
  std::free(blob);
  EXPECT_TRUE(DatabaseEmpty());
  return out;
}

class KernelPersistTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    zel::host::SetConfigStoreFeatures(false, false);
    zel::cfgstore::testing::UsePath((tmp_.path() + "/configstore.db").c_str());
    zel::cfgstore::testing::ClearFailures();
  }
  void TearDown() override {
    zel::cfgstore::testing::UsePath(nullptr);
    zel::cfgstore::testing::ClearFailures();
    zel::host::ClearConfigStoreFeatures();
    KernelTest::TearDown();
  }
  hardening::TempDir tmp_;
  const std::string statePath_ = tmp_.path() + "/zel.state";
};

// ".volatile." names go at every level; only normal ports without the persist
// marker stay, and of an opaque portset's only ids that are not numbers >= 1000.
TEST_F(KernelPersistTest, VolatileNamesPortKindsAndOpaquePortsets) {
  AddSwitch("a");
  SetGlobal("a", {{"com.zorlan.common.alias", Text("blue")},
                  {"com.zorlan.common.foo.volatile.bar", {1}},
                  {ZEL_PROP_NOPERSIST, {0}}});  // zero first byte: persisted
  SetHost("a", {{"h.volatile.x", {1}}, {"h.keep", {2}, 24}});
  AddPort("a", "n1", {{"keep", {1}}, {"x.volatile.y", {2}}});
  AddPort("a", "n2", {{ZEL_PROP_PORT_PERSIST, {1}}});
  for (uint32_t kind : {PORT_KIND_SHADOW, PORT_KIND_ZOMBIE, PORT_KIND_LOCAL_CACHE})
    AddPort("a", std::to_string(kind).c_str(), {}, kind);
  AddPort("a", "n3");
  const V ids = {"999", "0999", "1000", "p1000", "4000", "12", "2147483648"};
  for (const auto &[sw, opaque] : {std::pair{"o", "true"}, {"t", "trueish"}, {"f", "false"}}) {
    AddSwitch(sw);
    SetHost(sw, {{"com.zorlan.common.portset.opaque", Text(opaque)}});
    for (const std::string &id : ids) AddPort(sw, id.c_str());
  }
  AddPort("o", "5000", {}, PORT_KIND_SHADOW);  // no normal port of that id to remove

  // Nothing flagged: the state path (no such file) is never read.
  const auto result = Persistent(statePath_.c_str());
  ASSERT_EQ(Ids(result), (V{"a", "o", "t", "f"}));
  EXPECT_EQ(result[0].global, (Props{{"com.zorlan.common.alias", Text("blue")}}));
  EXPECT_EQ(result[0].host, (Props{{"h.keep", {2}, 24}}));
  EXPECT_EQ(Ids(result[0].ports), (V{"n1", "n3"}));
  EXPECT_EQ(result[0].ports[0].props, (Props{{"keep", {1}}}));
  // 2147483648 overflows a 32-bit integer as the C library converts it: kept.
  const V kept = {"999", "0999", "p1000", "12", "2147483648"};
  EXPECT_EQ(Ids(result[1].ports), kept);
  EXPECT_EQ(Ids(result[2].ports), kept);
  EXPECT_EQ(Ids(result[3].ports), ids);

  // The caller's own buffer is used when given; too small a one is refused.
  uint8_t small[16];
  void *buffer = small;
  uint32_t capacity = sizeof small;
  EXPECT_EQ(ZELPYX_PersistentStateGet(&buffer, &capacity), STATUS_LIMIT_EXCEEDED);
}

TEST_F(KernelPersistTest, FlaggedSwitchesWithAndWithoutAStatePath) {
  AddSwitch("keep");
  AddSwitch("flag", "etherswitch", 6);
  SetGlobal("flag", {{ZEL_PROP_NOPERSIST, {1}}, {"com.zorlan.common.alias", Text("x")}});
  AddPort("flag", "kp");
  AddSwitch("flag2", "etherswitch", 6);
  SetGlobal("flag2", {{ZEL_PROP_NOPERSIST, {2}}});

  // A state file that cannot be read fails the whole retrieval.
  zeltest::LogCapture log;
  EXPECT_TRUE(Persistent(statePath_.c_str(), STATUS_NOT_FOUND).empty());

  // The stored state: its version of "flag" (reduced in turn) replaces the
  // kernel's; its other switches stay out.
  SwitchView other{"other", 7, "vswitch", 4096}, flag{"flag", 5, "limited", 16};
  flag.global = {{"com.zorlan.common.alias", Text("stored")}, {"a.volatile.b", {1}}};
  flag.ports = {{"sp", {{"v", {1}}}}, {"ss", {{ZEL_PROP_PORT_TYPE, U32(PORT_KIND_SHADOW)}}}};
  const Bytes blob = Blob({other, flag});
  ASSERT_EQ(ZELFile_Write(statePath_.c_str(), blob.data(), uint32_t(blob.size())), STATUS_OK);
  const auto result = Persistent(statePath_.c_str());
  ASSERT_EQ(Ids(result), (V{"keep", "flag"}));
  EXPECT_EQ(result[1].className, "limited");
  EXPECT_EQ(result[1].global, (Props{{"com.zorlan.common.alias", Text("stored")}}));
  EXPECT_EQ(Ids(result[1].ports), V{"sp"});

  // A stored state that does not load: its status, with a message.
  const Bytes garbage(700, 0x42);
  ASSERT_EQ(ZELFile_Write(statePath_.c_str(), garbage.data(), 700), STATUS_OK);
  EXPECT_EQ(zeltest::CaptureStderr([&] { Persistent(statePath_.c_str(), STATUS_BAD_PARAM); }),
            "ZELState_ConfigDeserialize failed: " +
                std::string(zel::host::PYX_ReturnStatusToString(STATUS_BAD_PARAM)) + "\n");
}

// One port's data without volatile names, straight from the kernel; the
// search by external id: p3's vnic id hides its pyxnic id, an empty id matches
// any search, and a search longer than the field is matched whole and echoed
// cut to 47 characters.
TEST_F(KernelPersistTest, PortStateAndTheSearchByExternalId) {
  constexpr const char *kPyxnic = "com.zorlan.port.extraConfig.pyxnic.external.id";
  const Props kept = {{"com.zorlan.common.port.alias", Text("a")}, {"acme", {1, 2}, 24}};
  const std::string longId(50, 'L');
  AddSwitch("sw");
  AddPort("sw", "p0", {kept[0], {"com.zorlan.common.port.volatile.persist", {1}}, kept[1],
                       {"x.volatile.", {3}}});
  AddPort("sw", "p1", {{kVnic, Text("abc")}});
  AddPort("sw", "p2", {{kPyxnic, Text("xyz")}});
  AddPort("sw", "p3", {{kVnic, Text("v")}, {kPyxnic, Text("q")}});
  AddPort("sw", "p4", {{kVnic, Text(longId)}});
  AddPort("sw", "p5", {{kVnic, Text("")}});
  AddSwitch("none");
  void *buffer = nullptr;
  uint32_t length = 0;
  for (uint32_t version : {5u, 7u}) {
    ASSERT_EQ(ZELPYX_PersistentPortStateGet("sw", "p0", version, &buffer, &length), STATUS_OK);
    EXPECT_EQ(zelstatetest::AsBytes(buffer, length), Encode(kept, version));
    std::free(buffer);
    buffer = nullptr;
  }
  EXPECT_EQ(ZELPYX_PersistentPortStateGet("sw", "nop", 7, &buffer, &length), STATUS_NOT_FOUND);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(kernel.IoctlCount(ZELPYX_REQ_STATE_GET), 0u);  // no state database involved

  const struct {
    const char *sw;
    std::string search, port, echoed;
  } cases[] = {{"sw", "abcdef", "p1", "abcdef"},          {"sw", "xyz1", "p2", "xyz1"},
               {"sw", "v", "p3", "v"},                    {"sw", "q", "p5", "q"},
               {"sw", longId + "tail", "p4", longId.substr(0, 47)}, {"none", "zzz", "", "zzz"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.search);
    ZELPYXExternalIdMatch *match = nullptr;
    ASSERT_EQ(ZELPYX_PortGetByExternalId(c.sw, c.search.c_str(), &match), STATUS_OK);
    EXPECT_EQ(match->portId, c.port);
    EXPECT_EQ(match->externalId, c.echoed);
    ZELPYX_DataFree(match);
  }
  ZELPYXExternalIdMatch *untouched = reinterpret_cast<ZELPYXExternalIdMatch *>(&kernel);
  EXPECT_EQ(ZELPYX_PortGetByExternalId("nosw", "abc", &untouched), STATUS_NOT_FOUND);
  EXPECT_EQ(untouched, reinterpret_cast<ZELPYXExternalIdMatch *>(&kernel));
  EXPECT_EQ(ZELPYX_PortGetByExternalId("sw", nullptr, &untouched), STATUS_BAD_PARAM);
}

// The reduced state saved into a store file and read back through the state
// file's reader with the store features on; a state that cannot be fetched
// saves nothing.
TEST_F(KernelPersistTest, SaveToConfigStoreAndReadBack) {
  const Props global = {{"com.zorlan.common.alias", Text("blue")},
                        {"com.zorlan.common.version", U32(7)},
                        {"com.zorlan.common.respools.sched", {1}},
                        {"acme.blob", {1, 2, 3}, 24}};
  const Props port = {{"com.zorlan.common.port.alias", Text("uplink")}};
  AddSwitch("sw-1");
  SetGlobal("sw-1", {global[3], {"com.zorlan.common.x.volatile.y", {1}}, global[0], global[1],
                     global[2]});
  AddPort("sw-1", "10", port);
  AddPort("sw-1", "11", {{ZEL_PROP_PORT_PERSIST, {1}}});
  AddSwitch("es-2", "etherswitch", 6);
  SetGlobal("es-2", {{ZEL_PROP_NOPERSIST, {1}}});
  auto stored = [&] {
    void *blob = nullptr;
    int32_t length = 0;
    uint32_t offset = 0;
    EXPECT_EQ(ZELFile_Read(statePath_.c_str(), &blob, &length, &offset), STATUS_OK);
    const auto out = View(blob, static_cast<uint32_t>(length));
    std::free(static_cast<uint8_t *>(blob) - offset);
    return out;
  };
  {
    zeltest::ScopedLevel quiet(zelconfigstore_debug, -1);
    zeltest::LogCapture log;
    ASSERT_EQ(ZELState_SaveToConfigStore(), 0u);
    zel::host::SetConfigStoreFeatures(true, true);
    const auto loaded = stored();
    ASSERT_EQ(Ids(loaded), V{"sw-1"});  // the flagged switch was never saved
    EXPECT_EQ(loaded[0].global, global);
    ASSERT_EQ(Ids(loaded[0].ports), V{"10"});
    EXPECT_EQ(loaded[0].ports[0].props, port);
    // Saving one switch that the kernel no longer has deletes its object.
    ASSERT_EQ(ZELPYX_SwitchRemove("sw-1"), STATUS_OK);
    ASSERT_EQ(ZELState_SaveToConfigStore_ByInstance("sw-1"), 0u);
    EXPECT_TRUE(stored().empty());
  }
  zel::cfgstore::testing::ClearFailures();
  for (int save = 0; save < 2; ++save)  // both saves below find no kernel state
    kernel.InjectFault({{}, ZELPYX_REQ_STATE_GET, STATUS_NO_MEMORY, ENOMEM});
  uint32_t status = 0;
  EXPECT_EQ(zeltest::CaptureStdout([&] { status = ZELState_SaveToConfigStore(); }),
            "Failed to save ZEL config to configstore when get ZEL buffrom pyx. Error: " +
                std::string(zel::host::PYX_ReturnStatusToString(STATUS_NO_MEMORY)) + "\n");
  EXPECT_EQ(status, 0xFFFFFFFFu);
  zeltest::ScopedLevel quiet(zelconfigstore_debug, -1);
  EXPECT_EQ(zeltest::CaptureStdout([&] { ZELState_SaveToConfigStore_ByInstance("sw"); }), "");
  EXPECT_EQ(zel::cfgstore::testing::Calls(zel::cfgstore::testing::Op::kAny), 0u);
}

// Retrievals and slices from several threads share the state database as
// scratch space: each sees only its own load and nobody else ever sees it (a
// thread holding both locks finds the table empty).  Meanwhile every thread
// adds ports, and the module counts them all.
class KernelConcurrency : public KernelTest {};

TEST_F(KernelConcurrency, RetrievalsAndSlicesRunTogether) {
  for (int s = 0; s < 4; ++s) {
    const std::string sw = "sw" + std::to_string(s);
    AddSwitch(sw.c_str());
    SetGlobal(sw.c_str(), {{"acme.g", Text("x")}});
    for (const std::string port : {"0", "1", "2", "3", "4", "5", "6", "7"})
      AddPort(sw.c_str(), port.c_str(), {{kVnic, Text("ext-" + sw + "-" + port)}});
  }
  constexpr int kThreads = 6, kRounds = 25;
  std::latch start(kThreads + 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string sw = "sw" + std::to_string(t % 4), own = "x" + std::to_string(t);
      start.arrive_and_wait();
      EXPECT_EQ(ZELPYX_SwitchAdd(own.c_str(), "vswitch", 0, 7), STATUS_OK);
      for (int r = 0; r < kRounds; ++r) {
        const std::string id = std::to_string(r);
        EXPECT_EQ(ZELPYX_PortAdd(own.c_str(), id.c_str(), nullptr, 0), STATUS_OK);
        EXPECT_EQ(ZELPYX_PortDataSet(own.c_str(), id.c_str(), "n", &r, sizeof r, 16), STATUS_OK);
        void *blob = nullptr;
        uint32_t length = 0;
        PropertyList *list = nullptr;
        ZELPYXPortList *ports = nullptr;
        ZELPYXExternalIdMatch *match = nullptr;
        const std::string port = std::to_string(r % 8), ext = "ext-" + sw + "-" + port;
        switch ((t + r) % 5) {
          case 0:
            ASSERT_EQ(ZELPYX_PersistentStateGet(&blob, &length), STATUS_OK);
            EXPECT_GE(View(blob, length).size(), 4u);
            break;
          case 1:
            ASSERT_EQ(ZELPYX_VendorGlobalPropList(sw.c_str(), &list, 16), STATUS_OK);
            EXPECT_EQ(Names(Entries(list)), V{"acme.g"});
            ZELData_Free(list);
            break;
          case 2:
            ASSERT_EQ(ZELPYX_SwitchPortList(sw.c_str(), &ports, PORT_KIND_NORMAL), STATUS_OK);
            EXPECT_EQ(ports->count, 8u);
            ZELPYX_DataFree(ports);
            break;
          case 3:
            ASSERT_EQ(ZELPYX_PortGetByExternalId(sw.c_str(), ext.c_str(), &match), STATUS_OK);
            EXPECT_EQ(std::string(match->portId), port);
            ZELPYX_DataFree(match);
            break;
          default:
            ASSERT_EQ(ZELPYX_PersistentPortStateGet(sw.c_str(), "3", 7, &blob, &length), STATUS_OK);
        }
        std::free(blob);
      }
    });
  }
  threads.emplace_back([&] {
    start.arrive_and_wait();
    for (int r = 0; r < kThreads * kRounds; ++r) {
      ZelRecLock *channel = ZelSwitchPYXLock();
      ZelRecLock *state = ZelSwitchHandleLock();
      EXPECT_TRUE(DatabaseEmpty());
      ZelSwitchHandleUnlock(state);
      ZelSwitchPYXUnlock(channel);
      std::this_thread::yield();
    }
  });
  for (auto &th : threads) th.join();
  void *out = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(ZELPYX_CmdExec("", "stats", nullptr, 0, &out, &len), STATUS_OK);
  EXPECT_EQ(std::string(static_cast<char *>(out), len),
            "switches 10\nports 182\nhostPortLimit 4096\n");
  ZELPYX_DataFree(out);
  EXPECT_EQ(kernel.counters().opens, kernel.counters().closes + 1);
}

}  // namespace
