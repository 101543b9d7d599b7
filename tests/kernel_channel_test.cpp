// The device channel and the command wrappers against a scripted device:
// exact record bytes, the three exchanges, their failures and messages.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <latch>
#include <mutex>
#include <thread>

#include "kernel/channel.h"
#include "test_support.h"

namespace {

using Bytes = std::array<uint8_t, sizeof(ZELPYXCommand)>;
using Answer = std::function<int(unsigned long, ZELPYXCommand *)>;

void Put(Bytes &b, size_t off, uint64_t v, int width = 4) {
  for (int i = 0; i < width; ++i) b[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
const auto Addr = zel::kernel::AddressOf;

// A device whose answers a test scripts; it records every record it is given.
// Descriptors count up from 0, which is as valid as any other.
class ScriptedDevice : public zel::host::DeviceTransport {
 public:
  Answer answer = [](unsigned long, ZELPYXCommand *) { return 0; };
  std::atomic<bool> openFails{false};
  std::atomic<int> opens{0}, closes{0}, openDelayMs{0};

  int Open(const char *path, int flags) override {
    std::this_thread::sleep_for(std::chrono::milliseconds(openDelayMs));
    EXPECT_STREQ(path, "/tarn/devices/char/pyxdriver/zeldev");
    EXPECT_EQ(flags, O_RDWR);  // read-write, for every exchange
    if (!openFails) return opens++;
    errno = ENOENT;
    return -1;
  }
  int Ioctl(int, unsigned long request, void *arg) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back({request, {}});
      std::memcpy(calls_.back().second.data(), arg, sizeof(ZELPYXCommand));
    }
    return answer(request, static_cast<ZELPYXCommand *>(arg));
  }
  int Close(int) override { return ++closes, 0; }
  std::vector<std::pair<unsigned long, Bytes>> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::pair<unsigned long, Bytes>> calls_;
};

int Fail(ZELPYXCommand *cmd, ReturnStatus status, int err) {
  cmd->status = status;
  errno = err;
  return -1;
}
// Fails with `status`, naming `size` as the reply's length when it is not 0.
Answer Fails(ReturnStatus status, int err, uint32_t size = 0) {
  return [=](unsigned long, ZELPYXCommand *c) {
    if (size != 0) c->dataLen = size;
    return Fail(c, status, err);
  };
}
// Refuses every buffer smaller than `size`, telling the size it wants, and
// fills the one that fits with its offsets' low bytes.
Answer GrowTo(uint32_t size) {
  return [size](unsigned long, ZELPYXCommand *c) {
    const bool cmd = c->cmdOutLen != 0;
    if ((cmd ? c->cmdOutLen : c->dataLen) < size) {
      (cmd ? c->cmdOutLen : c->dataLen) = size;
      return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC);
    }
    auto *p = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(cmd ? c->cmdOut : c->data));
    for (uint32_t i = 0; i < size; ++i) p[i] = static_cast<uint8_t>(i);
    return 0;
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
  const std::string sw70(70, 's'), port50(50, 'p'), name130(130, 'n'), input = "payload";
  const std::string sw = sw70.substr(0, 63), port = port50.substr(0, 47), name(127, 'n');
  const char *S = sw70.c_str(), *P = port50.c_str(), *N = name130.c_str();  // cut to their fields
  using Fill = std::function<void(Bytes &)>;
  auto u32 = [](size_t off, uint32_t v) -> Fill { return [=](Bytes &b) { Put(b, off, v); }; };
  auto data = [&](uint32_t type) -> Fill {  // a value of `type`: its type, length and address
    return [&, type](Bytes &b) { Put(b, 248, type), Put(b, 260, 5), Put(b, 264, Addr(value), 8); };
  };
  void *out = nullptr;
  uint32_t len = 0;
  const struct {
    unsigned long request;
    std::function<ReturnStatus()> call;
    std::string sw, port, name;  // the texts at offsets 0, 64 and 112
    Fill fill;                   // the other fields besides the preset status
    size_t reply = 0;            // the offset of the reply's capacity and address
  } cases[] = {
      {0, [&] { return ZELPYX_StateInit(value, 5); }, "", "", "", data(0)},
      {1, [] { return ZELPYX_StateCleanup(); }, "", "", ""},
      {2, [] { return ZELPYX_StateSanitize(); }, "", "", ""},
      {3, [&] { return ZELPYX_StateGet(&out, &len); }, "", "", "", {}, 260},
      {4, [&] { return ZELPYX_SwitchAdd(S, N, 512, 7); }, sw, "", name,
       [](Bytes &b) { Put(b, 240, 512), Put(b, 244, 7); }},
      {5, [] { return ZELPYX_SwitchRemove("sw"); }, "sw", "", ""},
      {6, [] { return ZELPYX_SwitchAssociate("sw"); }, "sw", "", ""},
      {7, [] { return ZELPYX_SwitchDissociate("sw"); }, "sw", "", ""},
      {8, [&] { return ZELPYX_GlobalPropGet("sw", "g", &out, &len); }, "sw", "", "g", {}, 260},
      {9, [&] { return ZELPYX_GlobalPropSet("sw", "g", value, 5, 24); }, "sw", "", "g", data(24)},
      {10, [] { return ZELPYX_GlobalPropClear("sw", "g"); }, "sw", "", "g"},
      {11, [&] { return ZELPYX_HostPropGet("sw", "h", &out, &len); }, "sw", "", "h", {}, 260},
      {12, [&] { return ZELPYX_HostPropSet("sw", "h", value, 5, 16); }, "sw", "", "h", data(16)},
      {13, [] { return ZELPYX_HostPropClear("sw", "h"); }, "sw", "", "h"},
      {14, [&] { return ZELPYX_PortAdd("sw", P, value, 5); }, "sw", port, "", data(0)},
      {15, [] { return ZELPYX_PortRemove("sw", "p"); }, "sw", "p", ""},
      {16, [&] { return ZELPYX_PortDataGet("sw", "p", "d", &out, &len); }, "sw", "p", "d", {},
       260},
      {17, [&] { return ZELPYX_PortDataSet(S, P, N, value, 5, 32); }, sw, port, name, data(32)},
      {18, [] { return ZELPYX_PortDataClear("sw", "p", "d"); }, "sw", "p", "d"},
      {19, [&] { return ZELPYX_PortStateGet("sw", "p", &out, &len); }, "sw", "p", "", {}, 260},
      {20, [] { return ZELPYX_PortFind("sw", "p"); }, "sw", "p", ""},
      {21, [] { return ZELPYX_SwitchSetMaxPorts("sw", 99); }, "sw", "", "", u32(240, 99)},
      {22, [] { return ZELPYX_SwitchSetVersion("sw", 100); }, "sw", "", "", u32(244, 100)},
      {26, [&] { return ZELPYX_UplinkDataSet("sw", "p", 4294967295u, value, 5, 16); }, "sw", "p",
       "-1", data(16)},  // the uplink index as a signed decimal
      {27, [&] { return ZELPYX_UplinkDataGet("sw", "p", 3, &out, &len); }, "sw", "p", "3", {},
       260},
      {28, [&] { return ZELPYX_CmdExec(S, N, input.data(), 7, &out, &len); }, sw, "", "",
       [&](Bytes &b) {  // the command, cut, and the input
         std::memcpy(&b[272], name.data(), name.size());
         Put(b, 400, 7), Put(b, 404, Addr(input.data()), 8);
       },
       412},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.request);
    out = nullptr;
    EXPECT_EQ(c.call(), STATUS_OK);
    ZELPYX_DataFree(out);
    const auto calls = device.calls();
    const auto &[request, got] = calls.back();
    EXPECT_EQ(request, c.request);
    Bytes expect{};
    std::memcpy(&expect[0], c.sw.data(), c.sw.size());
    std::memcpy(&expect[64], c.port.data(), c.port.size());
    std::memcpy(&expect[112], c.name.data(), c.name.size());
    if (c.fill) c.fill(expect);
    Put(expect, 256, STATUS_FAILURE);
    if (c.reply != 0) {  // the first capacity, and the address of the library's own buffer
      Put(expect, c.reply, ZELPYX_FIRST_REPLY_SIZE);
      std::memcpy(&expect[c.reply + 4], &got[c.reply + 4], 8);
    }
    EXPECT_EQ(got, expect);
  }
  EXPECT_EQ(device.calls().size(), std::size(cases));
}

