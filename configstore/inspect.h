// Looking into the configuration-store conversions from outside a save or a
// load, for the zelctl program: one property turned into the object a save
// would store (so that a property is shown by the same code that stores it),
// and a stored switch object checked row by row the way a load reads it.
// Internal: nothing here is exported from libzel.so.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "configstore/persist.h"

namespace zel::persist {

// Runs the save conversion of the property's row into a fresh in-memory
// object (a port element for table 2) and hands back that object's content
// in the stored JSON form.  className and version are those of the switch
// the property belongs to (some conversions depend on them); the library's
// current-switch variables are restored before returning.  Properties are
// converted whatever their type word.  Nothing touches a store.  Returns 0,
// or the conversion's status (*json is then empty).
uint32_t DescribeProperty(uint32_t tableIndex, const char *className, uint32_t version,
                          const char *name, const void *value, uint32_t length, std::string *json);

// What a load would fail on in one switch object.
struct ObjectProblem {
  std::string key;     // the stored key (a path with "/"), or "" for the object as a whole
  std::string reason;  // what is wrong, in words (the status apart)
  uint32_t status;     // the status the load would end with
};

// Checks a switch object the way the load reads it: "uuid", "product" with
// "forwarding_class" and a known "version", "max_ports", then every row of
// the switch-wide and host tables and, for each port element, of the port
// table (with the resource pools of uplink ports).  Returns every problem
// found; the walk of a table stops at its first failing row, as the load's
// does.  Reads only.
std::vector<ObjectProblem> CheckSwitchObject(cs::Object *object);

}  // namespace zel::persist
