// Printf-style diagnostics guarded by a family's debug level.  Each family
// (property lists, state database, configuration store) keeps its own exported
// int level; a message prints on standard output when that level is at least
// the message's level.
#pragma once

namespace zel::host {

// Prints fmt on standard output when current >= level.
void DiagPrint(int current, int level, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

}  // namespace zel::host
