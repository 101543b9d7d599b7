// Uplink teaming policy records through a real store file and on in-memory objects.
#include <string>

#include "configstore_persist_support.h"

using namespace persisttest;

namespace {

constexpr const char *kVsGlobal = "com.zorlan.vswitch.teaming";
constexpr const char *kVsPort = "com.zorlan.vswitch.port.teaming.policy";
constexpr const char *kEsPort = "com.zorlan.etherswitch.port.teaming";
constexpr const char *kObject = "uplink_teaming_policy";

struct Teaming {
  uint32_t policy = 0, failureFlags = 0;
  uint8_t percentage = 0, fullDuplex = 0;
  uint16_t speed = 0;
  uint32_t teamingFlags = 0, numActive = 0, numStandby = 0;
  std::vector<std::string> names;  // slots 0, 1, ...
};

// The 2616-byte record: the fixed fields in order, then 81-byte name slots.
Bytes Record(const Teaming &t) {
  Bytes b = Cat({U32(t.policy), U32(t.failureFlags), Bytes{t.percentage, t.fullDuplex},
                 Bytes{static_cast<uint8_t>(t.speed), static_cast<uint8_t>(t.speed >> 8)},
                 U32(t.teamingFlags), U32(t.numActive), U32(t.numStandby)});
  b.resize(2616, 0);
  for (size_t i = 0; i < t.names.size(); ++i)
    std::memcpy(b.data() + 24 + 81 * i, t.names[i].data(), std::min<size_t>(t.names[i].size(), 81));
  return b;
}

class PersistTeaming : public RoundTripTest {
 protected:
  Loaded RoundTrip(const std::string &cls, Props global, Props port, uint32_t expect = 0) {
    return RoundTripTest::RoundTrip("sw-t", cls, std::move(global), {std::move(port)}, expect);
  }
  static Bytes Global(const Loaded &sw) {
    const Bytes *v = Find(sw.global, kVsGlobal);
    return v != nullptr ? *v : Bytes{};
  }
};

TEST_F(PersistTeaming, VswitchRecordSavesExactObjectAndLoadsBack) {
  Teaming t{4, 0xFFFFFFFF, 50, 7, 1000, 0xFFFFFFFF, 2, 1, {"u1", "u2", "u3", "left-over"}};
  Loaded sw = RoundTrip("vswitch", {{kVsGlobal, Record(t)}}, {{kVsPort, Record(t)}});
  const std::string expected =
      R"({"best_effort":true,"failure_criteria":{"@types":{"percentage":"uint16","speed":"int32"},)"
      R"("check_beacon":true,"full_duplex":true,"lc_link_state":true,"percentage":50,)"
      R"("speed":1000},)"
      R"("notify_switches":true,"policy":"FAILOVER_EXPLICIT","reverse_policy":true,)"
      R"("rolling_order":true,"shotgun":true,"uplink_port_order":{)"
      R"("active_uplink_ports":["u1","u2"],"standby_uplink_ports":["u3"]}})";
  const std::string json = Json("sw-t");
  EXPECT_EQ(ObjectAt(json, kObject), expected) << json;
  EXPECT_EQ(ObjectAt(json, kObject, json.find(R"("ports":)")), expected) << json;

  // Only failure bits 5 and 7 (plus 9 from the load) and teaming bits 1-5 survive; slots past the
  // counts come back empty; full duplex reads as 1.
  Teaming back = t;
  back.failureFlags = 0x2A0;
  back.teamingFlags = 0x3E;
  back.fullDuplex = 1;
  back.names = {"u1", "u2", "u3"};
  EXPECT_EQ(Global(sw), Record(back));
  EXPECT_EQ(sw.ports.at(0).second, (Props{{kVsPort, Record(back)}}));
}

TEST_F(PersistTeaming, PolicyValuesAndNames) {
  const struct {
    uint32_t value;
    const char *name;  // null: no "policy" key
    uint32_t loaded;
  } cases[] = {{0, nullptr, 0},
               {1, "LOADBALANCE_IP", 1},
               {2, "LOADBALANCE_SRCMAC", 2},
               {3, "LOADBALANCE_SRCID", 3},
               {4, "FAILOVER_EXPLICIT", 4},
               {5, "LOADBALANCE_LOADBASED", 5},
               {6, nullptr, 0},
               {0xFFFFFFFF, nullptr, 0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.value);
    Teaming t{c.value};
    Loaded sw = RoundTrip("cswitch", {{kVsGlobal, Record(t)}}, {});
    const std::string json = ObjectAt(Json("sw-t"), kObject);
    if (c.name != nullptr)
      EXPECT_NE(json.find(std::string(R"("policy":")") + c.name + "\""), std::string::npos) << json;
    else
      EXPECT_EQ(json.find(R"("policy")"), std::string::npos) << json;
    t.policy = c.loaded;
    t.failureFlags = 0x200;
    EXPECT_EQ(Global(sw), Record(t));
  }
}

TEST_F(PersistTeaming, SwitchClassChoosesTheKindThatSavesAndLoads) {
  const Teaming t{0, 0, 0, 0, 1000, 0, 1, 0, {"uplink1"}};
  Teaming back = t;
  back.failureFlags = 0x200;

  // Any other class: the vswitch property is not saved; the etherswitch port property saves the
  // speed as uint16 and loads under its own name.
  Loaded es = RoundTrip("etherswitch", {{kVsGlobal, Record(t)}}, {{kEsPort, Record(t)}});
  std::string json = Json("sw-t");
  EXPECT_EQ(ObjectAt(json, kObject).find("int32"), std::string::npos) << json;
  EXPECT_NE(ObjectAt(json, kObject).find(R"("speed":"uint16")"), std::string::npos) << json;
  EXPECT_EQ(ObjectAt(json, kObject, json.find(R"("ports":)")), ObjectAt(json, kObject)) << json;
  EXPECT_LT(json.find(R"("ports":)"), json.find(R"("uplink_teaming_policy")")) << json;
  EXPECT_EQ(Find(es.global, kVsGlobal), nullptr);
  EXPECT_EQ(es.ports.at(0).second, (Props{{kEsPort, Record(back)}}));

  // vswitch and cswitch: the etherswitch port property is saved but comes back as the vswitch one.
  for (const char *cls : {"vswitch", "cswitch"}) {
    SCOPED_TRACE(cls);
    Loaded vs = RoundTrip(cls, {}, {{kEsPort, Record(t)}});
    EXPECT_EQ(vs.ports.at(0).second, (Props{{kVsPort, Record(back)}}));
  }
}

TEST_F(PersistTeaming, SavedValuesAreCheckedAndCut) {
  zelconfigstore_debug = -1;
  const std::string before = Dump();
  Bytes shortValue = Record(Teaming{});
  shortValue.pop_back();
  RoundTrip("vswitch", {{kVsGlobal, shortValue}}, {}, kFail);
  RoundTrip("etherswitch", {}, {{kEsPort, Bytes{}}}, kFail);
  EXPECT_EQ(Dump(), before);

  // Counts beyond the 32 slots are cut; a slot without a NUL gives 80 characters.
  Teaming t;
  t.numActive = 40;
  t.numStandby = 5;
  for (int i = 0; i < 32; ++i) t.names.push_back("n" + std::to_string(i));
  t.names[0] = std::string(81, 'x');
  Loaded sw = RoundTrip("vswitch", {{kVsGlobal, Record(t)}}, {});
  Teaming back = t;
  back.failureFlags = 0x200;
  back.numActive = 32;
  back.numStandby = 0;
  back.names[0] = std::string(80, 'x');
  EXPECT_EQ(Global(sw), Record(back));

  t.numActive = 30;
  t.numStandby = 0xFFFFFFFF;
  sw = RoundTrip("vswitch", {{kVsGlobal, Record(t)}}, {});
  back.numActive = 30;
  back.numStandby = 2;
  EXPECT_EQ(Global(sw), Record(back));
}

TEST_F(PersistTeaming, HandWrittenObjectsLoadWithinTheRecord) {
  std::string names;
  for (int i = 0; i < 30; ++i) names += (i ? ",\"a" : "\"a") + std::to_string(i) + "\"";
  const std::string longName(100, 'z');
  const std::string content =
      R"({"uuid":"sw-h","max_ports":8,"product":{"forwarding_class":"vswitch","version":"7.0.0"},)"
      R"("settings":{"uplink_teaming_policy":{"policy":"failover_explicit","shotgun":true,)"
      R"("best_effort":false,"uplink_port_order":{"active_uplink_ports":[)" + names +
      R"(],"standby_uplink_ports":[")" + longName + R"(","s1","s2","s3"]}}}})";
  Put("sw-h", content.c_str());
  Loaded sw = LoadOne();
  Teaming t{0, 0, 0, 0, 0, 0x10, 30, 2, {}};  // no "failure_criteria": no failure flags
  for (int i = 0; i < 30; ++i) t.names.push_back("a" + std::to_string(i));
  t.names.push_back(longName.substr(0, 80));
  t.names.push_back("s1");
  EXPECT_EQ(Global(sw), Record(t));

  // Only the object itself: an all-zero record.
  Put("sw-h", R"({"uuid":"sw-h","max_ports":8,"product":{"forwarding_class":"x",)"
              R"("version":"7.0.0"},"resource_management":{},)"
              R"("ports":[{"key":"p1","settings":{"uplink_teaming_policy":{}}}]})");
  sw = LoadOne();
  EXPECT_EQ(sw.ports.at(0).second, (Props{{kEsPort, Record(Teaming{})}}));
}

uint32_t SaveCase(uint32_t kind, const Bytes &value, std::string *json) {
  return PortSaveCase(kind, "p", kObject, value, json);
}

TEST_F(PersistTeaming, StoreFailuresEndTheConversion) {
  using Op = cs::testing::Op;
  const Teaming t{1, 0, 0, 0, 0, 0, 1, 0, {"u"}};
  zp::currentSwitchClass = zp::kClassVswitch;
  const struct {
    Op op;
    int skip;
    const char *written;  // the object as the failure leaves it
  } cases[] = {
      {Op::kCreateSubObject, 0, "{}"},
      {Op::kSetValueStr, 0, R"({"uplink_teaming_policy":{}})"},
      {Op::kSetValueBool, 1,
       R"({"uplink_teaming_policy":{"failure_criteria":{"check_beacon":false},)"
       R"("policy":"LOADBALANCE_IP"}})"},
      {Op::kSetValueInt, 0, nullptr},
      {Op::kCreateSubObject, 2, nullptr},
      {Op::kSetValueEmptyList, 1, nullptr},
      {Op::kAppendValueString, 0, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(static_cast<int>(c.op));
    cs::testing::FailNext(c.op, cs::kStorage, c.skip);
    std::string json;
    EXPECT_EQ(SaveCase(18, Record(t), &json), static_cast<uint32_t>(cs::kStorage));
    cs::testing::ClearFailures();
    if (c.written != nullptr) {
      EXPECT_EQ(json, c.written);
    }
    EXPECT_EQ(json.find(R"("u")"), std::string::npos) << json;
  }
  // Kind 17 alone takes "not found" from creating the object as nothing to do.
  std::string json;
  cs::testing::FailNext(Op::kCreateSubObject, cs::kNotFound);
  EXPECT_EQ(SaveCase(17, Record(t), &json), 0u);
  EXPECT_EQ(json, "{}");
  cs::testing::FailNext(Op::kCreateSubObject, cs::kNotFound);
  EXPECT_EQ(SaveCase(18, Record(t), &json), static_cast<uint32_t>(cs::kNotFound));
  zp::currentSwitchClass = zp::kClassOther;
}

}  // namespace
