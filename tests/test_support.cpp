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
uint64_t g_failAt = 0, g_calls = 0;
int64_t g_live = 0;
}  // namespace

void FailAt(uint64_t k) {
  g_failAt = k;
  g_calls = 0;
}
int64_t Live() { return g_live; }

void *Alloc(uint64_t bytes) {
  if (++g_calls == g_failAt) return nullptr;
  void *p = std::malloc(bytes);
  g_live += p != nullptr;
  return p;
}

void Free(void *ptr) {
  g_live -= ptr != nullptr;
  std::free(ptr);
}
}  // namespace failalloc

}  // namespace zeltest
