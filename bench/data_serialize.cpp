// Serialization and deserialization throughput of property lists of 16, 1,000
// and 10,000 entries with 100-byte values, beside memcpy of the same byte
// counts, in bytes per second.  After the table the program prints each
// operation's throughput as a share of memcpy's for the same size.
//
// A list's memory comes from the allocator its caller gives, one block per
// entry, so deserialization is measured twice:
// - with a caller's block pool (free lists by size class, as a component that
//   builds and drops many lists keeps): the library's own work dominates;
// - with the C library's malloc and free, whose cost for blocks of this size
//   is shown on its own by BM_MallocFree (the same block count, nothing else).
// Each deserialization round also releases the list it built.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "zel/data.h"

namespace {

void *SysAlloc(uint64_t n) { return std::malloc(n); }

// Blocks of up to 512 bytes in classes of 64 bytes, each block behind a
// 16-byte header that keeps its class (0 for blocks from malloc).  Freed
// blocks wait on their class's list for the next request of that class.
class BlockPool {
 public:
  static void *Alloc(uint64_t n) {
    const uint64_t cls = n == 0 ? 1 : (n + kClassBytes - 1) / kClassBytes;
    if (cls > kClasses) {
      return Wrap(std::malloc(kHeader + n), 0);
    }
    if (FreeBlock *f = free_[cls]) {
      free_[cls] = f->next;
      return f;
    }
    return Wrap(std::malloc(kHeader + cls * kClassBytes), cls);
  }
  static void Free(void *p) {
    auto *raw = static_cast<uint8_t *>(p) - kHeader;
    uint64_t cls;
    std::memcpy(&cls, raw, sizeof cls);
    if (cls == 0) {
      std::free(raw);
      return;
    }
    auto *f = static_cast<FreeBlock *>(p);
    f->next = free_[cls];
    free_[cls] = f;
  }

 private:
  struct FreeBlock {
    FreeBlock *next;
  };
  static constexpr uint64_t kHeader = 16, kClassBytes = 64, kClasses = 8;
  static void *Wrap(void *raw, uint64_t cls) {
    if (raw == nullptr) {
      return nullptr;
    }
    std::memcpy(raw, &cls, sizeof cls);
    return static_cast<uint8_t *>(raw) + kHeader;
  }
  static inline FreeBlock *free_[kClasses + 1] = {};
};

PropertyList *MakeList(int entries) {
  PropertyList *list = nullptr;
  ZELData_Alloc(&list, SysAlloc, std::free);
  const std::string value(100, 'v');
  for (int i = 0; i < entries; ++i) {
    const std::string name = "com.zorlan.bench.property." + std::to_string(i);
    ZELData_Append(list, name.c_str(), value.data(), 100, 16);
  }
  return list;
}

uint32_t SerializedSizeOf(int entries) {
  PropertyList *list = MakeList(entries);
  const uint32_t size = ZELData_SerializedSize(list, 0);
  ZELData_Free(list);
  return size;
}

void BM_Memcpy(benchmark::State &state) {
  const uint32_t size = SerializedSizeOf(static_cast<int>(state.range(0)));
  std::vector<uint8_t> src(size, 1), dst(size);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), size);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * size);
}

void BM_Serialize(benchmark::State &state) {
  PropertyList *list = MakeList(static_cast<int>(state.range(0)));
  const uint32_t size = ZELData_SerializedSize(list, 0);
  std::vector<uint8_t> buf(size);
  for (auto _ : state) {
    void *p = buf.data();
    uint32_t len = size;
    benchmark::DoNotOptimize(ZELData_Serialize(list, &p, &len, 5));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * size);
  ZELData_Free(list);
}

