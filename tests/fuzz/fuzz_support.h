// Shared by the fuzz targets: writing a target's seed corpus on request.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace zelfuzz {

using Seeds = std::vector<std::vector<uint8_t>>;

// When ZEL_FUZZ_WRITE_SEEDS names a directory, writes the seeds there and ends
// the process; otherwise returns and fuzzing goes on.
inline void MaybeWriteSeeds(const Seeds &seeds) {
  const char *dir = std::getenv("ZEL_FUZZ_WRITE_SEEDS");
  if (dir == nullptr) return;
  for (size_t i = 0; i < seeds.size(); ++i) {
    std::string path = std::string(dir) + "/seed_" + std::to_string(i);
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
      std::perror(path.c_str());
      std::exit(1);
    }
    std::fwrite(seeds[i].data(), 1, seeds[i].size(), f);
    std::fclose(f);
  }
  std::exit(0);
}

}  // namespace zelfuzz
