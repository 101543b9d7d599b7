// One-call wrappers around the kernel module's switch, port and property
// requests.  Each fills a zeroed record and runs one exchange; none checks
// its arguments beyond what the exchange needs, and none touches the local
// state database.
#include <cstdio>

#include "kernel/channel.h"

namespace zel::kernel {
namespace {

// A zeroed record with the addressing fields filled; null texts stay empty.
ZELPYXCommand Record(const char *switchName, const char *portId = nullptr,
                     const char *name = nullptr) {
  ZELPYXCommand cmd{};
  CopyText(cmd.switchName, sizeof cmd.switchName, switchName);
  CopyText(cmd.portId, sizeof cmd.portId, portId);
  CopyText(cmd.name, sizeof cmd.name, name);
  return cmd;
}

void SetValue(ZELPYXCommand *cmd, const void *data, uint32_t dataLen, uint32_t propType) {
  cmd->data = AddressOf(data);
  cmd->dataLen = dataLen;
  cmd->propType = propType;
}

// An uplink is addressed by its index written as signed decimal.
void SetUplinkIndex(ZELPYXCommand *cmd, int32_t index) {
  std::snprintf(cmd->name, sizeof cmd->name, "%d", index);
}

}  // namespace

ReturnStatus ZELPYXSwitchPropGet(const char *switchName, const char *propName, void **buffer,
                                 uint32_t *length, int request) {
  ZELPYXCommand cmd = Record(switchName, nullptr, propName);
  return ZELPYXIoctlGet(request, &cmd, buffer, length);
}

ReturnStatus ZELPYXSwitchPropSet(const char *switchName, const char *propName, const void *data,
                                 uint32_t dataLen, int request, uint32_t propType) {
  if (!ValueUsable(data, dataLen)) {
    return STATUS_BAD_PARAM;
  }
  ZELPYXCommand cmd = Record(switchName, nullptr, propName);
  SetValue(&cmd, data, dataLen, propType);
  return ZELPYX_Ioctl(request, &cmd);
}

}  // namespace zel::kernel

using zel::kernel::Record;

