// Emptying the table, and keeping switches marked not to be persisted out of
// the persisted state by parking switch records in switch arrays.
#include <cstdio>
#include <cstring>

#include "state/state_db.h"

using namespace zel::state;

ReturnStatus ZELState_ConfigReset(void) {
  TableLock lock;
  for (int slot = 0; slot < kNumSlots; ++slot) {
    if (globalSwsArray[slot] != nullptr) {
      // Removal by slot cannot fail, so no switch is ever left behind.
      RemoveSwitchAt(slot);
    }
  }
  return STATUS_OK;
}

bool ZELState_StripZelWithNoPersistFlag(SwitchState **array, char (*ids)[ZEL_SWITCH_ID_SIZE],
                                        bool fileInUse) {
  if (array == nullptr || ids == nullptr) {
    return false;
  }
  TableLock lock;
  bool result = false;
  int numIds = 0;
  for (int slot = 0; slot < kNumSlots; ++slot) {
    SwitchState *sw = globalSwsArray[slot];
    if (sw == nullptr) {
      continue;
    }
    void *value = nullptr;
    uint32_t length = 0;
    // An empty value has no first byte and does not mark the switch.
    if (ZELState_GlobalPropRead(sw, ZEL_PROP_NOPERSIST, &value, &length) != STATUS_OK ||
        length == 0 || *static_cast<const unsigned char *>(value) == 0) {
      continue;
    }
    char id[ZEL_SWITCH_ID_SIZE];
    std::memcpy(id, sw->id, sizeof id);
    if (ZELState_SwitchRemove(id) == STATUS_OK) {
      result = result || fileInUse;
      std::memcpy(ids[numIds++], id, sizeof id);
    } else {
      std::fprintf(stderr, "failed to remove zel %s\n", id);
    }
  }
  for (int slot = 0; slot < kNumSlots; ++slot) {
    array[slot] = result ? globalSwsArray[slot] : nullptr;
    if (result) {
      globalSwsArray[slot] = nullptr;
    }
  }
  return result;
}

void ZELState_UpdateGlobalSwsArray(SwitchState **array, char (*ids)[ZEL_SWITCH_ID_SIZE]) {
  if (array == nullptr || ids == nullptr) {
    return;
  }
  TableLock lock;
  int cursor = 0;
  for (int row = 0; row < kNumSlots; ++row) {
    int slot = 0;
    // The row may be unterminated garbage; the table's ids are terminated.
    while (slot < kNumSlots && (globalSwsArray[slot] == nullptr ||
                                std::strncmp(globalSwsArray[slot]->id, ids[row],
                                             ZEL_SWITCH_ID_SIZE) != 0)) {
      ++slot;
    }
    if (slot == kNumSlots || cursor >= kNumSlots) {
      continue;
    }
    int entry = cursor;
    while (entry < kNumSlots && array[entry] != nullptr) {
      ++entry;
    }
    if (entry < kNumSlots) {
      array[entry] = globalSwsArray[slot];
      globalSwsArray[slot] = nullptr;
      cursor = entry + 1;
    }
  }
  for (int slot = 0; slot < kNumSlots; ++slot) {
    SwitchState *fromTable = globalSwsArray[slot];
    globalSwsArray[slot] = array[slot];
    array[slot] = fromTable;
  }
}

void ZELState_FreeZELArray(SwitchState **array) {
  if (array == nullptr) {
    return;
  }
  TableLock lock;
  ZELState_ConfigReset();
  for (int slot = 0; slot < kNumSlots; ++slot) {
    globalSwsArray[slot] = array[slot];
  }
  ZELState_ConfigReset();
}
