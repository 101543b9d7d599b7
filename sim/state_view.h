// A state blob decoded into plain values, for tools and tests that show or
// compare states: every switch with its header fields, its global and host
// properties and its ports, in the blob's order.  Nothing is interpreted
// beyond the blob's layout; entries of unknown names in a switch blob are
// its ports.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zel/data.h"
#include "zel/status.h"

namespace zel::sim {

struct PropView {
  std::string name;
  std::vector<uint8_t> value;
  uint32_t type = 16;
  bool operator==(const PropView &) const = default;
};
using PropsView = std::vector<PropView>;

struct PortView {
  std::string id;
  PropsView props;
};

struct SwitchView {
  std::string id;
  uint32_t version = 0;
  std::string className;  // up to its first NUL
  uint32_t maxPorts = 0;
  PropsView global, host;
  std::vector<PortView> ports;
};

// The entries of a list, in order.
PropsView ViewList(PropertyList *list);
// Serialized property data decoded into its entries, in order.
ReturnStatus ViewProps(const void *data, uint32_t length, PropsView *out);
// A whole state blob; *out is written only on success.
ReturnStatus ViewState(const void *blob, uint32_t length, std::vector<SwitchView> *out);

}  // namespace zel::sim
