// The state blob: exact bytes against an independent encoder of the
// serialized form, round trips, refusals, and allocation failures.
#include <string>
#include <tuple>

#include "state_fixture.h"

using namespace zelstatetest;
namespace st = zel::state::testing;

namespace {

// An independent encoder of serialized property data (the checksum sums the
// words from byte 32 on).
struct Entry {
  std::string name;
  Bytes value;
  uint32_t type = 16;
};

void Put32(Bytes &b, size_t at, uint32_t v) { std::memcpy(b.data() + at, &v, 4); }

Bytes Encode(const std::vector<Entry> &entries) {
  Bytes b(12, 0);
  for (const Entry &e : entries) {
    size_t at = b.size();
    uint32_t entryLength = (static_cast<uint32_t>(e.value.size()) + 146) & ~3u;
    b.resize(at + entryLength, 0);
    Put32(b, at, entryLength);
    std::memcpy(b.data() + at + 4, e.name.data(), e.name.size());
    Put32(b, at + 132, e.type);
    Put32(b, at + 136, static_cast<uint32_t>(e.value.size()));
    std::memcpy(b.data() + at + 140, e.value.data(), e.value.size());
  }
  b.resize(b.size() + 4, 0);
  uint32_t size = static_cast<uint32_t>(b.size());
  Put32(b, 0, size);
  b[8] = 1;
  uint32_t sum = 0;
  for (size_t off = 32; off + 4 <= size; off += 4) {
    uint32_t w;
    std::memcpy(&w, b.data() + off, 4);
    sum += w;
  }
  Put32(b, 4, sum);
  return b;
}

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

using StateBlobTest = StateTest;

TEST_F(StateBlobTest, EmptyTableIsTheEmptyList) {
  EXPECT_EQ(StateBlob(), (Bytes{16, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Load(StateBlob()), STATUS_OK);
  EXPECT_EQ(Slots(), std::vector<std::string>(32, ""));
}

TEST_F(StateBlobTest, ExactBytesWithPropertiesAndPortsOfEveryKind) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "mine", 10, 107), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("b", "vswitch", 0, 5), STATUS_OK);
  ASSERT_EQ(ZELState_GlobalPropSet("a", ZEL_PROP_SWITCH_ALIAS, "sky", 4, 0), STATUS_OK);
  ASSERT_EQ(ZELState_HostPropSet("a", "h", "\x01\x02", 2, 24), STATUS_OK);
  ASSERT_EQ(AddPort("a", "1", PORT_KIND_NORMAL, {{"p", Text("x")}}), STATUS_OK);
  ASSERT_EQ(AddPort("a", "gone"), STATUS_OK);
  ASSERT_EQ(AddPort("a", "1", PORT_KIND_SHADOW), STATUS_OK);
  ASSERT_EQ(AddPort("a", "z", PORT_KIND_ZOMBIE), STATUS_OK);
  ASSERT_EQ(AddPort("a", "z", PORT_KIND_ZOMBIE), STATUS_OK);
  ASSERT_EQ(AddPort("b", "c", PORT_KIND_LOCAL_CACHE), STATUS_OK);
  ZEL_PortSetKind(ZELState_PortFind("a", "gone"), PORT_KIND_NONE);
  Bytes expected = Encode({
      {"a", SwitchBlob(107, "mine", 10, {{ZEL_PROP_SWITCH_ALIAS, Text("sky"), 32}},
                       {{"h", Bytes{1, 2}, 24}},
                       {{"1", Encode({{"p", Text("x")}})},
                        {"1", Encode({})},
                        {"z", Encode({})},
                        {"z", Encode({})}})},
      {"b", SwitchBlob(5, "vswitch", 4096, {}, {}, {{"c", Encode({})}})},
  });
  EXPECT_EQ(StateBlob(), expected);
}

