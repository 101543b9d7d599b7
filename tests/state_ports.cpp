// The port table: kinds, limits, id lengths, lookups, properties and the id index.
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
  ExpectOutput(
      0, [] { return AddPort("v6", "0123456789abcdef"); }, STATUS_BAD_PARAM,
      "ZELStatePortAdd 0123456789abcdef, id length too long\n");
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
  SwitchState *sw = ZELState_SwitchFind("a");
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
  EXPECT_EQ(ZEL_NumPorts(sw), 2u);
  // The freed slots 1 and 2 are reused lowest first.
  EXPECT_EQ(AddPort("a", "11"), STATUS_OK);
  EXPECT_EQ(st::PortSlot(ZELState_PortFind("a", "11")), 1);
  ExpectOutput(
      1, [] { return ZELState_PortRemove("zz", "1"); }, STATUS_NOT_FOUND,
      "ZELState_PortRemove zz, 1\nFailed to find the ZEL zz\n");
}

TEST_F(StatePortTest, PerSwitchAndHostLimits) {
  st::SetPortLimit(5);
  ASSERT_EQ(ZELState_SwitchAdd("lim", "limited", 2, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("unl", "vswitch", 0, 7), STATUS_OK);
  EXPECT_EQ(AddPort("lim", "1"), STATUS_OK);
  EXPECT_EQ(AddPort("lim", "2"), STATUS_OK);
  ExpectOutput(
      0, [] { return AddPort("lim", "3"); }, STATUS_LIMIT_EXCEEDED,
      "ZELStatePortAdd lim, switch has already used up max num ports (2)\n");
  for (const char *p : {"1", "2", "3"}) EXPECT_EQ(AddPort("unl", p), STATUS_OK);
  // The host is full: every switch is refused with the host message.
  std::string out = Output(0, [] {
    EXPECT_EQ(AddPort("unl", "4"), STATUS_LIMIT_EXCEEDED);
    EXPECT_EQ(ZELState_PortRemove("lim", "1"), STATUS_OK);
    EXPECT_EQ(AddPort("unl", "4"), STATUS_OK);
    EXPECT_EQ(AddPort("lim", "9"), STATUS_LIMIT_EXCEEDED);
  });
  EXPECT_EQ(out,
            "ZELStatePortAdd unl, host has already used up max num ports (5)\n"
            "ZELStatePortAdd lim, host has already used up max num ports (5)\n");
  ASSERT_EQ(ZELState_SwitchAdd("zero", "limited", 0, 7), STATUS_OK);
  EXPECT_EQ(ZELState_PortRemove("unl", "1"), STATUS_OK);
  ExpectOutput(
      0, [] { return AddPort("zero", "1"); }, STATUS_LIMIT_EXCEEDED,
      "ZELStatePortAdd zero, switch has already used up max num ports (0)\n");
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
  ASSERT_EQ(AddPort("a", "5", PORT_KIND_LOCAL_CACHE, {{ZEL_PROP_PORT_ALIAS, Text("web")}}),
            STATUS_OK);
  PortState *cache = ZELState_LocalCachePortFind("a", "5");
  EXPECT_EQ(ZELState_PortFind("a", "5"), cache);
  EXPECT_EQ(ZELState_PortFindOnZelSwitch(sw, "5"), cache);
  EXPECT_EQ(ZELState_PortFindByAliasOnZEL(sw, "web"), cache);
  EXPECT_EQ(ZELState_PortFindByAlias("sky", "web"), nullptr) << "never a local-cache port";
  ASSERT_EQ(AddPort("a", "5", PORT_KIND_NORMAL, {{ZEL_PROP_PORT_ALIAS, Text("web")}}), STATUS_OK);
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

  ASSERT_EQ(ZELState_SwitchAdd("00 11 22 33 44 55 66 77-88 99 aa bb cc dd ee ff", "vswitch", 0, 7),
            STATUS_OK);
  ASSERT_EQ(AddPort("00 11 22 33 44 55 66 77-88 99 aa bb cc dd ee ff", "7", PORT_KIND_SHADOW),
            STATUS_OK);
  const uint8_t uuid[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                            0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  EXPECT_EQ(ZELState_PortFindByUUID(uuid, "7"), nullptr);
  EXPECT_STREQ(ZEL_PortId(ZELState_PortFindShadowByUUID(uuid, "7")), "7");
}

TEST_F(StatePortTest, PortPropertiesAndWalks) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(AddPort("a", "1"), STATUS_OK);
  PortState *port = ZELState_PortFind("a", "1");
  EXPECT_STREQ(ZEL_PortAlias(port), "unknown");
  EXPECT_EQ(ZELState_PortDataForEach(
                port, [](PropertyEntry *, void *) -> uint32_t { return 1; }, nullptr),
            STATUS_NOT_FOUND);
  ExpectOutput(
      2, [&] { return ZELState_PortDataSet(port, "k", "v", 0, 0); }, STATUS_FAILURE,
      "ZELState_PortDataSet a, 1, k\n");
  EXPECT_TRUE(ListProps(ZEL_PortData(port)).empty());
  EXPECT_EQ(ZELState_PortDataSet(port, "k", "val", 4, 16), STATUS_OK);
  void *value = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(ZELState_PortDataGet(port, "k", &value, &length), STATUS_OK);
  EXPECT_EQ(length, 4u);
  EXPECT_STREQ(static_cast<char *>(value), "val");
  value = nullptr;
  EXPECT_EQ(ZELState_PortDataRead(port, "k", &value, nullptr), STATUS_OK);
  EXPECT_STREQ(static_cast<char *>(value), "val");
  std::string out = Output(2, [&] {
    EXPECT_EQ(ZELState_PortDataClear(port, "k"), STATUS_OK);
    EXPECT_EQ(ZELState_PortDataGet(port, "k", &value, &length), STATUS_NOT_FOUND);
  });
  EXPECT_EQ(out,
            "ZELState_PortDataClear a, 1, k\nZELState_PortDataGet a, 1, k\n"
            "ZELStatePortDataCommon failed to set/get data switch a,port 1, data k type 1\n");
  EXPECT_EQ(Output(0, [&] { ZELState_PortDataClear(port, "k"); }), "") << "level 1 message";
  EXPECT_EQ(ZELState_PortDataRead(port, "k", &value, &length), STATUS_NOT_FOUND);

  for (const char *p : {"2", "3", "4"}) ASSERT_EQ(AddPort("a", p), STATUS_OK);
  ASSERT_EQ(ZELState_PortRemove("a", "2"), STATUS_OK);
  std::vector<std::string> ids;
  ZELState_PortForEach(
      ZELState_SwitchFind("a"),
      [](PortState *p, void *ctx) {
        auto *v = static_cast<std::vector<std::string> *>(ctx);
        v->push_back(ZEL_PortId(p));
        return v->size() == 2;
      },
      &ids);
  EXPECT_EQ(ids, (std::vector<std::string>{"1", "3"}));
}

TEST_F(StatePortTest, AddShadowFromSerializedData) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  Bytes data = SerializeProps({{ZEL_PROP_PORT_ALIAS, Text("mirror")}});
  Bytes bad = data;
  bad[40] ^= 1;
  EXPECT_EQ(ZELState_PortAddShadow("a", "3", bad.data(), static_cast<uint32_t>(bad.size())),
            STATUS_BAD_CHECKSUM);
  EXPECT_EQ(HostPorts(), 0u);
  std::string out = Output(1, [&] {
    EXPECT_EQ(ZELState_PortAddShadow("a", "3", data.data(), static_cast<uint32_t>(data.size())),
              STATUS_OK);
  });
  EXPECT_EQ(out, "ZELState_PortAddShadow a, 3\nZELStatePortAdd a, 3\n");
  EXPECT_STREQ(ZEL_PortAlias(ZELState_PortFindShadow("a", "3")), "mirror");
  // A refused add releases the list it made (ASan would see a leak).
  EXPECT_EQ(ZELState_PortAddShadow("a", "3", data.data(), static_cast<uint32_t>(data.size())),
            STATUS_EXISTS);
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
    std::string id = std::to_string(rng() % 24);
    PortKind kind = 1 + rng() % 4;
    if (rng() % 2 == 0) {
      bool dup = false;
      for (const auto &[slot, port] : model) dup = dup || (port.first == id && port.second == kind);
      // The per-switch limit is checked before duplicates.
      ReturnStatus expected = model.size() == 64                  ? STATUS_LIMIT_EXCEEDED
                              : (dup && kind != PORT_KIND_ZOMBIE) ? STATUS_EXISTS
                                                                  : STATUS_OK;
      ASSERT_EQ(AddPort("a", id.c_str(), kind), expected) << step;
      if (expected == STATUS_OK) {
        int slot = 0;
        while (model.count(slot) != 0) {
          ++slot;
        }
        model[slot] = {id, kind};
      }
    } else {
      auto first = model.end();
      for (auto it = model.begin(); it != model.end(); ++it) {
        if (it->second == std::make_pair(id, kind)) {
          first = it;
          break;
        }
      }
      PortState *found = ZELStatePortFindOnZelSwitch(sw, id.c_str(), kind);
      ASSERT_EQ(found == nullptr, first == model.end()) << step;
      if (found != nullptr) {
        ASSERT_EQ(st::PortSlot(found), first->first) << step;
        ASSERT_EQ(ZELStatePortRemove("a", id.c_str(), kind), STATUS_OK);
        model.erase(first);
      }
    }
    ASSERT_EQ(ZEL_NumPorts(sw), model.size());
  }
}

}  // namespace
