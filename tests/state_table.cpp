// The state table: switches, their property lists and ports, the persistence
// filtering, the environment's port limit, and threads working on it at once.
#include <atomic>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "host/bitvector.h"
#include "host/feature_flags.h"
#include "host/host_limits.h"
#include "host/lock.h"
#include "state_fixture.h"

using namespace zelstatetest;
namespace st = zel::state::testing;
namespace fa = zeltest::failalloc;

namespace {

using StateSwitchTest = StateTest;

ReturnStatus Add(const std::string &id, const char *cls = "vswitch", uint32_t maxPorts = 0) {
  return ZELState_SwitchAdd(id.c_str(), cls, maxPorts, 7);
}

// Failures to fetch the limit are returned and retried; once read, it is cached.
TEST_F(StateSwitchTest, LimitIsFetchedAtTheFirstSuccessfulAdd) {
  st::FailPortLimit(STATUS_NOT_SUPPORTED, STATUS_OK);
  ExpectOutput(0, STATUS_NOT_SUPPORTED,
               "ZELState_SwitchAdd a, QUB signature check failed. Error: Not supported\n",
               [] { return Add("a"); });
  zel::host::testing::FailKernelInfo(STATUS_OK, STATUS_FAILURE);
  ExpectOutput(0, STATUS_FAILURE,
               "ZELState_SwitchAdd a, failed to get max ports systemwide. Error: Failure\n",
               [] { return Add("a"); });
  zel::host::testing::SetMaxPortsSystemWide(64);
  EXPECT_EQ(Add("a", "vswitch", 5), STATUS_OK);
  EXPECT_EQ(uwMaxNumActivePortsSystemWide, 64u);
  EXPECT_EQ(ZEL_GetNewMaxPorts(ZELState_SwitchFind("a")), 64u) << "unlimited classes ignore it";
  zel::host::testing::SetMaxPortsSystemWide(10);
  ASSERT_EQ(Add("b", "vswitch", 5), STATUS_OK);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("b")), 64u);
}

TEST_F(StateSwitchTest, ThirtyThirdSwitchRemovalAndSlotReuse) {
  for (int i = 0; i < 32; ++i) ASSERT_EQ(Add("s" + std::to_string(i), "etherswitch"), STATUS_OK);
  const std::vector<std::string> before = Slots();
  ExpectOutput(0, STATUS_LIMIT_EXCEEDED,
               "ZELState_SwitchAdd failed ZEL:s32 Error: Limit exceeded\n",
               [] { return Add("s32", "etherswitch"); });
  EXPECT_EQ(Slots(), before);
  ASSERT_EQ(ZELState_SwitchRemove("s5"), STATUS_OK);
  ExpectOutput(0, STATUS_NOT_FOUND, "ZELState_SwitchRemove ZELID s5, statue Not found\n",
               [] { return ZELState_SwitchRemove("s5"); });
  ASSERT_EQ(Add("new", "etherswitch"), STATUS_OK);
  EXPECT_EQ(Slots()[5], "new");
  EXPECT_EQ(Slots()[6], "s6");
}

TEST_F(StateSwitchTest, ClassesAndTheHostWidePortCheck) {
  // 4000 ports in use of 4096: a limited switch may ask 96 more, not 97.
  ASSERT_EQ(Add("big", "cswitch"), STATUS_OK);
  for (int i = 0; i < 4000; ++i) ASSERT_EQ(AddPort("big", std::to_string(i).c_str()), STATUS_OK);
  ExpectOutput(0, STATUS_LIMIT_EXCEEDED,
               "ZELState_SwitchAdd lim, failed with maxPorts exceed 97.\n",
               [] { return Add("lim", "vswitch2", 97); });
  ASSERT_EQ(Add("lim", "vswitch2", 96), STATUS_OK);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("lim")), 96u);
  // The check is against ports in use, not against other switches' limits.
  ASSERT_EQ(Add("lim2", "other", 96), STATUS_OK);
  for (const char *cls : {"qorvswitch", "etherswitch", "stub-vswitch", "cswitch", "vswitch"}) {
    ASSERT_EQ(Add(std::string("u-") + cls, cls, 100000), STATUS_OK) << cls;
    EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind((std::string("u-") + cls).c_str())), 4096u);
  }
  // Case and prefix matter: these are limited classes.
  EXPECT_EQ(Add("x1", "VSWITCH", 97), STATUS_LIMIT_EXCEEDED);
  EXPECT_EQ(Add("x2", "vswitc", 97), STATUS_LIMIT_EXCEEDED);
}

