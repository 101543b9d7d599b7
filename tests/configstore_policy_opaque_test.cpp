// The catch-all rows: properties no other row takes, saved as instances of the lists under "data"
// and loaded back with the types of those lists.
#include <string>

#include "configstore_policy_opaque_support.h"

using namespace policytest;
using json = nlohmann::json;
using Op = cs::testing::Op;

namespace {

constexpr uint32_t kText = 16, kOpaque = 24, kRaw = 8;

TypedSwitch Mixed() {
  TypedSwitch s;
  s.global = {
      {"com.zorlan.common.version", U32(7), kText},
      {"com.zorlan.common.respools.sched", Bytes{0}, kText},  // ports load under it
      {"com.vendor.setting", Text("abc"), kText},
      {"com.zorlan.extraconfig.mode", Bytes{'o', 'n', 0, 'x'}, kText},
      {"com.zorlan.extraconfig.blob", Bytes{1, 0, 2}, kOpaque},
      {"com.vendor.raw", Bytes{0xDE, 0xAD}, kRaw},
  };
  s.host = {
      {"com.vendor.host", Bytes{'h', 0, 'z'}, kText},
      {"com.vendor.hostblob", Bytes{0, 9}, kRaw},
  };
  s.ports = {{"p1",
              {
                  {"com.vendor.filter.ruleset", Bytes{7, 0, 7}, kRaw},
                  {".ruleset", Bytes{5}, kOpaque},
                  {"com.zorlan.port.extraConfig.a", Text("A"), kRaw},
                  {"com.zorlan.port.extraConfigB", Text("B"), kText},
                  {"com.zorlan.port.extraConfig.c", Bytes{3, 0}, kOpaque},
                  {"com.vendor.other", Bytes{0, 1, 2}, kRaw},
              }}};
  return s;
}

class PolicyOpaque : public PolicyTest {};

TEST_F(PolicyOpaque, SavesEachPropertyIntoItsListAndLoadsItBackWithTheListType) {
  ASSERT_EQ(Save(TypedBlob(Mixed())), 0u);
  const json stored = json::parse(Json("sw"));
  EXPECT_EQ(stored["data"], json::parse(R"({
    "vendor_specific_config": [{"key": "com.vendor.setting", "value": "abc"}],
    "extra_config": [{"key": "com.zorlan.extraconfig.mode", "value": "on"}],
    "zel_opaque_data": [
      {"@types": {"opaque_data": "binary"}, "key": "com.zorlan.extraconfig.blob",
       "opaque_data": "AQAC"},
      {"@types": {"opaque_data": "binary"}, "key": "com.vendor.raw", "opaque_data": "3q0="}],
    "vendor_specific_host_member_config": [{"key": "com.vendor.host", "value": "h"}],
    "host_opaque_data": [
      {"@types": {"opaque_data": "binary"}, "key": "com.vendor.hostblob", "opaque_data": "AAk="}]
  })")) << stored["data"].dump();
  EXPECT_EQ(stored["ports"][0]["data"], json::parse(R"({
    "ruleset_data": [
      {"@types": {"opaque_data": "binary"}, "key": "com.vendor.filter.ruleset",
       "opaque_data": "BwAH"},
      {"@types": {"opaque_data": "binary"}, "key": ".ruleset", "opaque_data": "BQ=="}],
    "extra_config": [{"key": "com.zorlan.port.extraConfig.a", "value": "A"}],
    "vendor_specific_data": [{"key": "com.zorlan.port.extraConfigB", "value": "B"}],
    "opaque_data": [
      {"@types": {"opaque_data": "binary"}, "key": "com.zorlan.port.extraConfig.c",
       "opaque_data": "AwA="}],
    "other_data": [
      {"@types": {"opaque_data": "binary", "prop_type": "uint32"}, "key": "com.vendor.other",
       "opaque_data": "AAEC", "prop_type": 8}]
  })")) << stored["ports"][0]["data"].dump();

  uint32_t status = 1;
  zeltest::ScopedLevel level(zelconfigstore_debug, 0);
  const TypedLoaded sw = LoadTyped(&status);
  ASSERT_EQ(status, 0u);
  // Texts come back up to their first NUL with it; opaque data as type 24.
  EXPECT_EQ(Only(sw.global, {"com.vendor.setting", "com.zorlan.extraconfig.mode",
                             "com.zorlan.extraconfig.blob", "com.vendor.raw"}),
            (TypedProps{{"com.vendor.setting", Text("abc"), kText},
                        {"com.zorlan.extraconfig.blob", Bytes{1, 0, 2}, kOpaque},
                        {"com.vendor.raw", Bytes{0xDE, 0xAD}, kOpaque},
                        {"com.zorlan.extraconfig.mode", Text("on"), kText}}));
  EXPECT_EQ(sw.host, (TypedProps{{"com.vendor.host", Bytes{'h', 0}, kText},
                                 {"com.vendor.hostblob", Bytes{0, 9}, kOpaque}}));
  ASSERT_EQ(sw.ports.size(), 1u);
  EXPECT_EQ(sw.ports[0].second,
            (TypedProps{{"com.vendor.filter.ruleset", Bytes{7, 0, 7}, kText},
                        {".ruleset", Bytes{5}, kText},
                        {"com.zorlan.port.extraConfig.c", Bytes{3, 0}, kOpaque},
                        {"com.zorlan.port.extraConfig.a", Text("A"), kText},
                        {"com.zorlan.port.extraConfigB", Text("B"), kText},
                        {"com.vendor.other", Bytes{0, 1, 2}, kRaw}}));
}

TEST_F(PolicyOpaque, OpaqueBitDecidesBeforeTheExtraConfigName) {
  auto o = Stored("{}");
  const Bytes value = Text("x");
  EXPECT_EQ(SaveCase(22, o.get(), "data", "com.zorlan.extraconfig.k", value, kText), 0u);
  EXPECT_EQ(SaveCase(22, o.get(), "data", "x.com.zorlan.extraconfig", value, kText), 0u);
  EXPECT_EQ(SaveCase(22, o.get(), "data", "com.zorlan.extraconfig.o", value, kOpaque), 0u);
  const json data = Content(o.get())["data"];
  EXPECT_EQ(data["extra_config"].size(), 2u);  // the mark may stand anywhere in the name
  ASSERT_EQ(data["zel_opaque_data"].size(), 1u);
  EXPECT_EQ(data["zel_opaque_data"][0]["key"], "com.zorlan.extraconfig.o");
  EXPECT_FALSE(data.contains("vendor_specific_config"));
}

TEST_F(PolicyOpaque, EmptyValuesAndAnEmptyText) {
  auto o = Stored("{}");
  EXPECT_EQ(SaveCase(22, o.get(), "data", "com.v.empty", {}, kText), 0u);
  EXPECT_EQ(SaveCase(22, o.get(), "data", "com.v.nul", Bytes{0, 'a'}, kText), 0u);
  EXPECT_EQ(SaveCase(33, o.get(), "data", "com.v.none", {}, kOpaque), 0u);
  TypedProps loaded;
  ASSERT_EQ(LoadCase(22, o.get(), "data", "DEFAULT", &loaded), 0u);
  EXPECT_EQ(loaded, (TypedProps{{"com.v.empty", Bytes{0}, kText}, {"com.v.nul", Bytes{0}, kText}}));
  ASSERT_EQ(LoadCase(33, o.get(), "data", "DEFAULT", &loaded, zp::kTablePort), 0u);
  EXPECT_EQ(loaded, (TypedProps{{"com.v.none", Bytes{}, kOpaque}}));
}

TEST_F(PolicyOpaque, AbsentDataOrListsLoadNothingAndDoNotFail) {
  TypedProps loaded;
  for (const char *content : {"{}", R"({"data":{}})", R"({"data":{"extra_config":[]}})"}) {
    auto o = Stored(content);
    for (uint32_t table : {zp::kTableGlobal, zp::kTableHost}) {
      EXPECT_EQ(LoadCase(22, o.get(), "data", "DEFAULT", &loaded, table), 0u) << content;
      EXPECT_TRUE(loaded.empty());
    }
    EXPECT_EQ(LoadCase(33, o.get(), "data", "DEFAULT", &loaded, zp::kTablePort), 0u);
    EXPECT_TRUE(loaded.empty());
  }
  // Only the first list of a switch is there.
  auto o = Stored(R"({"data":{"vendor_specific_config":[{"key":"a.b","value":"v"}]}})");
  EXPECT_EQ(LoadCase(22, o.get(), "data", "DEFAULT", &loaded), 0u);
  EXPECT_EQ(loaded, (TypedProps{{"a.b", Text("v"), kText}}));
}

TEST_F(PolicyOpaque, OtherDataWithoutAUsableTypeIsPassedOver) {
  auto o = Stored(R"({"data":{"other_data":[
      {"key":"no.type","opaque_data":"AQ==","@types":{"opaque_data":"binary"}},
      {"key":"bad.type","opaque_data":"AQ==","prop_type":4,
       "@types":{"opaque_data":"binary","prop_type":"uint32"}},
      {"key":"good","opaque_data":"AQ==","prop_type":9,
       "@types":{"opaque_data":"binary","prop_type":"uint32"}}]}})");
  TypedProps loaded;
  EXPECT_EQ(LoadCase(33, o.get(), "data", "DEFAULT", &loaded, zp::kTablePort), 0u);
  EXPECT_EQ(loaded, (TypedProps{{"good", Bytes{1}, 9}}));
}

