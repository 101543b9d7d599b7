// The kernel's state reduced to what may survive a restart, the search of a
// port by the external id of its adapter, and the save of the reduced state
// into the configuration store.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/status_text.h"
#include "kernel/channel.h"
#include "kernel/scratch.h"
#include "zel/configstore.h"
#include "zel/file.h"
#include "zel/state.h"

namespace zel::kernel {
namespace {

constexpr const char kVolatile[] = ".volatile.";
constexpr const char kOpaquePortsetProp[] = "com.zorlan.common.portset.opaque";
constexpr const char kVnicExternalIdProp[] = "com.zorlan.port.extraConfig.vnic.external.id";
constexpr const char kPyxnicExternalIdProp[] = "com.zorlan.port.extraConfig.pyxnic.external.id";
// Numeric port ids above this one are dropped from opaque port sets.
constexpr int32_t kHighestKeptNumericPort = 999;

// The value of an all-digit id as the C library's atoi gives it (strtol,
// saturating, then taken as a 32-bit signed integer); false when the id
// holds a non-digit.  An empty id is all digits with the value 0.
bool NumericPortId(const char *id, int32_t *value) {
  for (const char *c = id; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') {
      return false;
    }
  }
  const long parsed = std::strtol(id, nullptr, 10);
  *value = static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned long>(parsed)));
  return true;
}

bool DropHighNumericPort(PortState *port, void * /*context*/) {
  int32_t value = 0;
  if (NumericPortId(ZEL_PortId(port), &value) && value > kHighestKeptNumericPort) {
    // The removal frees the port (when it is the normal one): copy the ids.
    char switchId[ZEL_SWITCH_ID_SIZE];
    char portId[ZEL_PORT_ID_SIZE];
    CopyText(switchId, sizeof switchId, ZEL_SwitchId(ZEL_PortSwitch(port)));
    CopyText(portId, sizeof portId, ZEL_PortId(port));
    ZELState_PortRemove(switchId, portId);
  }
  return false;
}

// Normal ports keep their non-volatile properties; every other port, and a
// normal port marked to stay out, gets kind 0 so the serializer skips it.
bool PersistPort(PortState *port, void * /*context*/) {
  void *value = nullptr;
  uint32_t length = 0;
  if (ZEL_PortKind(port) == PORT_KIND_NORMAL &&
      ZELState_PortDataRead(port, ZEL_PROP_PORT_PERSIST, &value, &length) != STATUS_OK) {
    ZELPYXStripNamedProp(ZEL_PortData(port), kVolatile);
  } else {
    ZEL_PortSetKind(port, PORT_KIND_NONE);
  }
  return false;
}

bool PersistSwitch(SwitchState *sw, void * /*context*/) {
  ZELPYXStripNamedProp(ZEL_GlobalPropList(sw), kVolatile);
  ZELPYXStripNamedProp(ZEL_HostPropList(sw), kVolatile);
  void *value = nullptr;
  uint32_t length = 0;
  if (ZELState_HostPropRead(sw, kOpaquePortsetProp, &value, &length) == STATUS_OK &&
      length >= 4 && std::memcmp(value, "true", 4) == 0) {
    ZELState_PortForEach(sw, DropHighNumericPort, nullptr);
  }
  ZELState_PortForEach(sw, PersistPort, nullptr);
  return false;
}

// Reduces every switch of the database, serializes the result into the
// caller's buffer and empties the database.
ReturnStatus PersistAndSerialize(void **blob, uint32_t *blobLen) {
  ZELState_SwitchForEach(PersistSwitch, nullptr);
  const ReturnStatus status = ZELState_ConfigSerialize(blob, blobLen);
  ZELState_ConfigReset();
  return status;
}

// The stored state from the state path, loaded into the empty database.
// The set-aside switches are freed on failure.
ReturnStatus LoadStoredState(const char *statePath, SwitchState **setAside) {
  void *stored = nullptr;
  int32_t storedLen = 0;
  uint32_t offset = 0;  // the configuration-store read does not write it
  ReturnStatus status = ZELFile_Read(statePath, &stored, &storedLen, &offset);
  if (status != STATUS_OK) {
    ZELState_FreeZELArray(setAside);
    return status;
  }
  status = storedLen >= 0 ? ZELState_ConfigDeserialize(stored, static_cast<uint32_t>(storedLen))
                          : STATUS_BAD_PARAM;
  std::free(static_cast<uint8_t *>(stored) - offset);
  if (status != STATUS_OK) {
    std::fprintf(stderr, "ZELState_ConfigDeserialize failed: %s\n",
                 host::PYX_ReturnStatusToString(status));
    ZELState_FreeZELArray(setAside);
  }
  return status;
}

struct ExternalIdSearch {
  const char *searched;
  size_t searchedLength;
  ZELPYXExternalIdMatch *result;
};

// The external id of a port's adapter: its bytes up to the first NUL or the
// end of the value.
bool ReadExternalId(PortState *port, const char **id, size_t *length) {
  void *value = nullptr;
  uint32_t valueLength = 0;
  if (ZELState_PortDataRead(port, kVnicExternalIdProp, &value, &valueLength) != STATUS_OK &&
      ZELState_PortDataRead(port, kPyxnicExternalIdProp, &value, &valueLength) != STATUS_OK) {
    return false;
  }
  *id = static_cast<const char *>(value);
  *length = strnlen(*id, valueLength);
  return true;
}

