#include "data/simd.h"

#include <atomic>

namespace zel::data {
namespace {

Isa BestIsa() {
#if defined(ZEL_HAVE_AVX2)
  static const Isa best = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") ? Isa::kAvx2 : Isa::kBaseline;
  }();
  return best;
#else
  return Isa::kBaseline;
#endif
}

// Changed only by the tests.  Before its initializer has run it reads as the
// baseline, which every processor runs.
std::atomic<Isa> g_active{BestIsa()};

}  // namespace

Isa ActiveIsa() { return g_active.load(std::memory_order_relaxed); }

namespace testing {

bool ForceIsa(Isa isa) {
  if (isa == Isa::kAvx2 && BestIsa() != Isa::kAvx2) {
    return false;
  }
  g_active.store(isa, std::memory_order_relaxed);
  return true;
}

void ResetIsa() { g_active.store(BestIsa(), std::memory_order_relaxed); }

}  // namespace testing
}  // namespace zel::data
