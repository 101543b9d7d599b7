// Internal view of the switch state database shared by its sources: the
// switch and port records, the table and its counters, and helpers.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "host/bitvector.h"
#include "host/diag.h"
#include "state/port_index.h"
#include "zel/data.h"
#include "zel/state.h"

// One allocation per switch: this header, then the port slots (one per
// system-wide port), the bit vector of occupied slots and the port index
// (sized for maxPorts, which never exceeds the limit the switch was made with).
// Nothing in it ever moves, so handles into it stay valid for its life.
struct SwitchState {
  uint32_t numPorts;
  uint32_t maxPorts;     // limit in effect; the slots that port addition searches
  uint32_t newMaxPorts;  // configured limit, fixed at creation; serialized as "maxPorts"
  uint32_t version;
  char id[ZEL_SWITCH_ID_SIZE];
  char className[ZEL_CLASS_NAME_SIZE];
  PropertyList *globalProps;
  PropertyList *hostProps;
  uint32_t classFlags;    // bit 0: exempt from the per-switch port limit
  uint32_t numSlots;      // the system-wide limit when the switch was made
  uint32_t freeHint;      // no free slot lies below this one
  zel::host::BitVector *inUse;
  PortState **ports;
  zel::state::PortIndex *index;
  ZELDataFreeFn freeFn;  // releases this record
};

struct PortState {
  char id[ZEL_PORT_ID_SIZE];
  PropertyList *data;
  SwitchState *sw;
  uint32_t kind;
  uint32_t hash;  // of id, for the switch's port index
  ZELDataFreeFn freeFn;  // releases this record
};

namespace zel::state {

inline constexpr int kNumSlots = ZEL_MAX_SWITCHES;
inline constexpr uint32_t kTypeLibrary = ZELDATA_PROPTYPE_LIBRARY;

// The switch table; guarded by the table lock.
extern SwitchState *globalSwsArray[kNumSlots];
// Ports of every kind on all switches, also those parked in switch arrays.
extern std::atomic<uint32_t> uwNumActivePortsSystemWide;

// Allocation for records and for every list the database makes; tests
// replace it to make allocations fail.  Each record and list keeps the free
// function it was made with.
ZELDataAllocFn AllocFn();
ZELDataFreeFn FreeFn();
// True while no test allocator is installed.
bool SystemAllocator();

// The table lock, held for the life of the object.
class TableLock {
 public:
  TableLock() : lock_(ZelSwitchHandleLock()) {}
  ~TableLock() { ZelSwitchHandleUnlock(lock_); }
  TableLock(const TableLock &) = delete;
  TableLock &operator=(const TableLock &) = delete;

 private:
  ZelRecLock *lock_;
};

// The system-wide port limit, read with a relaxed atomic access: it is
// fetched before the table lock is taken.
uint32_t MaxPortsSystemWide();
// classFlags of a class name: nonzero for the classes that take the
// system-wide limit as their maxPorts (bit 0: no per-switch port limit).
uint32_t ClassFlags(const char *className);

// Removes the switch in a table slot with all its ports (no lock taken).
void RemoveSwitchAt(int slot);
// The internal removal by id (no lock taken).
ReturnStatus SwitchRemoveNoLock(const char *id);
// Removes the port in a slot of the switch and releases it.  When the switch
// goes too (switchGoing), its port index, released with it, is left as it is.
void RemovePortAt(SwitchState *sw, uint32_t slot, bool switchGoing = false);
// The longest port id a switch of the version code takes: 47 characters
// above version 6, 15 otherwise.
size_t MaxPortIdLength(uint32_t version);

// The value of an entry as text when it holds a NUL within its length,
// else null: a value without one is not a string and matches nothing.
const char *EntryText(PropertyEntry *entry);
// Looks a property up; on success sets *value to its bytes inside the list
// and, when length is given, *length; nothing is written otherwise.
ReturnStatus ReadValue(PropertyList *list, const char *name, void **value, uint32_t *length);
// Walks a list with ZELData_Next, stopping at the first callback result
// whose low byte is set; STATUS_NOT_FOUND after the last entry.
ReturnStatus WalkEntries(PropertyList *list, ZELStatePropFn callback, void *context);

const char *StatusText(ReturnStatus status);

}  // namespace zel::state

// Diagnostics of the state database, guarded by zel_debug.
#define ZEL_LOG(level, ...) zel::host::DiagPrint(zel_debug, (level), __VA_ARGS__)
