// The switch table, the host's port limit, the table lock, and the switch
// property lists.
#include <string>

#include "host/host_limits.h"
#include "host/lock.h"
#include "state_fixture.h"

using namespace zelstatetest;
namespace st = zel::state::testing;

namespace {

using StateSwitchTest = StateTest;

TEST_F(StateSwitchTest, LimitIsReadOnceAtTheFirstAdd) {
  EXPECT_EQ(uwMaxNumActivePortsSystemWide, 0u);
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 5, 7), STATUS_OK);
  EXPECT_EQ(uwMaxNumActivePortsSystemWide, 4096u);
  EXPECT_EQ(ZEL_GetNewMaxPorts(ZELState_SwitchFind("a")), 4096u) << "unlimited classes ignore it";
  zel::host::testing::SetMaxPortsSystemWide(10);  // no effect: the value is cached
  ASSERT_EQ(ZELState_SwitchAdd("b", "vswitch", 5, 7), STATUS_OK);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("b")), 4096u);
}

TEST_F(StateSwitchTest, LimitFetchFailuresAreReturnedAndRetried) {
  st::FailPortLimit(STATUS_NOT_SUPPORTED, STATUS_OK);
  ExpectOutput(
      0, [] { return ZELState_SwitchAdd("a", "vswitch", 5, 7); }, STATUS_NOT_SUPPORTED,
      "ZELState_SwitchAdd a, QUB signature check failed. Error: Not supported\n");
  zel::host::testing::FailKernelInfo(STATUS_OK, STATUS_FAILURE);
  ExpectOutput(
      0, [] { return ZELState_SwitchAdd("a", "vswitch", 5, 7); }, STATUS_FAILURE,
      "ZELState_SwitchAdd a, failed to get max ports systemwide. Error: Failure\n");
  EXPECT_EQ(uwMaxNumActivePortsSystemWide, 0u);
  zel::host::testing::SetMaxPortsSystemWide(64);
  EXPECT_EQ(ZELState_SwitchAdd("a", "vswitch", 5, 7), STATUS_OK);
  EXPECT_EQ(uwMaxNumActivePortsSystemWide, 64u);
}

TEST_F(StateSwitchTest, ThirtyThirdSwitchAndSlotReuse) {
  for (int i = 0; i < 32; ++i) {
    ASSERT_EQ(ZELState_SwitchAdd(("s" + std::to_string(i)).c_str(), "etherswitch", 0, 7),
              STATUS_OK);
  }
  std::vector<std::string> before = Slots();
  ExpectOutput(
      0, [] { return ZELState_SwitchAdd("s32", "etherswitch", 0, 7); }, STATUS_LIMIT_EXCEEDED,
      "ZELState_SwitchAdd failed ZEL:s32 Error: Limit exceeded\n");
  EXPECT_EQ(Slots(), before);
  ASSERT_EQ(ZELState_SwitchRemove("s5"), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("new", "etherswitch", 0, 7), STATUS_OK);
  EXPECT_EQ(Slots()[5], "new");
  EXPECT_EQ(Slots()[6], "s6");
}

TEST_F(StateSwitchTest, ClassesAndTheHostWidePortCheck) {
  // 4000 ports in use of 4096: a limited switch may ask 96 more, not 97.
  ASSERT_EQ(ZELState_SwitchAdd("big", "cswitch", 0, 7), STATUS_OK);
  for (int i = 0; i < 4000; ++i) ASSERT_EQ(AddPort("big", std::to_string(i).c_str()), STATUS_OK);
  ExpectOutput(
      0, [] { return ZELState_SwitchAdd("lim", "vswitch2", 97, 7); }, STATUS_LIMIT_EXCEEDED,
      "ZELState_SwitchAdd lim, failed with maxPorts exceed 97.\n");
  EXPECT_EQ(ZELState_SwitchFind("lim"), nullptr);
  ASSERT_EQ(ZELState_SwitchAdd("lim", "vswitch2", 96, 7), STATUS_OK);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("lim")), 96u);
  // The check is against ports in use, not against other switches' limits.
  ASSERT_EQ(ZELState_SwitchAdd("lim2", "other", 96, 7), STATUS_OK);
  for (const char *cls : {"qorvswitch", "etherswitch", "stub-vswitch", "cswitch", "vswitch"}) {
    std::string id = std::string("u-") + cls;
    ASSERT_EQ(ZELState_SwitchAdd(id.c_str(), cls, 100000, 7), STATUS_OK) << cls;
    EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind(id.c_str())), 4096u);
  }
  // Case and prefix matter: these are limited classes.
  EXPECT_EQ(ZELState_SwitchAdd("x1", "VSWITCH", 97, 7), STATUS_LIMIT_EXCEEDED);
  EXPECT_EQ(ZELState_SwitchAdd("x2", "vswitc", 97, 7), STATUS_LIMIT_EXCEEDED);
}

