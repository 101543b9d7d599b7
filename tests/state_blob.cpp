// The state blob: both writers' bytes against an independent encoder, round
// trips through both readers, refusals, and allocation failures.
#include <string>

#include "data/property_list_internal.h"
#include "state_fixture.h"

using namespace zelstatetest;
namespace st = zel::state::testing;
namespace fa = zeltest::failalloc;

namespace {

Bytes ClassField(const std::string &name) {
  Bytes field(ZEL_CLASS_NAME_SIZE, 0);
  std::memcpy(field.data(), name.data(), name.size());
  return field;
}

Bytes SwitchBlob(uint32_t version, const std::string &cls, uint32_t maxPorts,
                 const std::vector<Entry> &global, const std::vector<Entry> &host,
                 const std::vector<Entry> &ports) {
  std::vector<Entry> entries = {{"switchVersion", U32(version)},
                                {"className", ClassField(cls)},
                                {"maxPorts", U32(maxPorts)},
                                {"globalPropList", Encode(global)},
                                {"hostPropList", Encode(host)}};
  entries.insert(entries.end(), ports.begin(), ports.end());
  return Encode(entries);
}

ReturnStatus Load(const Bytes &blob) {
  return ZELState_ConfigDeserialize(blob.data(), static_cast<uint32_t>(blob.size()));
}

// The status, blob and messages of the writer in place, or of the
// level-by-level one (which a test allocator selects).
struct Written {
  ReturnStatus status;
  Bytes blob;
  std::string out;
  bool operator==(const Written &) const = default;
};
Written Write(bool inPlace) {
  st::SetAllocator(inPlace ? nullptr : fa::Alloc, inPlace ? nullptr : fa::Free);
  zeltest::ScopedLevel data(zeldata_debug, 0), state(zel_debug, 2);
  Written w{};
  void *buffer = nullptr;
  uint32_t length = 0;
  w.out = zeltest::CaptureStdout([&] { w.status = ZELState_ConfigSerialize(&buffer, &length); });
  w.blob = AsBytes(buffer, length);
  inPlace ? std::free(buffer) : fa::Free(buffer);
  st::SetAllocator(nullptr, nullptr);
  return w;
}

using StateBlobTest = StateTest;

TEST_F(StateBlobTest, BothWritersGiveTheExactBytesWithPortsOfEveryKind) {
  EXPECT_EQ(StateBlob(), Encode({}));
  ASSERT_EQ(ZELState_SwitchAdd("a", "mine", 10, 107), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("b", "vswitch", 0, 3), STATUS_OK);  // version notices
  ASSERT_EQ(ZELState_GlobalPropSet("a", ZEL_PROP_SWITCH_ALIAS, "sky", 4, 0), STATUS_OK);
  ASSERT_EQ(ZELState_HostPropSet("a", "h", "\x01\x02\x03", 3, 24), STATUS_OK);
  ASSERT_EQ(AddPort("a", "1", PORT_KIND_NORMAL, {{"p", Text("x")}, {"e", {}}}), STATUS_OK);
  ASSERT_EQ(AddPort("a", "gone"), STATUS_OK);
  ASSERT_EQ(AddPort("a", "1", PORT_KIND_SHADOW), STATUS_OK);
  ASSERT_EQ(AddPort("a", "z", PORT_KIND_ZOMBIE), STATUS_OK);
  ASSERT_EQ(AddPort("a", "z", PORT_KIND_ZOMBIE), STATUS_OK);
  ASSERT_EQ(AddPort("b", "c", PORT_KIND_LOCAL_CACHE, {{"v", Bytes(301, 7)}}), STATUS_OK);
  ZEL_PortSetKind(ZELState_PortFind("a", "gone"), PORT_KIND_NONE);
  const Written direct = Write(true);
  EXPECT_EQ(
      direct.blob,
      Encode({
          {"a", SwitchBlob(107, "mine", 10, {{ZEL_PROP_SWITCH_ALIAS, Text("sky"), 32}},
                           {{"h", Bytes{1, 2, 3}, 24}},
                           {{"1", Encode({{"p", Text("x")}, {"e", {}}})},
                            {"1", Encode({})},
                            {"z", Encode({})},
                            {"z", Encode({})}})},
          {"b", SwitchBlob(3, "vswitch", 4096, {}, {}, {{"c", Encode({{"v", Bytes(301, 7)}})}})},
      }));
  EXPECT_EQ(Write(false), direct);
  EXPECT_NE(direct.out.find("ZEL version 3 is smaller than 6.0.\n"), std::string::npos);
  // A port list whose serialSize disagrees with its entries, either way, fails
  // both ways alike.
  const std::pair<int, std::string> rows[] = {
      {4, "buflen = 312, lenRemaining = 8, name NULL, size 0\n"},
      {-8, "buflen = 300, lenRemaining = 140, name e, size 144\n"}};
  for (const auto &[delta, text] : rows) {
    ZEL_PortData(ZELState_PortFind("a", "1"))->serialSize += delta;
    const Written bad = Write(true);
    EXPECT_EQ(bad.status, STATUS_EXISTS);
    EXPECT_EQ(Write(false), bad);
    EXPECT_NE(bad.out.find("ZELData length changed during serialization, " + text),
              std::string::npos);
    ZEL_PortData(ZELState_PortFind("a", "1"))->serialSize -= delta;
  }
}

TEST_F(StateBlobTest, RoundTripKeepsOrderAndClosesSlotGaps) {
  ASSERT_EQ(ZELState_SwitchAdd("gap", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("a", "mine", 12, 6), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("b", "qorvswitch", 0, 100), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchRemove("gap"), STATUS_OK);
  ASSERT_EQ(ZELState_GlobalPropSet("a", "g", "gv", 3, 16), STATUS_OK);
  ASSERT_EQ(ZELState_HostPropSet("b", "h", "hv", 3, 4), STATUS_OK);
  for (uint32_t i = 0; i < 8; ++i) {
    ASSERT_EQ(AddPort("a", std::to_string(i).c_str(), PORT_KIND_NORMAL, {{"n", U32(i)}}),
              STATUS_OK);
  }
  for (const char *p : {"1", "2", "4", "5", "6"}) ASSERT_EQ(ZELState_PortRemove("a", p), STATUS_OK);
  const Bytes blob = StateBlob();
  for (int level : {0, 2}) {  // read in place, and through lists with traces on
    SCOPED_TRACE(level);
    ASSERT_EQ(ZELState_ConfigReset(), STATUS_OK);
    const std::string out = Output(level, [&] {
      zeltest::ScopedLevel data(zeldata_debug, level);
      ASSERT_EQ(Load(blob), STATUS_OK);
    });
    EXPECT_EQ(out.find("ZELState_PortDeserialize a, 3\n") != std::string::npos, level == 2);
    const std::string noType = "ZELState_PortDeserialize: no type for a, 3\n";
    EXPECT_NE(out.find(noType), std::string::npos);
    EXPECT_EQ(Slots()[1], "b");
    EXPECT_EQ(ZEL_GetNewMaxPorts(ZELState_SwitchFind("a")), 12u);
    int slot = 0;
    for (const char *p : {"0", "3", "7"})
      EXPECT_EQ(st::PortSlot(ZELState_PortFind("a", p)), slot++);
    EXPECT_EQ(HostPorts(), 3u);
    // Everything else read back shows in the bytes; compacting slots keeps the order only.
    EXPECT_EQ(StateBlob(), blob);
  }
  // A malformed blob leaves the table alone.
  Bytes bad = blob;
  bad[8] = 2;  // header version
  EXPECT_NE(Output(0, [&] { EXPECT_EQ(Load(bad), STATUS_BAD_PARAM); })
                .find("ZELState_ConfigDeserialize failed Bad parameter\n"),
            std::string::npos);
  EXPECT_EQ(StateBlob(), blob);
}

// A missing version means version 0 (short port ids), absent lists leave the
// switch its own empty ones, longer numbers are read from their first four
// bytes, and class rules apply on rebuild.
TEST_F(StateBlobTest, MissingAndLongerFields) {
  ASSERT_EQ(Load(Encode({{"s", Encode({{"className", ClassField("vswitch")},
                                       {"maxPorts", U32(0)},
                                       {std::string(15, 'p'), Encode({})}})},
                         {"t", Encode({{"switchVersion", Bytes{7, 0, 0, 0, 9}},
                                       {"className", Text("mine")},
                                       {"maxPorts", Bytes{5, 0, 0, 0, 0, 0}}})}})),
            STATUS_OK);
  EXPECT_EQ(ZEL_Version(ZELState_SwitchFind("s")), 0u);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("s")), 4096u);
  EXPECT_EQ(AddPort("s", std::string(16, 'p').c_str()), STATUS_BAD_PARAM);
  EXPECT_TRUE(ListProps(ZEL_GlobalPropList(ZELState_SwitchFind("s"))).empty());
  EXPECT_EQ(ZEL_Version(ZELState_SwitchFind("t")), 7u);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("t")), 5u);
}

