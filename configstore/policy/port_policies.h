// Traffic shaping, MAC management and filter policy conversions: the test
// seam of the filter load (the conversions register through policy.h).
#pragma once

#include <cstddef>

namespace zel::persist::policy::testing {

// Allocator of the value the filter load builds (calloc-like); null
// restores calloc.  Not for use while a load runs.
void SetFilterAllocator(void *(*alloc)(size_t count, size_t size));

}  // namespace zel::persist::policy::testing