TEST_F(StateBlobTest, RoundTripKeepsOrderAndClosesSlotGaps) {
  ASSERT_EQ(ZELState_SwitchAdd("gap", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("a", "mine", 12, 6), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("b", "qorvswitch", 0, 100), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchRemove("gap"), STATUS_OK);
  ASSERT_EQ(ZELState_GlobalPropSet("a", "g", "gv", 3, 16), STATUS_OK);
  ASSERT_EQ(ZELState_HostPropSet("b", "h", "hv", 3, 4), STATUS_OK);
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(AddPort("a", std::to_string(i).c_str(), PORT_KIND_NORMAL,
                      {{"n", U32(static_cast<uint32_t>(i))}}),
              STATUS_OK);
  }
  for (const char *p : {"1", "2", "4", "5", "6"}) ASSERT_EQ(ZELState_PortRemove("a", p), STATUS_OK);
  Bytes blob = StateBlob();
  ASSERT_EQ(ZELState_ConfigReset(), STATUS_OK);
  ASSERT_EQ(Load(blob), STATUS_OK);
  EXPECT_EQ(Slots()[1], "b");
  EXPECT_EQ(ZEL_GetNewMaxPorts(ZELState_SwitchFind("a")), 12u);
  int slot = 0;
  for (const char *p : {"0", "3", "7"}) EXPECT_EQ(st::PortSlot(ZELState_PortFind("a", p)), slot++);
  EXPECT_EQ(HostPorts(), 3u);
  // Everything else read back shows in the bytes; compacting slots keeps the order only.
  EXPECT_EQ(StateBlob(), blob);
}

TEST_F(StateBlobTest, PortKindComesFromTheTypeProperty) {
  Bytes blob =
      Encode({{"s", SwitchBlob(7, "vswitch", 0, {}, {},
                               {{"p", Encode({{"keep", Text("1")}, {ZEL_PROP_PORT_TYPE, U32(2)}})},
                                {"q", Encode({})}})}});
  ExpectOutput(
      0, [&] { return Load(blob); }, STATUS_OK, "ZELState_PortDeserialize: no type for s, q\n");
  PortState *shadow = ZELState_PortFindShadow("s", "p");
  ASSERT_NE(shadow, nullptr);
  EXPECT_EQ(ListProps(ZEL_PortData(shadow)), (Props{{"keep", Text("1")}}));
  EXPECT_EQ(ZELState_PortFind("s", "p"), nullptr);
  EXPECT_NE(ZELState_PortFind("s", "q"), nullptr);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("s")), 4096u) << "class rules apply on rebuild";
}

TEST_F(StateBlobTest, MissingVersionMeansVersionZeroAndShortPortIds) {
  Bytes sw = Encode({{"className", ClassField("vswitch")},
                     {"maxPorts", U32(0)},
                     {std::string(15, 'p'), Encode({})}});
  ASSERT_EQ(Load(Encode({{"s", sw}})), STATUS_OK);
  EXPECT_EQ(ZEL_Version(ZELState_SwitchFind("s")), 0u);
  EXPECT_EQ(AddPort("s", std::string(16, 'p').c_str()), STATUS_BAD_PARAM);
  // Absent lists leave the switch its own empty ones.
  EXPECT_TRUE(ListProps(ZEL_GlobalPropList(ZELState_SwitchFind("s"))).empty());
}

