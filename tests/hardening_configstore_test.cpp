// Switch objects edited by hand: a load that succeeds always returns a blob
// that decodes with every switch it read, and a save that stores a switch no
// load can read says so.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "hardening_support.h"
#include "host/configstore_client.h"
#include "state/state_testing.h"
#include "zel/configstore.h"
#include "zel/state.h"

namespace {

namespace cs = zel::cfgstore;
using ::testing::HasSubstr;
using Objects = std::vector<std::pair<std::string, std::string>>;  // instance id, content

class HardeningStore : public ::testing::Test {
 protected:
  void SetUp() override {
    cs::testing::UsePath((tmp_.path() + "/configstore.db").c_str());
    zel::state::testing::SetPortLimit(64);
    zelconfigstore_debug = 0;
  }
  void TearDown() override {
    zelconfigstore_debug = 10;
    zel::state::testing::SetPortLimit(0);
    cs::testing::UsePath(nullptr);
  }
  hardening::TempDir tmp_;
};

void Store(const Objects &objects, bool put) {
  cs::Store *store = nullptr;
  ASSERT_EQ(cs::GetStore(0, &store), cs::kOk);
  for (const auto &[instance, content] : objects) {
    cs::Object *object = nullptr;
    if (!put) {
      cs::Delete(store, "switches", "network_zel", "orn", instance.c_str());
    } else if (cs::CreateObject("switches", "network_zel", "orn", instance.c_str(), content.c_str(),
                                &object) == cs::kOk) {
      EXPECT_EQ(cs::Set(store, object, "EXTERNAL"), cs::kOk);
      cs::DestroyConfigStoreObject(object);
    }
  }
  cs::DestroyStore(store);
}

std::string Switch(const std::string &uuid, const std::string &cls = "vswitch", int maxPorts = 8,
                   const std::vector<std::string> &ports = {}) {
  std::string list;
  for (const std::string &key : ports)
    list += (list.empty() ? "" : ",") + ("{\"key\":\"" + key) + "\"}";
  return R"({"uuid":")" + uuid + R"(","max_ports":)" + std::to_string(maxPorts) +
         R"(,"product":{"forwarding_class":")" + cls +
         R"(","version":"7.0.0"},"resource_management":{},"ports":[)" + list + "]}";
}

TEST_F(HardeningStore, SuccessfulLoadAlwaysDecodesWithEverySwitch) {
  Objects many;
  for (int i = 0; i <= ZEL_MAX_SWITCHES; ++i)
    many.emplace_back("s" + std::to_string(i), Switch("s" + std::to_string(i), "vswitch", 1));
  struct Row {
    Objects objects;
    int switches;  // decoded after a successful load; -1: the load fails
    const char *message;
  };
  const Row rows[] = {
      {{{"a", Switch("sw-blue")}, {"b", Switch("sw-blue")}}, -1, "Duplicate switch uuid sw-blue"},
      {{{"a", Switch(std::string(64, 'u'))}}, -1, "longer than 63"},
      {{{"a", Switch("sw-blue", "vswitch", 8, {"1", std::string(48, 'p')})}},
       1,
       "is too long, port skipped"},
      {{{"a", Switch("sw-blue", "fabric", 65)}}, -1, "does not fit"},
      {{{"a", Switch("sw-blue", "fabric", 1, {"1", "2"})}}, -1, "does not fit"},
      {{{"a", Switch("sw-blue", "fabric", 2, {"1", "2"})}}, 1, ""},
      {many, -1, "Too many switch objects"},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(&r - rows);
    Store(r.objects, true);
    void *blob = nullptr;
    uint32_t length = 0;
    ::testing::internal::CaptureStdout();
    const uint32_t status = ZELState_LoadFromConfigStoreAsBuf(&blob, &length, false);
    EXPECT_THAT(::testing::internal::GetCapturedStdout(), HasSubstr(r.message));
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
    Store(r.objects, false);
  }
}

TEST_F(HardeningStore, SavingASwitchWithoutVersionWarns) {
  for (bool withVersion : {true, false}) {
    SCOPED_TRACE(withVersion);
    ASSERT_EQ(ZELState_SwitchAdd("sw-blue", "vswitch", 8, 7), STATUS_OK);
    const uint32_t seven = 7;
    if (withVersion) {
      ASSERT_EQ(ZELState_GlobalPropSet("sw-blue", "com.zorlan.common.version", &seven, 4, 16),
                STATUS_OK);
    }
    void *blob = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(ZELState_ConfigSerialize(&blob, &length), STATUS_OK);
    ZELState_ConfigReset();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(ZELState_SaveBufToConfigStore(blob, length), 0u);  // the result stays as it was
    EXPECT_EQ(::testing::internal::GetCapturedStdout().find(
                  "Warning: switch sw-blue is saved without") == std::string::npos,
              withVersion);
    std::free(blob);
  }
}

}  // namespace
