// The property-to-config mapping tables, the reset lists of a switch object,
// and the helpers every conversion uses to reach the object at a row's path.
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "configstore/kinds.h"
#include "configstore/persist.h"

using namespace zel::persist;

namespace {

// Every named row gives the properties it loads the library's type word.
constexpr uint32_t kRowType = kLibraryType;

}  // namespace

ZEL_EXTERN_C_BEGIN

int zelconfigstore_debug = 10;

const PropToConfigEntry zelGlobalProp2Config[29] = {
    {"com.zorlan.common.alias", {"name"}, 1, kKindString, kRowType},
    {"com.zorlan.common.version", {"product", "version"}, 2, kKindVersion, kRowType},
    {"com.zorlan.common.portset.mtu", {"settings", "max_mtu"}, 2, kKindMtu, kRowType},
    {"com.zorlan.vswitch.mtu", {"settings", "max_mtu"}, 2, kKindMtu, kRowType},
    {"com.zorlan.etherswitch.mtu", {"settings", "max_mtu"}, 2, kKindMtu, kRowType},
    {"com.zorlan.common.opaqueZel", {"is_opaque"}, 1, kKindTextBool, kRowType},
    {"com.zorlan.common.uplinkPorts", {"uplink_port_names"}, 1, kKindUplinkPortNames, kRowType},
    {"com.zorlan.etherswitch.lacp", {"settings", "lacp_groups"}, 2, kKindLacpGroups, kRowType},
    {"com.zorlan.etherswitch.ipv4addr", {"switch_address"}, 1, kKindIpv4, kRowType},
    {"com.zorlan.etherswitch.beaconTimeout", {"settings", "beacon"}, 2, kKindInt32, kRowType},
    {"com.zorlan.etherswitch.pvlanMap", {"settings", "pvlans"}, 2, kKindEtherPvlanMap, kRowType},
    {"com.zorlan.vswitch.pvlanMap", {"settings", "pvlans"}, 2, kKindVswitchPvlanMap, kRowType},
    {"com.zorlan.etherswitch.cdp", {"settings", "link_discovery_protocol"}, 2, kKindLinkDiscovery,
     kRowType},
    {"com.zorlan.etherswitch.mirrorSessions", {"settings", "vspans"}, 2, kKindMirrorSessions,
     kRowType},
    {"com.zorlan.vswitch.mirrorSessions", {"settings", "vspans"}, 2, kKindMirrorSessions,
     kRowType},
    {"com.zorlan.etherswitch.ipfix", {"settings", "ipfix"}, 2, kKindIpfix, kRowType},
    {"com.zorlan.etherswitch.multicastFilter", {"settings", "multicast_filtering_mode"}, 2,
     kKindString, kRowType},
    {"com.zorlan.vswitch.multicastFilter", {"settings", "multicast_filtering_mode"}, 2,
     kKindString, kRowType},
    {"com.zorlan.etherswitch.multicastFilter", {"settings", "multicast_filtering_mode"}, 2,
     kKindString, kRowType},
    {"com.zorlan.common.vlanmtucheck.deploy", {"health_checks"}, 1, kKindHealthChecks, kRowType},
    {"com.zorlan.common.teamcheck.deploy", {"health_checks"}, 1, kKindHealthChecks, kRowType},
    {"com.zorlan.common.respools.cfg", {"resource_management", "traffic_resources"}, 2,
     kKindResourcePools, kRowType},
    {"com.zorlan.common.respools.list", {"resource_management", "network_resource_pool_keys"}, 2,
     kKindResourcePoolKeys, kRowType},
    {"com.zorlan.common.respools.sched", {"resource_management", "enable"}, 2, kKindFlagByte,
     kRowType},
    {"com.zorlan.common.respools.version",
     {"resource_management", "network_resource_control_version"}, 2, kKindString, kRowType},
    {"com.zorlan.common.resv.threshold",
     {"resource_management", "pnic_capacity_ratio_for_reservation"}, 2, kKindUint32, kRowType},
    {"com.zorlan.vswitch.teaming", {"settings", "uplink_teaming_policy"}, 2, kKindVswitchTeaming,
     kRowType},
    {"DEFAULT", {"data"}, 1, kKindSwitchData, kRowType},
    {nullptr, {}, 0, kKindEnd, 0},
};

