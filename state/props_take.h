// Handing a switch's global or host property list over to another owner.
// The kernel channel uses it to return the lists of a switch it loaded into
// the state database as scratch space, without a copy.
#pragma once

#include "zel/data.h"
#include "zel/state.h"

namespace zel::state {

// Detaches the list from the switch and returns it (null when the switch has
// none); the caller owns it from then on and the switch has no list of that
// kind.  Called under the table lock.
PropertyList *TakeGlobalProps(SwitchState *sw);
PropertyList *TakeHostProps(SwitchState *sw);

}  // namespace zel::state
