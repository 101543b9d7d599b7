// Serialization and deserialization throughput of property lists with
// 100-byte values, beside memcpy of the same byte counts.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zel/data.h"

namespace {

void *SysAlloc(uint64_t n) { return std::malloc(n); }

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

void BM_Deserialize(benchmark::State &state) {
  PropertyList *list = MakeList(static_cast<int>(state.range(0)));
  void *buf = nullptr;
  uint32_t size = 0;
  ZELData_Serialize(list, &buf, &size, 5);
  for (auto _ : state) {
    PropertyList *out = nullptr;
    benchmark::DoNotOptimize(ZELData_Deserialize(&out, buf, size, SysAlloc, std::free));
    ZELData_Free(out);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * size);
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
}

void BM_Memcpy(benchmark::State &state) {
  PropertyList *list = MakeList(static_cast<int>(state.range(0)));
  const uint32_t size = ZELData_SerializedSize(list, 0);
  ZELData_Free(list);
  std::vector<uint8_t> src(size, 1), dst(size);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), size);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * size);
}

// Building a list is linear in its length (appends do not walk the list).
void BM_Append(benchmark::State &state) {
  for (auto _ : state) {
    PropertyList *list = MakeList(static_cast<int>(state.range(0)));
    ZELData_Free(list);
  }
  state.SetComplexityN(state.range(0));
}

}  // namespace

BENCHMARK(BM_Memcpy)->Arg(16)->Arg(1000)->Arg(10000);
BENCHMARK(BM_Serialize)->Arg(16)->Arg(1000)->Arg(10000);
BENCHMARK(BM_Deserialize)->Arg(16)->Arg(1000)->Arg(10000);
BENCHMARK(BM_Append)->Arg(1000)->Arg(10000)->Complexity(benchmark::oN);
