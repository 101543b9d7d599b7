// The port table of each switch: adding, removing and finding ports of the
// four kinds, and the port property operations.
#include <cstring>

#include "state/state_db.h"

namespace zel::state {

namespace {

// The first port, in slot order, with that id and kind.
int64_t FindPortSlot(SwitchState *sw, const char *portId, PortKind kind) {
  int64_t found = -1;
  sw->index->ForEachCandidate(PortIndex::Hash(portId), [&](uint32_t slot) {
    PortState *port = sw->ports[slot];
    if (port->kind == kind && std::strcmp(port->id, portId) == 0 && (found < 0 || slot < found)) {
      found = slot;
    }
  });
  return found;
}

PortState *FindByAlias(SwitchState *sw, const char *alias, PortKind kind) {
  if (sw == nullptr || alias == nullptr) {
    return nullptr;
  }
  for (int64_t i = sw->inUse->NextBit(0, true); i != host::BitVector::kNone;
       i = sw->inUse->NextBit(static_cast<uint32_t>(i) + 1, true)) {
    PortState *port = sw->ports[i];
    PropertyEntry *entry = nullptr;
    if (port->kind == kind && ZELData_Lookup(port->data, ZEL_PROP_PORT_ALIAS, &entry) == STATUS_OK) {
      const char *text = EntryText(entry);
      if (text != nullptr && std::strcmp(text, alias) == 0) {
        return port;
      }
    }
  }
  return nullptr;
}

// Normal first, then local cache.
PortState *FindPreferNormal(SwitchState *sw, const char *portId) {
  PortState *port = ZELStatePortFindOnZelSwitch(sw, portId, PORT_KIND_NORMAL);
  return port != nullptr ? port : ZELStatePortFindOnZelSwitch(sw, portId, PORT_KIND_LOCAL_CACHE);
}

enum class DataOp { kGet = 0, kSet = 1, kClear = 2 };

ReturnStatus PortDataCommon(PortState *port, const char *name, void **value, uint32_t *length,
                            DataOp op, uint32_t propType) {
  ReturnStatus status = STATUS_FAILURE;
  switch (op) {
    case DataOp::kGet:
      status = ReadValue(port->data, name, value, length);
      break;
    case DataOp::kSet:
      if (*value == nullptr || *length == 0) {
        return STATUS_FAILURE;
      }
      status = ZELData_Update(port->data, name, *value, *length, propType);
      break;
    case DataOp::kClear:
      status = ZELData_Remove(port->data, name);
      break;
  }
  if (status != STATUS_OK) {
    ZEL_LOG(1, "ZELStatePortDataCommon failed to set/get data switch %s,port %s, data %s type %d\n",
            port->sw->id, port->id, name, static_cast<int>(port->kind));
  }
  return status;
}

// Indexes a new port, widening the index first when it is crowded.
void IndexPort(SwitchState *sw, uint32_t hash, uint32_t slot) {
  if (sw->index->Crowded()) {
    // Every occupied slot is indexed: the walk ends at the last of them, not
    // at the end of the host-wide bit vector.
    uint64_t left = sw->index->Widen();
    for (int64_t i = sw->inUse->NextBit(0, true); left > 0 && i != host::BitVector::kNone;
         i = sw->inUse->NextBit(static_cast<uint32_t>(i) + 1, true), --left) {
      sw->index->Insert(sw->ports[i]->hash, static_cast<uint32_t>(i));
    }
  }
  sw->index->Insert(hash, slot);
}

}  // namespace

void RemovePortAt(SwitchState *sw, uint32_t slot, bool switchGoing) {
  PortState *port = sw->ports[slot];
  if (!switchGoing) {
    sw->index->Erase(port->hash, slot);
  }
  ZELData_Free(port->data);
  port->freeFn(port);
  sw->ports[slot] = nullptr;
  sw->inUse->Clear(slot);
  if (slot < sw->freeHint) {
    sw->freeHint = slot;
  }
  uwNumActivePortsSystemWide.fetch_sub(1, std::memory_order_relaxed);
  --sw->numPorts;
}

size_t MaxPortIdLength(uint32_t version) { return version > 6 ? ZEL_PORT_ID_SIZE - 1 : 15; }

}  // namespace zel::state

using namespace zel::state;

