// The persistence filtering of switches marked not to be persisted: the strip,
// the move back of named switches and the release of what was parked.
#include <string>

#include "state_fixture.h"

using namespace zelstatetest;
namespace st = zel::state::testing;

namespace {

using IdList = char[ZEL_MAX_SWITCHES][ZEL_SWITCH_ID_SIZE];

class StatePersistTest : public StateTest {
 protected:
  void SetUp() override {
    StateTest::SetUp();
    // Garbage the operations must overwrite (or must leave alone).
    for (auto &entry : array_) entry = reinterpret_cast<SwitchState *>(0x1);
    std::memset(ids_, 'x', sizeof ids_);
  }
  void TearDown() override {
    if (array_[0] != reinterpret_cast<SwitchState *>(0x1)) ZELState_FreeZELArray(array_);
    StateTest::TearDown();
  }
  static void Add(const char *id, bool noPersist = false, uint8_t flag = 1) {
    ASSERT_EQ(ZELState_SwitchAdd(id, "vswitch", 0, 7), STATUS_OK);
    ASSERT_EQ(AddPort(id, "p"), STATUS_OK);
    if (noPersist) {
      ASSERT_EQ(ZELState_GlobalPropSet(id, ZEL_PROP_NOPERSIST, &flag, 1, 0), STATUS_OK);
    }
  }
  std::vector<std::string> ArrayIds() const {
    std::vector<std::string> out;
    for (SwitchState *sw : array_) out.push_back(sw != nullptr ? ZEL_SwitchId(sw) : "");
    return out;
  }
  static std::vector<std::string> Expect(std::initializer_list<std::pair<int, const char *>> at) {
    std::vector<std::string> v(ZEL_MAX_SWITCHES, "");
    for (const auto &[slot, id] : at) v[slot] = id;
    return v;
  }

  SwitchState *array_[ZEL_MAX_SWITCHES];
  IdList ids_;
};

// Without a marked switch nothing moves (a zero first byte does not mark);
// with one, its id is listed and, when there is a state file to read, the
// other switches are parked in the array (still counting their ports).
TEST_F(StatePersistTest, StripListsMarkedSwitchesAndParksTheRest) {
  const struct {
    uint8_t flag;
    bool stateFile, stripped;
    std::vector<std::string> slots, parked;
  } cases[] = {
      {0, true, false, Expect({{0, "a"}, {1, "b"}, {2, "marked"}}), Expect({})},
      {1, false, false, Expect({{0, "a"}, {1, "b"}}), Expect({})},
      {1, true, true, Expect({}), Expect({{0, "a"}, {1, "b"}})},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.stateFile);
    Add("a");
    Add("b");
    Add("marked", true, c.flag);
    std::memset(ids_, 'x', sizeof ids_);
    EXPECT_EQ(ZELState_StripZelWithNoPersistFlag(array_, ids_, c.stateFile), c.stripped);
    if (c.flag != 0) {
      EXPECT_STREQ(ids_[0], "marked");
    }
    EXPECT_EQ(ids_[c.flag != 0 ? 1 : 0][0], 'x') << "rows past the last id are left alone";
    EXPECT_EQ(ArrayIds(), c.parked);
    EXPECT_EQ(Slots(), c.slots);
    EXPECT_EQ(HostPorts(), c.flag != 0 ? 2u : 3u);
    if (c.stripped) ZELState_FreeZELArray(array_);
    ZELState_ConfigReset();
    for (auto &entry : array_) entry = reinterpret_cast<SwitchState *>(0x1);
  }
}

TEST_F(StatePersistTest, UpdateGlobalSwsArrayMovesNamedSwitches) {
  // The array holds switches in slots 0 and 2 ...
  for (const char *id : {"x0", "hole", "x2"}) Add(id);
  Add("dummy", true);
  ASSERT_EQ(ZELState_SwitchRemove("hole"), STATUS_OK);
  ASSERT_TRUE(ZELState_StripZelWithNoPersistFlag(array_, ids_, true));
  ASSERT_EQ(ArrayIds(), Expect({{0, "x0"}, {2, "x2"}}));
  // ... and the table a named switch in slot 5 and another in slot 6.
  for (const char *id : {"f0", "f1", "f2", "f3", "f4", "named", "other"}) Add(id);
  for (const char *id : {"f0", "f1", "f2", "f3", "f4"}) {
    ASSERT_EQ(ZELState_SwitchRemove(id), STATUS_OK);
  }
  std::memset(ids_[0], 0, sizeof ids_[0]);
  std::strcpy(ids_[0], "named");
  std::memset(ids_[1], 0, sizeof ids_[1]);
  std::strcpy(ids_[1], "nosuch");  // a row that matches nothing moves nothing
  ZELState_UpdateGlobalSwsArray(array_, ids_);
  EXPECT_EQ(Slots(), Expect({{0, "x0"}, {1, "named"}, {2, "x2"}}));
  EXPECT_EQ(ArrayIds(), Expect({{6, "other"}}));
}

TEST_F(StatePersistTest, FreeZelArrayReleasesTableAndArray) {
  st::SetAllocator(zeltest::failalloc::Alloc, zeltest::failalloc::Free);
  Add("a");
  Add("b");
  Add("marked", true);
  ASSERT_TRUE(ZELState_StripZelWithNoPersistFlag(array_, ids_, true));
  Add("c");
  ZELState_FreeZELArray(array_);
  array_[0] = reinterpret_cast<SwitchState *>(0x1);  // nothing left to free
  EXPECT_EQ(Slots(), Expect({}));
  EXPECT_EQ(HostPorts(), 0u);
  EXPECT_EQ(zeltest::failalloc::Live(), 0);
}

}  // namespace
