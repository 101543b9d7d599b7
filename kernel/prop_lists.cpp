// Slices of the kernel's property lists: the name-pattern routines, the
// switch-level lists (vendor, extra-config, overlay, ports of a kind), which
// go through the kernel's whole state loaded into the state database, and
// the port-level lists, which decode one port's data directly.
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "kernel/channel.h"
#include "kernel/scratch.h"
#include "state/props_take.h"
#include "zel/state.h"

namespace zel::kernel {
namespace {

constexpr const char *kQorPrefixes[] = {
    "com.zorlan.qorData.",
    "com.zorlan.vswitch.teaming",
    "com.zorlan.qor.",
    "com.zorlan.common.opaqueZel.",
    "com.zorlan.host.feature.container",
    "com.zorlan.extraconfig.opaqueZel.",
    "com.zorlan.vswitch.disabled",
    "com.zorlan.net.portset.fc.",
    "com.zorlan.port.extraConfig.sddcaas.",
};
constexpr const char kPortsetFcPrefix[] = "com.zorlan.net.portset.fc.";
constexpr const char kExtraConfig[] = "com.zorlan.extraconfig.";
constexpr const char kVersionProp[] = "com.zorlan.common.version";
constexpr const char kConnectIdProp[] = "com.zorlan.common.port.connectid";
constexpr uint32_t kQorVersionWithDvpTracking = 107;
// The port vendor list of this type also loses the "com.zorlan.net." names.
constexpr uint32_t kTypeWithoutNetNames = 32;

bool StartsWith(const char *name, const char *prefix) {
  return std::strncmp(name, prefix, std::strlen(prefix)) == 0;
}

// Removes every entry for which drop(entry) holds and returns the status of
// the last ZELData_Next.  Removal goes by name, which reaches the first
// entry of that name: when an earlier entry of the same name stays, every
// entry of the name is removed and the walk starts over (only lists that
// repeat names, which the library never builds itself, take that path).
template <typename Drop>
ReturnStatus RemoveWhere(PropertyList *list, Drop drop) {
  PropertyEntry *kept = nullptr;  // the last entry left in place
  for (;;) {
    PropertyEntry *entry = nullptr;
    const ReturnStatus status = ZELData_Next(list, kept, &entry);
    if (status != STATUS_OK) {
      return status;
    }
    if (!drop(entry)) {
      kept = entry;
      continue;
    }
    char name[ZELDATA_NAME_SIZE];
    std::snprintf(name, sizeof name, "%s", ZELData_Name(entry));
    PropertyEntry *first = nullptr;
    if (ZELData_Lookup(list, name, &first) == STATUS_OK && first == entry) {
      ZELData_Remove(list, name);
      continue;
    }
    while (ZELData_Remove(list, name) == STATUS_OK) {
    }
    kept = nullptr;
  }
}

bool IsException(const char *name, const char *const *exceptions) {
  for (; exceptions != nullptr && *exceptions != nullptr; ++exceptions) {
    if (std::strncmp(name, *exceptions, ZELDATA_NAME_SIZE) == 0) {
      return true;
    }
  }
  return false;
}

// The connection id of a port: the first 32 bits of its value; a shorter
// value is taken as far as it goes, the rest zero.
uint32_t ConnectId(PortState *port) {
  void *value = nullptr;
  uint32_t length = 0;
  uint32_t id = 0;
  if (ZELState_PortDataRead(port, kConnectIdProp, &value, &length) == STATUS_OK) {
    std::memcpy(&id, value, length < sizeof id ? length : sizeof id);
  }
  return id;
}

struct PortListFill {
  ZELPYXPortList *list;
  uint32_t capacity;
};

bool AppendPortOfKind(PortState *port, void *context) {
  auto *fill = static_cast<PortListFill *>(context);
  if (ZEL_PortKind(port) != fill->list->portKind || fill->list->count >= fill->capacity) {
    return false;
  }
  ZELPYXPortListEntry &entry = fill->list->entries[fill->list->count++];
  CopyText(entry.portId, sizeof entry.portId, ZEL_PortId(port));
  entry.connectId = ConnectId(port);
  return false;
}

// The version-dependent strip of the vendor lists: the kernel is asked for
// the switch's version; a failing query leaves the list as it is.
void StripForKernelVersion(const char *switchName, PropertyList *list, uint32_t propType) {
  void *value = nullptr;
  uint32_t length = 0;
  if (ZELPYX_GlobalPropGet(switchName, kVersionProp, &value, &length) != STATUS_OK) {
    return;
  }
  uint32_t version = 0;
  if (length >= sizeof version) {
    std::memcpy(&version, value, sizeof version);
    if (version == kQorVersionWithDvpTracking) {
      ZELPYXStripNamedPropForType(list, "com.zorlan.qor.vdr.dvptracking", nullptr, propType);
    }
  }
  ZELPYX_DataFree(value);
}

void *SystemAlloc(uint64_t bytes) { return std::malloc(bytes); }

}  // namespace

ReturnStatus FetchPortList(const char *switchName, const char *portId, PropertyList **out) {
  void *buffer = nullptr;
  uint32_t length = 0;
  ReturnStatus status = ZELPYX_PortStateGet(switchName, portId, &buffer, &length);
  if (status != STATUS_OK) {
    return status;
  }
  PropertyList *list = nullptr;
  status = ZELData_Deserialize(&list, buffer, length, SystemAlloc, std::free);
  ZELPYX_DataFree(buffer);
  if (status == STATUS_OK) {
    *out = list;
  }
  return status;
}

// The port-level frame: one port's list fetched from the kernel, cut down
// by cut(list) and handed to the caller.
template <typename Cut>
ReturnStatus WithKernelPortList(const char *switchName, const char *portId, PropertyList **list,
                                Cut cut) {
  if (list == nullptr) {
    return STATUS_BAD_PARAM;
  }
  PropertyList *slice = nullptr;
  const ReturnStatus status = FetchPortList(switchName, portId, &slice);
  if (status == STATUS_OK) {
    cut(slice);
    *list = slice;
  }
  return status;
}

}  // namespace zel::kernel

