// The state file's switch to the configuration store: the host's two feature flags choose it,
// the path is then ignored.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "configstore_persist_support.h"
#include "host/feature_flags.h"
#include "zel/file.h"

namespace {

using namespace persisttest;

TEST(FeatureFlagsTest, BothFlagsMustBeOn) {
  unsetenv("ZEL_CONFIGSTORE_FEATURES");
  EXPECT_FALSE(zel::host::ConfigStoreEnabled());
  for (const char *off : {"1,0", "0,1", "1", "11", "1,1,", "true,true", ""}) {
    setenv("ZEL_CONFIGSTORE_FEATURES", off, 1);
    EXPECT_FALSE(zel::host::ConfigStoreEnabled()) << off;
  }
  setenv("ZEL_CONFIGSTORE_FEATURES", "1,1", 1);
  EXPECT_TRUE(zel::host::ConfigStoreEnabled());
  // The API overrides the environment until cleared.
  zel::host::SetConfigStoreFeatures(true, false);
  EXPECT_FALSE(zel::host::ConfigStoreEnabled());
  zel::host::ClearConfigStoreFeatures();
  EXPECT_TRUE(zel::host::ConfigStoreEnabled());
  unsetenv("ZEL_CONFIGSTORE_FEATURES");
}

class FileConfigStoreTest : public PersistTest {
 protected:
  void SetUp() override {
    PersistTest::SetUp();
    zel::host::SetConfigStoreFeatures(true, true);
  }
  void TearDown() override {
    zel::host::ClearConfigStoreFeatures();
    cs::testing::ClearFailures();
    PersistTest::TearDown();
  }
  const char *kPath = "/nonexistent-dir/zel.state";
};

// Store errors become STATUS_FAILURE with a host-log message; the read leaves the caller's
// offset alone.
TEST_F(FileConfigStoreTest, WriteReadAndStoreErrors) {
  SwitchDef sw;
  sw.id = "sw-store";
  sw.global = {{"com.zorlan.common.version", U32(7)},
               {"com.zorlan.common.respools.sched", Bytes{1}}};  // so that ports load
  sw.ports = {{"7", {{"com.zorlan.common.port.alias", Text("p7")}}}};
  const Bytes blob = Blob({sw});
  ASSERT_EQ(ZELFile_Write(kPath, blob.data(), static_cast<uint32_t>(blob.size())), STATUS_OK);
  EXPECT_FALSE(std::filesystem::exists(kPath));
  void *stored = nullptr;
  int32_t length = 0;
  uint32_t offset = 777;
  ASSERT_EQ(ZELFile_Read(kPath, &stored, &length, &offset), STATUS_OK);
  const auto loaded = DecodeBlob(stored, static_cast<uint32_t>(length));
  std::free(stored);  // an ordinary allocation
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0].first, "sw-store");
  ASSERT_EQ(loaded[0].second.ports.size(), 1u);
  EXPECT_EQ(loaded[0].second.ports[0].first, "7");

  zeltest::LogCapture log;
  cs::testing::FailNext(cs::testing::Op::kCommitTransaction, 7);
  EXPECT_EQ(ZELFile_Write(kPath, blob.data(), static_cast<uint32_t>(blob.size())), STATUS_FAILURE);
  cs::testing::FailNext(cs::testing::Op::kGetInstances, 7);
  stored = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(ZELFile_Read(kPath, &stored, &length, &offset), STATUS_FAILURE);
  EXPECT_EQ(stored, reinterpret_cast<void *>(0x1));
  EXPECT_EQ(offset, 777u);
  const std::vector<std::pair<int, std::string>> expected = {
      {110, "failed to write zelconfig to configstore, error: 7\n"},
      {110, "failed to read zelconfig from configstore, error: 7\n"}};
  EXPECT_EQ(log.Host(), expected);
  // The library's own failures are reported the same way.
  const uint8_t garbage[32] = {};
  EXPECT_EQ(ZELFile_Write(kPath, garbage, sizeof garbage), STATUS_FAILURE);
  EXPECT_EQ(log.Host().back().second.rfind("failed to write zelconfig to configstore, error: ", 0),
            0u);
}

}  // namespace
