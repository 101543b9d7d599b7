// The source of the system-wide port limit: the environment, capped.
#include <gtest/gtest.h>

#include <cstdlib>

#include "host/host_limits.h"

namespace {

using namespace zel::host;

// Unset and empty give the default; a value above the cap is capped; text
// that is not a plain positive decimal is refused and nothing is written.
TEST(HostLimitsTest, EnvironmentDefaultCapAndRefusals) {
  const struct {
    const char *text;  // null: unset
    ReturnStatus status;
    uint32_t value;
  } cases[] = {{nullptr, STATUS_OK, 4096},        {"", STATUS_OK, 4096},
               {"128000", STATUS_OK, 128000},     {"1048576", STATUS_OK, kMaxPortsSystemWideCap},
               {"0", STATUS_BAD_PARAM, 7},        {"12x", STATUS_BAD_PARAM, 7},
               {"-5", STATUS_BAD_PARAM, 7},       {"+12", STATUS_BAD_PARAM, 7},
               {"1048577", STATUS_BAD_PARAM, 7},  {"99999999999999999999", STATUS_BAD_PARAM, 7}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text ? c.text : "unset");
    c.text ? setenv(kMaxPortsSystemWideEnv, c.text, 1) : unsetenv(kMaxPortsSystemWideEnv);
    uint32_t value = 7;
    EXPECT_EQ(KernelInfoGetMaxPortsSystemWide(&value), c.status);
    EXPECT_EQ(value, c.value);
  }
  unsetenv(kMaxPortsSystemWideEnv);
  zel::host::testing::UseDefaultKernelInfo();
  EXPECT_EQ(KernelInfoCheckSignature(), STATUS_OK);
}

}  // namespace
