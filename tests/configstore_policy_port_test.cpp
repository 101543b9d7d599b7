// Traffic shaper, MAC management and filter policy conversions, through a real store file and on
// in-memory objects.
#include <string>

#include "configstore/policy/port_policies.h"
#include "configstore_persist_support.h"

using namespace persisttest;
using Op = cs::testing::Op;

namespace {

constexpr const char *kShaperIn = "com.zorlan.common.port.shaper.input";
constexpr const char *kShaperOut = "com.zorlan.common.port.shaper.output";
constexpr const char *kEtherSecurity = "com.zorlan.etherswitch.port.security";
constexpr const char *kVswitchSecurity = "com.zorlan.vswitch.port.security";
constexpr const char *kFilter = "com.zorlan.common.port.dvfilter";

Bytes U64(uint64_t v) {
  Bytes b(8);
  std::memcpy(b.data(), &v, 8);
  return b;
}

// One filter record; numParams is params.size() unless given.
Bytes Filter(uint32_t slot, const std::string &agent, uint32_t onFailure,
             const std::vector<std::pair<uint32_t, std::string>> &params, int64_t numParams = -1) {
  Bytes b = Cat({U32(slot), Slot(agent, 40),
                 U32(static_cast<uint32_t>(numParams < 0 ? params.size() : numParams)),
                 U32(onFailure)});
  for (const auto &[index, value] : params) b = Cat({b, U32(index), Slot(value, 256)});
  return b;
}
Bytes Filters(uint32_t count, std::initializer_list<Bytes> filters) {
  Bytes b = U32(count);
  for (const Bytes &f : filters) b = Cat({b, f});
  return b;
}

class PersistPortPolicy : public PersistTest {
 protected:
  ScopedKinds pools_{{36}, zp::KindCase{NoSave, NoLoad}};

  void TearDown() override {
    zel::persist::policy::testing::SetFilterAllocator(nullptr);
    PersistTest::TearDown();
  }

  // Saves switch "sw" with port p1; ports load only under "resource_management".
  uint32_t SavePort(const std::string &cls, const Props &port) {
    SwitchDef s;
    s.id = "sw";
    s.cls = cls;
    s.global = {{"com.zorlan.common.version", U32(7)},
                {"com.zorlan.common.respools.sched", Bytes{0}}};
    s.ports = {{"p1", port}};
    return Save({s});
  }
  std::string StoredSettings() { return ObjectAt(Json("sw"), "settings"); }
  Props LoadPort() {
    Loaded sw = LoadOne();
    return sw.ports.size() == 1 ? sw.ports[0].second : Props{};
  }
  void PutSettings(const std::string &cls, const std::string &settings) {
    const std::string content =
        R"({"uuid":"sw","max_ports":8,"product":{"forwarding_class":")" + cls +
        R"(","version":"7.0.0"},"qor_enabled":false,"resource_management":{"enable":false},)"
        R"("ports":[{"key":"p1","settings":)" + settings + "}]}";
    Put("sw", content.c_str());
  }

  static uint32_t LoadCase(uint32_t kind, const char *name, const char *key,
                           const std::string &settings, Props *props) {
    cs::Object *o = nullptr;
    EXPECT_EQ(cs::CreateObject("switches", "network_zel", "orn", "direct", settings.c_str(), &o),
              0);
    cfgtest::ObjectPtr owner(o);
    PropertyList *list = zelstatetest::MakeList({});
    const zp::LoadArgs args{o, o, key, list, name, 16, zp::kTablePort, 7};
    const uint32_t status = zp::FindKind(kind)->load(args);
    *props = zelstatetest::ListProps(list);
    ZELData_Free(list);
    return status;
  }
};