using zel::kernel::RemoveWhere;
using zel::kernel::StartsWith;
using zel::kernel::WithKernelSwitch;

extern "C" {

ZEL_API ReturnStatus ZELPYXStripNamedProp(PropertyList *list, const char *pattern) {
  if (list == nullptr || pattern == nullptr) {
    return STATUS_BAD_PARAM;
  }
  return RemoveWhere(list, [&](PropertyEntry *e) {
    return std::strstr(ZELData_Name(e), pattern) != nullptr;
  });
}

ZEL_API ReturnStatus ZELPYXStripNamedPropForType(PropertyList *list, const char *pattern,
                                                 const char *const *exceptions,
                                                 uint32_t propType) {
  if (list == nullptr || pattern == nullptr) {
    return STATUS_BAD_PARAM;
  }
  return RemoveWhere(list, [&](PropertyEntry *e) {
    const char *name = ZELData_Name(e);
    return (ZELData_PropType(e) != propType || std::strstr(name, pattern) != nullptr) &&
           !zel::kernel::IsException(name, exceptions);
  });
}

ZEL_API ReturnStatus ZELPYXExtractNamedPropForType(PropertyList *list, const char *pattern,
                                                   uint32_t propType) {
  if (list == nullptr || pattern == nullptr) {
    return STATUS_BAD_PARAM;
  }
  return RemoveWhere(list, [&](PropertyEntry *e) {
    return ZELData_PropType(e) != propType || std::strstr(ZELData_Name(e), pattern) == nullptr;
  });
}

ZEL_API bool IsQorProp(const char *name) {
  if (name == nullptr) {
    return false;
  }
  for (const char *prefix : zel::kernel::kQorPrefixes) {
    if (StartsWith(name, prefix)) {
      return true;
    }
  }
  return false;
}

ZEL_API ReturnStatus ZELPYXVendorPropList(const char *switchName, PropertyList **list,
                                          uint32_t propType, int host) {
  if (list == nullptr) {
    return STATUS_BAD_PARAM;
  }
  return WithKernelSwitch(switchName, [&](SwitchState *sw) {
    PropertyList *slice = nullptr;
    if (host == 0) {
      slice = zel::state::TakeGlobalProps(sw);
      ZELPYXStripNamedPropForType(slice, zel::kernel::kExtraConfig, nullptr, propType);
    } else {
      slice = zel::state::TakeHostProps(sw);
    }
    static constexpr const char *kVswitchExceptions[] = {"com.zorlan.vswitch.disabled", nullptr};
    ZELPYXStripNamedPropForType(slice, "com.zorlan.common.", nullptr, propType);
    ZELPYXStripNamedPropForType(slice, "com.zorlan.etherswitch.", nullptr, propType);
    ZELPYXStripNamedPropForType(slice, "com.zorlan.vswitch.", kVswitchExceptions, propType);
    ZELPYXStripNamedPropForType(slice, "dvfilter-generic-", nullptr, propType);
    ZELPYXStripNamedPropForType(slice, "com.zorlan.qorData.", nullptr, propType);
    zel::kernel::StripForKernelVersion(switchName, slice, propType);
    *list = slice;
    return STATUS_OK;
  });
}

ZEL_API ReturnStatus ZELPYX_VendorGlobalPropList(const char *switchName, PropertyList **list,
                                                 uint32_t propType) {
  return ZELPYXVendorPropList(switchName, list, propType, 0);
}

ZEL_API ReturnStatus ZELPYX_VendorHostPropList(const char *switchName, PropertyList **list,
                                               uint32_t propType) {
  return ZELPYXVendorPropList(switchName, list, propType, 1);
}

ZEL_API ReturnStatus ZELPYX_ExtraConfigPropList(const char *switchName, PropertyList **list,
                                                uint32_t propType) {
  if (list == nullptr) {
    return STATUS_BAD_PARAM;
  }
  return WithKernelSwitch(switchName, [&](SwitchState *sw) {
    PropertyList *slice = zel::state::TakeGlobalProps(sw);
    ZELPYXExtractNamedPropForType(slice, zel::kernel::kExtraConfig, propType);
    *list = slice;
    return STATUS_OK;
  });
}

ZEL_API ReturnStatus ZELPYX_QorPropList(const char *switchName, uint32_t propType, int global,
                                        PropertyList **list) {
  if (list == nullptr) {
    return STATUS_BAD_PARAM;
  }
  return WithKernelSwitch(switchName, [&](SwitchState *sw) {
    PropertyList *slice =
        global != 0 ? zel::state::TakeGlobalProps(sw) : zel::state::TakeHostProps(sw);
    RemoveWhere(slice, [&](PropertyEntry *e) {
      const char *name = ZELData_Name(e);
      const bool keep = (ZELData_PropType(e) == propType && IsQorProp(name)) ||
                        (propType == ZELDATA_PROPTYPE_LIBRARY &&
                         StartsWith(name, zel::kernel::kPortsetFcPrefix));
      return !keep;
    });
    *list = slice;
    return STATUS_OK;
  });
}

ZEL_API ReturnStatus ZELPYX_SwitchPortList(const char *switchName, ZELPYXPortList **list,
                                           uint32_t portKind) {
  if (list == nullptr) {
    return STATUS_BAD_PARAM;
  }
  return WithKernelSwitch(switchName, [&](SwitchState *sw) {
    const uint32_t capacity = ZEL_NumPorts(sw);
    // Zeroed, so that the bytes after each id's NUL are zero too.
    auto *ports = static_cast<ZELPYXPortList *>(
        std::calloc(1, sizeof(ZELPYXPortList) + sizeof(ZELPYXPortListEntry) * size_t{capacity}));
    if (ports == nullptr) {
      return STATUS_NO_MEMORY;
    }
    ports->count = 0;
    ports->portKind = portKind;
    zel::kernel::PortListFill fill{ports, capacity};
    ZELState_PortForEach(sw, zel::kernel::AppendPortOfKind, &fill);
    *list = ports;
    return STATUS_OK;
  });
}

ZEL_API ReturnStatus ZELPYX_VendorPortPropList(const char *switchName, const char *portId,
                                               PropertyList **list, uint32_t propType) {
  return zel::kernel::WithKernelPortList(switchName, portId, list, [&](PropertyList *slice) {
    for (const char *pattern :
         {"com.zorlan.common.", "com.zorlan.etherswitch.", "com.zorlan.vswitch.",
          "com.zorlan.port.extraConfig.", "com.zorlan.port.opaque.network", "dvfilter-generic-"}) {
      ZELPYXStripNamedPropForType(slice, pattern, nullptr, propType);
    }
    if (propType == zel::kernel::kTypeWithoutNetNames) {
      ZELPYXStripNamedPropForType(slice, "com.zorlan.net.", nullptr, propType);
    }
  });
}

ZEL_API ReturnStatus ZELPYX_ExtraConfigPortPropList(const char *switchName, const char *portId,
                                                    PropertyList **list, uint32_t propType) {
  return zel::kernel::WithKernelPortList(switchName, portId, list, [&](PropertyList *slice) {
    ZELPYXExtractNamedPropForType(slice, "com.zorlan.port.extraConfig", propType);
  });
}

}  // extern "C"
