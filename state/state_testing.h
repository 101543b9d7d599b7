// Test hooks of the state database, for every family's tests.
#pragma once

#include <cstdint>

#include "zel/data.h"
#include "zel/state.h"

namespace zel::state::testing {

// Empties the table and forgets the cached system-wide port limit (and the
// port count), so that the next switch add reads the limit again.  Switches
// parked in switch arrays must have been freed before.
void ResetPortLimit();
// Makes the host report `value` as its system-wide port limit and resets as
// above.  0 goes back to the environment variable and the default.
void SetPortLimit(uint32_t value);
// Makes the host's limit check or read fail with the given statuses (and
// resets as above); STATUS_OK leaves the step working.
void FailPortLimit(ReturnStatus checkStatus, ReturnStatus getStatus);

// Allocator for switch and port records and every list the database makes;
// null functions restore malloc and free.  Records and lists made before a
// change are still released with the free function they were made with.
void SetAllocator(ZELDataAllocFn allocFn, ZELDataFreeFn freeFn);

// Observers for tests: the switch in a table slot, the slot of a port in its
// switch (-1 when absent), the host's port count.
SwitchState *SwitchAtSlot(int slot);
int PortSlot(PortState *port);
uint32_t NumActivePortsSystemWide();

}  // namespace zel::state::testing
