// The device channel and the command wrappers against a scripted device:
// exact record bytes, the three exchanges, their failures and messages.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kernel/channel.h"
#include "test_support.h"
#include "zel/kernel.h"
#include "zel/state.h"

namespace {

using Bytes = std::array<uint8_t, sizeof(ZELPYXCommand)>;
using Answer = std::function<int(unsigned long, ZELPYXCommand *)>;

void Put(Bytes &b, size_t off, uint64_t v, int width = 4) {
  for (int i = 0; i < width; ++i) b[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
uint64_t GetU64(const Bytes &b, size_t off) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = v << 8 | b[off + i];
  return v;
}
void PutText(Bytes &b, size_t off, const std::string &s) {
  std::memcpy(&b[off], s.data(), s.size());
}
uint64_t Addr(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// A device whose answers a test scripts; it records every record it is given.
class ScriptedDevice : public zel::host::DeviceTransport {
 public:
  struct Call {
    unsigned long request;
    Bytes record;
  };
  Answer answer = [](unsigned long, ZELPYXCommand *) { return 0; };
  std::atomic<bool> openFails{false};
  std::atomic<int> opens{0}, failedOpens{0}, closes{0}, openDelayMs{0}, firstFd{40};
  int lastFlags = -1;
  std::string lastPath;

  int Open(const char *path, int flags) override {
    std::this_thread::sleep_for(std::chrono::milliseconds(openDelayMs));
    std::lock_guard<std::mutex> lock(mutex_);
    lastPath = path;
    lastFlags = flags;
    if (!openFails) return firstFd + opens++;
    ++failedOpens;
    errno = ENOENT;
    return -1;
  }
  int Ioctl(int, unsigned long request, void *arg) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back({request, {}});
      std::memcpy(calls_.back().record.data(), arg, sizeof(ZELPYXCommand));
    }
    return answer(request, static_cast<ZELPYXCommand *>(arg));
  }
  int Close(int) override {
    ++closes;
    return 0;
  }
  std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::vector<Call> calls_;
};

int Fail(ZELPYXCommand *cmd, ReturnStatus status, int err) {
  cmd->status = status;
  errno = err;
  return -1;
}
// Refuses every buffer smaller than `size`, telling the size it wants.
Answer GrowTo(uint32_t size) {
  return [size](unsigned long, ZELPYXCommand *c) {
    if (c->dataLen >= size && c->cmdOutLen >= size) return 0;
    c->dataLen = c->cmdOutLen = size;
    return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC);
  };
}

class KernelChannelTest : public ::testing::Test {
 protected:
  ScriptedDevice device;
  zel::kernel::ScopedTransport use{&device};
};