const PropToConfigEntry zelHostProp2Config[5] = {
    {"com.zorlan.common.host.portset", {"portset_name"}, 1, kKindString, kRowType},
    {"com.zorlan.common.host.uplinkPorts", {"uplink_port_keys"}, 1, kKindUplinkPortKeys, kRowType},
    {"com.zorlan.common.portset.qor", {"qor_enabled"}, 1, kKindQorFlag, kRowType},
    {"DEFAULT", {"data"}, 1, kKindSwitchData, kRowType},
    {nullptr, {}, 0, kKindEnd, 0},
};

const PropToConfigEntry zelPortProp2Config[25] = {
    {"com.zorlan.common.port.alias", {"name"}, 1, kKindString, kRowType},
    {"com.zorlan.common.port.connectid", {"connection_cookie"}, 1, kKindUint32, kRowType},
    {"com.zorlan.common.port.block", {"settings", "blocked"}, 2, kKindPortBlocked, kRowType},
    {"com.zorlan.common.port.ptAllowed", {"settings", "ferrox_gen2_allowed"}, 2, kKindPassthrough,
     kRowType},
    {"com.zorlan.etherswitch.port.txUplink", {"settings", "tx_uplink"}, 2, kKindTxUplink, kRowType},
    {"com.zorlan.vswitch.port.txUplink", {"settings", "tx_uplink"}, 2, kKindTxUplink, kRowType},
    {"com.zorlan.common.port.portgroupid", {"port_group_key"}, 1, kKindString, kRowType},
    {"com.zorlan.etherswitch.port.teaming", {"settings", "uplink_teaming_policy"}, 2,
     kKindEtherPortTeaming, kRowType},
    {"com.zorlan.vswitch.port.teaming.policy", {"settings", "uplink_teaming_policy"}, 2,
     kKindVswitchTeaming, kRowType},
    {"com.zorlan.etherswitch.port.vlan", {"settings", "vlan"}, 2, kKindEtherPortVlan, kRowType},
    {"com.zorlan.vswitch.port.vlan", {"settings", "vlan"}, 2, kKindVswitchPortVlan, kRowType},
    {"com.zorlan.etherswitch.port.ipfix", {"settings", "ipfix_enabled"}, 2, kKindIpfixEnabled,
     kRowType},
    {"com.zorlan.common.port.shaper.input", {"settings", "in_shaping_policy"}, 2, kKindShaping,
     kRowType},
    {"com.zorlan.common.port.shaper.output", {"settings", "out_shaping_policy"}, 2, kKindShaping,
     kRowType},
    {"com.zorlan.etherswitch.port.security", {"settings", "mac_management_policy"}, 2,
     kKindEtherMacPolicy, kRowType},
    {"com.zorlan.vswitch.port.security", {"settings", "mac_management_policy"}, 2,
     kKindVswitchMacPolicy, kRowType},
    {"com.zorlan.common.port.dvfilter", {"settings", "filter_policy"}, 2, kKindFilterPolicy,
     kRowType},
    {"com.zorlan.common.port.respools.cfg", {"settings", "network_resource_pools"}, 2,
     kKindPortResourcePools, kRowType},
    {"com.zorlan.common.port.backingType", {"settings", "backing_type"}, 2, kKindString, kRowType},
    {"com.zorlan.vswitch.port.priority", {"settings", "vlan", "priority"}, 3, kKindUint32, kRowType},
    {"com.zorlan.vswitch.port.mirrorSessions", {"vspans"}, 1, kKindMirrorSessions, kRowType},
    {"com.zorlan.etherswitch.port.mirrorSessions", {"vspans"}, 1, kKindMirrorSessions, kRowType},
    {"com.zorlan.etherswitch.port.lacp", {"settings", "lacp_policy"}, 2, kKindPortLacp, kRowType},
    {"DEFAULT", {"data"}, 1, kKindPortData, kRowType},
    {nullptr, {}, 0, kKindEnd, 0},
};

const PropToConfigEntry *const zelConfigMaps[3] = {
    zelGlobalProp2Config,
    zelHostProp2Config,
    zelPortProp2Config,
};

const char *const UNUSED_PRIMITIVE_PROPS[10] = {
    "name",         "portset_name",  "max_ports", "is_opaque",    "switch_address",
    "uplink_port_keys", "uplink_port_names", "uplink_port_groupKeys", "qor_enabled", nullptr,
};

const char *const UNUSED_SINGLETON_PROPS[5] = {
    "settings", "resource_management", "product", "data", nullptr,
};

