// The switch table, the host's port limit, the table lock, and the switch
// property lists.
#include <string>

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
  EXPECT_EQ(uwMaxNumActivePortsSystemWide, 0u);
  zel::host::testing::SetMaxPortsSystemWide(64);
  EXPECT_EQ(Add("a", "vswitch", 5), STATUS_OK);
  EXPECT_EQ(uwMaxNumActivePortsSystemWide, 64u);
  EXPECT_EQ(ZEL_GetNewMaxPorts(ZELState_SwitchFind("a")), 64u) << "unlimited classes ignore it";
  zel::host::testing::SetMaxPortsSystemWide(10);
  ASSERT_EQ(Add("b", "vswitch", 5), STATUS_OK);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("b")), 64u);
}

TEST_F(StateSwitchTest, ThirtyThirdSwitchAndSlotReuse) {
  for (int i = 0; i < 32; ++i) ASSERT_EQ(Add("s" + std::to_string(i), "etherswitch"), STATUS_OK);
  const std::vector<std::string> before = Slots();
  ExpectOutput(0, STATUS_LIMIT_EXCEEDED,
               "ZELState_SwitchAdd failed ZEL:s32 Error: Limit exceeded\n",
               [] { return Add("s32", "etherswitch"); });
  EXPECT_EQ(Slots(), before);
  ASSERT_EQ(ZELState_SwitchRemove("s5"), STATUS_OK);
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
  EXPECT_EQ(ZELState_SwitchFind("lim"), nullptr);
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
  ExpectOutput(1, STATUS_EXISTS,
               "ZELState_SwitchAdd " + id63 + ", other, 3\nZELState_SwitchAdd failed ZEL:" + id63 +
                   " Error: Already exists\n",
               [&] { return ZELState_SwitchAdd(id63.c_str(), "other", 3, 5); });
  EXPECT_EQ(Output(1, [] { ZELState_SwitchAdd("v", "vswitch", 3, 5); }),
            "ZELState_SwitchAdd v, vswitch, 4096\n");
  EXPECT_EQ(Output(-1, [] { ZELState_SwitchAdd("v", "vswitch", 3, 5); }), "");
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

TEST_F(StateSwitchTest, RemoveReleasesPortsAndCounts) {
  ASSERT_EQ(Add("a"), STATUS_OK);
  ASSERT_EQ(Add("b"), STATUS_OK);
  for (const char *p : {"1", "2", "3"}) ASSERT_EQ(AddPort("a", p), STATUS_OK);
  ASSERT_EQ(AddPort("b", "1"), STATUS_OK);
  EXPECT_EQ(HostPorts(), 4u);
  ExpectOutput(1, STATUS_OK,
               "ZELState_SwitchRemove a\nZELState_PortRemove a, 1\nZELState_PortRemove a, "
               "2\nZELState_PortRemove a, 3\n",
               [] { return ZELState_SwitchRemove("a"); });
  EXPECT_EQ(HostPorts(), 1u);
  ExpectOutput(0, STATUS_NOT_FOUND, "ZELState_SwitchRemove ZELID a, statue Not found\n",
               [] { return ZELState_SwitchRemove("a"); });
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

// A set without a value fails before the switch is looked up, quietly.
TEST_F(StateSwitchTest, HostPropertySetIsSetClearReadAndMessages) {
  EXPECT_EQ(Output(2,
                   [] {
                     EXPECT_EQ(ZELState_GlobalPropSet("nosuch", "n", "v", 0, 0), STATUS_FAILURE);
                     EXPECT_EQ(ZELState_HostPropSet("nosuch", "n", nullptr, 2, 0), STATUS_FAILURE);
                   }),
            "");
  EXPECT_EQ(ZELState_GlobalPropSet("nosuch", "n", "v", 2, 0), STATUS_NOT_FOUND);
  PropertyEntry *entry = nullptr;
  EXPECT_EQ(ZELState_GlobalPropLookup("nosuch", "n", &entry), STATUS_NOT_FOUND);
  ASSERT_EQ(Add("a"), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("a");
  const std::string name = "com.zorlan.common.host.portset";
  const char *n = name.c_str();
  EXPECT_FALSE(ZELState_HostPropIsSet(sw, n));
  EXPECT_EQ(Output(2,
                   [&] {
                     EXPECT_EQ(ZELState_HostPropSet("a", n, "ps0", 4, 0), STATUS_OK);
                     EXPECT_TRUE(ZELState_HostPropIsSet(sw, n));
                     EXPECT_FALSE(ZELState_GlobalPropIsSet(sw, n)) << "the two lists are separate";
                   }),
            "ZELState_HostPropSet a, " + name + "\nZELState_HostPropIsSet a: " + name +
                "\nZELState_GlobalPropIsSet a: " + name + "\n");
  void *value = nullptr;
  uint32_t length = 0;
  ExpectOutput(2, STATUS_OK, "ZELState_HostPropRead a, " + name + "\n",
               [&] { return ZELState_HostPropRead(sw, n, &value, nullptr); });
  EXPECT_EQ(ZELState_HostPropRead(sw, n, &value, &length), STATUS_OK);
  EXPECT_EQ(AsBytes(value, length), Text("ps0"));
  ExpectOutput(1, STATUS_OK, "ZELState_HostPropClear a, " + name + "\n",
               [&] { return ZELState_HostPropClear("a", n); });
  EXPECT_FALSE(ZELState_HostPropIsSet(sw, n));
  value = nullptr;
  EXPECT_EQ(ZELState_HostPropRead(sw, n, &value, &length), STATUS_NOT_FOUND);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(ZELState_HostPropClear("a", n), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELState_HostPropClear("nosuch", n), STATUS_NOT_FOUND);
}

TEST_F(StateSwitchTest, PropertyForEachStopsAtTheFirstTrueResultAndReturnsIt) {
  ASSERT_EQ(Add("a"), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("a");
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

}  // namespace
