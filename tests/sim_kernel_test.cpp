// The emulated kernel switch module driven through the library's kernel
// channel: the state blobs it refuses, and many clients at once.  The rest
// of its behaviour is what the kernel tests run against.
#include <latch>
#include <string>
#include <thread>
#include <tuple>

#include "kernel_fixture.h"

namespace {

using namespace zelkerneltest;
using zel::sim::EmulatedKernel;

Bytes State() {
  void *buffer = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(ZELPYX_StateGet(&buffer, &length), STATUS_OK);
  Bytes out(static_cast<uint8_t *>(buffer), static_cast<uint8_t *>(buffer) + length);
  ZELPYX_DataFree(buffer);
  return out;
}

std::string Stats(const char *sw) {
  void *out = nullptr;
  uint32_t len = 0;
  EXPECT_EQ(ZELPYX_CmdExec(sw, "stats", nullptr, 0, &out, &len), STATUS_OK);
  std::string text = out != nullptr ? std::string(static_cast<char *>(out), len) : "";
  ZELPYX_DataFree(out);
  return text;
}

TEST(SimKernelTest, StateInitRefusesBadBlobsAndKeepsItsState) {
  EmulatedKernel kernel{4096};
  zel::kernel::ScopedTransport use{&kernel};
  ASSERT_EQ(ZELPYX_SwitchAdd("keep", "vswitch", 0, 7), STATUS_OK);
  const Bytes before = State();
  auto swBlob = [](const Props &fields) { return Encode({{"s", Encode(fields), 16}}, 5); };
  const Prop version{"switchVersion", U32(7), 16}, cls{"className", Text("c"), 16},
      one{"maxPorts", U32(1), 16};
  Bytes badChecksum = swBlob({version, cls, one});
  badChecksum[100] ^= 0xFF;
  Bytes truncated = swBlob({version, cls, one});
  truncated.resize(truncated.size() - 8);
  const std::vector<std::tuple<const char *, Bytes, ReturnStatus>> cases = {
      {"checksum", badChecksum, STATUS_BAD_CHECKSUM},
      {"truncated", truncated, STATUS_BAD_PARAM},
      {"not a list", Bytes(15, 0), STATUS_BAD_PARAM},
      {"no className", swBlob({version, one}), STATUS_BAD_PARAM},
      {"no maxPorts", swBlob({cls}), STATUS_BAD_PARAM},
      {"short maxPorts", swBlob({cls, {"maxPorts", {1, 0}, 16}}), STATUS_BAD_PARAM},
      {"className without NUL", swBlob({{"className", {'c'}, 16}, one}), STATUS_BAD_PARAM},
      {"unknown version", swBlob({{"switchVersion", U32(8), 16}, cls, one}), STATUS_NOT_SUPPORTED},
      {"twice the same field", swBlob({cls, one, one}), STATUS_BAD_PARAM},
      {"port list corrupt", swBlob({cls, one, {"p", {1, 2, 3}, 16}}), STATUS_BAD_PARAM},
      {"more ports than maxPorts", swBlob({cls, one, {"p", Encode({}), 16}, {"q", Encode({}), 16}}),
       STATUS_LIMIT_EXCEEDED},
      {"same switch twice",
       Encode({{"s", Encode({version, cls, one}), 16}, {"s", Encode({version, cls, one}), 16}}, 5),
       STATUS_EXISTS},
  };
  for (const auto &[label, blob, expect] : cases) {
    SCOPED_TRACE(label);
    ReturnStatus status = STATUS_OK;
    zeltest::CaptureStderr([&] { status = ZELPYX_StateInit(blob.data(), uint32_t(blob.size())); });
    EXPECT_EQ(status, expect);
    EXPECT_EQ(State(), before);
  }
  // A blob without a version is accepted as version 0 (short port ids).
  const Bytes noVersion = swBlob({cls, one});
  EXPECT_EQ(ZELPYX_StateInit(noVersion.data(), uint32_t(noVersion.size())), STATUS_OK);
  EXPECT_NE(Stats("s").find("version 0\n"), std::string::npos);
}

// Many threads driving one emulated module through the library at once.
TEST(SimKernelConcurrency, ParallelClientsSeeAConsistentModule) {
  EmulatedKernel kernel;
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
  EXPECT_EQ(Stats(""), "switches 6\nports 240\nhostPortLimit 4096\n");
  EXPECT_EQ(kernel.counters().opens, kernel.counters().closes + 1);
}

}  // namespace
