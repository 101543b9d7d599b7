#include "host/large_buffer.h"

#include <sys/mman.h>

#include <atomic>

namespace zel::host {

namespace {

int SystemAdvise(void *at, size_t bytes, int advice) { return ::madvise(at, bytes, advice); }

std::atomic<testing::AdviseFn> g_advise{SystemAdvise};

}  // namespace

PageRange HugePagesInside(const void *at, size_t bytes) {
  const auto start = reinterpret_cast<uintptr_t>(at);
  if (bytes > UINTPTR_MAX - start) {
    return {0, 0};
  }
  const uintptr_t begin = (start + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
  const uintptr_t end = (start + bytes) & ~(kHugePageBytes - 1);
  if (begin < start || end <= begin) {  // the rounding up wrapped, or no whole page
    return {0, 0};
  }
  return {begin, end};
}

void AdviseWholeWrite(void *at, size_t bytes) noexcept {
#ifdef MADV_HUGEPAGE
  if (at == nullptr || bytes < kLargeBufferBytes) {
    return;
  }
  const PageRange pages = HugePagesInside(at, bytes);
  if (pages.end > pages.begin) {
    // The result is not needed: without huge pages the buffer is written
    // in small pages, as it would have been.
    (void)g_advise.load(std::memory_order_relaxed)(reinterpret_cast<void *>(pages.begin),
                                                   pages.end - pages.begin, MADV_HUGEPAGE);
  }
#else
  (void)at;
  (void)bytes;
#endif
}

namespace testing {

AdviseFn SetAdvise(AdviseFn advise) {
  return g_advise.exchange(advise != nullptr ? advise : SystemAdvise);
}

}  // namespace testing

}  // namespace zel::host
