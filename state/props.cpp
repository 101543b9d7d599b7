// The global (switch-wide) and host property lists of each switch: one
// family of operations, told apart by the list they act on and the name in
// their diagnostics.
#include "state/props_take.h"
#include "state/state_db.h"

namespace zel::state {

namespace {

struct Family {
  const char *word;  // "Global" or "Host"
  PropertyList *SwitchState::*list;
};

constexpr Family kGlobal{"Global", &SwitchState::globalProps};
constexpr Family kHost{"Host", &SwitchState::hostProps};

PropertyList *Take(const Family &f, SwitchState *sw) {
  PropertyList *list = sw->*f.list;
  sw->*f.list = nullptr;
  return list;
}

ReturnStatus Set(const Family &f, const char *switchId, const char *name, const void *value,
                 uint32_t length, uint32_t propType) {
  if (value == nullptr || length == 0) {
    return STATUS_FAILURE;
  }
  if (switchId == nullptr || name == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_%sPropSet %s, %s\n", f.word, switchId, name);
  SwitchState *sw = ZELState_SwitchFind(switchId);
  if (sw == nullptr) {
    return STATUS_NOT_FOUND;
  }
  return ZELData_Update(sw->*f.list, name, value, length, propType);
}

ReturnStatus Clear(const Family &f, const char *switchId, const char *name) {
  if (switchId == nullptr || name == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(1, "ZELState_%sPropClear %s, %s\n", f.word, switchId, name);
  SwitchState *sw = ZELState_SwitchFind(switchId);
  if (sw == nullptr) {
    return STATUS_NOT_FOUND;
  }
  return ZELData_Remove(sw->*f.list, name);
}

ReturnStatus Lookup(const Family &f, const char *switchId, const char *name,
                    PropertyEntry **entry) {
  if (switchId == nullptr || name == nullptr || entry == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_%sPropLookup %s, %s\n", f.word, switchId, name);
  SwitchState *sw = ZELState_SwitchFind(switchId);
  if (sw == nullptr) {
    return STATUS_NOT_FOUND;
  }
  return ZELData_Lookup(sw->*f.list, name, entry);
}

ReturnStatus Read(const Family &f, SwitchState *sw, const char *name, void **value,
                  uint32_t *length) {
  if (sw == nullptr || name == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ZEL_LOG(2, "ZELState_%sPropRead %s, %s\n", f.word, sw->id, name);
  return ReadValue(sw->*f.list, name, value, length);
}

bool IsSet(const Family &f, SwitchState *sw, const char *name) {
  if (sw == nullptr || name == nullptr) {
    return false;
  }
  ZEL_LOG(2, "ZELState_%sPropIsSet %s: %s\n", f.word, sw->id, name);
  PropertyEntry *entry = nullptr;
  return ZELData_Lookup(sw->*f.list, name, &entry) == STATUS_OK;
}

}  // namespace

PropertyList *TakeGlobalProps(SwitchState *sw) { return Take(kGlobal, sw); }
PropertyList *TakeHostProps(SwitchState *sw) { return Take(kHost, sw); }

}  // namespace zel::state

using namespace zel::state;

ReturnStatus ZELState_GlobalPropSet(const char *switchId, const char *name, const void *value,
                                    uint32_t length, uint32_t propType) {
  return Set(kGlobal, switchId, name, value, length, propType);
}

ReturnStatus ZELState_GlobalPropClear(const char *switchId, const char *name) {
  return Clear(kGlobal, switchId, name);
}

ReturnStatus ZELState_GlobalPropLookup(const char *switchId, const char *name,
                                       PropertyEntry **entry) {
  return Lookup(kGlobal, switchId, name, entry);
}

ReturnStatus ZELState_GlobalPropRead(SwitchState *sw, const char *name, void **value,
                                     uint32_t *length) {
  return Read(kGlobal, sw, name, value, length);
}

bool ZELState_GlobalPropIsSet(SwitchState *sw, const char *name) {
  return IsSet(kGlobal, sw, name);
}

ReturnStatus ZELState_GlobalPropForEach(SwitchState *sw, ZELStatePropFn callback, void *context) {
  return sw != nullptr ? WalkEntries(sw->globalProps, callback, context) : STATUS_BAD_PARAM;
}

ReturnStatus ZELState_HostPropSet(const char *switchId, const char *name, const void *value,
                                  uint32_t length, uint32_t propType) {
  return Set(kHost, switchId, name, value, length, propType);
}

ReturnStatus ZELState_HostPropClear(const char *switchId, const char *name) {
  return Clear(kHost, switchId, name);
}

ReturnStatus ZELState_HostPropLookup(const char *switchId, const char *name,
                                     PropertyEntry **entry) {
  return Lookup(kHost, switchId, name, entry);
}

ReturnStatus ZELState_HostPropRead(SwitchState *sw, const char *name, void **value,
                                   uint32_t *length) {
  return Read(kHost, sw, name, value, length);
}

bool ZELState_HostPropIsSet(SwitchState *sw, const char *name) { return IsSet(kHost, sw, name); }

ReturnStatus ZELState_HostPropForEach(SwitchState *sw, ZELStatePropFn callback, void *context) {
  return sw != nullptr ? WalkEntries(sw->hostProps, callback, context) : STATUS_BAD_PARAM;
}