// A switch that cannot be rebuilt empties the whole table, also of what was
// there before the load.
TEST_F(StateBlobTest, FailedSwitchEmptiesTheWholeTable) {
  const Bytes cls = ClassField("vswitch");
  Bytes badPort = Encode({{"k", Text("v")}});
  badPort[100] ^= 1;  // checksum no longer matches
  const Bytes shortKind = Encode({{ZEL_PROP_PORT_TYPE, Bytes{2, 0}}});
  const struct {
    Bytes sw;
    ReturnStatus status;
    std::string text;
  } rows[] = {
      {Encode({{"switchVersion", U32(7)}, {"maxPorts", U32(1)}}), STATUS_NOT_FOUND,
       "ZELState_SwitchDeserialize zel s return Not found\n"
       "ZELState_SwitchDeserialize failed Not found\n"},
      {SwitchBlob(7, "vswitch", 0, {}, {}, {{"1", Encode({})}, {"2", badPort}}),
       STATUS_BAD_CHECKSUM, "ZELState_SwitchDeserialize zel s return Bad checksum\n"},
      {Encode({{"switchVersion", Bytes{7, 0, 0}}, {"className", cls}, {"maxPorts", U32(0)}}),
       STATUS_BAD_PARAM, ""},
      {Encode({{"switchVersion", U32(7)}, {"className", cls}, {"maxPorts", Bytes{1}}}),
       STATUS_BAD_PARAM, ""},
      {Encode({{"switchVersion", U32(7)}, {"className", Bytes(8, 'c')}, {"maxPorts", U32(0)}}),
       STATUS_BAD_PARAM, ""},
      {SwitchBlob(7, "vswitch", 0, {}, {}, {{"1", Encode({})}, {"2", shortKind}}), STATUS_BAD_PARAM,
       ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    ASSERT_EQ(ZELState_SwitchAdd("before", "vswitch", 0, 7), STATUS_OK);
    ASSERT_EQ(AddPort("before", "1"), STATUS_OK);
    const Bytes blob = Encode({{"ok", SwitchBlob(7, "vswitch", 0, {}, {}, {})}, {"s", row.sw}});
    const std::string out = Output(1, [&] { EXPECT_EQ(Load(blob), row.status); });
    EXPECT_NE(out.find(row.text), std::string::npos) << out;
    EXPECT_TRUE(DatabaseEmpty());
    EXPECT_EQ(HostPorts(), 0u);
  }
  ASSERT_EQ(ZELState_SwitchAdd("dup", "vswitch", 0, 7), STATUS_OK);
  ExpectOutput(
      0, STATUS_EXISTS,
      "ZELState_SwitchAdd failed ZEL:dup Error: Already exists\nZELState_SwitchDeserialize Switch "
      "add failed dup/mine//3\nZELState_SwitchDeserialize failed Already exists\n",
      [&] {
        return Load(Encode({{"dup", SwitchBlob(7, "mine", 3, {}, {}, {})}}));
      });
  EXPECT_TRUE(DatabaseEmpty());
}

// Every allocation of a deserialization and a serialization is made to fail
// in turn: the result is a defined status, nothing leaks, a failed load
// leaves the table empty, and a failed save gives no buffer.
TEST_F(StateBlobTest, EveryAllocationFailureIsCleanedUp) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "mine", 4, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("b", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_GlobalPropSet("a", "g", "1", 2, 0), STATUS_OK);
  ASSERT_EQ(AddPort("a", "1", PORT_KIND_NORMAL, {{ZEL_PROP_PORT_TYPE, U32(2)}, {"x", Text("y")}}),
            STATUS_OK);
  ASSERT_EQ(AddPort("b", "2", PORT_KIND_NORMAL, {{"x", Text("y")}}), STATUS_OK);
  const Bytes blob = StateBlob();
  ASSERT_EQ(ZELState_ConfigReset(), STATUS_OK);
  st::SetAllocator(fa::Alloc, fa::Free);
  ReturnStatus status = STATUS_NO_MEMORY;
  for (uint64_t k = 1; status != STATUS_OK; ++k) {
    ASSERT_LT(k, 200u);
    fa::FailAt(k);
    status = Load(blob);
    fa::FailAt(0);
    if (status == STATUS_OK) break;
    ASSERT_EQ(status, STATUS_NO_MEMORY) << k;
    ASSERT_TRUE(DatabaseEmpty()) << k;
    ASSERT_EQ(fa::Live(), 0) << k;
  }
  // A port's kind comes from its type entry, which is then dropped.
  EXPECT_EQ(ListProps(ZEL_PortData(ZELState_PortFindShadow("a", "1"))), (Props{{"x", Text("y")}}));
  st::SetAllocator(nullptr, nullptr);
  const Bytes reloaded = StateBlob();
  st::SetAllocator(fa::Alloc, fa::Free);
  status = STATUS_NO_MEMORY;
  for (uint64_t k = 1; status != STATUS_OK; ++k) {
    ASSERT_LT(k, 200u);
    const int64_t live = fa::Live();
    void *buffer = nullptr;
    uint32_t length = 0;
    fa::FailAt(k);
    const std::string out = Output(0, [&] { status = ZELState_ConfigSerialize(&buffer, &length); });
    fa::FailAt(0);
    if (k <= 2) {
      EXPECT_EQ(out, k == 1 ? "ZELState_ConfigSerialize, alloc failed\n"
                            : "ZELStateConfigSerializeCB ZEL a failed Out of memory\n");
    }
    if (status == STATUS_OK) {
      EXPECT_EQ(AsBytes(buffer, length), reloaded);
      fa::Free(buffer);
    } else {
      ASSERT_TRUE(status == STATUS_NO_MEMORY || status == STATUS_EXISTS) << k;
      ASSERT_EQ(buffer, nullptr) << k;
    }
    ASSERT_EQ(fa::Live(), live) << k;
  }
  uint8_t small[16];  // a caller's buffer that is too small
  void *buffer = small;
  uint32_t length = sizeof small;
  EXPECT_EQ(ZELState_SwitchSerialize(ZELState_SwitchFind("a"), &buffer, &length),
            STATUS_LIMIT_EXCEEDED);
  ASSERT_EQ(ZELState_ConfigReset(), STATUS_OK);
  EXPECT_EQ(fa::Live(), 0);
}

}  // namespace
