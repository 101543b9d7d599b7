// The state file's switch to the configuration store (the host's two feature flags choose it,
// the path is then ignored), and switch objects edited by hand: a load that succeeds always
// returns a blob that decodes with every switch it read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "configstore_persist_support.h"
#include "host/feature_flags.h"
#include "state/state_testing.h"
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

class HardeningStore : public PersistTest {
 protected:
  void SetUp() override {
    PersistTest::SetUp();
    zel::state::testing::SetPortLimit(64);
    zelconfigstore_debug = 0;
  }
};

std::string HandWritten(const std::string &uuid, const std::string &cls = "vswitch",
                        int maxPorts = 8, const std::vector<std::string> &ports = {}) {
  std::string list;
  for (const std::string &key : ports)
    list += (list.empty() ? "" : ",") + ("{\"key\":\"" + key) + "\"}";
  return R"({"uuid":")" + uuid + R"(","max_ports":)" + std::to_string(maxPorts) +
         R"(,"product":{"forwarding_class":")" + cls +
         R"(","version":"7.0.0"},"resource_management":{},"ports":[)" + list + "]}";
}

TEST_F(HardeningStore, SuccessfulLoadAlwaysDecodesWithEverySwitch) {
  using Objects = std::vector<std::pair<std::string, std::string>>;  // instance id, content
  Objects many;
  for (int i = 0; i <= ZEL_MAX_SWITCHES; ++i)
    many.emplace_back("s" + std::to_string(i), HandWritten("s" + std::to_string(i), "vswitch", 1));
  struct Row {
    Objects objects;
    int switches;  // decoded after a successful load; -1: the load fails
    const char *message;
  };
  const Row rows[] = {
      {{{"a", HandWritten("sw-blue")}, {"b", HandWritten("sw-blue")}}, -1,
       "Duplicate switch uuid sw-blue"},
      {{{"a", HandWritten(std::string(64, 'u'))}}, -1, "longer than 63"},
      {{{"a", HandWritten("sw-blue", "vswitch", 8, {"1", std::string(48, 'p')})}}, 1,
       "is too long, port skipped"},
      {{{"a", HandWritten("sw-blue", "fabric", 65)}}, -1, "does not fit"},
      {{{"a", HandWritten("sw-blue", "fabric", 1, {"1", "2"})}}, -1, "does not fit"},
      {{{"a", HandWritten("sw-blue", "fabric", 2, {"1", "2"})}}, 1, ""},
      {many, -1, "Too many switch objects"},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(&r - rows);
    for (const auto &[id, content] : r.objects) Put(id.c_str(), content.c_str());
    void *blob = nullptr;
    uint32_t length = 0, status = 0;
    EXPECT_THAT(zeltest::CaptureStdout(
                    [&] { status = ZELState_LoadFromConfigStoreAsBuf(&blob, &length, false); }),
                ::testing::HasSubstr(r.message));
    EXPECT_EQ(status == 0, r.switches >= 0);
    if (status == 0) {
      EXPECT_EQ(ZELState_ConfigDeserialize(blob, length), STATUS_OK);
      int count = 0;
      ZELState_SwitchForEach([](SwitchState *, void *n) { return ++*static_cast<int *>(n), false; },
                             &count);
      EXPECT_EQ(count, r.switches);
      ZELState_ConfigReset();
      std::free(blob);
    }
    cfgtest::StorePtr store = cfgtest::OpenStore();
    for (const auto &[id, content] : r.objects)
      cs::Delete(store.get(), "switches", "network_zel", "orn", id.c_str());
  }
}

// A save that stores a switch no load can read says so; its result stays as it was.
TEST_F(HardeningStore, SavingASwitchWithoutVersionWarns) {
  for (bool withVersion : {true, false}) {
    SCOPED_TRACE(withVersion);
    SwitchDef s;
    s.id = "sw-blue";
    s.cls = "vswitch";
    if (withVersion) s.global = {{"com.zorlan.common.version", U32(7)}};
    const Bytes blob = Blob({s});
    const std::string out = zeltest::CaptureStdout([&] { EXPECT_EQ(Save(blob), 0u); });
    EXPECT_EQ(out.find("Warning: switch sw-blue is saved without") == std::string::npos,
              withVersion);
  }
}

}  // namespace
