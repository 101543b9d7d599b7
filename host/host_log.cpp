#include "host/host_log.h"

#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <vector>

namespace zel::host {
namespace {

// The default sink writes both logs to the system log.
class SystemLogSink final : public LogSink {
 public:
  void HostLog(int id, const std::string &line) override {
    syslog(LOG_INFO, "[%d] %s", id, line.c_str());
  }
  void SysLog(int priority, const std::string &line) override {
    syslog(priority, "%s", line.c_str());
  }
};

SystemLogSink g_systemSink;
std::atomic<LogSink *> g_sink{&g_systemSink};

std::string Format(const char *fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  const int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n <= 0) {
    return {};
  }
  std::vector<char> buf(static_cast<size_t>(n) + 1);
  std::vsnprintf(buf.data(), buf.size(), fmt, ap);
  return std::string(buf.data(), static_cast<size_t>(n));
}

}  // namespace

LogSink *SetLogSink(LogSink *sink) {
  LogSink *previous = g_sink.exchange(sink != nullptr ? sink : &g_systemSink);
  return previous == &g_systemSink ? nullptr : previous;
}

void LogV(int id, const char *fmt, va_list ap) { g_sink.load()->HostLog(id, Format(fmt, ap)); }

void Log(int id, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  LogV(id, fmt, ap);
  va_end(ap);
}

void SysLog(int priority, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string line = Format(fmt, ap);
  va_end(ap);
  g_sink.load()->SysLog(priority, line);
}

}  // namespace zel::host