TEST_F(StateSwitchTest, IdLengthDuplicatesVersionsAndMessages) {
  const std::string id63(63, 'a'), id64(64, 'b');
  EXPECT_EQ(Add(id63), STATUS_OK);
  ExpectOutput(0, STATUS_BAD_PARAM, "ZELState_SwitchAdd " + id64 + ", id length too long\n",
               [&] { return Add(id64); });
  ExpectOutput(0, STATUS_EXISTS,
               "ZELState_SwitchAdd failed ZEL:" + id63 + " Error: Already exists\n",
               [&] { return ZELState_SwitchAdd(id63.c_str(), "other", 3, 5); });
  ASSERT_EQ(ZELState_SwitchAdd("v", "vswitch", 3, 5), STATUS_OK);
  const struct {
    const char *id;
    uint32_t version;
    ReturnStatus status;
    std::string text;
  } rows[] = {{"v", 8, STATUS_NOT_SUPPORTED, "ZEL version not support 8\n"},
              {"v", 101, STATUS_NOT_SUPPORTED, "ZEL version not support 101\n"},
              {"v", 0, STATUS_NOT_SUPPORTED, "ZEL version not support 0\n"},
              {"v", 107, STATUS_OK, "Set ZEL v version from 5 to 107\n"},
              {"v", 107, STATUS_OK, "Set ZEL v version from 107 to 107\n"},
              {"zz", 7, STATUS_NOT_FOUND, ""}};
  for (const auto &r : rows) {
    ExpectOutput(0, r.status, r.text, [&] { return ZELState_SwitchSetVersion(r.id, r.version); });
  }
}

TEST_F(StateSwitchTest, AllocationFailuresLeaveTheTableAsItWas) {
  st::SetAllocator(fa::Alloc, fa::Free);
  ASSERT_EQ(Add("keep"), STATUS_OK);
  const int64_t live = fa::Live();
  // Allocations of an add: the record, its global list, its host list.
  for (uint64_t k = 1; k <= 4; ++k) {
    fa::FailAt(k);
    ExpectOutput(0, k <= 3 ? STATUS_NO_MEMORY : STATUS_OK,
                 k <= 3 ? "ZELState_SwitchAdd failed ZEL:x Error: Out of memory\n" : "",
                 [] { return Add("x"); });
    EXPECT_EQ(fa::Live() == live, k <= 3) << k;
    EXPECT_EQ(Slots()[1], k <= 3 ? "" : "x") << k;
  }
  ZELState_ConfigReset();
  EXPECT_EQ(fa::Live(), 0);
}

// Bits past the end are neither cleared nor read; a bit past the first word
// is found in its own word.
TEST(BitVectorTest, BoundsAndTheSecondWord) {
  uint64_t memory[4] = {0, 0, 0, 1};
  zel::host::BitVector *bits = zel::host::BitVector::Init(memory, 128);
  bits->Clear(128);
  bits->Set(65);
  EXPECT_EQ(memory[3], 1u);
  EXPECT_TRUE(bits->Test(65));
  EXPECT_FALSE(bits->Test(64));
}

TEST(StateLockDeathTest, LowerRankLockInsideTheTableLockAborts) {
  EXPECT_DEATH(
      {
        ZelRecLock *lock = ZelSwitchHandleLock();
        zel::host::Acquire(zel::host::CreateSingletonRecLock("zelpyx", 0xFEFFFFFE));
        ZelSwitchHandleUnlock(lock);
      },
      "taking \"zelpyx\" \\(rank 0xFEFFFFFE\\) while holding \"zelstate\" \\(rank 0xFEFFFFFF\\)");
}

