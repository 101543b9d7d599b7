// Shared by the kernel's property-list slices and the persistent retrievals:
// the kernel's state loaded into the process-wide state database as scratch
// space, and one port's properties fetched from the kernel.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "zel/kernel.h"
#include "zel/state.h"

namespace zel::kernel {

// Holds the channel lock and, inside it, the state database's lock for the
// life of the object.  The state lock keeps direct users of the database
// (who take it, as they must) from seeing the scratch content half built.
class ScratchLock {
 public:
  ScratchLock() : channel_(ZelSwitchPYXLock()), state_(ZelSwitchHandleLock()) {}
  ~ScratchLock() {
    ZelSwitchHandleUnlock(state_);
    ZelSwitchPYXUnlock(channel_);
  }
  ScratchLock(const ScratchLock &) = delete;
  ScratchLock &operator=(const ScratchLock &) = delete;

 private:
  ZelRecLock *channel_;
  ZelRecLock *state_;
};

// Loads a state blob fetched from the kernel into the (empty) database and
// releases the blob.  The caller holds a ScratchLock.
inline ReturnStatus LoadKernelBlob(void *blob, uint32_t length) {
  const ReturnStatus status = ZELState_ConfigDeserialize(blob, length);
  ZELPYX_DataFree(blob);
  return status;
}

// The switch-level frame: fetches the kernel's state, loads it under the
// locks, runs step on the switch named switchName (STATUS_NOT_FOUND when it
// is missing) and empties the database again.  step returns a status.
template <typename Step>
ReturnStatus WithKernelSwitch(const char *switchName, Step step) {
  void *blob = nullptr;
  uint32_t length = 0;
  ReturnStatus status = ZELPYX_StateGet(&blob, &length);
  if (status != STATUS_OK) {
    return status;
  }
  ScratchLock lock;
  status = LoadKernelBlob(blob, length);
  if (status != STATUS_OK) {
    return status;
  }
  SwitchState *sw = switchName != nullptr ? ZELState_SwitchFind(switchName) : nullptr;
  status = sw != nullptr ? step(sw) : STATUS_NOT_FOUND;
  ZELState_ConfigReset();
  return status;
}

// Fetches one port's properties from the kernel and decodes them into a new
// list (system allocator, ZELData_Free); *out is written only on success.
// Takes no lock and leaves the state database alone.
ReturnStatus FetchPortList(const char *switchName, const char *portId, PropertyList **out);

// Takes a switch's global or host list away from its record (the record's
// pointer becomes null), so that emptying the database does not free it.
PropertyList *DetachGlobalList(SwitchState *sw);
PropertyList *DetachHostList(SwitchState *sw);

}  // namespace zel::kernel