TEST_F(StateSwitchTest, IdLengthDuplicatesAndMessages) {
  std::string id63(63, 'a');
  std::string id64(64, 'b');
  EXPECT_EQ(ZELState_SwitchAdd(id63.c_str(), "vswitch", 0, 7), STATUS_OK);
  ExpectOutput(
      0, [&] { return ZELState_SwitchAdd(id64.c_str(), "vswitch", 0, 7); }, STATUS_BAD_PARAM,
      "ZELState_SwitchAdd " + id64 + ", id length too long\n");
  ExpectOutput(
      1, [&] { return ZELState_SwitchAdd(id63.c_str(), "other", 3, 5); }, STATUS_EXISTS,
      "ZELState_SwitchAdd " + id63 + ", other, 3\nZELState_SwitchAdd failed ZEL:" + id63 +
          " Error: Already exists\n");
  EXPECT_EQ(Output(1, [] { ZELState_SwitchAdd("v", "vswitch", 3, 5); }),
            "ZELState_SwitchAdd v, vswitch, 4096\n");
  EXPECT_EQ(Output(-1, [] { ZELState_SwitchAdd("v", "vswitch", 3, 5); }), "");
}

TEST_F(StateSwitchTest, AllocationFailuresLeaveTheTableAsItWas) {
  st::SetAllocator(zeltest::failalloc::Alloc, zeltest::failalloc::Free);
  ASSERT_EQ(ZELState_SwitchAdd("keep", "vswitch", 0, 7), STATUS_OK);
  int64_t live = zeltest::failalloc::Live();
  // Allocations of an add: the record, its global list, its host list.
  for (uint64_t k = 1; k <= 3; ++k) {
    zeltest::failalloc::FailAt(k);
    std::string out =
        Output(0, [] { EXPECT_EQ(ZELState_SwitchAdd("x", "vswitch", 0, 7), STATUS_NO_MEMORY); });
    EXPECT_EQ(out, "ZELState_SwitchAdd failed ZEL:x Error: Out of memory\n") << k;
    EXPECT_EQ(zeltest::failalloc::Live(), live) << k;
    EXPECT_EQ(Slots()[1], "") << k;
  }
  zeltest::failalloc::FailAt(0);
  EXPECT_EQ(ZELState_SwitchAdd("x", "vswitch", 0, 7), STATUS_OK);
  EXPECT_EQ(Slots()[1], "x");
  ZELState_ConfigReset();
  EXPECT_EQ(zeltest::failalloc::Live(), 0);
}

TEST_F(StateSwitchTest, RemoveReleasesPortsAndCounts) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("b", "vswitch", 0, 7), STATUS_OK);
  for (const char *p : {"1", "2", "3"}) ASSERT_EQ(AddPort("a", p), STATUS_OK);
  ASSERT_EQ(AddPort("b", "1"), STATUS_OK);
  EXPECT_EQ(HostPorts(), 4u);
  ExpectOutput(
      1, [] { return ZELState_SwitchRemove("a"); }, STATUS_OK,
      "ZELState_SwitchRemove a\nZELState_PortRemove a, 1\nZELState_PortRemove a, 2\n"
      "ZELState_PortRemove a, 3\n");
  EXPECT_EQ(HostPorts(), 1u);
  ExpectOutput(
      0, [] { return ZELState_SwitchRemove("a"); }, STATUS_NOT_FOUND,
      "ZELState_SwitchRemove ZELID a, statue Not found\n");
}

