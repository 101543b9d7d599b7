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

#include "host/lock.h"
#include "kernel/channel.h"
#include "test_support.h"
#include "zel/kernel.h"
#include "zel/state.h"

namespace {

using Bytes = std::array<uint8_t, sizeof(ZELPYXCommand)>;

void PutU32(Bytes &b, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
void PutU64(Bytes &b, size_t off, uint64_t v) {
  for (int i = 0; i < 8; ++i) b[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
uint64_t GetU64(const Bytes &b, size_t off) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = v << 8 | b[off + i];
  return v;
}
void PutText(Bytes &b, size_t off, const std::string &s) { std::memcpy(&b[off], s.data(), s.size()); }
uint64_t Addr(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// The offsets at which two records differ, empty when they are equal.
std::string Diff(const Bytes &got, const Bytes &expect) {
  std::string out;
  for (size_t i = 0; i < got.size(); ++i) {
    if (got[i] != expect[i]) {
      out += "offset " + std::to_string(i) + ": got " + std::to_string(got[i]) + ", expected " +
             std::to_string(expect[i]) + "\n";
    }
  }
  return out;
}

// "abcdefghij" repeated up to n characters, so that a cut shows where it fell.
std::string Pattern(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += static_cast<char>('a' + i % 10);
  return s;
}

// A device whose answers a test scripts; it records every record it is given.
class ScriptedDevice : public zel::host::DeviceTransport {
 public:
  struct Call {
    unsigned long request;
    Bytes record;
  };
  std::function<int(unsigned long, ZELPYXCommand *)> answer = [](unsigned long, ZELPYXCommand *) {
    return 0;
  };
  std::atomic<bool> openFails{false};
  std::atomic<int> opens{0}, failedOpens{0}, closes{0};
  std::atomic<int> openDelayMs{0};
  int lastFlags = -1;
  std::string lastPath;

  int Open(const char *path, int flags) override {
    if (openDelayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(openDelayMs));
    std::lock_guard<std::mutex> lock(mutex_);
    lastPath = path;
    lastFlags = flags;
    if (openFails) {
      ++failedOpens;
      errno = ENOENT;
      return -1;
    }
    return 40 + opens++;
  }
  int Ioctl(int, unsigned long request, void *arg) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      Call call{request, {}};
      std::memcpy(call.record.data(), arg, sizeof(ZELPYXCommand));
      calls_.push_back(call);
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

class KernelChannelTest : public ::testing::Test {
 protected:
  ScriptedDevice device;
  zel::kernel::ScopedTransport use{&device};
};

// Each wrapper: its request number and the whole record the device receives.
TEST_F(KernelChannelTest, EveryWrapperSendsItsExactRecord) {
  const uint8_t value[5] = {1, 2, 3, 4, 5};
  const std::string sw70 = Pattern(70), port50 = Pattern(50), name130 = Pattern(130);
  struct Case {
    const char *label;
    std::function<ReturnStatus()> call;
    unsigned long request;
    std::function<void(Bytes &)> fill;  // expected fields besides the preset status
    bool reply;
  };
  void *out = nullptr;
  uint32_t outLen = 0;
  auto getter = [&](auto fn) {
    return [&, fn] {
      ReturnStatus s = fn(&out, &outLen);
      ZELPYX_DataFree(out);
      return s;
    };
  };
  auto texts = [](const std::string &s, const std::string &p, const std::string &n) {
    return [=](Bytes &b) {
      PutText(b, 0, s);
      PutText(b, 64, p);
      PutText(b, 112, n);
    };
  };
  auto withValue = [&](std::function<void(Bytes &)> f, uint32_t type) {
    return [=, &value](Bytes &b) {
      f(b);
      PutU32(b, 248, type);
      PutU32(b, 260, sizeof value);
      PutU64(b, 264, Addr(value));
    };
  };
  const std::vector<Case> cases = {
      {"StateInit", [&] { return ZELPYX_StateInit(value, 5); }, 0,
       [&](Bytes &b) { PutU32(b, 260, 5); PutU64(b, 264, Addr(value)); }, false},
      {"StateCleanup", [] { return ZELPYX_StateCleanup(); }, 1, [](Bytes &) {}, false},
      {"StateSanitize", [] { return ZELPYX_StateSanitize(); }, 2, [](Bytes &) {}, false},
      {"StateGet", getter([](void **o, uint32_t *l) { return ZELPYX_StateGet(o, l); }), 3,
       [](Bytes &) {}, true},
      {"SwitchAdd", [&] { return ZELPYX_SwitchAdd(sw70.c_str(), name130.c_str(), 512, 7); }, 4,
       [&](Bytes &b) {
         texts(sw70.substr(0, 63), "", name130.substr(0, 127))(b);
         PutU32(b, 240, 512);
         PutU32(b, 244, 7);
       },
       false},
      {"SwitchRemove", [] { return ZELPYX_SwitchRemove("sw"); }, 5, texts("sw", "", ""), false},
      {"SwitchAssociate", [] { return ZELPYX_SwitchAssociate("sw"); }, 6, texts("sw", "", ""), false},
      {"SwitchDissociate", [] { return ZELPYX_SwitchDissociate("sw"); }, 7, texts("sw", "", ""),
       false},
      {"GlobalPropGet",
       getter([](void **o, uint32_t *l) { return ZELPYX_GlobalPropGet("sw", "g", o, l); }), 8,
       texts("sw", "", "g"), true},
      {"GlobalPropSet", [&] { return ZELPYX_GlobalPropSet("sw", "g", value, 5, 24); }, 9,
       withValue(texts("sw", "", "g"), 24), false},
      {"GlobalPropClear", [] { return ZELPYX_GlobalPropClear("sw", "g"); }, 10,
       texts("sw", "", "g"), false},
      {"HostPropGet",
       getter([](void **o, uint32_t *l) { return ZELPYX_HostPropGet("sw", "h", o, l); }), 11,
       texts("sw", "", "h"), true},
      {"HostPropSet", [&] { return ZELPYX_HostPropSet("sw", "h", value, 5, 16); }, 12,
       withValue(texts("sw", "", "h"), 16), false},
      {"HostPropClear", [] { return ZELPYX_HostPropClear("sw", "h"); }, 13, texts("sw", "", "h"),
       false},
      {"PortAdd", [&] { return ZELPYX_PortAdd("sw", port50.c_str(), value, 5); }, 14,
       [&](Bytes &b) {
         texts("sw", port50.substr(0, 47), "")(b);
         PutU32(b, 260, 5);
         PutU64(b, 264, Addr(value));
       },
       false},
      {"PortRemove", [] { return ZELPYX_PortRemove("sw", "p"); }, 15, texts("sw", "p", ""), false},
      {"PortDataGet",
       getter([](void **o, uint32_t *l) { return ZELPYX_PortDataGet("sw", "p", "d", o, l); }), 16,
       texts("sw", "p", "d"), true},
      {"PortDataSet",
       [&] {
         return ZELPYX_PortDataSet(sw70.c_str(), port50.c_str(), name130.c_str(), value, 5, 32);
       },
       17, withValue(texts(sw70.substr(0, 63), port50.substr(0, 47), name130.substr(0, 127)), 32),
       false},
      {"PortDataClear", [] { return ZELPYX_PortDataClear("sw", "p", "d"); }, 18,
       texts("sw", "p", "d"), false},
      {"PortStateGet",
       getter([](void **o, uint32_t *l) { return ZELPYX_PortStateGet("sw", "p", o, l); }), 19,
       texts("sw", "p", ""), true},
      {"PortFind", [] { return ZELPYX_PortFind("sw", "p"); }, 20, texts("sw", "p", ""), false},
      {"SwitchSetMaxPorts", [] { return ZELPYX_SwitchSetMaxPorts("sw", 99); }, 21,
       [&](Bytes &b) { texts("sw", "", "")(b); PutU32(b, 240, 99); }, false},
      {"SwitchSetVersion", [] { return ZELPYX_SwitchSetVersion("sw", 100); }, 22,
       [&](Bytes &b) { texts("sw", "", "")(b); PutU32(b, 244, 100); }, false},
      {"UplinkDataSet", [&] { return ZELPYX_UplinkDataSet("sw", "p", 4294967295u, value, 5, 16); },
       26, withValue(texts("sw", "p", "-1"), 16), false},
      {"UplinkDataGet",
       getter([](void **o, uint32_t *l) { return ZELPYX_UplinkDataGet("sw", "p", 3, o, l); }), 27,
       texts("sw", "p", "3"), true},
      {"SwitchPropClear", [] { return ZELPYXSwitchPropClear("sw", "x", 13); }, 13,
       texts("sw", "", "x"), false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.label);
    const size_t before = device.calls().size();
    EXPECT_EQ(c.call(), STATUS_OK);
    const auto calls = device.calls();
    ASSERT_EQ(calls.size(), before + 1);
    const auto &got = calls.back();
    EXPECT_EQ(got.request, c.request);
    Bytes expect{};
    c.fill(expect);
    PutU32(expect, 256, STATUS_FAILURE);
    if (c.reply) {
      PutU32(expect, 260, ZELPYX_FIRST_REPLY_SIZE);
      EXPECT_NE(GetU64(got.record, 264), 0u);
      PutU64(expect, 264, GetU64(got.record, 264));  // the library's own buffer
    }
    EXPECT_EQ(Diff(got.record, expect), "");
  }
}

TEST_F(KernelChannelTest, UplinkIndexIsSignedDecimal) {
  const std::pair<uint32_t, const char *> cases[] = {
      {0, "0"}, {4, "4"}, {2147483647u, "2147483647"}, {2147483648u, "-2147483648"},
      {4294967295u, "-1"}};
  for (const auto &[index, text] : cases) {
    ASSERT_EQ(ZELPYX_UplinkDataSet("sw", "p", index, "v", 1, 16), STATUS_OK);
    EXPECT_STREQ(reinterpret_cast<const char *>(&device.calls().back().record[112]), text);
  }
  void *out = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(ZELPYX_UplinkDataGet("sw", "p", -7, &out, &len), STATUS_OK);
  ZELPYX_DataFree(out);
  EXPECT_STREQ(reinterpret_cast<const char *>(&device.calls().back().record[112]), "-7");
}

TEST_F(KernelChannelTest, CmdExecRecordAndOutputGrowth) {
  const std::string cmd130 = Pattern(130), input = "payload";
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
  ASSERT_EQ(ZELPYX_CmdExec(Pattern(80).c_str(), cmd130.c_str(), input.data(), 7, &out, &len),
            STATUS_OK);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(len, 70000u);
  EXPECT_EQ(static_cast<char *>(out)[69999], 'x');
  ZELPYX_DataFree(out);

  const auto calls = device.calls();
  ASSERT_EQ(calls.size(), 2u);
  Bytes expect{};
  PutText(expect, 0, Pattern(63));
  PutU32(expect, 256, STATUS_FAILURE);
  PutText(expect, 272, cmd130.substr(0, 127));
  PutU32(expect, 400, 7);
  PutU64(expect, 404, Addr(input.data()));
  PutU32(expect, 412, ZELPYX_FIRST_REPLY_SIZE);
  PutU64(expect, 416, GetU64(calls[0].record, 416));
  EXPECT_EQ(calls[0].request, 28u);
  EXPECT_EQ(Diff(calls[0].record, expect), "");
  EXPECT_EQ(GetU64(calls[1].record, 412) & 0xFFFFFFFFu, 70000u);
  EXPECT_EQ(device.opens, 1);
  EXPECT_EQ(device.closes, 1);
}

TEST_F(KernelChannelTest, PlainExchangeStatuses) {
  // Success ignores whatever the kernel left in status.
  device.answer = [](unsigned long, ZELPYXCommand *c) {
    c->status = STATUS_EXISTS;
    return 0;
  };
  EXPECT_EQ(ZELPYX_PortFind("sw", "p"), STATUS_OK);

  // A failure without status written gives the preset STATUS_FAILURE.
  device.answer = [](unsigned long, ZELPYXCommand *) {
    errno = ENODEV;
    return -1;
  };
  ReturnStatus status = 0;
  std::string err = zeltest::CaptureStderr([&] { status = ZELPYX_PortFind("sw", "p"); });
  EXPECT_EQ(status, STATUS_FAILURE);
  EXPECT_EQ(err, std::string("ioctl failed: ") + std::strerror(ENODEV) + "\n");

  device.answer = [](unsigned long, ZELPYXCommand *c) { return Fail(c, STATUS_NOT_FOUND, ENOENT); };
  err = zeltest::CaptureStderr([&] { status = ZELPYX_PortFind("sw", "p"); });
  EXPECT_EQ(status, STATUS_NOT_FOUND);
  EXPECT_EQ(err, std::string("ioctl failed: ") + std::strerror(ENOENT) + "\n");

  // Plain requests share one descriptor, opened read-write on the device.
  EXPECT_EQ(device.opens, 1);
  EXPECT_EQ(device.closes, 0);
  EXPECT_EQ(device.lastPath, "/tarn/devices/char/pyxdriver/zeldev");
  EXPECT_EQ(device.lastFlags, O_RDWR);
  EXPECT_EQ(ZELPYX_Ioctl(1, nullptr), STATUS_BAD_PARAM);
}

TEST_F(KernelChannelTest, MissingDeviceIsRetriedByTheNextPlainRequest) {
  device.openFails = true;
  const std::string message = "failed to open zeldev device /tarn/devices/char/pyxdriver/zeldev\n";
  ReturnStatus status = 0;
  void *out = &device;
  uint32_t len = 1234;
  EXPECT_EQ(zeltest::CaptureStderr([&] { status = ZELPYX_SwitchRemove("sw"); }), message);
  EXPECT_EQ(status, STATUS_FAILURE);
  EXPECT_EQ(zeltest::CaptureStderr([&] { status = ZELPYX_StateGet(&out, &len); }), message);
  EXPECT_EQ(status, STATUS_FAILURE);
  EXPECT_EQ(out, &device);  // untouched
  EXPECT_EQ(len, 1234u);
  EXPECT_EQ(zeltest::CaptureStderr([&] { status = ZELPYX_CmdExec("sw", "c", nullptr, 0, &out, &len); }),
            message);
  EXPECT_EQ(status, STATUS_FAILURE);
  EXPECT_EQ(out, &device);
  EXPECT_EQ(len, 1234u);
  EXPECT_EQ(zeltest::CaptureStderr([&] { status = ZELPYX_SwitchRemove("sw"); }), message);
  EXPECT_EQ(device.failedOpens, 4);
  EXPECT_TRUE(device.calls().empty());

  device.openFails = false;
  EXPECT_EQ(ZELPYX_SwitchRemove("sw"), STATUS_OK);
  EXPECT_EQ(ZELPYX_SwitchRemove("sw"), STATUS_OK);
  EXPECT_EQ(device.opens, 1);
}

TEST_F(KernelChannelTest, LargeReplyTakesExactlyTwoCalls) {
  device.answer = [](unsigned long, ZELPYXCommand *c) {
    if (c->dataLen < 40000) {
      c->dataLen = 40000;
      return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC);
    }
    auto *p = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(c->data));
    for (uint32_t i = 0; i < 40000; ++i) p[i] = static_cast<uint8_t>(i);
    c->status = STATUS_OK;
    return 0;
  };
  void *blob = nullptr;
  uint32_t len = 0;
  std::string err;
  ReturnStatus status = 0;
  err = zeltest::CaptureStderr([&] { status = ZELPYX_StateGet(&blob, &len); });
  ASSERT_EQ(status, STATUS_OK);
  EXPECT_EQ(err, "");  // the reply exchange prints nothing for a failing ioctl
  EXPECT_EQ(len, 40000u);
  EXPECT_EQ(static_cast<uint8_t *>(blob)[39999], static_cast<uint8_t>(39999));
  ZELPYX_DataFree(blob);
  const auto calls = device.calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[1].record[260] | calls[1].record[261] << 8 | calls[1].record[262] << 16, 40000);
  EXPECT_EQ(device.opens, 1);  // one descriptor for the whole exchange, then closed
  EXPECT_EQ(device.closes, 1);
}

TEST_F(KernelChannelTest, ReplyFailuresLeaveNoBuffer) {
  struct Case {
    const char *label;
    std::function<int(unsigned long, ZELPYXCommand *)> answer;
    ReturnStatus status;
    uint32_t len;
    size_t calls;
  };
  const std::vector<Case> cases = {
      {"limit without a larger size",
       [](unsigned long, ZELPYXCommand *c) { return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC); },
       STATUS_LIMIT_EXCEEDED, 32768, 1},
      {"limit with a smaller size",
       [](unsigned long, ZELPYXCommand *c) {
         c->dataLen = 100;
         return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC);
       },
       STATUS_LIMIT_EXCEEDED, 100, 1},
      {"kernel status", [](unsigned long, ZELPYXCommand *c) { return Fail(c, STATUS_NOT_FOUND, ENOENT); },
       STATUS_NOT_FOUND, 32768, 1},
      {"no status written",
       [](unsigned long, ZELPYXCommand *) {
         errno = EIO;
         return -1;
       },
       STATUS_FAILURE, 32768, 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.label);
    device.answer = c.answer;
    const size_t before = device.calls().size();
    void *out = &device;
    uint32_t len = 0;
    std::string err = zeltest::CaptureStderr(
        [&] { EXPECT_EQ(ZELPYX_PortDataGet("sw", "p", "d", &out, &len), c.status); });
    EXPECT_EQ(err, "");
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, c.len);
    EXPECT_EQ(device.calls().size() - before, c.calls);
  }
  EXPECT_EQ(device.opens, device.closes);
}