// Locks of equal rank may nest, and a held lock may be taken again.
TEST(StateLockTest, EqualRanksNestAndHeldLocksRecur) {
  ZelRecLock *table = ZelSwitchHandleLock();
  zel::host::RecLock *peer = zel::host::CreateSingletonRecLock("peer", 0xFEFFFFFF);
  zel::host::Acquire(peer);
  ZelSwitchHandleUnlock(ZelSwitchHandleLock());
  zel::host::Release(peer);
  ZelSwitchHandleUnlock(table);
}

// A set without a value fails before the switch is looked up; the host and
// global lists are separate; a walk stops at the first result whose low byte
// is set, and returns it.
TEST_F(StateSwitchTest, PropertySetIsSetClearReadAndWalk) {
  EXPECT_EQ(ZELState_GlobalPropSet("nosuch", "n", "v", 0, 0), STATUS_FAILURE);
  EXPECT_EQ(ZELState_HostPropSet("nosuch", "n", nullptr, 2, 0), STATUS_FAILURE);
  EXPECT_EQ(ZELState_GlobalPropSet("nosuch", "n", "v", 2, 0), STATUS_NOT_FOUND);
  PropertyEntry *entry = nullptr;
  EXPECT_EQ(ZELState_GlobalPropLookup("nosuch", "n", &entry), STATUS_NOT_FOUND);
  ASSERT_EQ(Add("a"), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("a");
  EXPECT_FALSE(ZELState_HostPropIsSet(sw, "n"));
  ASSERT_EQ(ZELState_HostPropSet("a", "n", "ps0", 4, 0), STATUS_OK);
  EXPECT_TRUE(ZELState_HostPropIsSet(sw, "n"));
  EXPECT_FALSE(ZELState_GlobalPropIsSet(sw, "n"));
  void *value = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(ZELState_HostPropRead(sw, "n", &value, nullptr), STATUS_OK);
  EXPECT_EQ(ZELState_HostPropRead(sw, "n", &value, &length), STATUS_OK);
  EXPECT_EQ(AsBytes(value, length), Text("ps0"));
  EXPECT_EQ(ZELState_HostPropClear("a", "n"), STATUS_OK);
  EXPECT_FALSE(ZELState_HostPropIsSet(sw, "n"));
  value = nullptr;
  EXPECT_EQ(ZELState_HostPropRead(sw, "n", &value, &length), STATUS_NOT_FOUND);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(ZELState_HostPropClear("a", "n"), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELState_HostPropClear("nosuch", "n"), STATUS_NOT_FOUND);
  // Only the low byte counts as the stop flag: 0x100 goes on.
  const auto stopAtSecond = [](PropertyEntry *entry, void *ctx) -> uint32_t {
    auto *names = static_cast<std::vector<std::string> *>(ctx);
    names->push_back(ZELData_Name(entry));
    return names->size() == 2 ? 0x0101u : 0x100u;
  };
  std::vector<std::string> names;
  EXPECT_EQ(ZELState_GlobalPropForEach(sw, stopAtSecond, &names), STATUS_NOT_FOUND);
  EXPECT_TRUE(names.empty());
  for (const char *p : {"p1", "p2", "p3"})
    ASSERT_EQ(ZELState_GlobalPropSet("a", p, "1", 2, 0), STATUS_OK);
  EXPECT_EQ(ZELState_GlobalPropForEach(sw, stopAtSecond, &names), 0x0101u);
  EXPECT_EQ(names, (std::vector<std::string>{"p1", "p2"}));
  names.clear();
  EXPECT_EQ(ZELState_HostPropForEach(sw, stopAtSecond, &names), STATUS_NOT_FOUND);
}

using StatePortTest = StateTest;

// Port ids are longer from version 7 on; zombies may repeat; the named
// removes and finds take their kind, the lower slot first.
TEST_F(StatePortTest, IdLengthsKindsDuplicatesAndZombies) {
  ASSERT_EQ(ZELState_SwitchAdd("v6", "vswitch", 0, 6), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  ExpectOutput(0, STATUS_BAD_PARAM, "ZELStatePortAdd 0123456789abcdef, id length too long\n",
               [] { return AddPort("v6", "0123456789abcdef"); });
  EXPECT_EQ(AddPort("v6", "0123456789abcde"), STATUS_OK);
  EXPECT_EQ(AddPort("a", std::string(47, 'p').c_str()), STATUS_OK);
  EXPECT_EQ(AddPort("a", std::string(48, 'p').c_str()), STATUS_BAD_PARAM);
  for (PortKind kind : {PORT_KIND_NORMAL, PORT_KIND_SHADOW, PORT_KIND_ZOMBIE, PORT_KIND_ZOMBIE})
    EXPECT_EQ(AddPort("a", "10", kind), STATUS_OK);
  EXPECT_EQ(AddPort("a", "10"), STATUS_EXISTS);
  EXPECT_EQ(ZELState_PortRemoveZombie("a", "10"), STATUS_OK);
  EXPECT_EQ(st::PortSlot(ZELState_PortFindZombie("a", "10")), 4);
  EXPECT_EQ(ZELState_PortRemoveShadow("a", "10"), STATUS_OK);
  EXPECT_EQ(ZELState_PortRemoveShadow("a", "10"), STATUS_NOT_FOUND);
  EXPECT_NE(ZELState_PortFind("a", "10"), nullptr);
  EXPECT_EQ(HostPorts(), 4u);
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

TEST_F(StatePortTest, LookupPreferencesNormalBeforeLocalCache) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_GlobalPropSet("a", ZEL_PROP_SWITCH_ALIAS, "sky", 4, 0), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("a");
  const Props web = {{ZEL_PROP_PORT_ALIAS, Text("web")}};
  ASSERT_EQ(AddPort("a", "5", PORT_KIND_LOCAL_CACHE, web), STATUS_OK);
  PortState *cache = ZELState_LocalCachePortFind("a", "5");
  EXPECT_EQ(ZELState_PortFind("a", "5"), cache);
  EXPECT_EQ(ZELState_PortFindByAliasOnZEL(sw, "web"), cache);
  EXPECT_EQ(ZELState_PortFindByAlias("sky", "web"), nullptr) << "never a local-cache port";
  ASSERT_EQ(AddPort("a", "5", PORT_KIND_NORMAL, web), STATUS_OK);
  PortState *normal = ZELStatePortFindOnZelSwitch(sw, "5", PORT_KIND_NORMAL);
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

// A failed add keeps the counts and leaves the caller its list; a shadow port
// from serialized data keeps its list only when it is added; a failed get or
// clear of a port's property prints at level 1; a set without a value fails
// quietly.
TEST_F(StatePortTest, AddsFromListsAndDataAndPortDataMessages) {
  st::SetAllocator(fa::Alloc, fa::Free);
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  EXPECT_EQ(ZELState_PortAdd("a", "1", nullptr), STATUS_BAD_PARAM);
  PropertyList *list = MakeList({{"k", Text("v")}});
  fa::FailAt(1);
  EXPECT_EQ(ZELState_PortAdd("a", "1", list), STATUS_NO_MEMORY);
  EXPECT_EQ(ZEL_NumPorts(ZELState_SwitchFind("a")) + HostPorts(), 0u);
  EXPECT_EQ(ZELState_PortAdd("a", "1", list), STATUS_OK);
  EXPECT_EQ(ZEL_PortData(ZELState_PortFind("a", "1")), list);
  const Bytes data = Encode({{"k0", Text("v0")}});
  const int64_t live = fa::Live();
  EXPECT_EQ(ZELState_PortAddShadow("zz", "1", data.data(), data.size()), STATUS_NOT_FOUND);
  EXPECT_EQ(fa::Live(), live);
  ASSERT_EQ(ZELState_PortAddShadow("a", "1", data.data(), data.size()), STATUS_OK);
  PortState *port = ZELState_PortFindShadow("a", "1");
  void *value = nullptr;
  uint32_t length = 0;
  const std::string out = Output(1, [&] {
    EXPECT_EQ(ZELState_PortDataSet(port, "k", "v", 0, 16), STATUS_FAILURE);
    EXPECT_EQ(ZELState_PortDataSet(port, "k", "val", 4, 16), STATUS_OK);
    EXPECT_EQ(ZELState_PortDataGet(port, "k", &value, &length), STATUS_OK);
    EXPECT_EQ(AsBytes(value, length), Text("val"));
    EXPECT_EQ(ZELState_PortDataClear(port, "k"), STATUS_OK);
    EXPECT_EQ(ZELState_PortDataGet(port, "k", &value, &length), STATUS_NOT_FOUND);
  });
  EXPECT_EQ(out, "ZELStatePortDataCommon failed to set/get data switch a,port 1, data k type 2\n");
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

// A switch whose limit is the host's widens its index while ports arrive;
// every port stays found in its own slot, also after removals between them.
TEST_F(StatePortTest, IndexWidensAndKeepsEveryPort) {
  st::SetPortLimit(5000);
  ASSERT_EQ(ZELState_SwitchAdd("w", "vswitch", 0, 7), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("w");
  constexpr int kPorts = 1200;  // two widenings
  for (int i = 0; i < kPorts; ++i) ASSERT_EQ(AddPort("w", std::to_string(i).c_str()), STATUS_OK);
  for (int i = 1; i < kPorts; i += 2) {
    ASSERT_EQ(ZELStatePortRemove("w", std::to_string(i).c_str(), PORT_KIND_NORMAL), STATUS_OK);
  }
  for (int i = 0; i < kPorts; ++i) {
    PortState *port = ZELStatePortFindOnZelSwitch(sw, std::to_string(i).c_str(), PORT_KIND_NORMAL);
    ASSERT_EQ(port == nullptr, i % 2 == 1) << i;
    if (port != nullptr) {
      ASSERT_EQ(st::PortSlot(port), i);
    }
    ASSERT_EQ(AddPort("w", std::to_string(i).c_str()), i % 2 == 1 ? STATUS_OK : STATUS_EXISTS);
  }
}

// The strip of switches marked not to be persisted, the move back of named
// switches and the release of what was parked.
class StatePersistTest : public StateTest {
 protected:
  // Garbage the operations must overwrite (or must leave alone).
  void Reset() {
    for (auto &entry : array_) entry = reinterpret_cast<SwitchState *>(0x1);
    std::memset(ids_, 'x', sizeof ids_);
  }
  // A switch with one port, marked with `flag` unless it is negative.
  static void Add(const char *id, int flag = -1) {
    ASSERT_EQ(ZELState_SwitchAdd(id, "vswitch", 0, 7), STATUS_OK);
    ASSERT_EQ(AddPort(id, "p"), STATUS_OK);
    const auto byte = static_cast<uint8_t>(flag);
    if (flag < 0) return;
    ASSERT_EQ(ZELState_GlobalPropSet(id, ZEL_PROP_NOPERSIST, &byte, 1, 0), STATUS_OK);
  }
  std::vector<std::string> ArrayIds() const {
    std::vector<std::string> out;
    for (SwitchState *sw : array_) out.push_back(sw != nullptr ? ZEL_SwitchId(sw) : "");
    return out;
  }
  static std::vector<std::string> Expect(std::initializer_list<std::pair<int, const char *>> at) {
    std::vector<std::string> v(ZEL_MAX_SWITCHES, "");
    for (const auto &[slot, id] : at) v[slot] = id;
    return v;
  }

  SwitchState *array_[ZEL_MAX_SWITCHES];
  char ids_[ZEL_MAX_SWITCHES][ZEL_SWITCH_ID_SIZE];
};

TEST_F(StatePersistTest, StripMoveBackAndFree) {
  st::SetAllocator(fa::Alloc, fa::Free);
  Reset();
  // Without a state file to read, a marked switch is dropped and listed, and
  // nothing is parked; a zero first byte does not mark.
  Add("zero", 0);
  Add("gone", 1);
  EXPECT_FALSE(ZELState_StripZelWithNoPersistFlag(array_, ids_, false));
  EXPECT_STREQ(ids_[0], "gone");
  EXPECT_EQ(ids_[1][0], 'x') << "rows past the last id are left alone";
  EXPECT_EQ(ArrayIds(), Expect({}));
  EXPECT_EQ(Slots(), Expect({{0, "zero"}}));
  ASSERT_EQ(ZELState_SwitchRemove("zero"), STATUS_OK);
  Reset();
  // With one, the rest is parked, still counting its ports: slots 0 and 2 ...
  for (const char *id : {"x0", "hole", "x2"}) Add(id);
  Add("dummy", 1);
  ASSERT_EQ(ZELState_SwitchRemove("hole"), STATUS_OK);
  ASSERT_TRUE(ZELState_StripZelWithNoPersistFlag(array_, ids_, true));
  ASSERT_EQ(ArrayIds(), Expect({{0, "x0"}, {2, "x2"}}));
  EXPECT_TRUE(DatabaseEmpty());
  EXPECT_EQ(HostPorts(), 2u);
  // ... and the table a named switch in slot 5 and another in slot 6.
  for (const char *id : {"f0", "f1", "f2", "f3", "f4", "named", "other"}) Add(id);
  for (const char *id : {"f0", "f1", "f2", "f3", "f4"})
    ASSERT_EQ(ZELState_SwitchRemove(id), STATUS_OK);
  std::memset(ids_, 0, 2 * sizeof ids_[0]);
  std::strcpy(ids_[0], "named");
  std::strcpy(ids_[1], "nosuch");  // a row that matches nothing moves nothing
  ZELState_UpdateGlobalSwsArray(array_, ids_);
  EXPECT_EQ(Slots(), Expect({{0, "x0"}, {1, "named"}, {2, "x2"}}));
  EXPECT_EQ(ArrayIds(), Expect({{6, "other"}}));
  // Freeing releases what is parked and what is in the table.
  Add("c");
  ZELState_FreeZELArray(array_);
  EXPECT_TRUE(DatabaseEmpty());
  EXPECT_EQ(HostPorts(), 0u);
  EXPECT_EQ(fa::Live(), 0);
}

// The system-wide port limit from the environment, capped.
// Unset and empty give the default; a value above the cap is capped; text
// that is not a plain positive decimal is refused and nothing is written.
TEST(HostLimitsTest, EnvironmentDefaultCapAndRefusals) {
  using namespace zel::host;
  const struct {
    const char *text;  // null: unset
    ReturnStatus status;
    uint32_t value;
  } cases[] = {{nullptr, STATUS_OK, 4096},       {"", STATUS_OK, 4096},
               {"128000", STATUS_OK, 128000},    {"1048576", STATUS_OK, kMaxPortsSystemWideCap},
               {"0", STATUS_BAD_PARAM, 7},       {"12x", STATUS_BAD_PARAM, 7},
               {"-5", STATUS_BAD_PARAM, 7},      {"+12", STATUS_BAD_PARAM, 7},
               {"1048577", STATUS_BAD_PARAM, 7}, {"99999999999999999999", STATUS_BAD_PARAM, 7}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text ? c.text : "unset");
    c.text ? setenv(kMaxPortsSystemWideEnv, c.text, 1) : unsetenv(kMaxPortsSystemWideEnv);
    uint32_t value = 7;
    EXPECT_EQ(KernelInfoGetMaxPortsSystemWide(&value), c.status);
    EXPECT_EQ(value, c.value);
  }
  unsetenv(kMaxPortsSystemWideEnv);
  zel::host::testing::UseDefaultKernelInfo();
  EXPECT_EQ(KernelInfoCheckSignature(), STATUS_OK);
}

// The environment decides until a value is set: a fresh process, which has set
// none, reads it.
TEST(FeatureFlagsDeathTest, TheEnvironmentDecidesUntilAValueIsSet) {
  const std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child starts the program anew
  setenv("ZEL_CONFIGSTORE_FEATURES", "1,1", 1);
  EXPECT_EXIT(std::exit(zel::host::ConfigStoreEnabled() ? 0 : 1), testing::ExitedWithCode(0), "");
  unsetenv("ZEL_CONFIGSTORE_FEATURES");
  GTEST_FLAG_SET(death_test_style, style);
}

// Several threads adding, finding and removing switches and ports at once.
// Run under ThreadSanitizer in CI; the counts must agree at the end.
using StateConcurrencyTest = StateTest;

constexpr int kThreads = 4;

void OnThreads(const std::function<void(int)> &fn) {
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(fn, t);
  for (auto &th : threads) th.join();
}

// Ports found by walking every switch, under the table lock.
uint32_t CountPortsByWalking() {
  uint32_t total = 0;
  ZELState_SwitchForEach(
      [](SwitchState *sw, void *ctx) {
        uint32_t seen = 0;
        ZELState_PortForEach(
            sw, [](PortState *, void *c) { return ++*static_cast<uint32_t *>(c), false; }, &seen);
        EXPECT_EQ(seen, ZEL_NumPorts(sw)) << ZEL_SwitchId(sw);
        *static_cast<uint32_t *>(ctx) += seen;
        return false;
      },
      &total);
  return total;
}

// Every thread works on a shared pool of switch ids under the table lock,
// so adds and removes of the same switches race between threads.
TEST_F(StateConcurrencyTest, SharedSwitchesUnderTheHandleLock) {
  ASSERT_EQ(ZELState_SwitchAdd("warm", "vswitch", 0, 7), STATUS_OK);  // reads the limit
  std::atomic<int> added{0}, removed{0};
  OnThreads([&](int t) {
    std::mt19937 rng(static_cast<unsigned>(t));
    for (int i = 0; i < 1500; ++i) {
      const std::string sw = "sw" + std::to_string(rng() % 6), port = std::to_string(rng() % 10);
      ZelRecLock *lock = ZelSwitchHandleLock();
      const unsigned op = rng() % 5;
      if (op == 0) ZELState_SwitchAdd(sw.c_str(), "vswitch", 0, 7);
      if (op == 1) removed += ZELState_SwitchRemove(sw.c_str()) == STATUS_OK;
      if (op == 2) added += AddPort(sw.c_str(), port.c_str()) == STATUS_OK;
      if (PortState *p = op == 3 ? ZELState_PortFind(sw.c_str(), port.c_str()) : nullptr) {
        EXPECT_STREQ(ZEL_PortId(p), port.c_str());
        EXPECT_EQ(ZELState_PortRemove(sw.c_str(), port.c_str()), STATUS_OK);
      }
      if (SwitchState *s = op == 4 ? ZELState_SwitchFind(sw.c_str()) : nullptr) {
        EXPECT_STREQ(ZEL_SwitchId(s), sw.c_str());
      }
      ZelSwitchHandleUnlock(lock);
    }
  });
  EXPECT_GT(added.load(), 0);
  EXPECT_GT(removed.load(), 0);
  EXPECT_EQ(CountPortsByWalking(), HostPorts());
}

// Each thread owns one switch and churns its ports without the handle lock
// (the table lock is taken inside each lookup), while others add, find and
// remove switches of their own.
TEST_F(StateConcurrencyTest, OwnSwitchesWithoutTheHandleLock) {
  ASSERT_EQ(ZELState_SwitchAdd("warm", "vswitch", 0, 7), STATUS_OK);
  OnThreads([](int t) {
    const std::string own = "own" + std::to_string(t), temp = "temp" + std::to_string(t);
    ASSERT_EQ(ZELState_SwitchAdd(own.c_str(), "mine", 40, 7), STATUS_OK);
    // Ten rounds of adding 30 ports and removing them; the last round
    // removes only every third one.
    for (int round = 0; round < 10; ++round) {
      for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(AddPort(own.c_str(), std::to_string(i).c_str()), STATUS_OK);
        EXPECT_EQ(ZELState_SwitchAdd(temp.c_str(), "vswitch", 0, 7), STATUS_OK);
        EXPECT_EQ(AddPort(temp.c_str(), "t"), STATUS_OK);
        EXPECT_NE(ZELState_SwitchFind(own.c_str()), nullptr);
        EXPECT_EQ(ZELState_SwitchRemove(temp.c_str()), STATUS_OK);
      }
      EXPECT_EQ(AddPort(own.c_str(), "0"), STATUS_EXISTS);
      for (int i = 0; i < 30; i += round < 9 ? 1 : 3) {
        EXPECT_EQ(ZELState_PortRemove(own.c_str(), std::to_string(i).c_str()), STATUS_OK);
      }
    }
  });
  EXPECT_EQ(CountPortsByWalking(), HostPorts());
  for (int t = 0; t < kThreads; ++t) {
    SwitchState *sw = ZELState_SwitchFind(("own" + std::to_string(t)).c_str());
    ASSERT_NE(sw, nullptr);
    EXPECT_EQ(ZEL_NumPorts(sw), 20u);
  }
}

}  // namespace