TEST_F(PersistPortPolicy, ShaperIsStoredTimesEightAndLoadsBack) {
  const std::string kInt64s =
      R"({"@types":{"average_bandwidth":"int64","burst_size":"int64","peak_bandwidth":"int64"},)";
  // {1000, 2000, 3000}, and a number whose product wraps modulo 2^64.
  const Bytes in = {0xE8, 0x03, 0, 0, 0, 0, 0, 0, 0xD0, 0x07, 0, 0, 0, 0, 0, 0,
                    0xB8, 0x0B, 0, 0, 0, 0, 0, 0};
  const Bytes out = Cat({U64(1), U64(0x2000000000000001ull), U64(0)});
  ASSERT_EQ(SavePort("etherswitch", {{kShaperIn, in}, {kShaperOut, out}}), 0u);
  EXPECT_EQ(StoredSettings(),
            R"({"in_shaping_policy":)" + kInt64s +
                R"("average_bandwidth":8000,"burst_size":24000,"enabled":true,)"
                R"("peak_bandwidth":16000},"out_shaping_policy":)" +
                kInt64s +
                R"("average_bandwidth":8,"burst_size":0,"enabled":true,"peak_bandwidth":8}})");
  EXPECT_EQ(LoadPort(), (Props{{kShaperIn, in}, {kShaperOut, Cat({U64(1), U64(1), U64(0)})}}));

  // Remainders are lost, division rounds toward zero, missing keys give 0, and "enabled" is not
  // looked at.
  PutSettings("etherswitch",
              R"({"in_shaping_policy":{"average_bandwidth":12,"peak_bandwidth":-12,)"
              R"("enabled":false},"out_shaping_policy":{"burst_size":"8"}})");
  EXPECT_EQ(LoadPort(), (Props{{kShaperIn, Cat({U64(1), U64(~uint64_t{0}), U64(0)})},
                               {kShaperOut, Cat({U64(0), U64(0), U64(0)})}}));

  // Only the input row with the input object and the output row with the output object load.
  Props props;
  const std::string both = R"({"in_shaping_policy":{"burst_size":80},)"
                           R"("out_shaping_policy":{"burst_size":800}})";
  EXPECT_EQ(LoadCase(26, kShaperIn, "out_shaping_policy", both, &props), 0u);
  EXPECT_TRUE(props.empty());
  EXPECT_EQ(LoadCase(26, kShaperOut, "out_shaping_policy", both, &props), 0u);
  EXPECT_EQ(props, (Props{{kShaperOut, Cat({U64(0), U64(0), U64(100)})}}));
}

TEST_F(PersistPortPolicy, MacManagementStoresAllowancesAndLoadsByClass) {
  // Both rows save into the one object on every class (the later row wins); it loads as the
  // etherswitch property on other classes, as the vswitch one on vswitch and cswitch.  Bits above 2
  // are dropped.
  struct Case {
    const char *cls;
    const char *loadsAs;
  } cases[] = {{"etherswitch", kEtherSecurity},
               {"pyxswitch", kEtherSecurity},
               {"vswitch", kVswitchSecurity},
               {"cswitch", kVswitchSecurity}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.cls);
    ASSERT_EQ(SavePort(c.cls, {{kEtherSecurity, U32(0)}, {kVswitchSecurity, U32(0xFFFFFFFD)}}),
              0u);
    EXPECT_EQ(StoredSettings(),
              R"({"mac_management_policy":{"allow_forged_transmit":false,)"
              R"("allow_mac_change":true,"allow_promiscuous":false}})");
    EXPECT_EQ(LoadPort(), (Props{{c.loadsAs, U32(0x5)}}));
  }

  // A missing or unreadable allowance leaves its bit clear.
  PutSettings("etherswitch", R"({"mac_management_policy":{"allow_promiscuous":false,)"
                             R"("allow_mac_change":"no"}})");
  EXPECT_EQ(LoadPort(), (Props{{kEtherSecurity, U32(0x1)}}));
}

TEST_F(PersistPortPolicy, FiltersSaveOneInstancePerSlotAndLoadBackPacked) {
  // Two filters, the first with two parameters (indexes as the kernel left them), the second with
  // none and a slot that is -1 when signed.
  const Bytes first = Filter(2, "guard", 1, {{7, "a=1"}, {9, "mode=strict"}});
  const Bytes second = Filter(4294967295u, "tap", 5, {});
  const Bytes value = Filters(2, {first, second});
  ASSERT_EQ(value.size(), 628u);
  ASSERT_EQ(SavePort("etherswitch", {{kFilter, value}}), 0u);
  EXPECT_EQ(StoredSettings(),
            R"({"filter_policy":{"network_filters":[)"
            R"({"agent_name":"guard","key":"2","on_failure":"FAIL_OPEN",)"
            R"("parameters":["a=1","mode=strict"],"slot_number":"2"},)"
            R"({"agent_name":"tap","key":"-1","on_failure":"FAIL_CLOSED","parameters":[],)"
            R"("slot_number":"4294967295"}]}})");

  // The load numbers the parameters and maps every failure mode but 1 to 0; the second filter
  // starts at 4 + 52 + 520 = 576.
  const Props loaded = LoadPort();
  ASSERT_EQ(loaded.size(), 1u);
  const Bytes &bytes = loaded[0].second;
  EXPECT_EQ(bytes, Filters(2, {Filter(2, "guard", 1, {{0, "a=1"}, {1, "mode=strict"}}),
                               Filter(4294967295u, "tap", 0, {})}));
  EXPECT_EQ(Bytes(bytes.begin() + 576, bytes.begin() + 580), U32(4294967295u));

  // No filters: an empty list, loaded back as the 4-byte count 0.
  ASSERT_EQ(SavePort("etherswitch", {{kFilter, U32(0)}}), 0u);
  EXPECT_EQ(StoredSettings(), R"({"filter_policy":{"network_filters":[]}})");
  EXPECT_EQ(LoadPort(), (Props{{kFilter, U32(0)}}));
}

