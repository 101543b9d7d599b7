// Several threads adding, finding and removing switches and ports at once.
// Run under ThreadSanitizer in CI; the counts must agree at the end.
#include <atomic>
#include <random>
#include <string>
#include <thread>

#include "state_fixture.h"

using namespace zelstatetest;

namespace {

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
