#include "host/status_text.h"

#include <cstdio>
#include <cstring>

namespace zel::host {

const char *PYX_ReturnStatusToString(ReturnStatus status) {
  switch (status) {
    case STATUS_OK: return "Success";
    case STATUS_FAILURE: return "Failure";
    case STATUS_NOT_FOUND: return "Not found";
    case STATUS_EXISTS: return "Already exists";
    case STATUS_LIMIT_EXCEEDED: return "Limit exceeded";
    case STATUS_BAD_PARAM: return "Bad parameter";
    case STATUS_FILE_EMPTY: return "File is empty";
    case STATUS_IO_ERROR: return "I/O error";
    case STATUS_READ_ERROR: return "Read error";
    case STATUS_WRITE_ERROR: return "Write error";
    case STATUS_NO_MEMORY: return "Out of memory";
    case STATUS_NOT_SUPPORTED: return "Not supported";
    case STATUS_BAD_CHECKSUM: return "Bad checksum";
    default: break;
  }
  thread_local char text[32];
  std::snprintf(text, sizeof text, "Unknown status 0x%08x", status);
  return text;
}

namespace {
// strerror_r comes in two shapes; both are handled.
[[maybe_unused]] const char *ErrText(int result, const char *buffer) {
  return result == 0 ? buffer : nullptr;
}
[[maybe_unused]] const char *ErrText(const char *result, const char *) { return result; }
}  // namespace

const char *Err_Errno2String(int err) {
  thread_local char text[128];
  const char *result = ErrText(strerror_r(err, text, sizeof text), text);
  if (result == nullptr) {
    std::snprintf(text, sizeof text, "Unknown error %d", err);
    result = text;
  }
  return result;
}

}  // namespace zel::host