ReturnStatus ZELStatePortAdd(const char *switchId, const char *portId, PropertyList *list,
                             PortKind kind) {
  if (switchId == nullptr || portId == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELStatePortAdd %s, %s\n", switchId, portId);
  SwitchState *sw = ZELState_SwitchFind(switchId);
  if (sw == nullptr) {
    return STATUS_NOT_FOUND;
  }
  if (std::strlen(portId) > MaxPortIdLength(sw->version)) {
    ZEL_LOG(0, "ZELStatePortAdd %s, id length too long\n", portId);
    return STATUS_BAD_PARAM;
  }
  if ((sw->classFlags & 1) == 0 && sw->numPorts == sw->maxPorts) {
    ZEL_LOG(0, "ZELStatePortAdd %s, switch has already used up max num ports (%d)\n", switchId,
            static_cast<int>(sw->numPorts));
    return STATUS_LIMIT_EXCEEDED;
  }
  uint32_t hostCount = uwNumActivePortsSystemWide.load(std::memory_order_relaxed);
  if (hostCount == MaxPortsSystemWide()) {
    ZEL_LOG(0, "ZELStatePortAdd %s, host has already used up max num ports (%d)\n", switchId,
            static_cast<int>(hostCount));
    return STATUS_LIMIT_EXCEEDED;
  }
  if (sw->maxPorts < 1) {
    return STATUS_LIMIT_EXCEEDED;
  }
  if (kind != PORT_KIND_ZOMBIE && FindPortSlot(sw, portId, kind) >= 0) {
    return STATUS_EXISTS;
  }
  int64_t slot = sw->inUse->NextBit(sw->freeHint, false);
  if (slot == zel::host::BitVector::kNone || slot >= sw->maxPorts) {
    return STATUS_LIMIT_EXCEEDED;
  }
  if (list == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZELDataFreeFn freeFn = FreeFn();
  auto *port = static_cast<PortState *>(AllocFn()(sizeof(PortState)));
  if (port == nullptr) {
    return STATUS_NO_MEMORY;
  }
  std::memset(port, 0, sizeof *port);
  port->freeFn = freeFn;
  uint32_t index = static_cast<uint32_t>(slot);
  sw->ports[index] = port;
  ++sw->numPorts;
  uwNumActivePortsSystemWide.fetch_add(1, std::memory_order_relaxed);
  std::snprintf(port->id, sizeof port->id, "%s", portId);
  port->sw = sw;
  port->kind = kind;
  port->data = list;
  port->hash = PortIndex::Hash(port->id);
  IndexPort(sw, port->hash, index);
  sw->inUse->Set(index);
  sw->freeHint = index + 1;
  return STATUS_OK;
}

ReturnStatus ZELState_PortAdd(const char *switchId, const char *portId, PropertyList *list) {
  return ZELStatePortAdd(switchId, portId, list, PORT_KIND_NORMAL);
}

ReturnStatus ZELState_LocalCachePortAdd(const char *switchId, const char *portId,
                                        PropertyList *list) {
  return ZELStatePortAdd(switchId, portId, list, PORT_KIND_LOCAL_CACHE);
}

ReturnStatus ZELState_PortAddShadow(const char *switchId, const char *portId, const void *data,
                                    uint32_t dataLength) {
  if (switchId == nullptr || portId == nullptr || data == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_PortAddShadow %s, %s\n", switchId, portId);
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Deserialize(&list, data, dataLength, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    return status;
  }
  status = ZELStatePortAdd(switchId, portId, list, PORT_KIND_SHADOW);
  if (status != STATUS_OK) {
    ZELData_Free(list);
  }
  return status;
}

ReturnStatus ZELStatePortRemove(const char *switchId, const char *portId, PortKind kind) {
  if (switchId == nullptr || portId == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_PortRemove %s, %s\n", switchId, portId);
  SwitchState *sw = ZELState_SwitchFind(switchId);
  if (sw == nullptr) {
    ZEL_LOG(0, "Failed to find the ZEL %s\n", switchId);
    return STATUS_NOT_FOUND;
  }
  int64_t slot = FindPortSlot(sw, portId, kind);
  if (slot < 0) {
    return STATUS_NOT_FOUND;
  }
  RemovePortAt(sw, static_cast<uint32_t>(slot));
  return STATUS_OK;
}

ReturnStatus ZELState_PortRemove(const char *switchId, const char *portId) {
  return ZELStatePortRemove(switchId, portId, PORT_KIND_NORMAL);
}

ReturnStatus ZELState_PortRemoveShadow(const char *switchId, const char *portId) {
  return ZELStatePortRemove(switchId, portId, PORT_KIND_SHADOW);
}

ReturnStatus ZELState_PortRemoveZombie(const char *switchId, const char *portId) {
  return ZELStatePortRemove(switchId, portId, PORT_KIND_ZOMBIE);
}

ReturnStatus ZELState_LocalCachePortRemove(const char *switchId, const char *portId) {
  return ZELStatePortRemove(switchId, portId, PORT_KIND_LOCAL_CACHE);
}

PortState *ZELStatePortFindOnZelSwitch(SwitchState *sw, const char *portId, PortKind kind) {
  if (sw == nullptr || portId == nullptr) {
    return nullptr;
  }
  int64_t slot = FindPortSlot(sw, portId, kind);
  return slot < 0 ? nullptr : sw->ports[slot];
}

PortState *ZELState_PortFindOnZelSwitch(SwitchState *sw, const char *portId) {
  return FindPreferNormal(sw, portId);
}

PortState *ZELState_PortFind(const char *switchId, const char *portId) {
  return FindPreferNormal(ZELState_SwitchFind(switchId), portId);
}

PortState *ZELState_PortFindShadow(const char *switchId, const char *portId) {
  return ZELStatePortFindOnZelSwitch(ZELState_SwitchFind(switchId), portId, PORT_KIND_SHADOW);
}

PortState *ZELState_PortFindZombie(const char *switchId, const char *portId) {
  return ZELStatePortFindOnZelSwitch(ZELState_SwitchFind(switchId), portId, PORT_KIND_ZOMBIE);
}

PortState *ZELState_LocalCachePortFind(const char *switchId, const char *portId) {
  return ZELStatePortFindOnZelSwitch(ZELState_SwitchFind(switchId), portId,
                                     PORT_KIND_LOCAL_CACHE);
}

PortState *ZELState_PortFindByUUID(const uint8_t uuid[16], const char *portId) {
  return FindPreferNormal(ZELState_SwitchFindByUUID(uuid), portId);
}

PortState *ZELState_PortFindShadowByUUID(const uint8_t uuid[16], const char *portId) {
  return ZELStatePortFindOnZelSwitch(ZELState_SwitchFindByUUID(uuid), portId, PORT_KIND_SHADOW);
}

PortState *ZELStatePortFindByAliasOnZEL(SwitchState *sw, const char *portAlias, PortKind kind) {
  return FindByAlias(sw, portAlias, kind);
}

PortState *ZELState_PortFindByAliasType(SwitchState *sw, const char *portAlias, PortKind kind) {
  return FindByAlias(sw, portAlias, kind);
}

PortState *ZELState_PortFindByAliasOnZEL(SwitchState *sw, const char *portAlias) {
  PortState *port = FindByAlias(sw, portAlias, PORT_KIND_NORMAL);
  return port != nullptr ? port : FindByAlias(sw, portAlias, PORT_KIND_LOCAL_CACHE);
}

PortState *ZELStatePortFindByAlias(const char *switchAlias, const char *portAlias, PortKind kind) {
  return FindByAlias(ZELState_SwitchFindByAlias(switchAlias), portAlias, kind);
}

PortState *ZELState_PortFindByAlias(const char *switchAlias, const char *portAlias) {
  return ZELStatePortFindByAlias(switchAlias, portAlias, PORT_KIND_NORMAL);
}

PortState *ZELState_PortFindShadowByAlias(const char *switchAlias, const char *portAlias) {
  return ZELStatePortFindByAlias(switchAlias, portAlias, PORT_KIND_SHADOW);
}

ReturnStatus ZELState_PortDataGet(PortState *port, const char *name, void **value,
                                  uint32_t *length) {
  if (port == nullptr || name == nullptr || value == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_PortDataGet %s, %s, %s\n", port->sw->id, port->id, name);
  return PortDataCommon(port, name, value, length, DataOp::kGet, 0);
}

ReturnStatus ZELState_PortDataSet(PortState *port, const char *name, const void *value,
                                  uint32_t length, uint32_t propType) {
  if (port == nullptr || name == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_PortDataSet %s, %s, %s\n", port->sw->id, port->id, name);
  void *data = const_cast<void *>(value);
  return PortDataCommon(port, name, &data, &length, DataOp::kSet, propType);
}

ReturnStatus ZELState_PortDataClear(PortState *port, const char *name) {
  if (port == nullptr || name == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_PortDataClear %s, %s, %s\n", port->sw->id, port->id, name);
  return PortDataCommon(port, name, nullptr, nullptr, DataOp::kClear, 0);
}

ReturnStatus ZELState_PortDataRead(PortState *port, const char *name, void **value,
                                   uint32_t *length) {
  return port != nullptr ? ReadValue(port->data, name, value, length) : STATUS_BAD_PARAM;
}

ReturnStatus ZELState_PortDataForEach(PortState *port, ZELStatePropFn callback, void *context) {
  return port != nullptr ? WalkEntries(port->data, callback, context) : STATUS_BAD_PARAM;
}

void ZELState_PortForEach(SwitchState *sw, ZELStatePortFn callback, void *context) {
  if (sw == nullptr || callback == nullptr) {
    return;
  }
  for (int64_t i = sw->inUse->NextBit(0, true); i != zel::host::BitVector::kNone;
       i = sw->inUse->NextBit(static_cast<uint32_t>(i) + 1, true)) {
    if (callback(sw->ports[i], context)) {
      return;
    }
  }
}

// The accessors answer a null port with null or 0 and change nothing.
const char *ZEL_PortId(PortState *port) { return port != nullptr ? port->id : nullptr; }

const char *ZEL_PortAlias(PortState *port) {
  if (port == nullptr) {
    return nullptr;
  }
  PropertyEntry *entry = nullptr;
  if (ZELData_Lookup(port->data, ZEL_PROP_PORT_ALIAS, &entry) == STATUS_OK) {
    if (const char *text = EntryText(entry)) {
      return text;
    }
  }
  return "unknown";
}

PortKind ZEL_PortKind(PortState *port) { return port != nullptr ? port->kind : PORT_KIND_NONE; }
void ZEL_PortSetKind(PortState *port, PortKind kind) {
  if (port != nullptr) {
    port->kind = kind;
  }
}
PropertyList *ZEL_PortData(PortState *port) { return port != nullptr ? port->data : nullptr; }
SwitchState *ZEL_PortSwitch(PortState *port) { return port != nullptr ? port->sw : nullptr; }
