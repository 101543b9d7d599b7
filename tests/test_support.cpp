#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace zeltest {

namespace {
template <void (*Start)(), std::string (*Stop)()>
std::string Capture(FILE *stream, const std::function<void()> &fn) {
  fflush(stream);
  Start();
  fn();
  fflush(stream);
  return Stop();
}
}  // namespace

std::string CaptureStdout(const std::function<void()> &fn) {
  return Capture<testing::internal::CaptureStdout, testing::internal::GetCapturedStdout>(stdout,
                                                                                         fn);
}
std::string CaptureStderr(const std::function<void()> &fn) {
  return Capture<testing::internal::CaptureStderr, testing::internal::GetCapturedStderr>(stderr,
                                                                                         fn);
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
  if (g_failAt != 0 && g_calls == g_failAt) return nullptr;
  void *p = std::malloc(bytes);
  g_live += p != nullptr;
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
