#include "host/diag.h"

#include <cstdarg>
#include <cstdio>

namespace zel::host {

void DiagPrint(int current, int level, const char *fmt, ...) {
  if (current < level) {
    return;
  }
  va_list ap;
  va_start(ap, fmt);
  std::vprintf(fmt, ap);
  va_end(ap);
}

}  // namespace zel::host