// Each wrapper: its request number and the whole record the device receives.
TEST_F(KernelChannelTest, EveryWrapperSendsItsExactRecord) {
  const uint8_t value[5] = {1, 2, 3, 4, 5};
  const std::string sw70(70, 's'), port50(50, 'p'), name130(130, 'n');
  const std::string sw = sw70.substr(0, 63), port = port50.substr(0, 47);
  using Fill = std::function<void(Bytes &)>;
  auto u32 = [](size_t off, uint32_t v) { return [=](Bytes &b) { Put(b, off, v); }; };
  auto data = [&](uint32_t type) {  // a value of `type`: its type, length and address
    return [=, &value](Bytes &b) {
      Put(b, 248, type);
      Put(b, 260, sizeof value);
      Put(b, 264, Addr(value), 8);
    };
  };
  void *out = nullptr;
  uint32_t len = 0;
  const struct {
    unsigned long request;
    std::function<ReturnStatus()> call;
    std::string sw, port, name;  // the texts at offsets 0, 64 and 112
    Fill fill = [](Bytes &) {};  // the other fields besides the preset status
    bool reply = false;
  } cases[] = {
      {0, [&] { return ZELPYX_StateInit(value, 5); }, "", "", "", data(0)},
      {1, [] { return ZELPYX_StateCleanup(); }, "", "", ""},
      {2, [] { return ZELPYX_StateSanitize(); }, "", "", ""},
      {3, [&] { return ZELPYX_StateGet(&out, &len); }, "", "", "", {}, true},
      {4, [&] { return ZELPYX_SwitchAdd(sw70.c_str(), name130.c_str(), 512, 7); }, sw, "",
       name130.substr(0, 127), [&](Bytes &b) { u32(240, 512)(b), u32(244, 7)(b); }},
      {5, [] { return ZELPYX_SwitchRemove("sw"); }, "sw", "", ""},
      {6, [] { return ZELPYX_SwitchAssociate("sw"); }, "sw", "", ""},
      {7, [] { return ZELPYX_SwitchDissociate("sw"); }, "sw", "", ""},
      {8, [&] { return ZELPYX_GlobalPropGet("sw", "g", &out, &len); }, "sw", "", "g", {}, true},
      {9, [&] { return ZELPYX_GlobalPropSet("sw", "g", value, 5, 24); }, "sw", "", "g", data(24)},
      {10, [] { return ZELPYX_GlobalPropClear("sw", "g"); }, "sw", "", "g"},
      {11, [&] { return ZELPYX_HostPropGet("sw", "h", &out, &len); }, "sw", "", "h", {}, true},
      {12, [&] { return ZELPYX_HostPropSet("sw", "h", value, 5, 16); }, "sw", "", "h", data(16)},
      {13, [] { return ZELPYX_HostPropClear("sw", "h"); }, "sw", "", "h"},
      {14, [&] { return ZELPYX_PortAdd("sw", port50.c_str(), value, 5); }, "sw", port, "", data(0)},
      {15, [] { return ZELPYX_PortRemove("sw", "p"); }, "sw", "p", ""},
      {16, [&] { return ZELPYX_PortDataGet("sw", "p", "d", &out, &len); }, "sw", "p", "d", {},
       true},
      {17,
       [&] {
         return ZELPYX_PortDataSet(sw70.c_str(), port50.c_str(), name130.c_str(), value, 5, 32);
       },
       sw, port, name130.substr(0, 127), data(32)},
      {18, [] { return ZELPYX_PortDataClear("sw", "p", "d"); }, "sw", "p", "d"},
      {19, [&] { return ZELPYX_PortStateGet("sw", "p", &out, &len); }, "sw", "p", "", {}, true},
      {20, [] { return ZELPYX_PortFind("sw", "p"); }, "sw", "p", ""},
      {21, [] { return ZELPYX_SwitchSetMaxPorts("sw", 99); }, "sw", "", "", u32(240, 99)},
      {22, [] { return ZELPYX_SwitchSetVersion("sw", 100); }, "sw", "", "", u32(244, 100)},
      {26, [&] { return ZELPYX_UplinkDataSet("sw", "p", 4294967295u, value, 5, 16); }, "sw", "p",
       "-1", data(16)},
      {27, [&] { return ZELPYX_UplinkDataGet("sw", "p", 3, &out, &len); }, "sw", "p", "3", {},
       true},
      {13, [] { return ZELPYXSwitchPropClear("sw", "x", 13); }, "sw", "", "x"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.request);
    const size_t before = device.calls().size();
    out = nullptr;
    EXPECT_EQ(c.call(), STATUS_OK);
    ZELPYX_DataFree(out);
    const auto calls = device.calls();
    ASSERT_EQ(calls.size(), before + 1);
    const auto &got = calls.back();
    EXPECT_EQ(got.request, c.request);
    Bytes expect{};
    PutText(expect, 0, c.sw);
    PutText(expect, 64, c.port);
    PutText(expect, 112, c.name);
    if (c.fill) c.fill(expect);
    Put(expect, 256, STATUS_FAILURE);
    if (c.reply) {
      Put(expect, 260, ZELPYX_FIRST_REPLY_SIZE);
      EXPECT_NE(GetU64(got.record, 264), 0u);
      Put(expect, 264, GetU64(got.record, 264), 8);  // the library's own buffer
    }
    EXPECT_EQ(got.record, expect);
  }
  // The uplink index goes as a signed decimal.
  const std::pair<uint32_t, const char *> uplinks[] = {
      {0, "0"}, {2147483647u, "2147483647"}, {2147483648u, "-2147483648"}};
  for (const auto &[index, text] : uplinks) {
    ASSERT_EQ(ZELPYX_UplinkDataSet("sw", "p", index, "v", 1, 16), STATUS_OK);
    EXPECT_STREQ(reinterpret_cast<const char *>(&device.calls().back().record[112]), text);
  }
}

TEST_F(KernelChannelTest, CmdExecRecordAndOutputGrowth) {
  const std::string cmd130(130, 'c'), input = "payload";
  device.answer = [](unsigned long, ZELPYXCommand *c) {
    if (c->cmdOutLen < 70000) {
      c->cmdOutLen = 70000;
      return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC);
    }
    std::memset(reinterpret_cast<void *>(static_cast<uintptr_t>(c->cmdOut)), 'x', 70000);
    return 0;
  };
  void *out = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(ZELPYX_CmdExec(std::string(80, 's').c_str(), cmd130.c_str(), input.data(), 7, &out,
                           &len),
            STATUS_OK);
  EXPECT_EQ(len, 70000u);
  EXPECT_EQ(static_cast<char *>(out)[69999], 'x');
  ZELPYX_DataFree(out);

  const auto calls = device.calls();
  ASSERT_EQ(calls.size(), 2u);
  Bytes expect{};
  PutText(expect, 0, std::string(63, 's'));
  Put(expect, 256, STATUS_FAILURE);
  PutText(expect, 272, cmd130.substr(0, 127));
  Put(expect, 400, 7);
  Put(expect, 404, Addr(input.data()), 8);
  Put(expect, 412, ZELPYX_FIRST_REPLY_SIZE);
  Put(expect, 416, GetU64(calls[0].record, 416), 8);
  EXPECT_EQ(calls[0].request, 28u);
  EXPECT_EQ(calls[0].record, expect);
  EXPECT_EQ(GetU64(calls[1].record, 412) & 0xFFFFFFFFu, 70000u);
  EXPECT_EQ(device.opens, 1);
  EXPECT_EQ(device.closes, 1);
}

