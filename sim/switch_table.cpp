#include "sim/switch_table.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zel::sim {
namespace {

constexpr uint32_t kEntryType = ZELDATA_PROPTYPE_LIBRARY;
constexpr uint32_t kStateBlobVersion = 5;
constexpr size_t kSwitchNameMax = 63;
constexpr size_t kClassNameField = 128;

constexpr const char kSwitchVersion[] = "switchVersion";
constexpr const char kClassName[] = "className";
constexpr const char kMaxPorts[] = "maxPorts";
constexpr const char kGlobalPropList[] = "globalPropList";
constexpr const char kHostPropList[] = "hostPropList";

void *Malloc(uint64_t bytes) { return std::malloc(bytes); }

uint32_t ReadU32(const void *p) {
  const auto *b = static_cast<const uint8_t *>(p);
  return uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
}

void WriteU32(uint8_t *b, uint32_t v) {
  b[0] = static_cast<uint8_t>(v);
  b[1] = static_cast<uint8_t>(v >> 8);
  b[2] = static_cast<uint8_t>(v >> 16);
  b[3] = static_cast<uint8_t>(v >> 24);
}

ReturnStatus AppendU32(PropertyList *list, const char *name, uint32_t value) {
  uint8_t bytes[4];
  WriteU32(bytes, value);
  return ZELData_Append(list, name, bytes, sizeof bytes, kEntryType);
}

ReturnStatus AppendNested(PropertyList *outer, const char *name, PropertyList *inner,
                          uint32_t version) {
  std::vector<uint8_t> bytes;
  ReturnStatus status = EncodeList(inner, version, &bytes);
  if (status != STATUS_OK) {
    return status;
  }
  return ZELData_Append(outer, name, bytes.data(), static_cast<uint32_t>(bytes.size()), kEntryType);
}

// The kind a port's list declares: normal without kPortKindProp, the u32 it
// holds otherwise (1 to 4, anything else is refused).
ReturnStatus KindFromList(PropertyList *props, uint32_t *kind) {
  PropertyEntry *entry = nullptr;
  if (ZELData_Lookup(props, kPortKindProp, &entry) != STATUS_OK) {
    *kind = kPortNormal;
    return STATUS_OK;
  }
  void *value = nullptr;
  if (ZELData_Data(entry, &value) != 4) {
    return STATUS_BAD_PARAM;
  }
  const uint32_t k = ReadU32(value);
  if (k < kPortNormal || k > kPortLocalCache) {
    return STATUS_BAD_PARAM;
  }
  *kind = k;
  return STATUS_OK;
}

ReturnStatus ReadU32Entry(PropertyList *list, const char *name, bool required, uint32_t *out) {
  PropertyEntry *entry = nullptr;
  if (ZELData_Lookup(list, name, &entry) != STATUS_OK) {
    return required ? STATUS_BAD_PARAM : STATUS_OK;
  }
  void *value = nullptr;
  if (ZELData_Data(entry, &value) != 4) {
    return STATUS_BAD_PARAM;
  }
  *out = ReadU32(value);
  return STATUS_OK;
}

// A nested property list entry, or an empty list when the entry is absent.
ReturnStatus ReadNestedList(PropertyList *list, const char *name, List *out) {
  PropertyEntry *entry = nullptr;
  if (ZELData_Lookup(list, name, &entry) != STATUS_OK) {
    return NewList(out);
  }
  void *value = nullptr;
  const uint32_t length = ZELData_Data(entry, &value);
  return DecodeList(value, length, out);
}

// The bit of one of the five switch-blob fields, or 0 for a port entry.
unsigned SwitchBlobFieldBit(const char *name) {
  unsigned bit = 1;
  for (const char *field : {kSwitchVersion, kClassName, kMaxPorts, kGlobalPropList, kHostPropList}) {
    if (std::strcmp(name, field) == 0) {
      return bit;
    }
    bit <<= 1;
  }
  return 0;
}

}  // namespace

