// The emulated kernel switch module's own state: its switches, their ports,
// and the global, host, port and uplink properties, all held in property
// lists.  It follows the rules the library's state database applies when it
// loads a state blob (limits, port-id lengths, port kinds), so that whatever
// the emulator holds the library can load.  Not thread-safe: the emulated
// device serialises every request.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zel/data.h"

namespace zel::sim {

inline constexpr uint32_t kMaxSwitches = 32;
inline constexpr uint32_t kDefaultHostPortLimit = 4096;

inline constexpr uint32_t kPortNormal = 1;
inline constexpr uint32_t kPortShadow = 2;
inline constexpr uint32_t kPortZombie = 3;
inline constexpr uint32_t kPortLocalCache = 4;

// The port property that carries a port's kind in serialized port data.
inline constexpr const char kPortKindProp[] = "com.zorlan.common.port.volatile.type";

struct ListDeleter {
  void operator()(PropertyList *list) const { ZELData_Free(list); }
};
using List = std::unique_ptr<PropertyList, ListDeleter>;

ReturnStatus NewList(List *out);
ReturnStatus DecodeList(const void *data, uint32_t length, List *out);
ReturnStatus EncodeList(PropertyList *list, uint32_t version, std::vector<uint8_t> *out);

struct Port {
  std::string id;
  uint32_t kind = kPortNormal;  // fixed at creation, mirrored by kPortKindProp
  List props;
  List uplinks;  // one entry per uplink index, named by the index in decimal
};

struct Switch {
  std::string name;
  std::string className;
  uint32_t maxPorts = 0;
  uint32_t version = 0;
  bool associated = true;
  List global;
  List host;
  std::vector<std::unique_ptr<Port>> ports;  // in order of addition
};

class SwitchTable {
 public:
  explicit SwitchTable(uint32_t hostPortLimit) : hostPortLimit_(hostPortLimit) {}

  uint32_t hostPortLimit() const { return hostPortLimit_; }
  uint32_t PortsInUse() const;
  const std::vector<std::unique_ptr<Switch>> &switches() const { return switches_; }

  // Switch versions the module accepts on add and on version change.
  static bool IsKnownVersion(uint32_t version);
  // Port ids may have 47 characters on switches above version 6, else 15.
  static size_t MaxPortIdLength(uint32_t version) { return version > 6 ? 47 : 15; }

  Switch *FindSwitch(const std::string &name) const;
  // Adds an empty switch.  Unlimited classes take the host limit as their
  // port limit; other classes may not ask more ports than the host has free.
  // STATUS_BAD_PARAM (empty or over-long name, empty class), STATUS_EXISTS,
  // STATUS_LIMIT_EXCEEDED (32 switches, host ports), STATUS_NO_MEMORY.
  ReturnStatus AddSwitch(const std::string &name, const std::string &className,
                         uint32_t maxPorts, uint32_t version, Switch **out = nullptr);
  ReturnStatus RemoveSwitch(const std::string &name);
  ReturnStatus SetMaxPorts(Switch *sw, uint32_t maxPorts);
  ReturnStatus SetVersion(Switch *sw, uint32_t version);

  // Adds a port that takes over props; its kind comes from kPortKindProp
  // (normal when absent).  The same id may not repeat within a kind, except
  // for zombies.
  ReturnStatus AddPort(Switch *sw, const std::string &id, List props);
  // A port is addressed by id: the normal port of that id, else the first
  // port of that id in order of addition.
  static Port *FindPort(const Switch &sw, const std::string &id);
  ReturnStatus RemovePort(Switch *sw, const std::string &id);

  // Removes the switches dissociated from the host.
  void Cleanup();
  // Removes shadow and zombie ports; normal and local-cache ports stay.
  void Sanitize();

  // The whole state as a state blob, and one port's properties as
  // serialized property data.
  ReturnStatus EncodeState(std::vector<uint8_t> *out) const;
  static ReturnStatus EncodePort(const Switch &sw, const Port &port, std::vector<uint8_t> *out);
  // Builds a table from a state blob; *out is written only on success.
  static ReturnStatus DecodeState(const void *blob, uint32_t length, uint32_t hostPortLimit,
                                  std::unique_ptr<SwitchTable> *out);

 private:
  static bool IsUnlimitedClass(const std::string &className);
  ReturnStatus DecodeSwitch(const std::string &name, const void *blob, uint32_t length);

  uint32_t hostPortLimit_;
  std::vector<std::unique_ptr<Switch>> switches_;  // in order of addition
};

}  // namespace zel::sim
