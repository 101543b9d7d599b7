// The state blob written in place against the level-by-level build (which a
// test allocator selects): the same bytes, messages and statuses.
#include "data/property_list_internal.h"
#include "state_fixture.h"

using namespace zelstatetest;
namespace st = zel::state::testing;

namespace {

struct Result {
  ReturnStatus status;
  Bytes blob;
  std::string out;
  bool operator==(const Result &) const = default;
};

void *TestAlloc(uint64_t n) { return std::malloc(n); }

Result Serialize(bool inPlace) {
  st::SetAllocator(inPlace ? nullptr : TestAlloc, inPlace ? nullptr : std::free);
  zeltest::ScopedLevel data(zeldata_debug, 0), state(zel_debug, 2);
  Result r{};
  void *buffer = nullptr;
  uint32_t length = 0;
  r.out = zeltest::CaptureStdout([&] { r.status = ZELState_ConfigSerialize(&buffer, &length); });
  r.blob.assign(static_cast<uint8_t *>(buffer), static_cast<uint8_t *>(buffer) + length);
  std::free(buffer);
  st::SetAllocator(nullptr, nullptr);
  return r;
}

TEST_F(StateTest, BlobWrittenInPlaceEqualsLevelByLevel) {
  const std::string longName(63, 's');
  ASSERT_EQ(ZELState_SwitchAdd("old", "mine", 8, 3), STATUS_OK);  // version notices
  ASSERT_EQ(ZELState_SwitchAdd(longName.c_str(), "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELState_GlobalPropSet("old", "g", "12345", 6, 0), STATUS_OK);
  ASSERT_EQ(AddPort("old", "p1", PORT_KIND_NORMAL, {{"x", Text("y")}, {"n", U32(9)}}), STATUS_OK);
  ASSERT_EQ(AddPort("old", "empty", PORT_KIND_SHADOW, {}), STATUS_OK);
  ASSERT_EQ(AddPort("old", "gone", PORT_KIND_NORMAL, {{"x", Text("z")}}), STATUS_OK);
  ZEL_PortSetKind(ZELState_PortFind("old", "gone"), PORT_KIND_NONE);
  ASSERT_EQ(AddPort(longName.c_str(), "p1", PORT_KIND_NORMAL, {{"v", Bytes(301, 7)}}), STATUS_OK);
  const Result direct = Serialize(true);
  EXPECT_EQ(direct.status, STATUS_OK);
  EXPECT_EQ(direct, Serialize(false));
  EXPECT_NE(direct.out.find("ZEL version 3 is smaller than 6.0."), std::string::npos);
  for (int level : {-1, 2}) {  // read back in place and, with traces on, through lists
    ASSERT_EQ(ZELState_ConfigReset(), STATUS_OK);
    zeltest::ScopedLevel data(zeldata_debug, level);
    zeltest::CaptureStdout([&] {
      ASSERT_EQ(ZELState_ConfigDeserialize(direct.blob.data(), uint32_t(direct.blob.size())),
                STATUS_OK);
    });
    EXPECT_EQ(Serialize(true).blob, direct.blob) << level;
  }
  // A port list whose serialSize disagrees with its entries fails both ways alike.
  ZEL_PortData(ZELState_PortFind("old", "p1"))->serialSize += 4;
  const Result bad = Serialize(true);
  EXPECT_EQ(bad.status, STATUS_EXISTS);
  EXPECT_EQ(bad, Serialize(false));
  EXPECT_NE(bad.out.find("length changed"), std::string::npos);
  ZEL_PortData(ZELState_PortFind("old", "p1"))->serialSize -= 4;
}

}  // namespace
