// Which builds check the lock order: debug and test builds do, a release
// library never aborts its host over it.  Configures the source tree of this
// binary (nothing is compiled) and reads the compile commands.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "hardening_support.h"

namespace {

namespace fs = std::filesystem;

// The source tree, from the cache of the build tree holding this binary.
std::string SourceDir() {
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  std::ifstream cache(exe.parent_path().parent_path() / "CMakeCache.txt");
  const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
  for (std::string line; std::getline(cache, line);) {
    if (line.rfind(key, 0) == 0) return line.substr(key.size());
  }
  return "";
}

TEST(HardeningBuild, OnlyDebugAndTestBuildsCheckTheLockOrder) {
  const std::string source = SourceDir();
  if (source.empty() || std::system("cmake --version >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "no source tree or no cmake";
  }
  struct Row {
    const char *buildType;
    const char *tests;
    bool checks;
  };
  const Row rows[] = {{"Release", "OFF", false}, {"Debug", "OFF", true}, {"Release", "ON", true}};
  for (const Row &r : rows) {
    SCOPED_TRACE(std::string(r.buildType) + " ZEL_TESTS=" + r.tests);
    hardening::TempDir tree;
    const std::string command = "cmake -S '" + source + "' -B " + tree.path() +
                                " -G Ninja -DCMAKE_BUILD_TYPE=" + r.buildType +
                                " -DZEL_TESTS=" + r.tests + " >/dev/null 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0);
    std::ifstream in(tree.path() + "/compile_commands.json");
    const std::string commands(std::istreambuf_iterator<char>(in), {});
    EXPECT_NE(commands.find("host/lock.cpp"), std::string::npos);
    EXPECT_EQ(commands.find("ZEL_LOCK_RANK_CHECK") != std::string::npos, r.checks);
  }
}

}  // namespace
