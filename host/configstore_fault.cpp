// Test seam of the configuration-store client: call counters and injected
// failures.
#include <array>
#include <atomic>
#include <mutex>

#include "host/configstore_internal.h"

namespace zel::cfgstore {

namespace fault {
std::array<std::atomic<uint64_t>, kOps> g_calls{};
std::atomic<bool> g_armed{false};
}  // namespace fault

namespace {

using fault::g_armed;
using fault::g_calls;

struct Rule {
  testing::Op op;
  int status;
  int skip;
  int times;
};

std::mutex g_mu;
std::vector<Rule> g_rules;  // guarded by g_mu

}  // namespace

namespace fault {

int CheckRules(testing::Op op) {
  std::lock_guard<std::mutex> lock(g_mu);
  for (Rule &r : g_rules) {
    if (r.op != op && r.op != testing::Op::kAny) continue;
    if (r.skip > 0) {
      --r.skip;
      continue;
    }
    if (r.times == 0) continue;
    if (r.times > 0) --r.times;
    return r.status;
  }
  return kOk;
}

}  // namespace fault

namespace testing {

void FailNext(Op op, int status, int skip, int times) {
  std::lock_guard<std::mutex> lock(g_mu);
  g_rules.push_back(Rule{op, status, skip, times});
  g_armed.store(true, std::memory_order_release);
}

void ClearFailures() {
  std::lock_guard<std::mutex> lock(g_mu);
  g_rules.clear();
  g_armed.store(false, std::memory_order_release);
  for (auto &c : g_calls) c.store(0, std::memory_order_relaxed);
}

uint64_t Calls(Op op) {
  if (op != Op::kAny) return g_calls[static_cast<size_t>(op)].load(std::memory_order_relaxed);
  uint64_t all = 0;
  for (const auto &c : g_calls) all += c.load(std::memory_order_relaxed);
  return all;
}

}  // namespace testing
}  // namespace zel::cfgstore