TEST_F(KernelChannelTest, PlainExchangeStatusesAndMessages) {
  // Success ignores whatever the kernel left in status.
  device.answer = [](unsigned long, ZELPYXCommand *c) { return c->status = STATUS_EXISTS, 0; };
  EXPECT_EQ(ZELPYX_PortFind("sw", "p"), STATUS_OK);
  // A failure without status written gives the preset STATUS_FAILURE.
  const std::pair<Answer, ReturnStatus> failures[] = {
      {[](unsigned long, ZELPYXCommand *) { return errno = ENOENT, -1; }, STATUS_FAILURE},
      {[](unsigned long, ZELPYXCommand *c) { return Fail(c, STATUS_NOT_FOUND, ENOENT); },
       STATUS_NOT_FOUND}};
  for (const auto &[answer, expect] : failures) {
    device.answer = answer;
    ReturnStatus status = 0;
    EXPECT_EQ(zeltest::CaptureStderr([&] { status = ZELPYX_PortFind("sw", "p"); }),
              std::string("ioctl failed: ") + std::strerror(ENOENT) + "\n");
    EXPECT_EQ(status, expect);
  }
  // Plain requests share one descriptor, opened read-write on the device.
  EXPECT_EQ(device.opens, 1);
  EXPECT_EQ(device.closes, 0);
  EXPECT_EQ(device.lastPath, "/tarn/devices/char/pyxdriver/zeldev");
  EXPECT_EQ(device.lastFlags, O_RDWR);
  EXPECT_EQ(ZELPYX_Ioctl(1, nullptr), STATUS_BAD_PARAM);
  void *out = nullptr;
  uint32_t len = 0;
  EXPECT_EQ(ZELPYX_StateGet(nullptr, &len), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELPYX_GlobalPropGet("sw", "g", &out, nullptr), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELPYX_CmdExec("sw", "c", nullptr, 0, nullptr, &len), STATUS_BAD_PARAM);
  EXPECT_EQ(device.calls().size(), 3u);
}

TEST_F(KernelChannelTest, MissingDeviceFailsEveryExchangeAndIsRetried) {
  device.openFails = true;
  void *out = &device;
  uint32_t len = 1234;
  const std::function<ReturnStatus()> calls[] = {
      [] { return ZELPYX_SwitchRemove("sw"); }, [&] { return ZELPYX_StateGet(&out, &len); },
      [&] { return ZELPYX_CmdExec("sw", "c", nullptr, 0, &out, &len); }};
  for (const auto &call : calls) {
    ReturnStatus status = 0;
    EXPECT_EQ(zeltest::CaptureStderr([&] { status = call(); }),
              "failed to open zeldev device /tarn/devices/char/pyxdriver/zeldev\n");
    EXPECT_EQ(status, STATUS_FAILURE);
  }
  EXPECT_EQ(out, &device);  // untouched
  EXPECT_EQ(len, 1234u);
  EXPECT_EQ(device.failedOpens, 3);
  EXPECT_TRUE(device.calls().empty());
  device.openFails = false;
  device.firstFd = 0;  // a valid descriptor like any other
  EXPECT_EQ(ZELPYX_SwitchRemove("sw"), STATUS_OK);
  EXPECT_EQ(ZELPYX_SwitchRemove("sw"), STATUS_OK);
  EXPECT_EQ(device.opens, 1);
}

