// Large buffers that the library fills from end to end right after taking
// them: a state blob of tens of megabytes being written, or a state file
// being read.  Each 4 KiB page of fresh memory costs a page fault on its
// first write, and for a blob of 50 MB those faults took a fifth of a load
// from the store.  AdviseWholeWrite asks the kernel to back the whole 2 MiB
// pages inside such a buffer with huge pages, which takes one fault per
// 2 MiB.  It is advice only: the kernel may ignore it (transparent huge
// pages off), and the bytes, the sizes and who frees the buffer stay as
// they are.  Since the caller writes every byte, the huge pages hold no
// memory the buffer would not have held anyway.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::host {

// Buffers below this size are left alone.  The C library serves a block of
// 32 MiB or more from a mapping of its own and unmaps it when it is freed,
// so the advice goes with the buffer; a smaller block may come from the
// heap, whose memory is reused, already faulted in, and where huge pages
// could later be made of pages the heap holds only in part.
inline constexpr size_t kLargeBufferBytes = size_t{32} << 20;
inline constexpr uintptr_t kHugePageBytes = uintptr_t{2} << 20;

// The whole 2 MiB pages inside [at, at + bytes); {0, 0} when there are
// none (or the range would pass the end of memory).
struct PageRange {
  uintptr_t begin;
  uintptr_t end;
};
PageRange HugePagesInside(const void *at, size_t bytes);

// Advises huge pages for the whole 2 MiB pages of a buffer of at least
// kLargeBufferBytes that the caller is about to write whole.  Never fails.
void AdviseWholeWrite(void *at, size_t bytes) noexcept;

namespace testing {
// The advice call (madvise by default); null restores it.  Returns the
// previous one.
using AdviseFn = int (*)(void *at, size_t bytes, int advice);
AdviseFn SetAdvise(AdviseFn advise);
}  // namespace testing

}  // namespace zel::host
