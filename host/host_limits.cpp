#include "host/host_limits.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace zel::host {

namespace {
// 0 means "no override": read the environment.
std::atomic<uint32_t> g_override{0};
std::atomic<ReturnStatus> g_checkStatus{STATUS_OK};
std::atomic<ReturnStatus> g_getStatus{STATUS_OK};

ReturnStatus ReadEnvironment(uint32_t *out) {
  const char *text = std::getenv(kMaxPortsSystemWideEnv);
  if (text == nullptr || *text == '\0') {
    *out = kDefaultMaxPortsSystemWide;
    return STATUS_OK;
  }
  char *end = nullptr;
  errno = 0;
  unsigned long long value = std::strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || *text < '0' || *text > '9' || value == 0 ||
      value > kMaxPortsSystemWideCap) {
    return STATUS_BAD_PARAM;
  }
  *out = static_cast<uint32_t>(value);
  return STATUS_OK;
}
}  // namespace

ReturnStatus KernelInfoCheckSignature() { return g_checkStatus.load(); }

ReturnStatus KernelInfoGetMaxPortsSystemWide(uint32_t *out) {
  ReturnStatus status = g_getStatus.load();
  if (status != STATUS_OK) {
    return status;
  }
  uint32_t value = g_override.load();
  if (value != 0) {
    *out = value;
    return STATUS_OK;
  }
  return ReadEnvironment(out);
}

namespace testing {
void SetMaxPortsSystemWide(uint32_t value) {
  g_override = value;
  g_checkStatus = STATUS_OK;
  g_getStatus = STATUS_OK;
}

void FailKernelInfo(ReturnStatus checkStatus, ReturnStatus getStatus) {
  g_checkStatus = checkStatus;
  g_getStatus = getStatus;
}

void UseDefaultKernelInfo() { SetMaxPortsSystemWide(0); }
}  // namespace testing

}  // namespace zel::host
