// The persistence filtering of switches marked not to be persisted: the strip,
// the move back of named switches and the release of what was parked.
#include <string>

#include "state_fixture.h"

using namespace zelstatetest;

namespace {

SwitchState *const kUnset = reinterpret_cast<SwitchState *>(0x1);

class StatePersistTest : public StateTest {
 protected:
  // Garbage the operations must overwrite (or must leave alone).
  void SetUp() override {
    StateTest::SetUp();
    Reset();
  }
  void Reset() {
    for (auto &entry : array_) entry = kUnset;
    std::memset(ids_, 'x', sizeof ids_);
  }
  void TearDown() override {
    if (array_[0] != kUnset) ZELState_FreeZELArray(array_);
    StateTest::TearDown();
  }
  // A switch with one port, marked with `flag` unless it is negative.
  static void Add(const char *id, int flag = -1) {
    ASSERT_EQ(ZELState_SwitchAdd(id, "vswitch", 0, 7), STATUS_OK);
    ASSERT_EQ(AddPort(id, "p"), STATUS_OK);
    const auto byte = static_cast<uint8_t>(flag);
    if (flag < 0) return;
    ASSERT_EQ(ZELState_GlobalPropSet(id, ZEL_PROP_NOPERSIST, &byte, 1, 0), STATUS_OK);
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
  char ids_[ZEL_MAX_SWITCHES][ZEL_SWITCH_ID_SIZE];
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
    SCOPED_TRACE(&c - cases);
    Add("a");
    Add("b");
    Add("marked", c.flag);
    EXPECT_EQ(ZELState_StripZelWithNoPersistFlag(array_, ids_, c.stateFile), c.stripped);
    EXPECT_STREQ(c.flag != 0 ? ids_[0] : "marked", "marked");
    EXPECT_EQ(ids_[c.flag][0], 'x') << "rows past the last id are left alone";
    EXPECT_EQ(ArrayIds(), c.parked);
    EXPECT_EQ(Slots(), c.slots);
    EXPECT_EQ(HostPorts(), c.flag != 0 ? 2u : 3u);
    if (c.stripped) ZELState_FreeZELArray(array_);
    ZELState_ConfigReset();
    Reset();
  }
}

TEST_F(StatePersistTest, UpdateGlobalSwsArrayMovesNamedSwitchesAndFreeReleasesTheRest) {
  zel::state::testing::SetAllocator(zeltest::failalloc::Alloc, zeltest::failalloc::Free);
  // The array holds switches in slots 0 and 2 ...
  for (const char *id : {"x0", "hole", "x2"}) Add(id);
  Add("dummy", 1);
  ASSERT_EQ(ZELState_SwitchRemove("hole"), STATUS_OK);
  ASSERT_TRUE(ZELState_StripZelWithNoPersistFlag(array_, ids_, true));
  ASSERT_EQ(ArrayIds(), Expect({{0, "x0"}, {2, "x2"}}));
  // ... and the table a named switch in slot 5 and another in slot 6.
  for (const char *id : {"f0", "f1", "f2", "f3", "f4", "named", "other"}) Add(id);
  for (const char *id : {"f0", "f1", "f2", "f3", "f4"})
    ASSERT_EQ(ZELState_SwitchRemove(id), STATUS_OK);
  std::memset(ids_, 0, 2 * sizeof ids_[0]);
  std::strcpy(ids_[0], "named");
  std::strcpy(ids_[1], "nosuch");  // a row that matches nothing moves nothing
  ZELState_UpdateGlobalSwsArray(array_, ids_);
  EXPECT_EQ(Slots(), Expect({{0, "x0"}, {1, "named"}, {2, "x2"}}));
  EXPECT_EQ(ArrayIds(), Expect({{6, "other"}}));
  // Freeing releases what is parked and what is in the table.
  Add("c");
  ZELState_FreeZELArray(array_);
  array_[0] = kUnset;  // nothing left to free
  EXPECT_TRUE(DatabaseEmpty());
  EXPECT_EQ(HostPorts(), 0u);
  EXPECT_EQ(zeltest::failalloc::Live(), 0);
}

}  // namespace
