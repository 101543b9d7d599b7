// Every exported function with a pointer argument, called with a null pointer
// it cannot use: it answers its failure value and touches nothing.  Each row
// runs in a child process, so that a crash names its row.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "hardening_support.h"
#include "state_fixture.h"
#include "zel/configstore.h"
#include "zel/file.h"
#include "zel/kernel.h"

namespace {

namespace fs = std::filesystem;
using zelstatetest::Malloc;

using Row = std::pair<const char *, std::function<bool()>>;  // the call, and its check
// clang-format off
#define GIVES(call, result) Row{#call, [&] { return (call) == (result); }}
#define BAD(call) GIVES(call, STATUS_BAD_PARAM)
#define NUL(call) GIVES(call, nullptr)
#define RUNS(call) Row{#call, [&] { return (call), true; }}
// clang-format on

TEST(HardeningNullArgs, EveryExportedFunctionRefusesNullPointers) {
  const fs::path cwd = fs::current_path();
  hardening::TempDir tmp;
  fs::current_path(tmp.path());  // a file a row leaves behind shows here
  zel::state::testing::SetPortLimit(64);
  hardening::FailingDevice device;
  zel::kernel::ScopedTransport use(&device);
  PropertyList *list = zelstatetest::MakeList({{"x", {'v', 0}}}), *out = nullptr;
  PropertyEntry *entry = nullptr;
  void *buf = nullptr, *value = nullptr;
  uint32_t len = 0, off = 0, type = 0;
  int32_t slen = 0;
  ASSERT_EQ(ZELData_Serialize(list, &buf, &len, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("sw", "vswitch", 8, 7), STATUS_OK);
  ASSERT_EQ(zelstatetest::AddPort("sw", "1"), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("sw");
  const Row rows[] = {
      // clang-format off
      BAD(ZELData_Alloc(nullptr, Malloc, std::free)), RUNS(ZELData_FreeAssocData(nullptr, nullptr)),
      RUNS(ZELData_Free(nullptr)), BAD(ZELData_Deserialize(&out, nullptr, len, Malloc, std::free)),
      RUNS(ZELData_GetMemFreeFn(nullptr, nullptr)), GIVES(ZELData_SerializedSize(nullptr, 0), 0u),
      BAD(ZELData_Lookup(nullptr, "x", &entry)), GIVES(ZELData_Data(nullptr, &value), 0u),
      NUL(ZELData_Name(nullptr)), BAD(ZELData_DeserializeGetPropVal(nullptr, len, "x", &type, 4)),
      GIVES(ZELData_PropType(nullptr), 0u), BAD(ZELData_SerializeEntry(nullptr, "x", &buf, &len)),
      BAD(ZELData_Next(nullptr, nullptr, &entry)), RUNS(ZELData_ForEach(nullptr, nullptr, nullptr)),
      BAD(ZELData_Append(list, "y", nullptr, 2, 16)), BAD(ZELData_Update(nullptr, "y", "v", 2, 16)),
      BAD(ZELData_UpdateProp(nullptr, "y", "v", 2)), BAD(ZELData_Serialize(list, nullptr, &len, 7)),
      BAD(ZELData_Remove(nullptr, "x")), BAD(ZELDataRemove(nullptr, "x", &type)),
      GIVES(ZELData_SerializedSizeExNamedProp(nullptr, 0, "x"), 0u),
      BAD(ZELData_SerializeExNamedProp(nullptr, &buf, &len, 7, "x")),
      BAD(ZELData_DeserializeWithPropType(nullptr, buf, len, Malloc, std::free, 0x3C)),
      RUNS(ZelSwitchHandleUnlock(nullptr)), BAD(ZELState_PortDataRead(nullptr, "x", &value, &len)),
      BAD(ZELState_SwitchAdd(nullptr, "vswitch", 8, 7)), BAD(ZELState_SwitchSetVersion(nullptr, 7)),
      NUL(ZELState_SwitchFind(nullptr)), BAD(ZELState_GlobalPropForEach(nullptr, nullptr, nullptr)),
      NUL(ZELState_SwitchFindByUUID(nullptr)), BAD(ZELState_LocalCachePortAdd("sw", nullptr, list)),
      NUL(ZELState_SwitchFindByAlias(nullptr)), BAD(ZELState_PortAddShadow(nullptr, "2", buf, len)),
      RUNS(ZELState_SwitchForEach(nullptr, nullptr)), BAD(ZELState_PortRemoveShadow("sw", nullptr)),
      BAD(ZELState_SwitchRemove(nullptr)), BAD(ZELState_PortDataForEach(nullptr, nullptr, nullptr)),
      NUL(ZEL_SwitchId(nullptr)), NUL(ZEL_ClassName(nullptr)), NUL(ZEL_PortAlias(nullptr)),
      NUL(ZEL_SwitchName(nullptr)), BAD(ZELState_SwitchDeserialize(nullptr, buf, len)),
      NUL(ZEL_SetClassName(nullptr, "c")), BAD(ZELState_GlobalPropRead(nullptr, "x", &value, &len)),
      GIVES(ZEL_Version(nullptr), 0u), GIVES(ZELState_HostPropIsSet(nullptr, "x"), false),
      GIVES(ZEL_GetMaxPorts(nullptr), 0u), BAD(ZELState_GlobalPropLookup("sw", nullptr, &entry)),
      GIVES(ZEL_GetNewMaxPorts(nullptr), 0u), NUL(ZELState_PortFindShadowByAlias(nullptr, nullptr)),
      GIVES(ZEL_UpdateMaxPorts(nullptr), 0u), BAD(ZELState_PortDataGet(nullptr, "x", &value, &len)),
      GIVES(ZEL_NumPorts(nullptr), 0u), RUNS(ZELState_UpdateGlobalSwsArray(nullptr, nullptr)),
      NUL(ZEL_GlobalPropList(nullptr)), GIVES(ZELState_GlobalPropIsSet(nullptr, "x"), false),
      NUL(ZEL_HostPropList(nullptr)), BAD(ZELState_SwitchSerialize(nullptr, &buf, &len)),
      BAD(ZELStatePortAdd(nullptr, "2", list, 1)), NUL(ZELState_PortFindShadowByUUID(nullptr, "1")),
      BAD(ZELState_PortAdd(nullptr, "2", list)), NUL(ZELStatePortFindByAliasOnZEL(nullptr, "a", 1)),
      BAD(ZELStatePortRemove(nullptr, "1", 1)), BAD(ZELState_PortDataSet(nullptr, "x", "v", 2, 16)),
      BAD(ZELState_PortRemove(nullptr, "1")), RUNS(ZELState_PortForEach(nullptr, nullptr, nullptr)),
      BAD(ZELState_PortRemoveZombie(nullptr, "1")), NUL(ZELState_PortFindOnZelSwitch(nullptr, "1")),
      BAD(ZELState_LocalCachePortRemove("sw", nullptr)), NUL(ZELState_PortFindShadow(nullptr, "1")),
      NUL(ZELStatePortFindOnZelSwitch(nullptr, "1", 1)), NUL(ZELState_PortFindByUUID(nullptr, "1")),
      NUL(ZELState_PortFind(nullptr, "1")), BAD(ZELState_PortDeserialize("sw", nullptr, buf, len)),
      NUL(ZELState_PortFindZombie("sw", nullptr)), NUL(ZELState_PortFindByAliasOnZEL(nullptr, "a")),
      NUL(ZELState_LocalCachePortFind(nullptr, "1")), NUL(ZELStatePortFindByAlias(nullptr, "a", 1)),
      NUL(ZELState_PortFindByAliasType(sw, nullptr, 1)), BAD(ZELState_HostPropClear("sw", nullptr)),
      NUL(ZELState_PortFindByAlias("sw", nullptr)), BAD(ZELState_ConfigSerialize(nullptr, nullptr)),
      BAD(ZELState_PortDataClear(nullptr, "x")), BAD(ZELState_HostPropLookup(nullptr, "x", &entry)),
      NUL(ZEL_PortId(nullptr)), NUL(ZEL_PortData(nullptr)), GIVES(ZEL_PortKind(nullptr), 0u),
      BAD(ZELState_HostPropForEach(sw, nullptr, nullptr)), RUNS(ZEL_PortSetKind(nullptr, 1)),
      BAD(ZELState_HostPropRead(sw, nullptr, &value, &len)), NUL(ZEL_PortSwitch(nullptr)),
      BAD(ZELState_ConfigDeserialize(nullptr, 64)),
      BAD(ZELState_GlobalPropSet(nullptr, "x", "v", 2, 16)), RUNS(ZELState_FreeZELArray(nullptr)),
      BAD(ZELState_GlobalPropClear(nullptr, "x")), BAD(ZELState_PortSerialize(nullptr, &buf, &len)),
      GIVES(ZELState_StripZelWithNoPersistFlag(nullptr, nullptr, true), false),
      RUNS(ZelSwitchPYXUnlock(nullptr)), BAD(ZELPYX_PersistentStateGetWithFile(nullptr, &len, "p")),
      BAD(ZELPYX_Ioctl(0, nullptr)), BAD(ZELPYX_PortGetByExternalId("sw", nullptr, nullptr)),
      BAD(ZELPYX_CmdExec("sw", "c", nullptr, 4, &value, &len)), BAD(ZELPYX_StateGet(nullptr, &len)),
      BAD(ZELPYX_StateInit(nullptr, 64)), BAD(ZELPYX_PortDataSet("sw", "1", "x", nullptr, 2, 16)),
      RUNS(ZELPYX_DataFree(nullptr)), BAD(ZELPYXStripNamedPropForType(list, nullptr, nullptr, 16)),
      RUNS(ZELPYX_SwitchAdd(nullptr, nullptr, 8, 7)), BAD(ZELPYX_QorPropList("sw", 16, 1, nullptr)),
      RUNS(ZELPYX_SwitchRemove(nullptr)), BAD(ZELPYX_UplinkDataSet("sw", "1", 0, nullptr, 2, 16)),
      RUNS(ZELPYX_SwitchAssociate(nullptr)), BAD(ZELPYX_PortDataGet("sw", "1", "x", nullptr, &len)),
      RUNS(ZELPYX_SwitchDissociate(nullptr)), RUNS(ZELPYX_PortDataClear(nullptr, nullptr, nullptr)),
      RUNS(ZELPYX_SwitchSetMaxPorts(nullptr, 8)), RUNS(ZELPYXSwitchPropClear(nullptr, nullptr, 10)),
      RUNS(ZELPYX_SwitchSetVersion(nullptr, 7)), BAD(ZELPYX_HostPropSet("sw", "x", nullptr, 2, 16)),
      RUNS(ZELPYX_GlobalPropClear(nullptr, nullptr)), RUNS(ZELPYX_HostPropClear(nullptr, nullptr)),
      BAD(ZELPYXVendorPropList("sw", nullptr, 16, 0)), RUNS(ZELPYX_PortRemove(nullptr, nullptr)),
      BAD(ZELPYX_ExtraConfigPropList("sw", nullptr, 16)), RUNS(ZELPYX_PortFind(nullptr, nullptr)),
      BAD(ZELPYX_GlobalPropSet("sw", "x", nullptr, 2, 16)),
      BAD(ZELPYX_GlobalPropGet("sw", "x", nullptr, &len)),
      BAD(ZELPYX_HostPropGet("sw", "x", &value, nullptr)),
      BAD(ZELPYX_PortAdd("sw", "1", nullptr, 2)), BAD(ZELPYX_VendorHostPropList("sw", nullptr, 16)),
      BAD(ZELPYX_PortStateGet("sw", "1", &value, nullptr)), BAD(ZELPYXStripNamedProp(nullptr, "x")),
      BAD(ZELPYX_UplinkDataGet("sw", "1", 0, nullptr, &len)),
      BAD(ZELPYXExtractNamedPropForType(nullptr, "x", 16)), GIVES(IsQorProp(nullptr), false),
      BAD(ZELPYX_ExtraConfigPortPropList("sw", "1", nullptr, 16)),
      BAD(ZELPYX_VendorGlobalPropList("sw", nullptr, 16)),
      BAD(ZELPYX_SwitchPortList("sw", nullptr, 1)), BAD(ZELPYX_PersistentStateGet(&value, nullptr)),
      BAD(ZELPYX_VendorPortPropList("sw", "1", nullptr, 16)),
      BAD(ZELPYX_PersistentPortStateGet("sw", "1", 7, nullptr, &len)),
      BAD(ZELFile_Read("p", &value, &slen, nullptr)),
      BAD(ZELFile_ReadClassical("", &value, &slen, &off)), BAD(ZELFile_Write("", buf, len)),
      BAD(ZELFile_WriteClassical(nullptr, buf, len, 0)), RUNS(ZELFileLog(nullptr)),
      RUNS(ZELState_SaveToConfigStore_ByInstance(nullptr)),
      GIVES(ZELState_SaveBufToConfigStore(nullptr, 64) != 0, true),
      GIVES(ZELState_SaveBufToConfigStore_ByInstance(nullptr, 64, "sw") != 0, true),
      GIVES(ZELState_LoadFromConfigStoreAsBuf(nullptr, &len, false), ZEL_CONFIGSTORE_FAILURE),
      GIVES(StringExistInArray(nullptr, nullptr, 1), false),
      // clang-format on
  };
  for (const Row &r : rows) {
    const int code = hardening::InChild([&] { return r.second() ? 0 : 1; });
    EXPECT_EQ(code, 0) << r.first << (code == 1 ? ": wrong result" : ": crashed or blocked");
  }
  EXPECT_TRUE(fs::is_empty(tmp.path())) << "a row left a file";
  fs::current_path(cwd);
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
  zel::state::testing::SetPortLimit(0);
}

}  // namespace