ReturnStatus NewList(List *out) {
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Alloc(&list, Malloc, std::free);
  if (status == STATUS_OK) {
    out->reset(list);
  }
  return status;
}

ReturnStatus DecodeList(const void *data, uint32_t length, List *out) {
  PropertyList *list = nullptr;
  ReturnStatus status = ZELData_Deserialize(&list, data, length, Malloc, std::free);
  if (status == STATUS_OK) {
    out->reset(list);
  }
  return status;
}

ReturnStatus EncodeList(PropertyList *list, uint32_t version, std::vector<uint8_t> *out) {
  void *buffer = nullptr;
  uint32_t length = 0;
  ReturnStatus status = ZELData_Serialize(list, &buffer, &length, version);
  if (status != STATUS_OK) {
    return status;
  }
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  out->assign(bytes, bytes + length);
  ZELData_FreeAssocData(list, buffer);
  return STATUS_OK;
}

bool SwitchTable::IsKnownVersion(uint32_t version) {
  switch (version) {
    case 4: case 5: case 6: case 7: case 100: case 107:
      return true;
    default:
      return false;
  }
}

bool SwitchTable::IsUnlimitedClass(const std::string &className) {
  for (const char *c : {"qorvswitch", "etherswitch", "stub-vswitch", "cswitch", "vswitch"}) {
    if (className == c) {
      return true;
    }
  }
  return false;
}

uint32_t SwitchTable::PortsInUse() const {
  uint32_t n = 0;
  for (const auto &sw : switches_) {
    n += static_cast<uint32_t>(sw->ports.size());
  }
  return n;
}

Switch *SwitchTable::FindSwitch(const std::string &name) const {
  for (const auto &sw : switches_) {
    if (sw->name == name) {
      return sw.get();
    }
  }
  return nullptr;
}

ReturnStatus SwitchTable::AddSwitch(const std::string &name, const std::string &className,
                                    uint32_t maxPorts, uint32_t version, Switch **out) {
  if (name.empty() || name.size() > kSwitchNameMax || className.empty() ||
      className.size() >= kClassNameField) {
    return STATUS_BAD_PARAM;
  }
  if (FindSwitch(name) != nullptr) {
    return STATUS_EXISTS;
  }
  if (switches_.size() >= kMaxSwitches) {
    return STATUS_LIMIT_EXCEEDED;
  }
  if (IsUnlimitedClass(className)) {
    maxPorts = hostPortLimit_;
  } else if (hostPortLimit_ - PortsInUse() < maxPorts) {
    return STATUS_LIMIT_EXCEEDED;
  }
  auto sw = std::make_unique<Switch>();
  ReturnStatus status = NewList(&sw->global);
  if (status == STATUS_OK) {
    status = NewList(&sw->host);
  }
  if (status != STATUS_OK) {
    return status;
  }
  sw->name = name;
  sw->className = className;
  sw->maxPorts = maxPorts;
  sw->version = version;
  switches_.push_back(std::move(sw));
  if (out != nullptr) {
    *out = switches_.back().get();
  }
  return STATUS_OK;
}

ReturnStatus SwitchTable::RemoveSwitch(const std::string &name) {
  auto it = std::find_if(switches_.begin(), switches_.end(),
                         [&](const auto &sw) { return sw->name == name; });
  if (it == switches_.end()) {
    return STATUS_NOT_FOUND;
  }
  switches_.erase(it);
  return STATUS_OK;
}

ReturnStatus SwitchTable::SetMaxPorts(Switch *sw, uint32_t maxPorts) {
  if (IsUnlimitedClass(sw->className)) {
    return STATUS_OK;  // unlimited classes always have the host limit
  }
  const auto own = static_cast<uint32_t>(sw->ports.size());
  if (maxPorts < own) {
    return STATUS_BAD_PARAM;
  }
  // What the host has free, not counting this switch's own ports.
  if (hostPortLimit_ - (PortsInUse() - own) < maxPorts) {
    return STATUS_LIMIT_EXCEEDED;
  }
  sw->maxPorts = maxPorts;
  return STATUS_OK;
}

