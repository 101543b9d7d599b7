// The kernel channel against a module that answers badly: failed calls that
// claim success, and reply sizes that never settle or are absurd.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "kernel/channel.h"
#include "state/state_testing.h"
#include "zel/kernel.h"
#include "zel/state.h"

namespace {

// A module whose every answer a test scripts.
class FakeModule : public zel::host::DeviceTransport {
 public:
  std::function<int(unsigned long, ZELPYXCommand *)> answer;
  int calls = 0;
  int Open(const char *, int) override { return 7; }
  int Ioctl(int, unsigned long request, void *arg) override {
    ++calls;
    return answer(request, static_cast<ZELPYXCommand *>(arg));
  }
  int Close(int) override { return 0; }
};

// The capacity field of a record: cmdOutLen for commands, dataLen otherwise.
uint32_t &Capacity(unsigned long request, ZELPYXCommand *cmd) {
  return request == ZELPYX_REQ_CMD_EXEC ? cmd->cmdOutLen : cmd->dataLen;
}

// The state blob of one switch "sw-blue" without ports.
std::vector<uint8_t> OneSwitchState() {
  zel::state::testing::SetPortLimit(64);
  EXPECT_EQ(ZELState_SwitchAdd("sw-blue", "vswitch", 8, 7), STATUS_OK);
  void *blob = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(ZELState_ConfigSerialize(&blob, &length), STATUS_OK);
  std::vector<uint8_t> out(static_cast<uint8_t *>(blob), static_cast<uint8_t *>(blob) + length);
  std::free(blob);
  zel::state::testing::SetPortLimit(0);
  return out;
}

uint32_t g_length = 0;
ReturnStatus FetchState(void **out) { return ZELPYX_StateGet(out, &g_length); }
ReturnStatus RunCommand(void **out) {
  return ZELPYX_CmdExec("sw-blue", "show", "x", 1, out, &g_length);
}

TEST(HardeningKernel, FailedCallThatClaimsSuccessFailsEveryCaller) {
  const std::vector<uint8_t> state = OneSwitchState();
  bool serveState = false;
  FakeModule module;
  // The kernel fails the call but leaves 0 in the record's status.
  module.answer = [&](unsigned long request, ZELPYXCommand *cmd) {
    if (request == ZELPYX_REQ_STATE_GET && serveState) {
      std::memcpy(reinterpret_cast<void *>(cmd->data), state.data(), state.size());
      cmd->dataLen = static_cast<uint32_t>(state.size());
      return 0;
    }
    cmd->status = STATUS_OK;
    errno = EIO;
    return -1;
  };
  zel::kernel::ScopedTransport use(&module);
  struct Row {
    const char *what;
    bool serveState;  // the state fetch works, a later request fails
    ReturnStatus expect;
    std::function<ReturnStatus(void **)> call;
  };
  const Row rows[] = {
      {"state fetch", false, STATUS_FAILURE, FetchState},
      {"command", false, STATUS_FAILURE, RunCommand},
      {"persistent state", false, STATUS_FAILURE,
       [](void **out) { return ZELPYX_PersistentStateGet(out, &g_length); }},
      {"persistent port state", false, STATUS_FAILURE,
       [](void **out) { return ZELPYX_PersistentPortStateGet("sw-blue", "1", 7, out, &g_length); }},
      // The vendor list asks for the switch's version; a failed query leaves
      // the list as it is.
      {"vendor list's version query", true, STATUS_OK, [](void **out) {
         return ZELPYX_VendorGlobalPropList("sw-blue", reinterpret_cast<PropertyList **>(out), 16);
       }},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.what);
    serveState = r.serveState;
    void *out = nullptr;
    EXPECT_EQ(r.call(&out), r.expect);
    if (r.expect == STATUS_OK) {
      ASSERT_NE(out, nullptr);
      ZELData_Free(static_cast<PropertyList *>(out));
    } else {
      EXPECT_EQ(out, nullptr);
    }
  }
}

size_t g_largestReply = 0;
void *RecordingAlloc(size_t bytes) {
  g_largestReply = bytes > g_largestReply ? bytes : g_largestReply;
  return std::malloc(bytes);
}

TEST(HardeningKernel, ReplyGrowthIsBounded) {
  struct Row {
    const char *what;
    std::function<uint32_t(uint32_t offered)> needed;  // the size the kernel names
    int calls;
  };
  const Row rows[] = {
      {"always a little more", [](uint32_t offered) { return offered + 4096; },
       static_cast<int>(zel::kernel::ZELPYX_MAX_REPLY_ROUNDS)},
      {"4 GiB", [](uint32_t) { return 0xFFFFFFFFu; }, 1},
      {"one byte past the ceiling", [](uint32_t) { return zel::kernel::ZELPYX_MAX_REPLY_SIZE + 1; },
       1},
  };
  const auto previous = zel::kernel::SetReplyAllocator(RecordingAlloc);
  for (const Row &r : rows) {
    for (auto call : {FetchState, RunCommand}) {
      SCOPED_TRACE(r.what);
      FakeModule module;
      module.answer = [&](unsigned long request, ZELPYXCommand *cmd) {
        // Without a bound the exchange would go on for ever: give up here.
        cmd->status = module.calls > 50 ? STATUS_NOT_FOUND : STATUS_LIMIT_EXCEEDED;
        Capacity(request, cmd) = r.needed(Capacity(request, cmd));
        return -1;
      };
      zel::kernel::ScopedTransport use(&module);
      g_largestReply = 0;
      void *out = nullptr;
      EXPECT_EQ(call(&out), STATUS_LIMIT_EXCEEDED);
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(module.calls, r.calls);
      EXPECT_LE(g_largestReply, zel::kernel::ZELPYX_MAX_REPLY_SIZE);
    }
  }
  zel::kernel::SetReplyAllocator(previous);
}

}  // namespace
