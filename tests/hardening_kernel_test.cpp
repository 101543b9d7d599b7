// The kernel channel against a module that answers badly, and which builds
// check the lock order.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <tuple>
#include <vector>

#include "hardening_support.h"
#include "state/state_testing.h"
#include "zel/kernel.h"
#include "zel/state.h"

namespace {

namespace fs = std::filesystem;
using Call = std::function<ReturnStatus(void **)>;
uint32_t g_length = 0;
ReturnStatus FetchState(void **out) { return ZELPYX_StateGet(out, &g_length); }
ReturnStatus RunCommand(void **out) {
  return ZELPYX_CmdExec("sw-blue", "show", "x", 1, out, &g_length);
}

TEST(HardeningKernel, FailedCallThatClaimsSuccessFailsEveryCaller) {
  zel::state::testing::SetPortLimit(64);
  ASSERT_EQ(ZELState_SwitchAdd("sw-blue", "vswitch", 8, 7), STATUS_OK);
  void *state = nullptr;
  uint32_t stateLen = 0;
  ASSERT_EQ(ZELState_ConfigSerialize(&state, &stateLen), STATUS_OK);
  zel::state::testing::SetPortLimit(0);
  bool serveState = false;
  hardening::FakeModule module;
  module.answer = [&](unsigned long request, ZELPYXCommand *cmd) {
    if (request == ZELPYX_REQ_STATE_GET && serveState) {
      std::memcpy(reinterpret_cast<void *>(cmd->data), state, cmd->dataLen = stateLen);
      return 0;
    }
    cmd->status = STATUS_OK;  // the call fails, the record's status says otherwise
    return errno = EIO, -1;
  };
  zel::kernel::ScopedTransport use(&module);
  // The last row fetches the state, and the vendor list's version query fails.
  const std::pair<ReturnStatus, Call> rows[] = {
      {STATUS_FAILURE, FetchState},
      {STATUS_FAILURE, RunCommand},
      {STATUS_FAILURE, [](void **out) { return ZELPYX_PersistentStateGet(out, &g_length); }},
      {STATUS_FAILURE,
       [](void **out) { return ZELPYX_PersistentPortStateGet("sw-blue", "1", 7, out, &g_length); }},
      {STATUS_OK,
       [](void **out) {
         return ZELPYX_VendorGlobalPropList("sw-blue", reinterpret_cast<PropertyList **>(out), 16);
       }},
  };
  for (const auto &[expect, call] : rows) {
    SCOPED_TRACE(expect);
    serveState = expect == STATUS_OK;
    void *out = nullptr;
    EXPECT_EQ(call(&out), expect);
    EXPECT_EQ(out != nullptr, expect == STATUS_OK);
    ZELData_Free(static_cast<PropertyList *>(out));
  }
  std::free(state);
}

size_t g_largestReply = 0;
void *RecordingAlloc(size_t bytes) {
  g_largestReply = std::max(bytes, g_largestReply);
  return std::malloc(bytes);
}

TEST(HardeningKernel, ReplyGrowthIsBounded) {
  using zel::kernel::ZELPYX_MAX_REPLY_SIZE;
  // The size the kernel names (0: always 4 KiB more than offered), the calls made.
  const std::pair<uint32_t, int> rows[] = {{0, int(zel::kernel::ZELPYX_MAX_REPLY_ROUNDS)},
                                           {0xFFFFFFFFu, 1},
                                           {ZELPYX_MAX_REPLY_SIZE + 1, 1}};
  const auto previous = zel::kernel::SetReplyAllocator(RecordingAlloc);
  for (const auto &[neededSize, calls] : rows) {
    const uint32_t needed = neededSize;  // captured below
    for (const Call &call : {Call(FetchState), Call(RunCommand)}) {
      SCOPED_TRACE(needed);
      hardening::FakeModule module;
      module.answer = [&](unsigned long request, ZELPYXCommand *cmd) {
        // Without a bound the exchange would go on for ever: give up here.
        cmd->status = module.calls > 50 ? STATUS_NOT_FOUND : STATUS_LIMIT_EXCEEDED;
        uint32_t &capacity = request == ZELPYX_REQ_CMD_EXEC ? cmd->cmdOutLen : cmd->dataLen;
        capacity = needed != 0 ? needed : capacity + 4096;
        return -1;
      };
      zel::kernel::ScopedTransport use(&module);
      g_largestReply = 0;
      void *out = nullptr;
      EXPECT_EQ(call(&out), STATUS_LIMIT_EXCEEDED);
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(module.calls, calls);
      EXPECT_LE(g_largestReply, ZELPYX_MAX_REPLY_SIZE);
    }
  }
  zel::kernel::SetReplyAllocator(previous);
}

// Configures this binary's source tree (nothing is compiled) and reads the
// compile commands: a release library never aborts its host over the lock order.
TEST(HardeningBuild, OnlyDebugAndTestBuildsCheckTheLockOrder) {
  std::ifstream cache(fs::read_symlink("/proc/self/exe").parent_path().parent_path() /
                      "CMakeCache.txt");
  const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
  std::string source;
  for (std::string line; source.empty() && std::getline(cache, line);) {
    if (line.rfind(key, 0) == 0) source = line.substr(key.size());
  }
  if (source.empty() || std::system("cmake --version >/dev/null 2>&1") != 0) GTEST_SKIP();
  using Build = std::tuple<const char *, const char *, bool>;  // type, ZEL_TESTS, checks
  for (const auto &[buildType, tests, checks] :
       {Build{"Release", "OFF", false}, Build{"Debug", "OFF", true},
        Build{"Release", "ON", true}}) {
    SCOPED_TRACE(std::string(buildType) + " ZEL_TESTS=" + tests);
    hardening::TempDir tree;
    EXPECT_EQ(std::system(("cmake -S '" + source + "' -B " + tree.path() +
                           " -G Ninja -DCMAKE_BUILD_TYPE=" + buildType + " -DZEL_TESTS=" + tests +
                           " >/dev/null 2>&1")
                              .c_str()),
              0);
    std::ifstream in(tree.path() + "/compile_commands.json");
    const std::string commands(std::istreambuf_iterator<char>(in), {});
    EXPECT_NE(commands.find("host/lock.cpp"), std::string::npos);
    EXPECT_EQ(commands.find("ZEL_LOCK_RANK_CHECK") != std::string::npos, checks);
  }
}

}  // namespace