TEST_F(StateBlobTest, FailedSwitchEmptiesTheWholeTable) {
  ASSERT_EQ(ZELState_SwitchAdd("before", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(AddPort("before", "1"), STATUS_OK);
  Bytes noClass = Encode({{"ok", SwitchBlob(7, "vswitch", 0, {}, {}, {})},
                          {"bad", Encode({{"switchVersion", U32(7)}, {"maxPorts", U32(1)}})}});
  std::string out = Output(1, [&] { EXPECT_EQ(Load(noClass), STATUS_NOT_FOUND); });
  EXPECT_NE(out.find("ZELState_SwitchDeserialize zel bad return Not found\n"
                     "ZELState_SwitchDeserialize failed Not found\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(Slots(), std::vector<std::string>(32, ""));
  EXPECT_EQ(HostPorts(), 0u);

  ASSERT_EQ(ZELState_SwitchAdd("dup", "vswitch", 0, 7), STATUS_OK);
  ExpectOutput(
      0,
      [&] {
        return Load(Encode({{"dup", SwitchBlob(7, "mine", 3, {}, {}, {})}}));
      },
      STATUS_EXISTS,
      "ZELState_SwitchAdd failed ZEL:dup Error: Already exists\n"
      "ZELState_SwitchDeserialize Switch add failed dup/mine//3\n"
      "ZELState_SwitchDeserialize failed Already exists\n");
  EXPECT_EQ(Slots(), std::vector<std::string>(32, ""));
}

TEST_F(StateBlobTest, BadPortRemovesItsSwitchAndEmptiesTheTable) {
  Bytes badPort = Encode({{"k", Text("v")}});
  badPort[100] ^= 1;  // checksum no longer matches
  Bytes blob =
      Encode({{"s", SwitchBlob(7, "vswitch", 0, {}, {}, {{"1", Encode({})}, {"2", badPort}})}});
  std::string out = Output(0, [&] { EXPECT_EQ(Load(blob), STATUS_BAD_CHECKSUM); });
  EXPECT_NE(out.find("ZELState_SwitchDeserialize zel s return Bad checksum\n"), std::string::npos)
      << out;
  EXPECT_EQ(Slots()[0], "");
  EXPECT_EQ(HostPorts(), 0u);
}

TEST_F(StateBlobTest, MalformedBlobLeavesTheTableAlone) {
  ASSERT_EQ(ZELState_SwitchAdd("keep", "vswitch", 0, 7), STATUS_OK);
  Bytes blob = StateBlob();
  blob[8] = 2;  // header version
  std::string out = Output(0, [&] { EXPECT_EQ(Load(blob), STATUS_BAD_PARAM); });
  EXPECT_NE(out.find("ZELState_ConfigDeserialize failed Bad parameter\n"), std::string::npos);
  EXPECT_EQ(Slots()[0], "keep");
}

// Values outside the layout are refused before anything is added.
TEST_F(StateBlobTest, ShortNumbersAndUnterminatedClassNamesAreRefused) {
  Bytes cls = ClassField("vswitch");
  Bytes unterminated(8, 'c');
  Bytes port = Encode({{"com.zorlan.common.port.volatile.type", Bytes{2, 0}}});
  const std::vector<std::pair<const char *, Bytes>> cases = {
      {"short switchVersion",
       Encode({{"switchVersion", Bytes{7, 0, 0}}, {"className", cls}, {"maxPorts", U32(0)}})},
      {"short maxPorts",
       Encode({{"switchVersion", U32(7)}, {"className", cls}, {"maxPorts", Bytes{1}}})},
      {"unterminated className",
       Encode({{"switchVersion", U32(7)}, {"className", unterminated}, {"maxPorts", U32(0)}})},
      {"short port kind", SwitchBlob(7, "vswitch", 0, {}, {}, {{"1", Encode({})}, {"2", port}})},
  };
  for (const auto &[what, sw] : cases) {
    ASSERT_EQ(ZELState_SwitchAdd("other", "vswitch", 0, 7), STATUS_OK);
    EXPECT_EQ(Load(Encode({{"s", sw}})), STATUS_BAD_PARAM) << what;
    EXPECT_EQ(Slots(), std::vector<std::string>(32, "")) << what;
    EXPECT_EQ(HostPorts(), 0u) << what;
  }
  // The switch deserializer alone leaves the table as it was.
  EXPECT_EQ(ZELState_SwitchDeserialize("s", cases[2].second.data(),
                                       static_cast<uint32_t>(cases[2].second.size())),
            STATUS_BAD_PARAM);
  EXPECT_EQ(ZELState_SwitchFind("s"), nullptr);
  // Longer number values are read from their first four bytes.
  Bytes longer = Encode({{"switchVersion", Bytes{7, 0, 0, 0, 9}},
                         {"className", Text("mine")},
                         {"maxPorts", Bytes{5, 0, 0, 0, 0, 0}}});
  ASSERT_EQ(Load(Encode({{"s", longer}})), STATUS_OK);
  EXPECT_EQ(ZEL_Version(ZELState_SwitchFind("s")), 7u);
  EXPECT_EQ(ZEL_GetMaxPorts(ZELState_SwitchFind("s")), 5u);
}

TEST_F(StateBlobTest, SerializeFailuresProduceNoBuffer) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "vswitch", 0, 7), STATUS_OK);
  st::SetAllocator(zeltest::failalloc::Alloc, zeltest::failalloc::Free);
  void *buffer = nullptr;
  uint32_t length = 0;
  zeltest::failalloc::FailAt(1);
  ExpectOutput(
      0, [&] { return ZELState_ConfigSerialize(&buffer, &length); }, STATUS_NO_MEMORY,
      "ZELState_ConfigSerialize, alloc failed\n");
  zeltest::failalloc::FailAt(2);
  ExpectOutput(
      0, [&] { return ZELState_ConfigSerialize(&buffer, &length); }, STATUS_EXISTS,
      "ZELStateConfigSerializeCB ZEL a failed Out of memory\n");
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(zeltest::failalloc::Live(), 0);
  // A caller's buffer that is too small.
  uint8_t small[16];
  buffer = small;
  length = sizeof small;
  zeltest::failalloc::FailAt(0);
  EXPECT_EQ(ZELState_SwitchSerialize(ZELState_SwitchFind("a"), &buffer, &length),
            STATUS_LIMIT_EXCEEDED);
}

// Every allocation of a deserialization and a serialization is made to fail
// in turn: the result is a defined status, nothing leaks, and a failed load
// leaves the table empty.
TEST_F(StateBlobTest, EveryAllocationFailureIsCleanedUp) {
  ASSERT_EQ(ZELState_SwitchAdd("a", "mine", 4, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("b", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_GlobalPropSet("a", "g", "1", 2, 0), STATUS_OK);
  ASSERT_EQ(AddPort("a", "1", PORT_KIND_NORMAL, {{ZEL_PROP_PORT_TYPE, U32(1)}, {"x", Text("y")}}),
            STATUS_OK);
  ASSERT_EQ(AddPort("b", "2", PORT_KIND_NORMAL, {{"x", Text("y")}}), STATUS_OK);
  Bytes blob = StateBlob();
  ASSERT_EQ(ZELState_ConfigReset(), STATUS_OK);
  st::SetAllocator(zeltest::failalloc::Alloc, zeltest::failalloc::Free);
  ReturnStatus status = STATUS_NO_MEMORY;
  for (uint64_t k = 1; status != STATUS_OK; ++k) {
    ASSERT_LT(k, 200u);
    zeltest::failalloc::FailAt(k);
    status = Load(blob);
    zeltest::failalloc::FailAt(0);
    if (status != STATUS_OK) {
      ASSERT_EQ(status, STATUS_NO_MEMORY) << k;
      ASSERT_EQ(Slots(), std::vector<std::string>(32, "")) << k;
      ASSERT_EQ(zeltest::failalloc::Live(), 0) << k;
    }
  }
  // The loaded ports no longer carry their type entry: that is the new blob.
  st::SetAllocator(nullptr, nullptr);
  Bytes reloaded = StateBlob();
  st::SetAllocator(zeltest::failalloc::Alloc, zeltest::failalloc::Free);
  status = STATUS_NO_MEMORY;
  for (uint64_t k = 1; status != STATUS_OK; ++k) {
    ASSERT_LT(k, 200u);
    int64_t live = zeltest::failalloc::Live();
    void *buffer = nullptr;
    uint32_t length = 0;
    zeltest::failalloc::FailAt(k);
    status = ZELState_ConfigSerialize(&buffer, &length);
    zeltest::failalloc::FailAt(0);
    if (status == STATUS_OK) {
      EXPECT_EQ(Bytes(static_cast<uint8_t *>(buffer), static_cast<uint8_t *>(buffer) + length),
                reloaded);
      zeltest::failalloc::Free(buffer);
    } else {
      ASSERT_TRUE(status == STATUS_NO_MEMORY || status == STATUS_EXISTS) << k;
      ASSERT_EQ(buffer, nullptr) << k;
    }
    ASSERT_EQ(zeltest::failalloc::Live(), live) << k;
  }
  ASSERT_EQ(ZELState_ConfigReset(), STATUS_OK);
  EXPECT_EQ(zeltest::failalloc::Live(), 0);
}

}  // namespace