template <ZELDataAllocFn kAlloc, ZELDataFreeFn kFree>
void Deserialize(benchmark::State &state) {
  PropertyList *list = MakeList(static_cast<int>(state.range(0)));
  void *buf = nullptr;
  uint32_t size = 0;
  ZELData_Serialize(list, &buf, &size, 5);
  for (auto _ : state) {
    PropertyList *out = nullptr;
    if (ZELData_Deserialize(&out, buf, size, kAlloc, kFree) != STATUS_OK) {
      state.SkipWithError("deserialization failed");
      break;
    }
    ZELData_Free(out);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * size);
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
}

void BM_Deserialize(benchmark::State &state) {
  Deserialize<BlockPool::Alloc, BlockPool::Free>(state);
}
void BM_DeserializeMalloc(benchmark::State &state) { Deserialize<SysAlloc, std::free>(state); }

// What malloc and free alone cost for the blocks a deserialization of the
// same list asks for: the handle and one 256-byte block per entry.
void BM_MallocFree(benchmark::State &state) {
  const auto entries = static_cast<size_t>(state.range(0));
  std::vector<void *> blocks(entries + 1);
  for (auto _ : state) {
    blocks[0] = std::malloc(40);
    for (size_t i = 1; i <= entries; ++i) {
      blocks[i] = std::malloc(256);
    }
    benchmark::DoNotOptimize(blocks.data());
    for (void *b : blocks) {
      std::free(b);
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * SerializedSizeOf(int(entries)));
}

// Building a list is linear in its length (appends do not walk the list).
void BM_Append(benchmark::State &state) {
  for (auto _ : state) {
    PropertyList *list = MakeList(static_cast<int>(state.range(0)));
    ZELData_Free(list);
  }
  state.SetComplexityN(state.range(0));
}

// Prints the usual table and keeps each run's bytes per second by name.
class ShareReporter : public benchmark::ConsoleReporter {
 public:
  using ConsoleReporter::ConsoleReporter;
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    // With --benchmark_repetitions the median stands for the benchmark.
    for (const Run &run : runs) {
      auto it = run.counters.find("bytes_per_second");
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (it != run.counters.end() && (median || run.run_type == Run::RT_Iteration)) {
        double &rate = rates_[run.run_name.str()];
        if (median || !medians_.count(run.run_name.str())) {
          rate = it->second.value;
        }
        if (median) {
          medians_.insert(run.run_name.str());
        }
      }
    }
  }
  // Each operation's throughput as a share of memcpy's for the same size.
  void PrintShares() const {
    std::printf("\nshare of memcpy's throughput\n%-10s %10s %16s %22s\n", "entries", "serialize",
                "deserialize", "deserialize (malloc)");
    for (const char *n : {"16", "1000", "10000"}) {
      const double memcpyRate = Rate("BM_Memcpy/", n);
      if (memcpyRate <= 0) {
        continue;
      }
      std::printf("%-10s %10.2f %16.2f %22.2f\n", n, Rate("BM_Serialize/", n) / memcpyRate,
                  Rate("BM_Deserialize/", n) / memcpyRate,
                  Rate("BM_DeserializeMalloc/", n) / memcpyRate);
    }
  }

 private:
  double Rate(const std::string &prefix, const char *n) const {
    auto it = rates_.find(prefix + n);
    return it == rates_.end() ? 0 : it->second;
  }
  std::map<std::string, double> rates_;
  std::set<std::string> medians_;
};

}  // namespace

BENCHMARK(BM_Memcpy)->Arg(16)->Arg(1000)->Arg(10000);
BENCHMARK(BM_Serialize)->Arg(16)->Arg(1000)->Arg(10000);
BENCHMARK(BM_Deserialize)->Arg(16)->Arg(1000)->Arg(10000);
BENCHMARK(BM_DeserializeMalloc)->Arg(16)->Arg(1000)->Arg(10000);
BENCHMARK(BM_MallocFree)->Arg(16)->Arg(1000)->Arg(10000);
BENCHMARK(BM_Append)->Arg(1000)->Arg(10000)->Complexity(benchmark::oN);

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  ShareReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Defaults
                                               : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintShares();
  benchmark::Shutdown();
  return 0;
}
