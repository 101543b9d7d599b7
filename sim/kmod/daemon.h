// zel-kmodd: the emulated kernel switch module served to every process on
// the machine through a Unix socket (frame.h), one thread per connection,
// the module's own mutex serialising the requests as the device would.
//
// The module's state lives only in the daemon's memory: stopping the daemon
// loses it, as a host restart loses the real module's.
#pragma once

#include <cstdint>
#include <string>

namespace zel::kmod {

struct DaemonOptions {
  std::string socketPath;      // empty: DefaultSocketPath()
  bool background = false;     // fork once the socket is listening
  uint32_t hostPortLimit = 0;  // 0: the module's default
};

// Creates the socket (0600; its directory 0700 when the daemon creates it;
// a stale socket left by a dead daemon is replaced, a live one is not) and
// serves until SIGTERM or SIGINT, then removes the socket and ends the
// process with status 0.  Prints nothing unless something fails; returns
// the exit status (1) after printing "zel-kmodd: WHAT: WHY" when the socket
// cannot be set up.
int RunDaemon(const DaemonOptions &options);

}  // namespace zel::kmod