TEST_F(PolicyOpaque, SaveFailuresEndWithTheStoreStatus) {
  const Bytes v = Text("v");
  struct Case {
    Op op;
    uint32_t kind, type, table;
  } cases[] = {
      {Op::kGetSubObject, 22, kText, 0},      {Op::kCreateSubObject, 22, kText, 0},
      {Op::kGenerateInstanceId, 22, kOpaque, 0}, {Op::kSetValueStr, 22, kOpaque, 0},
      {Op::kSetValueBinary, 22, kOpaque, 1},  {Op::kSetValueStr, 22, kText, 1},
      {Op::kCreateSubObject, 33, kOpaque, 2}, {Op::kSetValueBinary, 33, kRaw, 2},
      {Op::kSetValueUint32, 33, kRaw, 2},     {Op::kSetValueStr, 33, kText, 2},
  };
  for (const Case &c : cases) {
    auto o = Stored("{}");
    cs::testing::FailNext(c.op, 7);
    EXPECT_EQ(SaveCase(c.kind, o.get(), "data", "com.v.p", v, c.type, c.table), 7u)
        << static_cast<int>(c.op) << " kind " << c.kind;
    cs::testing::ClearFailures();
  }
  auto o = Stored("{}");
  EXPECT_EQ(SaveCase(22, o.get(), "data", "com.v.p", v, kText, zp::kTablePort), kFail);
}