extern "C" {

ZEL_API ReturnStatus ZELPYX_SwitchAdd(const char *switchName, const char *className,
                                      uint32_t maxPorts, uint32_t version) {
  ZELPYXCommand cmd = Record(switchName, nullptr, className);
  cmd.maxPorts = maxPorts;
  cmd.version = version;
  return ZELPYX_Ioctl(ZELPYX_REQ_SWITCH_ADD, &cmd);
}

ZEL_API ReturnStatus ZELPYX_SwitchRemove(const char *switchName) {
  ZELPYXCommand cmd = Record(switchName);
  return ZELPYX_Ioctl(ZELPYX_REQ_SWITCH_REMOVE, &cmd);
}

ZEL_API ReturnStatus ZELPYX_SwitchAssociate(const char *switchName) {
  ZELPYXCommand cmd = Record(switchName);
  return ZELPYX_Ioctl(ZELPYX_REQ_SWITCH_ASSOCIATE, &cmd);
}

ZEL_API ReturnStatus ZELPYX_SwitchDissociate(const char *switchName) {
  ZELPYXCommand cmd = Record(switchName);
  return ZELPYX_Ioctl(ZELPYX_REQ_SWITCH_DISSOCIATE, &cmd);
}

ZEL_API ReturnStatus ZELPYX_GlobalPropGet(const char *switchName, const char *propName,
                                          void **buffer, uint32_t *length) {
  return zel::kernel::ZELPYXSwitchPropGet(switchName, propName, buffer, length,
                                          ZELPYX_REQ_GLOBAL_PROP_GET);
}

ZEL_API ReturnStatus ZELPYX_GlobalPropSet(const char *switchName, const char *propName,
                                          const void *data, uint32_t dataLen, uint32_t propType) {
  return zel::kernel::ZELPYXSwitchPropSet(switchName, propName, data, dataLen,
                                          ZELPYX_REQ_GLOBAL_PROP_SET, propType);
}

ZEL_API ReturnStatus ZELPYXSwitchPropClear(const char *switchName, const char *propName,
                                           int request) {
  ZELPYXCommand cmd = Record(switchName, nullptr, propName);
  return ZELPYX_Ioctl(request, &cmd);
}

ZEL_API ReturnStatus ZELPYX_GlobalPropClear(const char *switchName, const char *propName) {
  return ZELPYXSwitchPropClear(switchName, propName, ZELPYX_REQ_GLOBAL_PROP_CLEAR);
}

ZEL_API ReturnStatus ZELPYX_HostPropGet(const char *switchName, const char *propName,
                                        void **buffer, uint32_t *length) {
  return zel::kernel::ZELPYXSwitchPropGet(switchName, propName, buffer, length,
                                          ZELPYX_REQ_HOST_PROP_GET);
}

ZEL_API ReturnStatus ZELPYX_HostPropSet(const char *switchName, const char *propName,
                                        const void *data, uint32_t dataLen, uint32_t propType) {
  return zel::kernel::ZELPYXSwitchPropSet(switchName, propName, data, dataLen,
                                          ZELPYX_REQ_HOST_PROP_SET, propType);
}

ZEL_API ReturnStatus ZELPYX_HostPropClear(const char *switchName, const char *propName) {
  return ZELPYXSwitchPropClear(switchName, propName, ZELPYX_REQ_HOST_PROP_CLEAR);
}

ZEL_API ReturnStatus ZELPYX_PortAdd(const char *switchName, const char *portId, const void *data,
                                    uint32_t dataLen) {
  if (!zel::kernel::ValueUsable(data, dataLen)) {
    return STATUS_BAD_PARAM;
  }
  ZELPYXCommand cmd = Record(switchName, portId);
  cmd.data = zel::kernel::AddressOf(data);
  cmd.dataLen = dataLen;
  return ZELPYX_Ioctl(ZELPYX_REQ_PORT_ADD, &cmd);
}

ZEL_API ReturnStatus ZELPYX_PortRemove(const char *switchName, const char *portId) {
  ZELPYXCommand cmd = Record(switchName, portId);
  return ZELPYX_Ioctl(ZELPYX_REQ_PORT_REMOVE, &cmd);
}

ZEL_API ReturnStatus ZELPYX_PortDataGet(const char *switchName, const char *portId,
                                        const char *propName, void **buffer, uint32_t *length) {
  ZELPYXCommand cmd = Record(switchName, portId, propName);
  return zel::kernel::ZELPYXIoctlGet(ZELPYX_REQ_PORT_DATA_GET, &cmd, buffer, length);
}

ZEL_API ReturnStatus ZELPYX_PortDataSet(const char *switchName, const char *portId,
                                        const char *propName, const void *data, uint32_t dataLen,
                                        uint32_t propType) {
  if (!zel::kernel::ValueUsable(data, dataLen)) {
    return STATUS_BAD_PARAM;
  }
  ZELPYXCommand cmd = Record(switchName, portId, propName);
  zel::kernel::SetValue(&cmd, data, dataLen, propType);
  return ZELPYX_Ioctl(ZELPYX_REQ_PORT_DATA_SET, &cmd);
}

ZEL_API ReturnStatus ZELPYX_PortDataClear(const char *switchName, const char *portId,
                                          const char *propName) {
  ZELPYXCommand cmd = Record(switchName, portId, propName);
  return ZELPYX_Ioctl(ZELPYX_REQ_PORT_DATA_CLEAR, &cmd);
}

ZEL_API ReturnStatus ZELPYX_PortStateGet(const char *switchName, const char *portId,
                                         void **buffer, uint32_t *length) {
  ZELPYXCommand cmd = Record(switchName, portId);
  return zel::kernel::ZELPYXIoctlGet(ZELPYX_REQ_PORT_STATE_GET, &cmd, buffer, length);
}

ZEL_API ReturnStatus ZELPYX_PortFind(const char *switchName, const char *portId) {
  ZELPYXCommand cmd = Record(switchName, portId);
  return ZELPYX_Ioctl(ZELPYX_REQ_PORT_FIND, &cmd);
}

ZEL_API ReturnStatus ZELPYX_SwitchSetMaxPorts(const char *switchName, uint32_t maxPorts) {
  ZELPYXCommand cmd = Record(switchName);
  cmd.maxPorts = maxPorts;
  return ZELPYX_Ioctl(ZELPYX_REQ_SWITCH_SET_MAX_PORTS, &cmd);
}

ZEL_API ReturnStatus ZELPYX_SwitchSetVersion(const char *switchName, uint32_t version) {
  ZELPYXCommand cmd = Record(switchName);
  cmd.version = version;
  return ZELPYX_Ioctl(ZELPYX_REQ_SWITCH_SET_VERSION, &cmd);
}

ZEL_API ReturnStatus ZELPYX_UplinkDataSet(const char *switchName, const char *portId,
                                          uint32_t uplinkIndex, const void *data,
                                          uint32_t dataLen, uint32_t propType) {
  if (!zel::kernel::ValueUsable(data, dataLen)) {
    return STATUS_BAD_PARAM;
  }
  ZELPYXCommand cmd = Record(switchName, portId);
  zel::kernel::SetUplinkIndex(&cmd, static_cast<int32_t>(uplinkIndex));
  zel::kernel::SetValue(&cmd, data, dataLen, propType);
  return ZELPYX_Ioctl(ZELPYX_REQ_UPLINK_DATA_SET, &cmd);
}

ZEL_API ReturnStatus ZELPYX_UplinkDataGet(const char *switchName, const char *portId,
                                          int32_t uplinkIndex, void **buffer, uint32_t *length) {
  ZELPYXCommand cmd = Record(switchName, portId);
  zel::kernel::SetUplinkIndex(&cmd, uplinkIndex);
  return zel::kernel::ZELPYXIoctlGet(ZELPYX_REQ_UPLINK_DATA_GET, &cmd, buffer, length);
}

}  // extern "C"
