#include "sim/state_view.h"

#include <cstring>
#include <utility>

#include "sim/switch_table.h"

namespace zel::sim {
namespace {

// A u32 field: its first four bytes, little-endian; shorter values are refused.
ReturnStatus U32Field(const PropView &field, uint32_t *out) {
  if (field.value.size() < 4) {
    return STATUS_BAD_PARAM;
  }
  *out = uint32_t{field.value[0]} | uint32_t{field.value[1]} << 8 |
         uint32_t{field.value[2]} << 16 | uint32_t{field.value[3]} << 24;
  return STATUS_OK;
}

ReturnStatus ViewSwitch(const PropView &entry, SwitchView *sw) {
  PropsView fields;
  ReturnStatus status =
      ViewProps(entry.value.data(), static_cast<uint32_t>(entry.value.size()), &fields);
  sw->id = entry.name;
  for (const PropView &field : fields) {
    if (status != STATUS_OK) {
      break;
    }
    if (field.name == "switchVersion") {
      status = U32Field(field, &sw->version);
    } else if (field.name == "maxPorts") {
      status = U32Field(field, &sw->maxPorts);
    } else if (field.name == "className") {
      const auto *text = reinterpret_cast<const char *>(field.value.data());
      sw->className.assign(text, strnlen(text, field.value.size()));
    } else {
      const uint32_t n = static_cast<uint32_t>(field.value.size());
      PropsView *props = field.name == "globalPropList" ? &sw->global
                         : field.name == "hostPropList" ? &sw->host
                                                        : nullptr;
      if (props == nullptr) {
        sw->ports.push_back({field.name, {}});
        props = &sw->ports.back().props;
      }
      status = ViewProps(field.value.data(), n, props);
    }
  }
  return status;
}

}  // namespace

PropsView ViewList(PropertyList *list) {
  PropsView out;
  PropertyEntry *e = nullptr;
  while (list != nullptr && ZELData_Next(list, e, &e) == STATUS_OK) {
    void *v = nullptr;
    const uint32_t n = ZELData_Data(e, &v);
    const auto *bytes = static_cast<const uint8_t *>(v);
    out.push_back({ZELData_Name(e), std::vector<uint8_t>(bytes, bytes + n), ZELData_PropType(e)});
  }
  return out;
}

ReturnStatus ViewProps(const void *data, uint32_t length, PropsView *out) {
  List list;
  const ReturnStatus status = DecodeList(data, length, &list);
  if (status == STATUS_OK) {
    *out = ViewList(list.get());
  }
  return status;
}

ReturnStatus ViewState(const void *blob, uint32_t length, std::vector<SwitchView> *out) {
  PropsView switches;
  ReturnStatus status = ViewProps(blob, length, &switches);
  std::vector<SwitchView> view(switches.size());
  for (size_t i = 0; i < switches.size() && status == STATUS_OK; ++i) {
    status = ViewSwitch(switches[i], &view[i]);
  }
  if (status == STATUS_OK) {
    *out = std::move(view);
  }
  return status;
}

}  // namespace zel::sim
