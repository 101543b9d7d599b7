// The port table: kinds, limits, id lengths, lookups and the id index.
#include <map>
#include <random>
#include <string>

#include "state_fixture.h"

using namespace zelstatetest;
namespace st = zel::state::testing;

namespace {

using StatePortTest = StateTest;

TEST_F(StatePortTest, IdLengthDependsOnTheSwitchVersion) {
  ASSERT_EQ(ZELState_SwitchAdd("v6", "vswitch", 0, 6), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("v7", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("q", "vswitch", 0, 100), STATUS_OK);
  ExpectOutput(0, STATUS_BAD_PARAM, "ZELStatePortAdd 0123456789abcdef, id length too long\n",
               [] { return AddPort("v6", "0123456789abcdef"); });
  EXPECT_EQ(AddPort("v6", "0123456789abcde"), STATUS_OK);
  for (const char *sw : {"v7", "q"}) {
    EXPECT_EQ(AddPort(sw, std::string(47, 'p').c_str()), STATUS_OK) << sw;
    EXPECT_EQ(AddPort(sw, std::string(48, 'p').c_str()), STATUS_BAD_PARAM) << sw;
  }
  EXPECT_EQ(HostPorts(), 3u);
  EXPECT_EQ(AddPort("nosuch", "1"), STATUS_NOT_FOUND);
}

TEST_F(StatePortTest, KindsDuplicatesAndZombies) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  EXPECT_EQ(AddPort("a", "10"), STATUS_OK);
  EXPECT_EQ(AddPort("a", "10"), STATUS_EXISTS);
  EXPECT_EQ(AddPort("a", "10", PORT_KIND_SHADOW), STATUS_OK);
  EXPECT_EQ(AddPort("a", "10", PORT_KIND_ZOMBIE), STATUS_OK);
  EXPECT_EQ(AddPort("a", "10", PORT_KIND_ZOMBIE), STATUS_OK);
  EXPECT_EQ(HostPorts(), 4u);
  PortState *zombie = ZELState_PortFindZombie("a", "10");
  EXPECT_EQ(st::PortSlot(zombie), 2);
  EXPECT_EQ(ZEL_PortKind(zombie), PORT_KIND_ZOMBIE);
  EXPECT_EQ(ZELState_PortRemoveZombie("a", "10"), STATUS_OK);
  EXPECT_EQ(st::PortSlot(ZELState_PortFindZombie("a", "10")), 3) << "the lower slot goes first";
  EXPECT_EQ(ZELState_PortRemoveShadow("a", "10"), STATUS_OK);
  EXPECT_EQ(ZELState_PortFindShadow("a", "10"), nullptr);
  EXPECT_NE(ZELState_PortFind("a", "10"), nullptr);
  EXPECT_EQ(ZELState_PortRemoveShadow("a", "10"), STATUS_NOT_FOUND);
  EXPECT_EQ(ZEL_NumPorts(ZELState_SwitchFind("a")), 2u);
  // The freed slots 1 and 2 are reused lowest first.
  EXPECT_EQ(AddPort("a", "11"), STATUS_OK);
  EXPECT_EQ(st::PortSlot(ZELState_PortFind("a", "11")), 1);
  ExpectOutput(0, STATUS_NOT_FOUND, "Failed to find the ZEL zz\n",
               [] { return ZELState_PortRemove("zz", "1"); });
}

TEST_F(StatePortTest, PerSwitchAndHostLimits) {
  st::SetPortLimit(5);
  ASSERT_EQ(ZELState_SwitchAdd("lim", "limited", 2, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("unl", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("zero", "limited", 0, 7), STATUS_OK);
  EXPECT_EQ(AddPort("lim", "1"), STATUS_OK);
  EXPECT_EQ(AddPort("lim", "2"), STATUS_OK);
  for (const char *p : {"1", "2", "3"}) EXPECT_EQ(AddPort("unl", p), STATUS_OK);
  // The host is full: every switch is refused with the host message.
  const std::string full = " has already used up max num ports (";
  EXPECT_EQ(Output(0,
                   [] {
                     EXPECT_EQ(AddPort("unl", "4"), STATUS_LIMIT_EXCEEDED);
                     EXPECT_EQ(ZELState_PortRemove("lim", "1"), STATUS_OK);
                     EXPECT_EQ(AddPort("unl", "4"), STATUS_OK);
                     EXPECT_EQ(AddPort("lim", "9"), STATUS_LIMIT_EXCEEDED);
                     EXPECT_EQ(ZELState_PortRemove("unl", "1"), STATUS_OK);
                     EXPECT_EQ(AddPort("zero", "1"), STATUS_LIMIT_EXCEEDED);
                     EXPECT_EQ(AddPort("lim", "3"), STATUS_OK);
                   }),
            "ZELStatePortAdd unl, host" + full + "5)\nZELStatePortAdd lim, host" + full +
                "5)\nZELStatePortAdd zero, switch" + full + "0)\n");
  EXPECT_EQ(ZELState_PortRemove("unl", "2"), STATUS_OK);
  ExpectOutput(0, STATUS_LIMIT_EXCEEDED, "ZELStatePortAdd lim, switch" + full + "2)\n",
               [] { return AddPort("lim", "4"); });
}

TEST_F(StatePortTest, FailedAddsKeepCountsAndTheCallersList) {
  st::SetAllocator(zeltest::failalloc::Alloc, zeltest::failalloc::Free);
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  EXPECT_EQ(ZELState_PortAdd("a", "1", nullptr), STATUS_BAD_PARAM);
  PropertyList *list = MakeList({{"k", Text("v")}});
  zeltest::failalloc::FailAt(1);
  EXPECT_EQ(ZELState_PortAdd("a", "1", list), STATUS_NO_MEMORY);
  EXPECT_EQ(ZEL_NumPorts(ZELState_SwitchFind("a")) + HostPorts(), 0u);
  EXPECT_EQ(ZELState_PortAdd("a", "1", list), STATUS_OK);
  EXPECT_EQ(ZEL_PortData(ZELState_PortFind("a", "1")), list);
}

TEST_F(StatePortTest, LookupPreferencesNormalBeforeLocalCache) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_GlobalPropSet("a", ZEL_PROP_SWITCH_ALIAS, "sky", 4, 0), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("a");
  const Props web = {{ZEL_PROP_PORT_ALIAS, Text("web")}};
  ASSERT_EQ(AddPort("a", "5", PORT_KIND_LOCAL_CACHE, web), STATUS_OK);
  PortState *cache = ZELState_LocalCachePortFind("a", "5");
  EXPECT_EQ(ZELState_PortFind("a", "5"), cache);
  EXPECT_EQ(ZELState_PortFindOnZelSwitch(sw, "5"), cache);
  EXPECT_EQ(ZELState_PortFindByAliasOnZEL(sw, "web"), cache);
  EXPECT_EQ(ZELState_PortFindByAlias("sky", "web"), nullptr) << "never a local-cache port";
  ASSERT_EQ(AddPort("a", "5", PORT_KIND_NORMAL, web), STATUS_OK);
  PortState *normal = ZELStatePortFindOnZelSwitch(sw, "5", PORT_KIND_NORMAL);
  EXPECT_EQ(st::PortSlot(normal), 1);
  EXPECT_EQ(ZELState_PortFind("a", "5"), normal);
  EXPECT_EQ(ZELState_PortFindByAliasOnZEL(sw, "web"), normal);
  EXPECT_EQ(ZELState_PortFindByAlias("sky", "web"), normal);
  EXPECT_EQ(ZELState_PortFindByAliasType(sw, "web", PORT_KIND_LOCAL_CACHE), cache);
  EXPECT_EQ(ZELStatePortFindByAlias("sky", "web", PORT_KIND_LOCAL_CACHE), cache);
  EXPECT_EQ(ZEL_PortSwitch(normal), sw);
  ASSERT_EQ(AddPort("a", "6", PORT_KIND_SHADOW, {{ZEL_PROP_PORT_ALIAS, Text("db")}}), STATUS_OK);
  EXPECT_EQ(ZELState_PortFind("a", "6"), nullptr);
  EXPECT_NE(ZELState_PortFindShadowByAlias("sky", "db"), nullptr);
  EXPECT_STREQ(ZEL_PortAlias(ZELState_PortFindShadow("a", "6")), "db");
  const char *uuidId = "00 11 22 33 44 55 66 77-88 99 aa bb cc dd ee ff";
  ASSERT_EQ(ZELState_SwitchAdd(uuidId, "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(AddPort(uuidId, "7", PORT_KIND_SHADOW), STATUS_OK);
  const uint8_t uuid[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                            0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  EXPECT_EQ(ZELState_PortFindByUUID(uuid, "7"), nullptr);
  EXPECT_STREQ(ZEL_PortId(ZELState_PortFindShadowByUUID(uuid, "7")), "7");
}

// Set, get and clear of a port's properties print at level 2, failures at 1;
// a set without a value fails quietly.
TEST_F(StatePortTest, PortDataAndItsMessages) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(AddPort("a", "1", PORT_KIND_SHADOW), STATUS_OK);
  PortState *port = ZELState_PortFindShadow("a", "1");
  void *value = nullptr;
  uint32_t length = 0;
  const std::string out = Output(2, [&] {
    EXPECT_EQ(ZELState_PortDataSet(port, "k", "v", 0, 16), STATUS_FAILURE);
    EXPECT_EQ(ZELState_PortDataSet(port, "k", "val", 4, 16), STATUS_OK);
    EXPECT_EQ(ZELState_PortDataGet(port, "k", &value, &length), STATUS_OK);
    EXPECT_EQ(AsBytes(value, length), Text("val"));
    EXPECT_EQ(ZELState_PortDataClear(port, "k"), STATUS_OK);
    EXPECT_EQ(ZELState_PortDataGet(port, "k", &value, &length), STATUS_NOT_FOUND);
  });
  EXPECT_EQ(
      out,
      "ZELState_PortDataSet a, 1, k\nZELState_PortDataSet a, 1, k\nZELState_PortDataGet a, 1, k\n"
      "ZELState_PortDataClear a, 1, k\nZELState_PortDataGet a, 1, k\n"
      "ZELStatePortDataCommon failed to set/get data switch a,port 1, data k type 2\n");
  EXPECT_EQ(Output(0, [&] { ZELState_PortDataClear(port, "k"); }), "");
}

// Adds, removes and finds of ids that collide in the index, checked against
// a model: the first port in slot order of an id and kind is always found.
TEST_F(StatePortTest, IdIndexAgreesWithAModelUnderChurn) {
  st::SetPortLimit(256);
  ASSERT_EQ(ZELState_SwitchAdd("a", "limited", 64, 7), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("a");
  std::map<int, std::pair<std::string, PortKind>> model;  // slot -> port
  std::mt19937 rng(7);
  for (int step = 0; step < 20000; ++step) {
    const std::pair<std::string, PortKind> port{std::to_string(rng() % 24), 1 + rng() % 4};
    auto first = model.begin();
    while (first != model.end() && first->second != port) ++first;
    if (rng() % 2 == 0) {
      // The per-switch limit is checked before duplicates.
      const ReturnStatus expected = model.size() == 64 ? STATUS_LIMIT_EXCEEDED
                                    : (first != model.end() && port.second != PORT_KIND_ZOMBIE)
                                        ? STATUS_EXISTS
                                        : STATUS_OK;
      ASSERT_EQ(AddPort("a", port.first.c_str(), port.second), expected) << step;
      int slot = 0;
      while (model.count(slot) != 0) ++slot;
      if (expected == STATUS_OK) model[slot] = port;
    } else {
      PortState *found = ZELStatePortFindOnZelSwitch(sw, port.first.c_str(), port.second);
      ASSERT_EQ(found == nullptr, first == model.end()) << step;
      if (found != nullptr) {
        ASSERT_EQ(st::PortSlot(found), first->first) << step;
        ASSERT_EQ(ZELStatePortRemove("a", port.first.c_str(), port.second), STATUS_OK);
        model.erase(first);
      }
    }
    ASSERT_EQ(ZEL_NumPorts(sw), model.size());
  }
}

}  // namespace