TEST_F(KernelChannelTest, LargeReplyTakesExactlyTwoCalls) {
  device.answer = [](unsigned long r, ZELPYXCommand *c) {
    if (GrowTo(40000)(r, c) != 0) return -1;
    auto *p = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(c->data));
    for (uint32_t i = 0; i < 40000; ++i) p[i] = static_cast<uint8_t>(i);
    return c->status = STATUS_OK, 0;
  };
  void *blob = nullptr;
  uint32_t len = 0;
  ReturnStatus status = 0;
  // The reply exchange prints nothing for a failing ioctl.
  EXPECT_EQ(zeltest::CaptureStderr([&] { status = ZELPYX_StateGet(&blob, &len); }), "");
  ASSERT_EQ(status, STATUS_OK);
  EXPECT_EQ(len, 40000u);
  EXPECT_EQ(static_cast<uint8_t *>(blob)[39999], static_cast<uint8_t>(39999));
  ZELPYX_DataFree(blob);
  const auto calls = device.calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[1].record[260] | calls[1].record[261] << 8 | calls[1].record[262] << 16, 40000);
  EXPECT_EQ(device.opens, 1);  // one descriptor for the whole exchange, then closed
  EXPECT_EQ(device.closes, 1);
  // A length claimed beyond the buffer offered is cut to the buffer.
  device.answer = [](unsigned long, ZELPYXCommand *c) { return c->dataLen = 50000, 0; };
  ASSERT_EQ(ZELPYX_HostPropGet("sw", "h", &blob, &len), STATUS_OK);
  EXPECT_EQ(len, 32768u);
  ZELPYX_DataFree(blob);
}

TEST_F(KernelChannelTest, ReplyFailuresLeaveNoBuffer) {
  const struct {
    const char *label;
    Answer answer;
    ReturnStatus status;
    uint32_t len;
  } cases[] = {
      {"limit without a larger size",
       [](unsigned long, ZELPYXCommand *c) { return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC); },
       STATUS_LIMIT_EXCEEDED, 32768},
      {"limit with a smaller size",
       [](unsigned long, ZELPYXCommand *c) {
         c->dataLen = 100;
         return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC);
       },
       STATUS_LIMIT_EXCEEDED, 100},
      {"kernel status",
       [](unsigned long, ZELPYXCommand *c) { return Fail(c, STATUS_NOT_FOUND, ENOENT); },
       STATUS_NOT_FOUND, 32768},
      {"no status written", [](unsigned long, ZELPYXCommand *) { return errno = EIO, -1; },
       STATUS_FAILURE, 32768},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.label);
    device.answer = c.answer;
    const size_t before = device.calls().size();
    void *out = &device;
    uint32_t len = 0;
    EXPECT_EQ(zeltest::CaptureStderr([&] {
                EXPECT_EQ(ZELPYX_PortDataGet("sw", "p", "d", &out, &len), c.status);
              }),
              "");
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, c.len);
    EXPECT_EQ(device.calls().size() - before, 1u);
  }
  EXPECT_EQ(device.opens, device.closes);
}

// An allocator that fails from its n-th call on (1-based).
std::atomic<int> g_allocCalls{0}, g_failFrom{0};
void *FailingAlloc(size_t bytes) {
  return ++g_allocCalls >= g_failFrom ? nullptr : std::malloc(bytes);
}

// The first buffer or the grown one cannot be had; only the command
// exchange says so.
TEST_F(KernelChannelTest, ReplyBufferAllocationFailures) {
  const struct {
    bool cmd;
    int failFrom;
    uint32_t grow, len;
  } cases[] = {{false, 1, 0, 32768}, {false, 2, 40000, 40000}, {true, 1, 0, 32768},
               {true, 2, 50000, 50000}};
  const zel::kernel::ReplyAllocFn previous = zel::kernel::SetReplyAllocator(FailingAlloc);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.grow);
    device.answer = GrowTo(c.grow);
    g_allocCalls = 0;
    g_failFrom = c.failFrom;
    const size_t before = device.calls().size();
    void *out = &device;
    uint32_t len = 0;
    EXPECT_EQ(zeltest::CaptureStderr([&] {
                EXPECT_EQ(c.cmd ? ZELPYX_CmdExec("sw", "c", nullptr, 0, &out, &len)
                                : ZELPYX_StateGet(&out, &len),
                          STATUS_NO_MEMORY);
              }),
              c.cmd ? "failed to alloc buffer memory" : "");
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, c.len);
    EXPECT_EQ(device.calls().size() - before, size_t(c.failFrom - 1));
  }
  zel::kernel::SetReplyAllocator(previous);
  EXPECT_EQ(device.opens, device.closes);
}

// A failed first open is retried; then several threads making plain
// requests at once open the device exactly once.
TEST(KernelChannelConcurrency, FirstPlainRequestsOpenTheDeviceOnce) {
  ScriptedDevice device;
  zel::kernel::ScopedTransport use(&device);
  device.openFails = true;
  EXPECT_NE(zeltest::CaptureStderr([] { EXPECT_EQ(ZELPYX_StateCleanup(), STATUS_FAILURE); }), "");
  device.openFails = false;
  device.openDelayMs = 20;  // widen the window in which threads race to open
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int k = 0; k < 20; ++k) {
        if (ZELPYX_PortFind("sw", "p") != STATUS_OK) ++failures;
      }
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(device.opens, 1);
  EXPECT_EQ(device.failedOpens, 1);
  EXPECT_EQ(device.calls().size(), static_cast<size_t>(kThreads * 20));
}

}  // namespace