TEST_F(StateSwitchTest, SetVersion) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 5), STATUS_OK);
  for (uint32_t bad : {8u, 101u, 0u}) {
    ExpectOutput(
        0, [&] { return ZELState_SwitchSetVersion("a", bad); }, STATUS_NOT_SUPPORTED,
        "ZEL version not support " + std::to_string(bad) + "\n");
  }
  ExpectOutput(
      0, [] { return ZELState_SwitchSetVersion("a", 107); }, STATUS_OK,
      "Set ZEL a version from 5 to 107\n");
  ExpectOutput(
      0, [] { return ZELState_SwitchSetVersion("a", 107); }, STATUS_OK,
      "Set ZEL a version from 107 to 107\n");
  ExpectOutput(
      0, [] { return ZELState_SwitchSetVersion("zz", 7); }, STATUS_NOT_FOUND, "");
}

TEST_F(StateSwitchTest, NamesAliasesAndUuids) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("b", "vswitch", 0, 7), STATUS_OK);
  SwitchState *a = ZELState_SwitchFind("a");
  SwitchState *b = ZELState_SwitchFind("b");
  EXPECT_STREQ(ZEL_SwitchName(a), "unknown");
  EXPECT_EQ(ZELState_GlobalPropSet("a", ZEL_PROP_SWITCH_ALIAS, "sky", 4, 0), STATUS_OK);
  EXPECT_EQ(ZELState_GlobalPropSet("b", ZEL_PROP_SWITCH_ALIAS, "sky", 4, 0), STATUS_OK);
  EXPECT_STREQ(ZEL_SwitchName(a), "sky");
  EXPECT_EQ(ZELState_SwitchFindByAlias("sky"), a) << "first in slot order";
  EXPECT_EQ(ZELState_SwitchFindByAlias("sk"), nullptr);
  // A value without a NUL is not a string: it names nothing.
  EXPECT_EQ(ZELState_GlobalPropSet("a", ZEL_PROP_SWITCH_ALIAS, "sky", 3, 0), STATUS_OK);
  EXPECT_STREQ(ZEL_SwitchName(a), "unknown");
  EXPECT_EQ(ZELState_SwitchFindByAlias("sky"), b);

  const char *uuidId = "00 11 22 33 44 55 66 77-88 99 aa bb cc dd ee ff";
  ASSERT_EQ(ZELState_SwitchAdd(uuidId, "vswitch", 0, 7), STATUS_OK);
  const uint8_t uuid[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                            0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  EXPECT_EQ(ZELState_SwitchFindByUUID(uuid), ZELState_SwitchFind(uuidId));

  std::string longClass(130, 'c');
  char *field = ZEL_SetClassName(a, longClass.c_str());
  EXPECT_EQ(std::string(field), std::string(127, 'c'));
  ZEL_SetClassName(a, "x");
  EXPECT_STREQ(ZEL_ClassName(a), "x");
  for (int i = 1; i < ZEL_CLASS_NAME_SIZE; ++i) {
    ASSERT_EQ(field[i], '\0') << "rest zero-filled at " << i;
  }
}

