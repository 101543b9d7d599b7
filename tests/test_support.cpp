#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace zeltest {

std::string CaptureStdout(const std::function<void()> &fn) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  fn();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

std::string CaptureStderr(const std::function<void()> &fn) {
  fflush(stderr);
  testing::internal::CaptureStderr();
  fn();
  fflush(stderr);
  return testing::internal::GetCapturedStderr();
}

namespace failalloc {
namespace {
uint64_t g_failAt = 0;
uint64_t g_calls = 0;
int64_t g_live = 0;
}  // namespace

void FailAt(uint64_t k) {
  g_failAt = k;
  g_calls = 0;
}
uint64_t Calls() { return g_calls; }
int64_t Live() { return g_live; }

void *Alloc(uint64_t bytes) {
  ++g_calls;
  if (g_failAt != 0 && g_calls == g_failAt) {
    return nullptr;
  }
  void *p = std::malloc(bytes);
  if (p != nullptr) {
    ++g_live;
  }
  return p;
}

void Free(void *ptr) {
  if (ptr != nullptr) {
    --g_live;
    std::free(ptr);
  }
}
}  // namespace failalloc

}  // namespace zeltest
