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
void *Alloc(uint64_t n) { return std::malloc(n); }

struct Row {
  const char *call;
  std::function<bool()> ok;
};
// clang-format off
#define GIVES(call, result) Row{#call, [&] { return (call) == (result); }}
#define RETURNS(call) Row{#call, [&] { return (call), true; }}
// clang-format on

TEST(HardeningNullArgs, EveryExportedFunctionRefusesNullPointers) {
  const fs::path cwd = fs::current_path();
  hardening::TempDir tmp;
  fs::current_path(tmp.path());  // a file a row leaves behind shows here
  zel::state::testing::SetPortLimit(64);
  hardening::FakeModule device;
  device.answer = [](unsigned long, ZELPYXCommand *c) { return c->status = STATUS_FAILURE, -1; };
  zel::kernel::ScopedTransport use(&device);
  PropertyList *list = zelstatetest::MakeList({{"x", {'v', 0}}}), *out = nullptr;
  PropertyEntry *entry = nullptr;
  ZELData_Lookup(list, "x", &entry);
  void *buf = nullptr, *value = nullptr;
  uint32_t len = 0, off = 0, type = 0;
  int32_t slen = 0;
  ASSERT_EQ(ZELData_Serialize(list, &buf, &len, 7), STATUS_OK);
  ASSERT_EQ(ZELState_SwitchAdd("sw", "vswitch", 8, 7), STATUS_OK);
  ASSERT_EQ(zelstatetest::AddPort("sw", "1"), STATUS_OK);
  SwitchState *sw = ZELState_SwitchFind("sw");
  PortState *port = ZELState_PortFind("sw", "1");
  const ReturnStatus kBad = STATUS_BAD_PARAM;
  const Row rows[] = {
      // clang-format off
      GIVES(ZELData_Alloc(nullptr, Alloc, std::free), kBad),
      RETURNS(ZELData_Free(nullptr)),
      RETURNS(ZELData_FreeAssocData(nullptr, nullptr)),
      RETURNS(ZELData_GetMemFreeFn(nullptr, nullptr)),
      GIVES(ZELData_Lookup(nullptr, "x", &entry), kBad),
      GIVES(ZELData_Lookup(list, nullptr, &entry), kBad),
      GIVES(ZELData_Name(nullptr), nullptr),
      GIVES(ZELData_PropType(nullptr), 0u),
      GIVES(ZELData_Data(nullptr, &value), 0u),
      GIVES(ZELData_Next(nullptr, nullptr, &entry), kBad),
      RETURNS(ZELData_ForEach(nullptr, nullptr, nullptr)),
      GIVES(ZELData_Append(nullptr, "y", "v", 2, 16), kBad),
      GIVES(ZELData_Append(list, nullptr, "v", 2, 16), kBad),
      GIVES(ZELData_Append(list, "y", nullptr, 2, 16), kBad),
      GIVES(ZELData_Update(nullptr, "y", "v", 2, 16), kBad),
      GIVES(ZELData_UpdateProp(nullptr, "y", "v", 2), kBad),
      GIVES(ZELData_Remove(nullptr, "x"), kBad),
      GIVES(ZELDataRemove(nullptr, "x", &type), kBad),
      GIVES(ZELData_SerializedSize(nullptr, 0), 0u),
      GIVES(ZELData_SerializedSizeExNamedProp(nullptr, 0, "x"), 0u),
      GIVES(ZELData_Serialize(nullptr, &buf, &len, 7), kBad),
      GIVES(ZELData_Serialize(list, nullptr, &len, 7), kBad),
      GIVES(ZELData_SerializeExNamedProp(nullptr, &buf, &len, 7, "x"), kBad),
      GIVES(ZELData_SerializeEntry(nullptr, "x", &buf, &len), kBad),
      GIVES(ZELData_Deserialize(nullptr, buf, len, Alloc, std::free), kBad),
      GIVES(ZELData_Deserialize(&out, nullptr, len, Alloc, std::free), kBad),
      GIVES(ZELData_DeserializeWithPropType(nullptr, buf, len, Alloc, std::free, 0x3C), kBad),
      GIVES(ZELData_DeserializeGetPropVal(nullptr, len, "x", &type, 4), kBad),
      RETURNS(ZelSwitchHandleUnlock(nullptr)),
      GIVES(ZELState_SwitchAdd(nullptr, "vswitch", 8, 7), kBad),
      GIVES(ZELState_SwitchFind(nullptr), nullptr),
      GIVES(ZELState_SwitchFindByUUID(nullptr), nullptr),
      GIVES(ZELState_SwitchFindByAlias(nullptr), nullptr),
      RETURNS(ZELState_SwitchForEach(nullptr, nullptr)),
      GIVES(ZELState_SwitchRemove(nullptr), kBad),
      GIVES(ZELState_SwitchSetVersion(nullptr, 7), kBad),
      GIVES(ZEL_SwitchId(nullptr), nullptr),
      GIVES(ZEL_SwitchName(nullptr), nullptr),
      GIVES(ZEL_ClassName(nullptr), nullptr),
      GIVES(ZEL_SetClassName(nullptr, "c"), nullptr),
      GIVES(ZEL_Version(nullptr), 0u),
      GIVES(ZEL_GetMaxPorts(nullptr), 0u),
      GIVES(ZEL_GetNewMaxPorts(nullptr), 0u),
      GIVES(ZEL_UpdateMaxPorts(nullptr), 0u),
      GIVES(ZEL_NumPorts(nullptr), 0u),
      GIVES(ZEL_GlobalPropList(nullptr), nullptr),
      GIVES(ZEL_HostPropList(nullptr), nullptr),
      GIVES(ZELStatePortAdd(nullptr, "2", list, 1), kBad),
      GIVES(ZELState_PortAdd(nullptr, "2", list), kBad),
      GIVES(ZELState_LocalCachePortAdd("sw", nullptr, list), kBad),
      GIVES(ZELState_PortAddShadow(nullptr, "2", buf, len), kBad),
      GIVES(ZELStatePortRemove(nullptr, "1", 1), kBad),
      GIVES(ZELState_PortRemove(nullptr, "1"), kBad),
      GIVES(ZELState_PortRemoveShadow("sw", nullptr), kBad),
      GIVES(ZELState_PortRemoveZombie(nullptr, "1"), kBad),
      GIVES(ZELState_LocalCachePortRemove("sw", nullptr), kBad),
      GIVES(ZELStatePortFindOnZelSwitch(nullptr, "1", 1), nullptr),
      GIVES(ZELState_PortFindOnZelSwitch(nullptr, "1"), nullptr),
      GIVES(ZELState_PortFind(nullptr, "1"), nullptr),
      GIVES(ZELState_PortFindShadow(nullptr, "1"), nullptr),
      GIVES(ZELState_PortFindZombie("sw", nullptr), nullptr),
      GIVES(ZELState_LocalCachePortFind(nullptr, "1"), nullptr),
      GIVES(ZELState_PortFindByUUID(nullptr, "1"), nullptr),
      GIVES(ZELState_PortFindShadowByUUID(nullptr, "1"), nullptr),
      GIVES(ZELStatePortFindByAliasOnZEL(nullptr, "a", 1), nullptr),
      GIVES(ZELState_PortFindByAliasType(sw, nullptr, 1), nullptr),
      GIVES(ZELState_PortFindByAliasOnZEL(nullptr, "a"), nullptr),
      GIVES(ZELStatePortFindByAlias(nullptr, "a", 1), nullptr),
      GIVES(ZELState_PortFindByAlias("sw", nullptr), nullptr),
      GIVES(ZELState_PortFindShadowByAlias(nullptr, nullptr), nullptr),
      GIVES(ZELState_PortDataGet(nullptr, "x", &value, &len), kBad),
      GIVES(ZELState_PortDataSet(nullptr, "x", "v", 2, 16), kBad),
      GIVES(ZELState_PortDataGet(port, "x", nullptr, &len), kBad),
      GIVES(ZELState_PortDataSet(port, "x", nullptr, 2, 16), STATUS_FAILURE),
      GIVES(ZELState_PortDataClear(nullptr, "x"), kBad),
      GIVES(ZELState_PortDataRead(nullptr, "x", &value, &len), kBad),
      GIVES(ZELState_PortDataForEach(nullptr, nullptr, nullptr), kBad),
      RETURNS(ZELState_PortForEach(nullptr, nullptr, nullptr)),
      GIVES(ZEL_PortId(nullptr), nullptr),
      GIVES(ZEL_PortAlias(nullptr), nullptr),
      GIVES(ZEL_PortKind(nullptr), 0u),
      RETURNS(ZEL_PortSetKind(nullptr, 1)),
      GIVES(ZEL_PortData(nullptr), nullptr),
      GIVES(ZEL_PortSwitch(nullptr), nullptr),
      GIVES(ZELState_GlobalPropSet(nullptr, "x", "v", 2, 16), kBad),
      GIVES(ZELState_GlobalPropClear(nullptr, "x"), kBad),
      GIVES(ZELState_GlobalPropLookup("sw", nullptr, &entry), kBad),
      GIVES(ZELState_GlobalPropRead(nullptr, "x", &value, &len), kBad),
      GIVES(ZELState_GlobalPropIsSet(nullptr, "x"), false),
      GIVES(ZELState_GlobalPropForEach(nullptr, nullptr, nullptr), kBad),
      GIVES(ZELState_HostPropSet("sw", "x", nullptr, 2, 16), STATUS_FAILURE),
      GIVES(ZELState_HostPropClear("sw", nullptr), kBad),
      GIVES(ZELState_HostPropLookup(nullptr, "x", &entry), kBad),
      GIVES(ZELState_HostPropRead(sw, nullptr, &value, &len), kBad),
      GIVES(ZELState_HostPropIsSet(nullptr, "x"), false),
      GIVES(ZELState_HostPropForEach(sw, nullptr, nullptr), kBad),
      GIVES(ZELState_ConfigSerialize(nullptr, nullptr), kBad),
      GIVES(ZELState_SwitchSerialize(nullptr, &buf, &len), kBad),
      GIVES(ZELState_PortSerialize(nullptr, &buf, &len), kBad),
      GIVES(ZELState_ConfigDeserialize(nullptr, 64), kBad),
      GIVES(ZELState_SwitchDeserialize(nullptr, buf, len), kBad),
      GIVES(ZELState_PortDeserialize("sw", nullptr, buf, len), kBad),
      GIVES(ZELState_StripZelWithNoPersistFlag(nullptr, nullptr, true), false),
      RETURNS(ZELState_UpdateGlobalSwsArray(nullptr, nullptr)),
      RETURNS(ZELState_FreeZELArray(nullptr)),
      RETURNS(ZelSwitchPYXUnlock(nullptr)),
      GIVES(ZELPYX_Ioctl(0, nullptr), kBad),
      GIVES(ZELPYX_CmdExec("sw", "c", nullptr, 4, &value, &len), kBad),
      GIVES(ZELPYX_StateInit(nullptr, 64), kBad),
      GIVES(ZELPYX_StateGet(nullptr, &len), kBad),
      RETURNS(ZELPYX_DataFree(nullptr)),
      RETURNS(ZELPYX_SwitchAdd(nullptr, nullptr, 8, 7)),
      RETURNS(ZELPYX_SwitchRemove(nullptr)),
      RETURNS(ZELPYX_SwitchAssociate(nullptr)),
      RETURNS(ZELPYX_SwitchDissociate(nullptr)),
      RETURNS(ZELPYX_SwitchSetMaxPorts(nullptr, 8)),
      RETURNS(ZELPYX_SwitchSetVersion(nullptr, 7)),
      RETURNS(ZELPYX_GlobalPropClear(nullptr, nullptr)),
      RETURNS(ZELPYX_HostPropClear(nullptr, nullptr)),
      RETURNS(ZELPYXSwitchPropClear(nullptr, nullptr, 10)),
      RETURNS(ZELPYX_PortRemove(nullptr, nullptr)),
      RETURNS(ZELPYX_PortFind(nullptr, nullptr)),
      RETURNS(ZELPYX_PortDataClear(nullptr, nullptr, nullptr)),
      RETURNS(ZELState_SaveToConfigStore_ByInstance(nullptr)),
      GIVES(ZELPYX_GlobalPropGet("sw", "x", nullptr, &len), kBad),
      GIVES(ZELPYX_GlobalPropSet("sw", "x", nullptr, 2, 16), kBad),
      GIVES(ZELPYX_HostPropGet("sw", "x", &value, nullptr), kBad),
      GIVES(ZELPYX_HostPropSet("sw", "x", nullptr, 2, 16), kBad),
      GIVES(ZELPYX_PortAdd("sw", "1", nullptr, 2), kBad),
      GIVES(ZELPYX_PortDataGet("sw", "1", "x", nullptr, &len), kBad),
      GIVES(ZELPYX_PortDataSet("sw", "1", "x", nullptr, 2, 16), kBad),
      GIVES(ZELPYX_PortStateGet("sw", "1", &value, nullptr), kBad),
      GIVES(ZELPYX_UplinkDataSet("sw", "1", 0, nullptr, 2, 16), kBad),
      GIVES(ZELPYX_UplinkDataGet("sw", "1", 0, nullptr, &len), kBad),
      GIVES(ZELPYXStripNamedProp(nullptr, "x"), kBad),
      GIVES(ZELPYXStripNamedPropForType(list, nullptr, nullptr, 16), kBad),
      GIVES(ZELPYXExtractNamedPropForType(nullptr, "x", 16), kBad),
      GIVES(IsQorProp(nullptr), false),
      GIVES(ZELPYX_VendorGlobalPropList("sw", nullptr, 16), kBad),
      GIVES(ZELPYX_VendorHostPropList("sw", nullptr, 16), kBad),
      GIVES(ZELPYXVendorPropList("sw", nullptr, 16, 0), kBad),
      GIVES(ZELPYX_ExtraConfigPropList("sw", nullptr, 16), kBad),
      GIVES(ZELPYX_QorPropList("sw", 16, 1, nullptr), kBad),
      GIVES(ZELPYX_SwitchPortList("sw", nullptr, 1), kBad),
      GIVES(ZELPYX_VendorPortPropList("sw", "1", nullptr, 16), kBad),
      GIVES(ZELPYX_ExtraConfigPortPropList("sw", "1", nullptr, 16), kBad),
      GIVES(ZELPYX_PersistentStateGetWithFile(nullptr, &len, "p"), kBad),
      GIVES(ZELPYX_PersistentStateGet(&value, nullptr), kBad),
      GIVES(ZELPYX_PersistentPortStateGet("sw", "1", 7, nullptr, &len), kBad),
      GIVES(ZELPYX_PortGetByExternalId("sw", nullptr, nullptr), kBad),
      GIVES(ZELFile_Read(nullptr, &value, &slen, &off), kBad),
      GIVES(ZELFile_Read("p", nullptr, &slen, &off), kBad),
      GIVES(ZELFile_ReadClassical("", &value, &slen, &off), kBad),
      GIVES(ZELFile_Write(nullptr, buf, len), kBad),
      GIVES(ZELFile_Write("", buf, len), kBad),
      GIVES(ZELFile_WriteClassical(nullptr, buf, len, 0), kBad),
      RETURNS(ZELFileLog(nullptr)),
      GIVES(ZELState_SaveBufToConfigStore(nullptr, 64) != 0, true),
      GIVES(ZELState_SaveBufToConfigStore_ByInstance(nullptr, 64, "sw") != 0, true),
      GIVES(ZELState_LoadFromConfigStoreAsBuf(nullptr, &len, false), ZEL_CONFIGSTORE_FAILURE),
      GIVES(StringExistInArray(nullptr, nullptr, 1), false),
      // clang-format on
  };
  for (const Row &r : rows) {
    const int code = hardening::InChild([&] { return r.ok() ? 0 : 1; });
    EXPECT_EQ(code, 0) << r.call << (code == 1 ? ": wrong result" : ": crashed or blocked");
  }
  EXPECT_TRUE(fs::is_empty(tmp.path())) << "a row left a file";
  fs::current_path(cwd);
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
  zel::state::testing::SetPortLimit(0);
}

}  // namespace
