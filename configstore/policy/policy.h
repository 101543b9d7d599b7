// Registration hooks of the policy conversion kinds, one per family and one
// source each under configstore/policy/.  The kind table calls every hook
// once, on first use; a hook adds the save and load cases of its kinds with
// KindTable::Add.  Until a family's cases are added, both dispatchers reject
// its kinds as unknown.
//
// Kind 36 (a port's resource pools) is special on loading: the load
// dispatcher passes over its row and, after the port rows, calls its load
// case for an uplink port with `parent` = the switch's "resource_management"
// object, key "traffic_resources" and the name
// "com.zorlan.common.port.respools.cfg".
#pragma once

#include "configstore/kinds.h"

namespace zel::persist::policy {

// Opaque, vendor-specific and extra-config data: kinds 22 and 33.
void RegisterOpaqueKinds(KindTable &table);
// Health checks and network resource pools: kinds 11, 12, 13 and 36.
void RegisterResourcePoolKinds(KindTable &table);
// Uplink teaming and failover: kinds 17 and 18.
void RegisterTeamingKinds(KindTable &table);
// VLAN and private-VLAN settings: kinds 6, 7, 24 and 25.
void RegisterVlanKinds(KindTable &table);
// Port mirroring sessions: kind 9.
void RegisterMirrorKinds(KindTable &table);
// Link discovery, LACP and IPFIX: kinds 8, 10, 16 and 35.
void RegisterDiscoveryKinds(KindTable &table);
// Traffic shaping, MAC management and filter policy: kinds 26 to 29.
void RegisterPortPolicyKinds(KindTable &table);

}  // namespace zel::persist::policy