TEST_F(PersistPortPolicy, StoredFiltersAreReadWithinTheirSlots) {
  const std::string agent(60, 'a'), param(300, 'p');
  PutSettings("vswitch", R"({"filter_policy":{"network_filters":[)"
                         R"({"key":"x","agent_name":")" + agent +
                             R"(","slot_number":"-1","on_failure":"fail_open",)"
                             R"("parameters":[")" + param + R"(","b"]},)"
                             R"({"key":"y","slot_number":"abc","on_failure":"FAIL_OPEN"},)"
                             R"({"key":"z","agent_name":7,"slot_number":"12"}]}})");
  EXPECT_EQ(LoadPort(),
            (Props{{kFilter, Filters(3, {Filter(4294967295u, agent.substr(0, 39), 0,
                                                {{0, param.substr(0, 255)}, {1, "b"}}),
                                         Filter(0, "", 1, {}), Filter(12, "", 0, {})})}}));

  // No filter_policy object loads nothing; a policy without a list loads the count 0.
  PutSettings("vswitch", R"({"shaping":1})");
  EXPECT_TRUE(LoadPort().empty());
  PutSettings("vswitch", R"({"filter_policy":{}})");
  EXPECT_EQ(LoadPort(), (Props{{kFilter, U32(0)}}));
}

TEST_F(PersistPortPolicy, ShortValuesAreRefusedBeforeAnythingIsWritten) {
  const Bytes one = Filter(1, "f", 0, {{0, "x"}});
  struct Case {
    const char *name;
    Bytes value;
  } cases[] = {
      {kShaperIn, Bytes(23, 0)},
      {kEtherSecurity, Bytes{1, 2, 3}},
      {kFilter, Bytes{0, 0, 0}},
      {kFilter, Filters(1, {Bytes(one.begin(), one.begin() + 51)})},
      {kFilter, Filters(1, {Bytes(one.begin(), one.end() - 1)})},
      {kFilter, Filters(2, {one})},
      {kFilter, Filters(1, {Filter(1, "f", 0, {{0, "x"}}, 0xFFFFFFFF)})},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(::testing::Message() << c.name << " " << c.value.size());
    std::string json;
    EXPECT_EQ(PortSaveCase(zp::FindRow(zp::kTablePort, c.name)->kind, c.name, "policy", c.value,
                       &json),
              kFail);
    EXPECT_EQ(json, "{}");
  }
  // Longer values are read up to what their counts need; texts without a NUL end with their slot.
  std::string json;
  const std::string agent(40, 'n');
  Bytes value = Filters(1, {Filter(3, agent, 1, {{0, std::string(256, 'v')}})});
  value.resize(value.size() + 5, 0xEE);
  ASSERT_EQ(PortSaveCase(29, kFilter, "filter_policy", value, &json), 0u);
  EXPECT_NE(json.find(R"("agent_name":")" + agent + R"(")"), std::string::npos) << json;
  EXPECT_NE(json.find(R"("parameters":[")" + std::string(256, 'v') + R"("])"),
            std::string::npos);
}

