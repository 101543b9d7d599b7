// Texts for status values and system error numbers, for diagnostics.
#pragma once

#include "zel/status.h"

namespace zel::host {

// A fixed text for every status the library produces; any other value gives
// "Unknown status 0x%08x" in a per-thread buffer that the next call reuses.
const char *PYX_ReturnStatusToString(ReturnStatus status);

// The system's text for an errno value, in a per-thread buffer that the next
// call reuses.
const char *Err_Errno2String(int err);

}  // namespace zel::host