ReturnStatus SwitchTable::SetVersion(Switch *sw, uint32_t version) {
  if (!IsKnownVersion(version)) {
    return STATUS_NOT_SUPPORTED;
  }
  for (const auto &port : sw->ports) {
    if (port->id.size() > MaxPortIdLength(version)) {
      return STATUS_BAD_PARAM;  // a port id the new version cannot hold
    }
  }
  sw->version = version;
  return STATUS_OK;
}

ReturnStatus SwitchTable::AddPort(Switch *sw, const std::string &id, List props) {
  if (id.empty() || id.size() > MaxPortIdLength(sw->version) || !props) {
    return STATUS_BAD_PARAM;
  }
  uint32_t kind = kPortNormal;
  ReturnStatus status = KindFromList(props.get(), &kind);
  if (status != STATUS_OK) {
    return status;
  }
  if (sw->ports.size() >= sw->maxPorts || PortsInUse() >= hostPortLimit_) {
    return STATUS_LIMIT_EXCEEDED;
  }
  if (kind != kPortZombie) {
    for (const auto &port : sw->ports) {
      if (port->id == id && port->kind == kind) {
        return STATUS_EXISTS;
      }
    }
  }
  auto port = std::make_unique<Port>();
  status = NewList(&port->uplinks);
  if (status != STATUS_OK) {
    return status;
  }
  port->id = id;
  port->kind = kind;
  port->props = std::move(props);
  sw->ports.push_back(std::move(port));
  return STATUS_OK;
}

Port *SwitchTable::FindPort(const Switch &sw, const std::string &id) {
  Port *first = nullptr;
  for (const auto &port : sw.ports) {
    if (port->id != id) {
      continue;
    }
    if (port->kind == kPortNormal) {
      return port.get();
    }
    if (first == nullptr) {
      first = port.get();
    }
  }
  return first;
}

ReturnStatus SwitchTable::RemovePort(Switch *sw, const std::string &id) {
  Port *port = FindPort(*sw, id);
  if (port == nullptr) {
    return STATUS_NOT_FOUND;
  }
  std::erase_if(sw->ports, [port](const auto &p) { return p.get() == port; });
  return STATUS_OK;
}

void SwitchTable::Cleanup() {
  std::erase_if(switches_, [](const auto &sw) { return !sw->associated; });
}

void SwitchTable::Sanitize() {
  for (auto &sw : switches_) {
    std::erase_if(sw->ports, [](const auto &p) {
      return p->kind == kPortShadow || p->kind == kPortZombie;
    });
  }
}

ReturnStatus SwitchTable::EncodePort(const Switch &sw, const Port &port,
                                     std::vector<uint8_t> *out) {
  return EncodeList(port.props.get(), sw.version, out);
}

ReturnStatus SwitchTable::EncodeState(std::vector<uint8_t> *out) const {
  List outer;
  ReturnStatus status = NewList(&outer);
  for (size_t i = 0; status == STATUS_OK && i < switches_.size(); ++i) {
    const Switch &sw = *switches_[i];
    List blob;
    status = NewList(&blob);
    uint8_t className[kClassNameField] = {};
    std::memcpy(className, sw.className.data(), sw.className.size());
    if (status == STATUS_OK) {
      status = AppendU32(blob.get(), kSwitchVersion, sw.version);
    }
    if (status == STATUS_OK) {
      status = ZELData_Append(blob.get(), kClassName, className, sizeof className, kEntryType);
    }
    if (status == STATUS_OK) {
      status = AppendU32(blob.get(), kMaxPorts, sw.maxPorts);
    }
    if (status == STATUS_OK) {
      status = AppendNested(blob.get(), kGlobalPropList, sw.global.get(), sw.version);
    }
    if (status == STATUS_OK) {
      status = AppendNested(blob.get(), kHostPropList, sw.host.get(), sw.version);
    }
    for (size_t p = 0; status == STATUS_OK && p < sw.ports.size(); ++p) {
      status = AppendNested(blob.get(), sw.ports[p]->id.c_str(), sw.ports[p]->props.get(),
                            sw.version);
    }
    if (status == STATUS_OK) {
      status = AppendNested(outer.get(), sw.name.c_str(), blob.get(), sw.version);
    }
  }
  if (status == STATUS_OK) {
    status = EncodeList(outer.get(), kStateBlobVersion, out);
  }
  return status;
}

