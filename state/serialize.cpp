// The state blob: serialized property data nested three levels deep.
//
//   level 1  switch id -> switch blob, in table slot order (version 5)
//   level 2  "switchVersion" (u32), "className" (128 bytes), "maxPorts" (u32,
//            the configured limit), "globalPropList", "hostPropList", then
//            port id -> port list for each port in slot order
//   level 3  a property list (global, host or port)
// Every entry written here has type 16.
//
// Reading refuses values outside that layout with STATUS_BAD_PARAM before
// anything of the switch or port is added: a "switchVersion", "maxPorts" or
// port-kind ("com.zorlan.common.port.volatile.type") value shorter than 4
// bytes, and a "className" without a NUL within its length.  Longer number
// values are read from their first 4 bytes.
#include <cstring>

#include "state/state_db.h"

namespace zel::state {

namespace {

constexpr uint32_t kStateBlobVersion = 5;
constexpr const char *kSwitchVersion = "switchVersion";
constexpr const char *kClassName = "className";
constexpr const char *kMaxPorts = "maxPorts";
constexpr const char *kGlobalPropList = "globalPropList";
constexpr const char *kHostPropList = "hostPropList";

// Serializes `inner` under `name` in `outer`; a null inner list stores nothing.
ReturnStatus StoreNestedList(PropertyList *outer, const char *name, PropertyList *inner,
                             uint32_t version) {
  if (inner == nullptr) {
    return STATUS_OK;
  }
  void *buffer = nullptr;
  uint32_t length = 0;
  ReturnStatus status = ZELData_Serialize(inner, &buffer, &length, version);
  if (status != STATUS_OK) {
    return status;
  }
  status = ZELData_Update(outer, name, buffer, length, kTypeLibrary);
  ZELData_FreeAssocData(inner, buffer);
  return status;
}

// Takes the entry `name` out of `outer` and deserializes it into *inner
// (left null when the entry is absent).
ReturnStatus ExtractNestedList(PropertyList *outer, const char *name, PropertyList **inner) {
  *inner = nullptr;
  PropertyEntry *entry = nullptr;
  if (ZELData_Lookup(outer, name, &entry) != STATUS_OK) {
    return STATUS_OK;
  }
  void *value = nullptr;
  uint32_t length = ZELData_Data(entry, &value);
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Deserialize(&list, value, length, AllocFn(), FreeFn());
  ZELData_Remove(outer, name);
  if (status == STATUS_OK) {
    *inner = list;
  }
  return status;
}

// Reads a u32 value.  STATUS_NOT_FOUND when absent, STATUS_BAD_PARAM when
// shorter than 4 bytes.
ReturnStatus ReadU32(PropertyList *list, const char *name, uint32_t *out) {
  void *value = nullptr;
  uint32_t length = 0;
  ReturnStatus status = ReadValue(list, name, &value, &length);
  if (status != STATUS_OK) {
    return status;
  }
  if (length < sizeof(uint32_t)) {
    return STATUS_BAD_PARAM;
  }
  std::memcpy(out, value, sizeof(uint32_t));
  return STATUS_OK;
}

// The parts of a switch blob that come before the switch can be added.
struct SwitchHeader {
  uint32_t version = 0;
  uint32_t maxPorts = 0;
  char className[ZEL_CLASS_NAME_SIZE] = {};
};

ReturnStatus ReadSwitchHeader(PropertyList *list, SwitchHeader *header) {
  ReturnStatus status = ReadU32(list, kSwitchVersion, &header->version);
  if (status == STATUS_NOT_FOUND) {
    header->version = 0;
  } else if (status != STATUS_OK) {
    return status;
  }
  PropertyEntry *entry = nullptr;
  status = ZELData_Lookup(list, kClassName, &entry);
  if (status != STATUS_OK) {
    return status;
  }
  const char *className = EntryText(entry);
  if (className == nullptr) {
    return STATUS_BAD_PARAM;
  }
  std::snprintf(header->className, sizeof header->className, "%s", className);
  return ReadU32(list, kMaxPorts, &header->maxPorts);
}

// Replaces one of the switch's (empty) lists with `list`.
void ReplaceList(PropertyList **slot, PropertyList *list) {
  if (list != nullptr) {
    ZELData_Free(*slot);
    *slot = list;
  }
}

// Rebuilds the switch from its blob list L once it was added.
ReturnStatus FillSwitch(const char *switchId, PropertyList *list, PropertyList *hostList) {
  ZELData_Remove(list, kClassName);
  ZELData_Remove(list, kMaxPorts);
  ZELData_Remove(list, kSwitchVersion);
  SwitchState *sw = ZELState_SwitchFind(switchId);
  if (sw == nullptr) {
    ZEL_LOG(0, "ZEL %s acquire failed\n", switchId);
    ZELData_Free(hostList);
    return STATUS_NOT_FOUND;
  }
  ReplaceList(&sw->hostProps, hostList);
  PropertyList *globalList = nullptr;
  ReturnStatus status = ExtractNestedList(list, kGlobalPropList, &globalList);
  if (status != STATUS_OK) {
    return status;
  }
  ReplaceList(&sw->globalProps, globalList);
  PropertyEntry *entry = nullptr;
  while (ZELData_Next(list, entry, &entry) == STATUS_OK) {
    void *value = nullptr;
    uint32_t length = ZELData_Data(entry, &value);
    status = ZELState_PortDeserialize(switchId, ZELData_Name(entry), value, length);
    if (status != STATUS_OK) {
      return status;
    }
  }
  return STATUS_OK;
}

}  // namespace

}  // namespace zel::state

