// Helpers shared by the unit tests: captured standard output and an allocator
// that fails on a chosen call and counts what is still allocated.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace zeltest {

// Runs fn with standard output (error) captured and returns what it printed.
std::string CaptureStdout(const std::function<void()> &fn);
std::string CaptureStderr(const std::function<void()> &fn);

// Sets an int debug level for the life of the object and restores it after.
class ScopedLevel {
 public:
  ScopedLevel(int &level, int value) : level_(level), saved_(level) { level_ = value; }
  ~ScopedLevel() { level_ = saved_; }

 private:
  int &level_;
  int saved_;
};

// A process-wide failing allocator usable as a ZELDataAllocFn/ZELDataFreeFn
// pair.  FailAt(k) makes the k-th call from now on (1-based) return null;
// FailAt(0) never fails.  Live() is the number of blocks not yet freed.
namespace failalloc {
void FailAt(uint64_t k);
int64_t Live();
void *Alloc(uint64_t bytes);
void Free(void *ptr);
}  // namespace failalloc

}  // namespace zeltest