TEST_F(StateSwitchTest, ForEachRunsUnderTheRecursiveLockInSlotOrder) {
  for (const char *id : {"a", "b", "c"}) {
    ASSERT_EQ(ZELState_SwitchAdd(id, "vswitch", 0, 7), STATUS_OK);
  }
  ASSERT_EQ(ZELState_SwitchRemove("a"), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("d", "vswitch", 0, 7), STATUS_OK);  // takes slot 0
  std::vector<std::string> seen;
  ZELState_SwitchForEach(
      [](SwitchState *sw, void *ctx) {
        auto *seenIds = static_cast<std::vector<std::string> *>(ctx);
        EXPECT_EQ(ZELState_SwitchFind(ZEL_SwitchId(sw)), sw);  // re-takes the lock
        seenIds->push_back(ZEL_SwitchId(sw));
        return seenIds->size() == 2;
      },
      &seen);
  EXPECT_EQ(seen, (std::vector<std::string>{"d", "b"}));
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

// --- global and host properties ---

using StatePropsTest = StateTest;

TEST_F(StatePropsTest, SetWithoutValueFailsBeforeTheLookup) {
  std::string out = Output(2, [] {
    EXPECT_EQ(ZELState_GlobalPropSet("nosuch", "n", "v", 0, 0), STATUS_FAILURE);
    EXPECT_EQ(ZELState_HostPropSet("nosuch", "n", nullptr, 2, 0), STATUS_FAILURE);
  });
  EXPECT_EQ(out, "");
  EXPECT_EQ(ZELState_GlobalPropSet("nosuch", "n", "v", 2, 0), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELState_HostPropClear("nosuch", "n"), STATUS_NOT_FOUND);
  PropertyEntry *entry = nullptr;
  EXPECT_EQ(ZELState_GlobalPropLookup("nosuch", "n", &entry), STATUS_NOT_FOUND);
}

TEST_F(StatePropsTest, HostSetIsSetClearReadAndMessages) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("a");
  const char *name = "com.zorlan.common.host.portset";
  EXPECT_FALSE(ZELState_HostPropIsSet(sw, name));
  std::string out = Output(2, [&] {
    EXPECT_EQ(ZELState_HostPropSet("a", name, "ps0", 4, 0), STATUS_OK);
    EXPECT_TRUE(ZELState_HostPropIsSet(sw, name));
    EXPECT_FALSE(ZELState_GlobalPropIsSet(sw, name)) << "the two lists are separate";
  });
  EXPECT_EQ(out, std::string("ZELState_HostPropSet a, ") + name + "\nZELState_HostPropIsSet a: " +
                     name + "\nZELState_GlobalPropIsSet a: " + name + "\n");
  void *value = nullptr;
  ExpectOutput(
      2, [&] { return ZELState_HostPropRead(sw, name, &value, nullptr); }, STATUS_OK,
      std::string("ZELState_HostPropRead a, ") + name + "\n");
  EXPECT_STREQ(static_cast<char *>(value), "ps0");
  uint32_t length = 0;
  EXPECT_EQ(ZELState_HostPropRead(sw, name, &value, &length), STATUS_OK);
  EXPECT_EQ(length, 4u);
  ExpectOutput(
      1, [&] { return ZELState_HostPropClear("a", name); }, STATUS_OK,
      std::string("ZELState_HostPropClear a, ") + name + "\n");
  EXPECT_FALSE(ZELState_HostPropIsSet(sw, name));
  value = nullptr;
  length = 99;
  EXPECT_EQ(ZELState_HostPropRead(sw, name, &value, &length), STATUS_NOT_FOUND);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(length, 99u);
  EXPECT_EQ(ZELState_HostPropClear("a", name), STATUS_NOT_FOUND);
}

uint32_t StopAtSecond(PropertyEntry *entry, void *ctx) {
  auto *names = static_cast<std::vector<std::string> *>(ctx);
  names->push_back(ZELData_Name(entry));
  // Only the low byte counts as the stop flag: 0x100 goes on.
  return names->size() == 2 ? 0x0101u : 0x100u;
}

TEST_F(StatePropsTest, ForEachStopsAtTheFirstTrueResultAndReturnsIt) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("a");
  std::vector<std::string> names;
  EXPECT_EQ(ZELState_GlobalPropForEach(sw, StopAtSecond, &names), STATUS_NOT_FOUND);
  EXPECT_TRUE(names.empty());
  for (const char *n : {"p1", "p2", "p3"}) {
    ASSERT_EQ(ZELState_GlobalPropSet("a", n, "1", 2, 0), STATUS_OK);
  }
  EXPECT_EQ(ZELState_GlobalPropForEach(sw, StopAtSecond, &names), 0x0101u);
  EXPECT_EQ(names, (std::vector<std::string>{"p1", "p2"}));
  names.clear();
  EXPECT_EQ(ZELState_HostPropForEach(sw, StopAtSecond, &names), STATUS_NOT_FOUND);
}

}  // namespace
