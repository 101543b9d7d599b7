// The state file's switch to the configuration store: the host's two feature
// flags choose it, the path is then ignored, store errors become
// STATUS_FAILURE with a host-log message, and the read leaves the caller's
// offset alone.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "configstore_persist_support.h"
#include "host/feature_flags.h"
#include "zel/file.h"

namespace {

using persisttest::PersistTest;
using persisttest::SwitchDef;
using zelstatetest::Text;
using zelstatetest::U32;
namespace cs = zel::cfgstore;

class FeatureFlagsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unsetenv("ZEL_CONFIGSTORE_FEATURES");
    zel::host::ClearConfigStoreFeatures();
  }
};

TEST_F(FeatureFlagsTest, BothFlagsMustBeOn) {
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
  static std::vector<SwitchDef> Switches() {
    SwitchDef sw;
    sw.id = "sw-store";
    sw.global = {{"com.zorlan.common.alias", Text("stored")}, {"com.zorlan.common.version", U32(7)},
                 // ports come back only from a switch with resource management
                 {"com.zorlan.common.respools.sched", persisttest::Bytes{1}}};
    sw.ports = {{"7", {{"com.zorlan.common.port.alias", Text("p7")},
                       {"com.zorlan.common.port.connectid", U32(42)}}}};
    return {sw};
  }
  const char *kPath = "/nonexistent-dir/zel.state";
};

TEST_F(FileConfigStoreTest, WriteAndReadGoThroughTheStore) {
  const persisttest::Bytes blob = Blob(Switches());
  ASSERT_EQ(ZELFile_Write(kPath, blob.data(), static_cast<uint32_t>(blob.size())), STATUS_OK);
  EXPECT_FALSE(std::filesystem::exists(kPath));
  EXPECT_NE(Json("sw-store").find("\"stored\""), std::string::npos);

  void *stored = nullptr;
  int32_t length = 0;
  uint32_t offset = 777;
  ASSERT_EQ(ZELFile_Read(kPath, &stored, &length, &offset), STATUS_OK);
  EXPECT_EQ(offset, 777u);  // not written on this path
  const auto loaded = persisttest::DecodeBlob(stored, static_cast<uint32_t>(length));
  // The loaded blob is a state the database accepts.
  EXPECT_EQ(ZELState_ConfigDeserialize(stored, static_cast<uint32_t>(length)), STATUS_OK);
  EXPECT_STREQ(ZEL_SwitchName(ZELState_SwitchFind("sw-store")), "stored");
  EXPECT_EQ(ZELState_ConfigReset(), STATUS_OK);
  std::free(stored);  // an ordinary allocation
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0].first, "sw-store");
  ASSERT_EQ(loaded[0].second.ports.size(), 1u);
  EXPECT_EQ(loaded[0].second.ports[0].first, "7");
}

TEST_F(FileConfigStoreTest, StoreErrorsBecomeFailureWithAHostLogLine) {
  zeltest::LogCapture log;
  const persisttest::Bytes blob = Blob(Switches());
  cs::testing::FailNext(cs::testing::Op::kCommitTransaction, 7);
  EXPECT_EQ(ZELFile_Write(kPath, blob.data(), static_cast<uint32_t>(blob.size())), STATUS_FAILURE);
  cs::testing::FailNext(cs::testing::Op::kGetInstances, 7);
  void *stored = reinterpret_cast<void *>(0x1);
  int32_t length = -5;
  uint32_t offset = 99;
  EXPECT_EQ(ZELFile_Read(kPath, &stored, &length, &offset), STATUS_FAILURE);
  EXPECT_EQ(stored, reinterpret_cast<void *>(0x1));
  EXPECT_EQ(length, -5);
  EXPECT_EQ(offset, 99u);
  const auto lines = log.Host();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], std::make_pair(110, std::string("failed to write zelconfig to configstore, error: 7\n")));
  EXPECT_EQ(lines[1], std::make_pair(110, std::string("failed to read zelconfig from configstore, error: 7\n")));
  // The library's own failures (-1) are reported the same way.
  const uint8_t garbage[32] = {};
  EXPECT_EQ(ZELFile_Write(kPath, garbage, sizeof garbage), STATUS_FAILURE);
  EXPECT_EQ(log.Host().back().second.rfind("failed to write zelconfig to configstore, error: ", 0), 0u);
}

}  // namespace
