// The host's logs as a replaceable seam: the host log (LogV, used by the
// state file with 110 as its first argument) and the system log (syslog, used
// by the configuration-store save for its progress lines).  By default both go
// to the system log; tests install a sink that keeps the lines.
#pragma once

#include <cstdarg>
#include <string>

namespace zel::host {

class LogSink {
 public:
  virtual ~LogSink() = default;
  // The host log: `id` is the caller's log group (110 for the state file).
  virtual void HostLog(int id, const std::string &line) = 0;
  // The system log at a syslog priority (7 is debug).
  virtual void SysLog(int priority, const std::string &line) = 0;
};

// Installs a sink (null restores the default) and returns the previous one.
LogSink *SetLogSink(LogSink *sink);

void LogV(int id, const char *fmt, va_list ap) __attribute__((format(printf, 2, 0)));
void Log(int id, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void SysLog(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace zel::host
