// Which builds check the lock order.
#include <gtest/gtest.h>

#include <cstdlib>

#include "hardening_support.h"

namespace {

// Configures this source tree (nothing is compiled) and reads the compile
// commands: a release library never aborts its host over the lock order.
TEST(HardeningBuild, OnlyDebugAndTestBuildsCheckTheLockOrder) {
  if (std::system("cmake --version >/dev/null 2>&1") != 0) GTEST_SKIP();
  const std::string source = ZELCTL_GOLDEN_DIR "/../..";  // above tests/zelctl_golden
  using Build = std::tuple<const char *, const char *, bool>;  // type, ZEL_TESTS, checks
  for (const auto &[buildType, tests, checks] :
       {Build{"Release", "OFF", false}, Build{"Debug", "OFF", true},
        Build{"Release", "ON", true}}) {
    SCOPED_TRACE(std::string(buildType) + " ZEL_TESTS=" + tests);
    hardening::TempDir tree;
    const std::string configure = "cmake -S '" + source + "' -B " + tree.path() + " -G Ninja" +
                                  " -DCMAKE_BUILD_TYPE=" + buildType + " -DZEL_TESTS=" + tests;
    EXPECT_EQ(std::system((configure + " >/dev/null 2>&1").c_str()), 0);
    const auto commands = hardening::Slurp(tree.path() + "/compile_commands.json");
    const std::string text(commands.begin(), commands.end());
    EXPECT_NE(text.find("host/lock.cpp"), std::string::npos);
    EXPECT_EQ(text.find("ZEL_LOCK_RANK_CHECK") != std::string::npos, checks);
  }
}

}  // namespace