// An allocator that fails from its n-th call on (1-based; 0: never).
std::atomic<int> g_allocCalls{0}, g_failFrom{0};
void *FailingAlloc(size_t bytes) {
  return g_failFrom != 0 && ++g_allocCalls >= g_failFrom ? nullptr : std::malloc(bytes);
}

// The three exchanges: status, message, what the caller is left with and the
// calls made.  The growing exchanges print nothing for a failing ioctl; a
// missing device is tried again next time.
TEST_F(KernelChannelTest, FailuresStatusesAndMessages) {
  enum Shape { kPlain, kReply, kCmd };
  const std::string ioctlFailed = std::string("ioctl failed: ") + std::strerror(ENOENT) + "\n";
  const std::string noDevice = "failed to open zeldev device /tarn/devices/char/pyxdriver/zeldev\n";
  const Answer noStatus = [](auto, auto) { return errno = ENOENT, -1; };
  const Answer exists = [](auto, ZELPYXCommand *c) { return c->status = STATUS_EXISTS, 0; };
  const Answer notFound = Fails(STATUS_NOT_FOUND, ENOENT), claimsOk = Fails(STATUS_OK, EIO);
  const Answer limit = Fails(STATUS_LIMIT_EXCEEDED, ENOSPC);
  const Answer smaller = Fails(STATUS_LIMIT_EXCEEDED, ENOSPC, 100);
  const Answer cut = [](unsigned long r, ZELPYXCommand *c) {
    return GrowTo(32768)(r, c), c->dataLen = 50000, 0;
  };
  const Answer endless = [](unsigned long r, ZELPYXCommand *c) {  // always 4 KiB more
    (r == ZELPYX_REQ_CMD_EXEC ? c->cmdOutLen : c->dataLen) += 4096;
    return Fail(c, STATUS_LIMIT_EXCEEDED, ENOSPC);
  };
  const uint32_t kMax = zel::kernel::ZELPYX_MAX_REPLY_SIZE;
  const uint32_t kRounds = zel::kernel::ZELPYX_MAX_REPLY_ROUNDS, kLast = 32768 + kRounds * 4096;
  const std::string noAlloc = "failed to alloc buffer memory";
  const struct {
    const char *label;
    Shape shape;
    Answer answer;
    ReturnStatus status;
    std::string err;
    uint32_t len;  // 1234: untouched
    size_t calls;
    int failAllocFrom = 0;
  } rows[] = {
      {"no device: plain", kPlain, {}, STATUS_FAILURE, noDevice, 1234, 0},
      {"no device: reply", kReply, {}, STATUS_FAILURE, noDevice, 1234, 0},
      {"no device: command", kCmd, {}, STATUS_FAILURE, noDevice, 1234, 0},
      {"success ignores the status left", kPlain, exists, STATUS_OK, "", 1234, 1},
      {"plain: no status written", kPlain, noStatus, STATUS_FAILURE, ioctlFailed, 1234, 1},
      {"plain: kernel status", kPlain, notFound, STATUS_NOT_FOUND, ioctlFailed, 1234, 1},
      {"reply: grows once", kReply, GrowTo(70000), STATUS_OK, "", 70000, 2},
      {"command: grows once", kCmd, GrowTo(70000), STATUS_OK, "", 70000, 2},
      {"reply: a length beyond the buffer is cut", kReply, cut, STATUS_OK, "", 32768, 1},
      {"reply: limit without a larger size", kReply, limit, STATUS_LIMIT_EXCEEDED, "", 32768, 1},
      {"reply: limit with a smaller size", kReply, smaller, STATUS_LIMIT_EXCEEDED, "", 100, 1},
      {"reply: kernel status", kReply, notFound, STATUS_NOT_FOUND, "", 32768, 1},
      {"reply: no status written", kReply, noStatus, STATUS_FAILURE, "", 32768, 1},
      {"reply: a failure that claims success", kReply, claimsOk, STATUS_FAILURE, "", 32768, 1},
      {"reply: endless growth", kReply, endless, STATUS_LIMIT_EXCEEDED, "", kLast, kRounds},
      {"command: over the limit", kCmd, GrowTo(kMax + 1), STATUS_LIMIT_EXCEEDED, "", kMax + 1, 1},
      {"reply: no first buffer", kReply, {}, STATUS_NO_MEMORY, "", 32768, 0, 1},
      {"reply: no grown buffer", kReply, GrowTo(40000), STATUS_NO_MEMORY, "", 40000, 1, 2},
      {"command: no first buffer", kCmd, {}, STATUS_NO_MEMORY, noAlloc, 32768, 0, 1},
      {"command: no grown buffer", kCmd, GrowTo(50000), STATUS_NO_MEMORY, noAlloc, 50000, 1, 2},
  };
  const zel::kernel::ReplyAllocFn previous = zel::kernel::SetReplyAllocator(FailingAlloc);
  for (const auto &r : rows) {
    SCOPED_TRACE(r.label);
    const bool noDev = r.err == noDevice;
    device.openFails = noDev;
    device.answer = r.answer;
    g_allocCalls = 0;
    g_failFrom = r.failAllocFrom;
    const size_t before = device.calls().size();
    void *out = &device;
    uint32_t len = 1234;
    ReturnStatus status = 0;
    EXPECT_EQ(zeltest::CaptureStderr([&] {
                status = r.shape == kPlain  ? ZELPYX_PortFind("sw", "p")
                         : r.shape == kReply ? ZELPYX_PortDataGet("sw", "p", "d", &out, &len)
                                             : ZELPYX_CmdExec("sw", "c", nullptr, 0, &out, &len);
              }),
              r.err);
    EXPECT_EQ(status, r.status);
    if (r.status == STATUS_OK && r.shape != kPlain) {  // the buffer the device filled
      EXPECT_EQ(static_cast<uint8_t *>(out)[len - 1], static_cast<uint8_t>(len - 1));
      ZELPYX_DataFree(out);
    } else {
      EXPECT_EQ(out, r.shape == kPlain || noDev ? &device : nullptr);
    }
    EXPECT_EQ(len, r.len);
    EXPECT_EQ(device.calls().size() - before, r.calls);
  }
  zel::kernel::SetReplyAllocator(previous);
  // Plain requests share one descriptor, kept; the other exchanges close theirs.
  EXPECT_EQ(device.opens, device.closes + 1);

  uint32_t len = 0;
  EXPECT_EQ(ZELPYX_CmdExec("sw", "c", nullptr, 0, nullptr, &len), STATUS_BAD_PARAM);
}

// Several threads making their first plain requests at once open the device
// exactly once.
TEST(KernelChannelConcurrency, FirstPlainRequestsOpenTheDeviceOnce) {
  ScriptedDevice device;
  zel::kernel::ScopedTransport use(&device);
  device.openDelayMs = 20;  // widen the window in which threads race to open
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int k = 0; k < 20; ++k) EXPECT_EQ(ZELPYX_PortFind("sw", "p"), STATUS_OK);
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(device.opens, 1);
  EXPECT_EQ(device.calls().size(), static_cast<size_t>(kThreads * 20));
}

}  // namespace
