// Many clients driving one emulated kernel switch module through the
// library's kernel channel at once.
#include <latch>
#include <string>
#include <thread>

#include "kernel_fixture.h"

namespace {

TEST(SimKernelConcurrency, ParallelClientsSeeAConsistentModule) {
  zel::sim::EmulatedKernel kernel;
  zel::kernel::ScopedTransport use(&kernel);
  constexpr int kThreads = 6, kPorts = 40;
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string sw = "sw" + std::to_string(t);
      start.arrive_and_wait();
      EXPECT_EQ(ZELPYX_SwitchAdd(sw.c_str(), "vswitch", 0, 7), STATUS_OK);
      for (int p = 0; p < kPorts; ++p) {
        const std::string port = std::to_string(p);
        EXPECT_EQ(ZELPYX_PortAdd(sw.c_str(), port.c_str(), nullptr, 0), STATUS_OK);
        EXPECT_EQ(ZELPYX_PortDataSet(sw.c_str(), port.c_str(), "n", &p, sizeof p, 16), STATUS_OK);
        void *state = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(ZELPYX_StateGet(&state, &len), STATUS_OK);
        ZELPYX_DataFree(state);
      }
    });
  }
  for (auto &th : threads) th.join();
  void *out = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(ZELPYX_CmdExec("", "stats", nullptr, 0, &out, &len), STATUS_OK);
  EXPECT_EQ(std::string(static_cast<char *>(out), len),
            "switches 6\nports 240\nhostPortLimit 4096\n");
  ZELPYX_DataFree(out);
  EXPECT_EQ(kernel.counters().opens, kernel.counters().closes + 1);
}

}  // namespace