TEST_F(PersistPortPolicy, StoreFailuresEndTheSaveWithTheirStatus) {
  const Bytes shaper = Cat({U64(1), U64(2), U64(3)});
  const Bytes filters = Filters(2, {Filter(1, "a", 1, {{0, "p"}}), Filter(2, "b", 1, {})});
  const struct {
    uint32_t kind;
    const char *name, *key;
    Bytes value;
    Op op;
    uint32_t status;
    int skip;
    const char *written;  // null: not compared
  } cases[] = {
      // What was written before the failure stays.
      {26, kShaperIn, "in_shaping_policy", shaper, Op::kSetValueLong, 7, 1,
       R"({"in_shaping_policy":{"@types":{"average_bandwidth":"int64"},)"
       R"("average_bandwidth":8,"enabled":true}})"},
      {27, kEtherSecurity, "mac_management_policy", U32(0), Op::kSetValueBool, 8, 2, nullptr},
      {28, kVswitchSecurity, "mac_management_policy", U32(0), Op::kCreateSubObject, 5, 0, "{}"},
      {29, kFilter, "filter_policy", filters, Op::kSetValueEmptyList, 3, 1, nullptr},
      {29, kFilter, "filter_policy", filters, Op::kCreateSubObject, 3, 2, nullptr},
      {29, kFilter, "filter_policy", filters, Op::kSetValueStr, 3, 4, nullptr},
      {29, kFilter, "filter_policy", filters, Op::kAppendValueString, 3, 0, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::Message() << c.kind << " " << static_cast<int>(c.op));
    std::string json;
    cs::testing::FailNext(c.op, static_cast<int>(c.status), c.skip);
    EXPECT_EQ(PortSaveCase(c.kind, c.name, c.key, c.value, &json), c.status);
    cs::testing::ClearFailures();
    if (c.written != nullptr) {
      EXPECT_EQ(json, c.written);
    }
  }
}

TEST_F(PersistPortPolicy, FilterLoadFailuresAndItsTwoPasses) {
  const std::string twoFilters =
      R"({"filter_policy":{"network_filters":[)"
      R"({"key":"1","slot_number":"1","parameters":["p","q"]},)"
      R"({"key":"2","slot_number":"2","parameters":["r"]}]}})";
  Props props;
  // A policy that cannot be read fails the load; the shaper and MAC objects are skipped instead.
  cs::testing::FailNext(Op::kGetSubObject, 3);
  EXPECT_EQ(LoadCase(29, kFilter, "filter_policy", twoFilters, &props), 3u);
  cs::testing::FailNext(Op::kGetSubObject, 3);
  EXPECT_EQ(LoadCase(26, kShaperIn, "in_shaping_policy", R"({"in_shaping_policy":{}})", &props),
            0u);
  EXPECT_TRUE(props.empty());
  // Either filter spec failing returns its status.
  for (int skip : {0, 1}) {
    cs::testing::FailNext(Op::kCreateFilterSpecObject, 2, skip);
    EXPECT_EQ(LoadCase(29, kFilter, "filter_policy", twoFilters, &props), 2u);
    EXPECT_TRUE(props.empty());
  }

  // A parameter list that reads in the second pass but not in the first gets no room, and the next
  // filter follows the first one's header.
  cs::testing::FailNext(Op::kGetValueStringArray, 3);
  EXPECT_EQ(LoadCase(29, kFilter, "filter_policy", twoFilters, &props), 0u);
  EXPECT_EQ(props, (Props{{kFilter, Filters(2, {Filter(1, "", 0, {}),
                                                Filter(2, "", 0, {{0, "r"}})})}}));
  // One that reads in the first pass only: the room made for it stays zero at the value's end, and
  // the next filter follows the first one's header.
  cs::testing::FailNext(Op::kGetValueStringArray, 3, 2);
  EXPECT_EQ(LoadCase(29, kFilter, "filter_policy", twoFilters, &props), 0u);
  Bytes packed = Filters(2, {Filter(1, "", 0, {}), Filter(2, "", 0, {{0, "r"}})});
  packed.resize(packed.size() + 2 * 260, 0);
  EXPECT_EQ(props, (Props{{kFilter, packed}}));
  // Instances the first pass did not list are not written.
  cs::testing::FailNext(Op::kGetSubObjectInstances, 3);
  EXPECT_EQ(LoadCase(29, kFilter, "filter_policy", twoFilters, &props), 0u);
  EXPECT_EQ(props, (Props{{kFilter, U32(0)}}));

  zel::persist::policy::testing::SetFilterAllocator([](size_t, size_t) -> void * {
    return nullptr;
  });
  zeltest::ScopedLevel level(zelconfigstore_debug, 0);
  const std::string out = zeltest::CaptureStdout([&] {
    EXPECT_EQ(LoadCase(29, kFilter, "filter_policy", twoFilters, &props), kFail);
  });
  EXPECT_EQ(out, "Failed to alloc memory for DVFilterConfig");
  EXPECT_TRUE(props.empty());
}

}  // namespace
