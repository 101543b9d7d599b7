// Which builds check the lock order.
#include <gtest/gtest.h>

#include <cstdlib>

#include "hardening_support.h"

namespace {

// Configures this binary's source tree (nothing is compiled) and reads the
// compile commands: a release library never aborts its host over the lock order.
TEST(HardeningBuild, OnlyDebugAndTestBuildsCheckTheLockOrder) {
  const auto cache = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() /
                     "CMakeCache.txt";
  std::ifstream in(cache);
  const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
  std::string source;
  for (std::string line; source.empty() && std::getline(in, line);) {
    if (line.rfind(key, 0) == 0) source = line.substr(key.size());
  }
  if (source.empty() || std::system("cmake --version >/dev/null 2>&1") != 0) GTEST_SKIP();
  using Build = std::tuple<const char *, const char *, bool>;  // type, ZEL_TESTS, checks
  for (const auto &[buildType, tests, checks] :
       {Build{"Release", "OFF", false}, Build{"Debug", "OFF", true},
        Build{"Release", "ON", true}}) {
    SCOPED_TRACE(std::string(buildType) + " ZEL_TESTS=" + tests);
    hardening::TempDir tree;
    EXPECT_EQ(std::system(("cmake -S '" + source + "' -B " + tree.path() + " -G Ninja " +
                           "-DCMAKE_BUILD_TYPE=" + buildType + " -DZEL_TESTS=" + tests +
                           " >/dev/null 2>&1")
                              .c_str()),
              0);
    const auto commands = hardening::Slurp(tree.path() + "/compile_commands.json");
    const std::string text(commands.begin(), commands.end());
    EXPECT_NE(text.find("host/lock.cpp"), std::string::npos);
    EXPECT_EQ(text.find("ZEL_LOCK_RANK_CHECK") != std::string::npos, checks);
  }
}

}  // namespace
