// The state file's replacing write with and without its two flushes (the
// data before the rename, the directory after it), for blobs of growing
// size, and the read of the file back.  The file lives in a new directory
// under $TMPDIR (default /tmp): what a flush costs depends on the device
// behind it, so run the benchmark on the file system that holds the real
// state file.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "host/file_io.h"
#include "zel/file.h"

namespace {

namespace fs = std::filesystem;

// The real calls with the flushes left out, to measure what they cost.
class NoSyncIo : public zel::host::SystemFileIo {
 public:
  int Fsync(int) override { return 0; }
};

class ScratchDir {
 public:
  ScratchDir() {
    std::string tmpl = (fs::temp_directory_path() / "zel-bench-XXXXXX").string();
    dir_ = mkdtemp(tmpl.data()) != nullptr ? tmpl : "";
  }
  ~ScratchDir() {
    if (!dir_.empty()) fs::remove_all(dir_);
  }
  std::string Path() const { return dir_ + "/zel.state"; }
  bool Ok() const { return !dir_.empty(); }

 private:
  std::string dir_;
};

// Arguments: blob bytes, 1 with the flushes, 0 without.
void BM_StateFileWrite(benchmark::State &state) {
  ScratchDir dir;
  if (!dir.Ok()) {
    state.SkipWithError("no scratch directory");
    return;
  }
  const std::vector<uint8_t> blob(static_cast<size_t>(state.range(0)), 0x5A);
  NoSyncIo noSync;
  zel::host::FileIo *previous = state.range(1) == 0 ? zel::host::SetFileIo(&noSync) : nullptr;
  const std::string path = dir.Path();
  for (auto _ : state) {
    if (ZELFile_WriteClassical(path.c_str(), blob.data(), static_cast<uint32_t>(blob.size()), 1) !=
        STATUS_OK) {
      state.SkipWithError("write failed");
      break;
    }
  }
  if (state.range(1) == 0) zel::host::SetFileIo(previous);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_StateFileWrite)
    ->ArgNames({"bytes", "sync"})
    ->ArgsProduct({{4096, 65536, 1 << 20}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

void BM_StateFileRead(benchmark::State &state) {
  ScratchDir dir;
  const std::vector<uint8_t> blob(static_cast<size_t>(state.range(0)), 0x5A);
  const std::string path = dir.Path();
  if (!dir.Ok() || ZELFile_WriteClassical(path.c_str(), blob.data(),
                                          static_cast<uint32_t>(blob.size()), 1) != STATUS_OK) {
    state.SkipWithError("no state file");
    return;
  }
  for (auto _ : state) {
    void *data = nullptr;
    int32_t length = 0;
    uint32_t offset = 0;
    if (ZELFile_ReadClassical(path.c_str(), &data, &length, &offset) == STATUS_OK) {
      free(static_cast<uint8_t *>(data) - offset);
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_StateFileRead)->Arg(4096)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);

}  // namespace
