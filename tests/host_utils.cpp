// The host-utility layer: the source of the system-wide port limit.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "host/host_limits.h"

using namespace zel::host;

namespace {

// Restores the environment variable and the default source after each test.
class HostLimitsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char *saved = std::getenv(kMaxPortsSystemWideEnv);
    hadValue_ = saved != nullptr;
    if (hadValue_) {
      saved_ = saved;
    }
  }
  void TearDown() override {
    if (hadValue_) {
      setenv(kMaxPortsSystemWideEnv, saved_.c_str(), 1);
    } else {
      unsetenv(kMaxPortsSystemWideEnv);
    }
    zel::host::testing::UseDefaultKernelInfo();
  }
  static ReturnStatus Get(uint32_t *out) {
    *out = 7;
    return KernelInfoGetMaxPortsSystemWide(out);
  }

  bool hadValue_ = false;
  std::string saved_;
};

// Unset and empty give the default; a value above the cap is capped; text
// that is not a plain positive decimal is refused and nothing is written.
TEST_F(HostLimitsTest, EnvironmentDefaultCapAndRefusals) {
  const struct {
    const char *text;  // null: unset
    ReturnStatus status;
    uint32_t value;
  } cases[] = {{nullptr, STATUS_OK, 4096},        {"", STATUS_OK, 4096},
               {"128000", STATUS_OK, 128000},     {"1048576", STATUS_OK, kMaxPortsSystemWideCap},
               {"0", STATUS_BAD_PARAM, 7},        {"abc", STATUS_BAD_PARAM, 7},
               {"12x", STATUS_BAD_PARAM, 7},      {"-5", STATUS_BAD_PARAM, 7},
               {" 12", STATUS_BAD_PARAM, 7},      {"+12", STATUS_BAD_PARAM, 7},
               {"1048577", STATUS_BAD_PARAM, 7},  {"99999999999999999999", STATUS_BAD_PARAM, 7}};
  for (const auto &c : cases) {
    if (c.text == nullptr) {
      unsetenv(kMaxPortsSystemWideEnv);
    } else {
      setenv(kMaxPortsSystemWideEnv, c.text, 1);
    }
    uint32_t value = 0;
    EXPECT_EQ(Get(&value), c.status) << (c.text ? c.text : "unset");
    EXPECT_EQ(value, c.value) << (c.text ? c.text : "unset");
  }
  EXPECT_EQ(KernelInfoCheckSignature(), STATUS_OK);
}

}  // namespace