bool MatchExternalId(PortState *port, void *context) {
  auto *search = static_cast<ExternalIdSearch *>(context);
  const char *stored = nullptr;
  size_t storedLength = 0;
  if (!ReadExternalId(port, &stored, &storedLength) || storedLength > search->searchedLength ||
      std::memcmp(stored, search->searched, storedLength) != 0) {
    return false;
  }
  CopyText(search->result->portId, sizeof search->result->portId, ZEL_PortId(port));
  return true;
}

}  // namespace
}  // namespace zel::kernel

extern "C" {

ZEL_API ReturnStatus ZELPYX_PersistentStateGetWithFile(void **blob, uint32_t *blobLen,
                                                       const char *statePath) {
  if (blob == nullptr || blobLen == nullptr) {
    return STATUS_BAD_PARAM;
  }
  SwitchState *setAside[ZEL_MAX_SWITCHES] = {};
  char removedIds[ZEL_MAX_SWITCHES][ZEL_SWITCH_ID_SIZE] = {};
  void *kernelBlob = nullptr;
  uint32_t kernelLen = 0;
  ReturnStatus status = ZELPYX_StateGet(&kernelBlob, &kernelLen);
  if (status != STATUS_OK) {
    return status;
  }
  zel::kernel::ScratchLock lock;
  status = zel::kernel::LoadKernelBlob(kernelBlob, kernelLen);
  if (status != STATUS_OK) {
    return status;
  }
  // True only with a state path and a flagged switch: every other switch
  // then waits in setAside and the database is empty.
  if (!ZELState_StripZelWithNoPersistFlag(setAside, removedIds, statePath != nullptr)) {
    return zel::kernel::PersistAndSerialize(blob, blobLen);
  }
  status = zel::kernel::LoadStoredState(statePath, setAside);
  if (status != STATUS_OK) {
    return status;
  }
  // The flagged switches of the stored state join the kernel's other
  // switches; the rest of the stored state is left in setAside.
  ZELState_UpdateGlobalSwsArray(setAside, removedIds);
  status = zel::kernel::PersistAndSerialize(blob, blobLen);
  ZELState_FreeZELArray(setAside);
  return status;
}

ZEL_API ReturnStatus ZELPYX_PersistentStateGet(void **blob, uint32_t *blobLen) {
  return ZELPYX_PersistentStateGetWithFile(blob, blobLen, nullptr);
}

ZEL_API ReturnStatus ZELPYX_PersistentPortStateGet(const char *switchName, const char *portId,
                                                   uint32_t version, void **buffer,
                                                   uint32_t *length) {
  if (buffer == nullptr || length == nullptr) {
    return STATUS_BAD_PARAM;
  }
  PropertyList *list = nullptr;
  ReturnStatus status = zel::kernel::FetchPortList(switchName, portId, &list);
  if (status != STATUS_OK) {
    return status;
  }
  ZELPYXStripNamedProp(list, zel::kernel::kVolatile);
  status = ZELData_Serialize(list, buffer, length, version);
  ZELData_Free(list);
  return status;
}

ZEL_API ReturnStatus ZELPYX_PortGetByExternalId(const char *switchName, const char *externalId,
                                                ZELPYXExternalIdMatch **result) {
  if (externalId == nullptr || result == nullptr) {
    return STATUS_BAD_PARAM;
  }
  return zel::kernel::WithKernelSwitch(switchName, [&](SwitchState *sw) {
    auto *match = static_cast<ZELPYXExternalIdMatch *>(std::calloc(1, sizeof(ZELPYXExternalIdMatch)));
    if (match == nullptr) {
      return STATUS_NO_MEMORY;
    }
    // Zeroed, so portId starts empty.  The copy of the searched id is cut
    // to its field; the search itself uses the whole id.
    zel::kernel::CopyText(match->externalId, sizeof match->externalId, externalId);
    zel::kernel::ExternalIdSearch search{externalId, std::strlen(externalId), match};
    ZELState_PortForEach(sw, zel::kernel::MatchExternalId, &search);
    *result = match;
    return STATUS_OK;
  });
}

ZEL_API uint32_t ZELState_SaveToConfigStore_ByInstance(const char *switchId) {
  void *blob = nullptr;
  uint32_t length = 0;
  const ReturnStatus status = ZELPYX_PersistentStateGet(&blob, &length);
  if (status != STATUS_OK) {
    if (zelconfigstore_debug >= 0) {
      std::printf("Failed to save ZEL config to configstore when get ZEL buffrom pyx. Error: %s\n",
                  zel::host::PYX_ReturnStatusToString(status));
    }
    return ZEL_CONFIGSTORE_FAILURE;
  }
  const uint32_t saved = ZELState_SaveBufToConfigStore_ByInstance(blob, length, switchId);
  std::free(blob);
  return saved;
}

ZEL_API uint32_t ZELState_SaveToConfigStore(void) {
  return ZELState_SaveToConfigStore_ByInstance(nullptr);
}

}  // extern "C"