const char *const UNUSED_NON_SINGLETON_PROPS[6] = {
    "ports", "uplink_ports", "pyxnic_ports", "vtep_ports", "health_checks", nullptr,
};

// No caller passes another index; anything else gets no table rather than
// a read beyond zelConfigMaps.
ZEL_API const PropToConfigEntry *GetConfigMap(int index) {
  const auto i = static_cast<uint32_t>(index);
  return i < kNumTables ? zelConfigMaps[i] : nullptr;
}

ZEL_EXTERN_C_END

namespace zel::persist {

int32_t currentSwitchClass = kClassOther;
bool currentSwitchIsQor = false;
int64_t configStoreTimeMs = 0;

int32_t ClassCode(const char *className) {
  if (className == nullptr) {
    return kClassOther;
  }
  if (std::strcmp(className, "vswitch") == 0) {
    return kClassVswitch;
  }
  if (std::strcmp(className, "cswitch") == 0) {
    return kClassCswitch;
  }
  return kClassOther;
}

int64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

namespace {

// The row a name finds in one table: the first row that carries the name
// or is the table's catch-all row, whichever comes first.  The tables are
// constant, so each is indexed once, on first use: a save looks up every
// property of every port.
class RowIndex {
 public:
  explicit RowIndex(uint32_t tableIndex) : rows_(GetConfigMap(static_cast<int>(tableIndex))) {
    const uint32_t catchAll = tableIndex == kTablePort ? kKindPortData : kKindSwitchData;
    for (size_t i = 0; rows_[i].name != nullptr; ++i) {
      byName_.emplace(rows_[i].name, i);  // keeps the first row of a name
      if (rows_[i].kind == catchAll && catchAll_ == kNone) {
        catchAll_ = i;
      }
    }
  }
  const PropToConfigEntry *Find(const char *name) const {
    size_t found = catchAll_;
    if (name != nullptr) {
      if (auto it = byName_.find(name); it != byName_.end()) {
        found = std::min(found, it->second);
      }
    }
    return found == kNone ? nullptr : &rows_[found];
  }

 private:
  static constexpr size_t kNone = SIZE_MAX;
  const PropToConfigEntry *rows_;
  std::unordered_map<std::string_view, size_t> byName_;
  size_t catchAll_ = kNone;
};

}  // namespace

const PropToConfigEntry *FindRow(uint32_t tableIndex, const char *name) {
  if (tableIndex >= kNumTables) {
    return nullptr;
  }
  static const RowIndex kIndexes[kNumTables] = {RowIndex(0), RowIndex(1), RowIndex(2)};
  return kIndexes[tableIndex].Find(name);
}

const char *RowKey(const PropToConfigEntry &row) {
  return row.depth == 0 ? row.path[0] : row.path[row.depth - 1];
}

uint32_t GetOrCreateSubObject(bool create, cs::Object *parent, const char *name,
                              const char *instanceId, cs::Object **child) {
  *child = nullptr;
  int status = cs::GetSubObject(parent, name, instanceId, child);
  if (status == cs::kOk) {
    return 0;
  }
  if (status != cs::kNotFound) {
    CS_ERROR("GetOrCreateSubObject for prop: %s failed, failure code: %d\n", name, status);
    return static_cast<uint32_t>(status);
  }
  if (!create) {
    return kAbsent;
  }
  status = cs::CreateSubObject(parent, name, instanceId, child);
  if (status != cs::kOk) {
    CS_ERROR("Create sub object for key: %s failed\n", name);
  }
  return static_cast<uint32_t>(status);
}

uint32_t ResolvePropPath(const char (*path)[ZEL_CONFIG_PATH_SIZE], uint32_t depth,
                         cs::Object *owner, cs::Object **parent, bool create) {
  cs::Object *current = owner;
  for (uint32_t i = 0; i + 1 < depth && i < ZEL_CONFIG_PATH_COMPONENTS; ++i) {
    cs::Object *next = nullptr;
    const uint32_t status = GetOrCreateSubObject(create, current, path[i], nullptr, &next);
    if (status != 0) {
      return status;
    }
    current = next;
  }
  *parent = current;
  return 0;
}

int StringIndexInArray(const char *name, const char *const *table, size_t size) {
  if (name == nullptr || table == nullptr) {
    return -1;
  }
  size_t i = 0;
  while (i < size && table[i] == nullptr) {
    ++i;
  }
  for (; i < size && table[i] != nullptr; ++i) {
    if (std::strcmp(table[i], name) == 0) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

}  // namespace zel::persist