TEST_F(KernelChannelTest, ReplyLengthNeverExceedsTheBuffer) {
  device.answer = [](unsigned long, ZELPYXCommand *c) {
    c->dataLen = 50000;  // claims more than it was offered, yet succeeds
    return 0;
  };
  void *out = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(ZELPYX_HostPropGet("sw", "h", &out, &len), STATUS_OK);
  EXPECT_EQ(len, 32768u);
  ZELPYX_DataFree(out);
}

// An allocator that fails from its n-th call on (1-based); 0 never fails.
std::atomic<int> g_allocCalls{0}, g_failFrom{0};
void *FailingAlloc(size_t bytes) {
  const int call = ++g_allocCalls;
  return g_failFrom != 0 && call >= g_failFrom ? nullptr : std::malloc(bytes);
}

class ScopedFailingAlloc {
 public:
  explicit ScopedFailingAlloc(int failFrom) {
    g_allocCalls = 0;
    g_failFrom = failFrom;
    previous_ = zel::kernel::SetReplyAllocator(FailingAlloc);
  }
  ~ScopedFailingAlloc() { zel::kernel::SetReplyAllocator(previous_); }

 private:
  zel::kernel::ReplyAllocFn previous_;
};

TEST_F(KernelChannelTest, ReplyBufferAllocationFailures) {
  auto growTo = [](uint32_t size) {
    return [size](unsigned long, ZELPYXCommand *c) {
      if (c->dataLen < size || c->cmdOutLen < size) {
        c->dataLen = c->cmdOutLen = size;
        return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC);
      }
      return 0;
    };
  };
  void *out = &device;
  uint32_t len = 0;
  {
    ScopedFailingAlloc fail(1);
    std::string err = zeltest::CaptureStderr(
        [&] { EXPECT_EQ(ZELPYX_StateGet(&out, &len), STATUS_NO_MEMORY); });
    EXPECT_EQ(err, "");
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 32768u);
    EXPECT_TRUE(device.calls().empty());
  }
  {
    device.answer = growTo(40000);
    ScopedFailingAlloc fail(2);  // the grown buffer cannot be had
    out = &device;
    EXPECT_EQ(ZELPYX_StateGet(&out, &len), STATUS_NO_MEMORY);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 40000u);
  }
  {
    device.answer = [](unsigned long, ZELPYXCommand *) { return 0; };
    ScopedFailingAlloc fail(1);
    out = &device;
    std::string err = zeltest::CaptureStderr([&] {
      EXPECT_EQ(ZELPYX_CmdExec("sw", "c", nullptr, 0, &out, &len), STATUS_NO_MEMORY);
    });
    EXPECT_EQ(err, "failed to alloc buffer memory");
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 32768u);
  }
  {
    device.answer = growTo(50000);
    ScopedFailingAlloc fail(2);
    std::string err = zeltest::CaptureStderr([&] {
      EXPECT_EQ(ZELPYX_CmdExec("sw", "c", nullptr, 0, &out, &len), STATUS_NO_MEMORY);
    });
    EXPECT_EQ(err, "failed to alloc buffer memory");
    EXPECT_EQ(len, 50000u);
  }
  EXPECT_EQ(device.opens, device.closes);
}

