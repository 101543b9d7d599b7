// The host's kernel information interface, reduced to what the library reads
// from it: the system-wide port limit.
//
// On this platform the limit comes from the environment variable
// ZEL_MAX_PORTS_SYSTEMWIDE (a decimal number from 1 to kMaxPortsSystemWideCap),
// else it is kDefaultMaxPortsSystemWide.  A set but malformed or out-of-range
// variable makes the read fail with STATUS_BAD_PARAM rather than silently
// falling back.  Tests replace the source through the hooks below.
#pragma once

#include <cstdint>

#include "zel/status.h"

namespace zel::host {

inline constexpr const char *kMaxPortsSystemWideEnv = "ZEL_MAX_PORTS_SYSTEMWIDE";
inline constexpr uint32_t kDefaultMaxPortsSystemWide = 4096;
// Every switch reserves a port slot per system-wide port; the cap keeps a
// mistyped value from turning each switch into a huge allocation.
inline constexpr uint32_t kMaxPortsSystemWideCap = 1u << 20;

// Checks that the kernel information interface can be used.
ReturnStatus KernelInfoCheckSignature();
// Reads the system-wide port limit into *out (not written on failure).
ReturnStatus KernelInfoGetMaxPortsSystemWide(uint32_t *out);

namespace testing {
// The limit reported from now on, whatever the environment says.
void SetMaxPortsSystemWide(uint32_t value);
// Makes the signature check or the read (or both) fail with the given
// status; STATUS_OK leaves that step working.
void FailKernelInfo(ReturnStatus checkStatus, ReturnStatus getStatus);
// Back to the environment variable and the default.
void UseDefaultKernelInfo();
}  // namespace testing

}  // namespace zel::host