using namespace zel::state;

ReturnStatus ZELState_ConfigSerialize(void **buffer, uint32_t *length) {
  if (buffer == nullptr || length == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_ConfigSerialize\n");
  PropertyList *outer = nullptr;
  ReturnStatus status = ZELData_Alloc(&outer, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    ZEL_LOG(0, "ZELState_ConfigSerialize, alloc failed\n");
    return status;
  }
  {
    TableLock lock;
    for (SwitchState *sw : globalSwsArray) {
      if (sw == nullptr) {
        continue;
      }
      void *switchBlob = nullptr;
      uint32_t switchLength = 0;
      status = ZELState_SwitchSerialize(sw, &switchBlob, &switchLength);
      if (status == STATUS_OK) {
        status = ZELData_Update(outer, sw->id, switchBlob, switchLength, kTypeLibrary);
        // The switch blob came from the allocator the outer list was made with.
        ZELData_FreeAssocData(outer, switchBlob);
      }
      if (status != STATUS_OK) {
        ZEL_LOG(0, "ZELStateConfigSerializeCB ZEL %s failed %s\n", sw->id, StatusText(status));
        ZELData_Free(outer);
        return STATUS_EXISTS;
      }
    }
  }
  status = ZELData_Serialize(outer, buffer, length, kStateBlobVersion);
  ZELData_Free(outer);
  return status;
}

ReturnStatus ZELState_SwitchSerialize(SwitchState *sw, void **buffer, uint32_t *length) {
  if (sw == nullptr || buffer == nullptr || length == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_SwitchSerialize %s\n", sw->id);
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Alloc(&list, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    return status;
  }
  status = ZELData_Update(list, kSwitchVersion, &sw->version, sizeof sw->version, kTypeLibrary);
  if (status == STATUS_OK) {
    status = ZELData_Update(list, kClassName, sw->className, sizeof sw->className, kTypeLibrary);
  }
  if (status == STATUS_OK) {
    status = ZELData_Update(list, kMaxPorts, &sw->newMaxPorts, sizeof sw->newMaxPorts,
                            kTypeLibrary);
  }
  if (status == STATUS_OK) {
    status = StoreNestedList(list, kGlobalPropList, sw->globalProps, sw->version);
  }
  if (status == STATUS_OK) {
    status = StoreNestedList(list, kHostPropList, sw->hostProps, sw->version);
  }
  for (int64_t i = sw->inUse->NextBit(0, true);
       status == STATUS_OK && i != zel::host::BitVector::kNone;
       i = sw->inUse->NextBit(static_cast<uint32_t>(i) + 1, true)) {
    PortState *port = sw->ports[i];
    if (port->kind == PORT_KIND_NONE) {
      continue;
    }
    void *portBlob = nullptr;
    uint32_t portLength = 0;
    status = ZELState_PortSerialize(port, &portBlob, &portLength);
    if (status == STATUS_OK) {
      status = ZELData_Append(list, port->id, portBlob, portLength, kTypeLibrary);
      ZELData_FreeAssocData(port->data, portBlob);
    }
  }
  if (status == STATUS_OK) {
    status = ZELData_Serialize(list, buffer, length, sw->version);
  }
  ZELData_Free(list);
  return status;
}

ReturnStatus ZELState_PortSerialize(PortState *port, void **buffer, uint32_t *length) {
  if (port == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_PortSerialize %s\n", port->id);
  return ZELData_Serialize(port->data, buffer, length, port->sw->version);
}

ReturnStatus ZELState_ConfigDeserialize(const void *blob, uint32_t length) {
  if (blob == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_ConfigDeserialize\n");
  PropertyList *outer = nullptr;
  ReturnStatus status = ZELData_Deserialize(&outer, blob, length, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    ZEL_LOG(0, "ZELState_ConfigDeserialize failed %s\n", StatusText(status));
    return status;
  }
  PropertyEntry *entry = nullptr;
  while (ZELData_Next(outer, entry, &entry) == STATUS_OK) {
    void *value = nullptr;
    uint32_t valueLength = ZELData_Data(entry, &value);
    status = ZELState_SwitchDeserialize(ZELData_Name(entry), value, valueLength);
    if (status != STATUS_OK) {
      ZEL_LOG(0, "ZELState_SwitchDeserialize failed %s\n", StatusText(status));
      ZELState_ConfigReset();
      break;
    }
  }
  ZELData_Free(outer);
  return status;
}

ReturnStatus ZELState_SwitchDeserialize(const char *switchId, const void *blob, uint32_t length) {
  if (switchId == nullptr || blob == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_SwitchDeserialize %s\n", switchId);
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Deserialize(&list, blob, length, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    return status;
  }
  SwitchHeader header;
  PropertyList *hostList = nullptr;
  status = ReadSwitchHeader(list, &header);
  if (status == STATUS_OK) {
    status = ExtractNestedList(list, kHostPropList, &hostList);
  }
  if (status == STATUS_OK) {
    status = ZELState_SwitchAdd(switchId, header.className, header.maxPorts, header.version);
    if (status != STATUS_OK) {
      ZEL_LOG(0, "ZELState_SwitchDeserialize Switch add failed %s/%s/%s/%d\n", switchId,
              header.className, "", static_cast<int>(header.maxPorts));
      ZELData_Free(hostList);
    }
  }
  if (status != STATUS_OK) {
    ZELData_Free(list);
    ZEL_LOG(1, "ZELState_SwitchDeserialize zel %s return %s\n", switchId, StatusText(status));
    return status;
  }
  status = FillSwitch(switchId, list, hostList);
  ZELData_Free(list);
  if (status != STATUS_OK) {
    SwitchRemoveNoLock(switchId);
    ZEL_LOG(0, "ZELState_SwitchDeserialize zel %s return %s\n", switchId, StatusText(status));
    return status;
  }
  ZEL_LOG(1, "ZELState_SwitchDeserialize zel %s return %s\n", switchId, StatusText(status));
  return STATUS_OK;
}

ReturnStatus ZELState_PortDeserialize(const char *switchId, const char *portId, const void *data,
                                      uint32_t length) {
  if (switchId == nullptr || portId == nullptr || data == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_PortDeserialize %s, %s\n", switchId, portId);
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Deserialize(&list, data, length, AllocFn(), FreeFn());
  if (status != STATUS_OK) {
    return status;
  }
  uint32_t kind = PORT_KIND_NORMAL;
  status = ReadU32(list, ZEL_PROP_PORT_TYPE, &kind);
  if (status == STATUS_NOT_FOUND) {
    ZEL_LOG(0, "ZELState_PortDeserialize: no type for %s, %s\n", switchId, portId);
    status = ZELState_PortAdd(switchId, portId, list);
  } else if (status == STATUS_OK) {
    status = ZELStatePortAdd(switchId, portId, list, kind);
    ZELData_Remove(list, ZEL_PROP_PORT_TYPE);
  }
  if (status != STATUS_OK) {
    ZELData_Free(list);
  }
  return status;
}