TEST_F(KernelChannelTest, NullOutParametersAreRefused) {
  uint32_t len = 0;
  void *out = nullptr;
  EXPECT_EQ(ZELPYX_StateGet(nullptr, &len), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELPYX_GlobalPropGet("sw", "g", &out, nullptr), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELPYX_CmdExec("sw", "c", nullptr, 0, nullptr, &len), STATUS_BAD_PARAM);
  EXPECT_TRUE(device.calls().empty());
  EXPECT_EQ(device.opens, 0);
}

// Several threads making the very first plain requests at once open the
// device exactly once; a failed first open is retried by later requests.
TEST(KernelChannelConcurrency, FirstPlainRequestsOpenTheDeviceOnce) {
  ScriptedDevice device;
  zel::kernel::ScopedTransport use(&device);
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
  EXPECT_EQ(device.calls().size(), static_cast<size_t>(kThreads * 20));
}

TEST(KernelChannelConcurrency, FailedFirstOpenIsRetriedOnce) {
  ScriptedDevice device;
  zel::kernel::ScopedTransport use(&device);
  device.openFails = true;
  std::string err = zeltest::CaptureStderr([] { EXPECT_EQ(ZELPYX_StateCleanup(), STATUS_FAILURE); });
  EXPECT_FALSE(err.empty());
  device.openFails = false;
  device.openDelayMs = 10;
  std::vector<std::thread> threads;
  std::latch start(6);
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      EXPECT_EQ(ZELPYX_StateSanitize(), STATUS_OK);
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(device.opens, 1);
  EXPECT_EQ(device.failedOpens, 1);
}

}  // namespace