ReturnStatus SwitchTable::DecodeState(const void *blob, uint32_t length, uint32_t hostPortLimit,
                                      std::unique_ptr<SwitchTable> *out) {
  if (blob == nullptr) {
    return STATUS_BAD_PARAM;
  }
  List outer;
  ReturnStatus status = DecodeList(blob, length, &outer);
  if (status != STATUS_OK) {
    return status;
  }
  auto table = std::make_unique<SwitchTable>(hostPortLimit);
  PropertyEntry *entry = nullptr;
  while (ZELData_Next(outer.get(), entry, &entry) == STATUS_OK) {
    void *value = nullptr;
    const uint32_t valueLength = ZELData_Data(entry, &value);
    status = table->DecodeSwitch(ZELData_Name(entry), value, valueLength);
    if (status != STATUS_OK) {
      return status;
    }
  }
  *out = std::move(table);
  return STATUS_OK;
}

ReturnStatus SwitchTable::DecodeSwitch(const std::string &name, const void *blob,
                                       uint32_t length) {
  List fields;
  ReturnStatus status = DecodeList(blob, length, &fields);
  if (status != STATUS_OK) {
    return status;
  }
  uint32_t version = 0;
  uint32_t maxPorts = 0;
  status = ReadU32Entry(fields.get(), kSwitchVersion, false, &version);
  if (status == STATUS_OK) {
    status = ReadU32Entry(fields.get(), kMaxPorts, true, &maxPorts);
  }
  if (status != STATUS_OK) {
    return status;
  }
  if (version != 0 && !IsKnownVersion(version)) {
    return STATUS_NOT_SUPPORTED;
  }
  PropertyEntry *entry = nullptr;
  if (ZELData_Lookup(fields.get(), kClassName, &entry) != STATUS_OK) {
    return STATUS_BAD_PARAM;
  }
  void *classValue = nullptr;
  const uint32_t classLength = ZELData_Data(entry, &classValue);
  const auto *classText = static_cast<const char *>(classValue);
  if (std::memchr(classText, '\0', classLength) == nullptr) {
    return STATUS_BAD_PARAM;  // class name without its NUL
  }

  Switch *sw = nullptr;
  status = AddSwitch(name, classText, maxPorts, version, &sw);
  if (status == STATUS_OK) {
    status = ReadNestedList(fields.get(), kGlobalPropList, &sw->global);
  }
  if (status == STATUS_OK) {
    status = ReadNestedList(fields.get(), kHostPropList, &sw->host);
  }
  // Every entry besides the five switch fields is a port; a field may appear
  // only once.
  unsigned fieldsSeen = 0;
  entry = nullptr;
  while (status == STATUS_OK && ZELData_Next(fields.get(), entry, &entry) == STATUS_OK) {
    const char *entryName = ZELData_Name(entry);
    if (const unsigned bit = SwitchBlobFieldBit(entryName); bit != 0) {
      status = (fieldsSeen & bit) != 0 ? STATUS_BAD_PARAM : STATUS_OK;
      fieldsSeen |= bit;
      continue;
    }
    void *value = nullptr;
    const uint32_t valueLength = ZELData_Data(entry, &value);
    List props;
    status = DecodeList(value, valueLength, &props);
    if (status == STATUS_OK) {
      status = AddPort(sw, entryName, std::move(props));
    }
  }
  return status;
}

}  // namespace zel::sim