TEST_F(PolicyOpaque, LoadFailures) {
  const std::string content =
      R"({"data":{"vendor_specific_config":[{"key":"s.v","value":"1"}],)"
      R"("extra_config":[{"key":"s.e","value":"2"}],)"
      R"("vendor_specific_host_member_config":[{"key":"h.v","value":"3"}],)"
      R"("ruleset_data":[{"key":"p.r","opaque_data":"AQ==","@types":{"opaque_data":"binary"}}],)"
      R"("vendor_specific_data":[{"key":"p.v","value":"4"}]}})";
  auto o = Stored(content);
  TypedProps loaded;
  const struct {
    Op op;
    uint32_t status;
    int skip;
    uint32_t kind, table, result;
  } cases[] = {
      // A data object that cannot be read, and reads that fail.
      {Op::kGetSubObject, 7, 0, 22, zp::kTableGlobal, 7},
      {Op::kGetValueStr, 8, 1, 22, zp::kTableGlobal, 8},
      {Op::kGetValueBinary, 8, 0, 33, zp::kTablePort, 8},
      // Switch: an earlier listing that fails is passed over, the last one is not.
      {Op::kGetSubObjectInstances, 7, 0, 22, zp::kTableGlobal, 0},
      {Op::kGetSubObjectInstances, 7, 2, 22, zp::kTableGlobal, 7},
      {Op::kCreateFilterSpecObject, 5, 1, 22, zp::kTableHost, 5},
      // Port: any listing failure ends the load.
      {Op::kGetSubObjectInstances, 7, 3, 33, zp::kTablePort, 7},
      {Op::kCreateFilterSpecObject, 5, 0, 33, zp::kTablePort, 5},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::Message() << static_cast<int>(c.op) << " skip " << c.skip);
    cs::testing::FailNext(c.op, static_cast<int>(c.status), c.skip);
    EXPECT_EQ(LoadCase(c.kind, o.get(), "data", "DEFAULT", &loaded, c.table), c.result);
    cs::testing::ClearFailures();
    if (c.result == 0) {
      EXPECT_EQ(loaded, (TypedProps{{"s.e", Text("2"), kText}}));
    }
  }
  EXPECT_EQ(LoadCase(33, o.get(), "data", "DEFAULT", &loaded, zp::kTablePort), 0u);
  EXPECT_EQ(loaded, (TypedProps{{"p.r", Bytes{1}, kText},
                                {"s.e", Text("2"), kText},
                                {"p.v", Text("4"), kText}}));
}

}  // namespace
