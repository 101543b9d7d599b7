// A log sink for tests: installs itself for its lifetime and keeps every line.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/host_log.h"

namespace zeltest {

class LogCapture final : public zel::host::LogSink {
 public:
  LogCapture() { previous_ = zel::host::SetLogSink(this); }
  ~LogCapture() override { zel::host::SetLogSink(previous_); }

  void HostLog(int id, const std::string &line) override {
    std::lock_guard<std::mutex> lock(mu_);
    host_.emplace_back(id, line);
  }
  void SysLog(int priority, const std::string &line) override {
    std::lock_guard<std::mutex> lock(mu_);
    sys_.emplace_back(priority, line);
  }
  std::vector<std::pair<int, std::string>> Host() {
    std::lock_guard<std::mutex> lock(mu_);
    return host_;
  }
  std::vector<std::pair<int, std::string>> Sys() {
    std::lock_guard<std::mutex> lock(mu_);
    return sys_;
  }

 private:
  zel::host::LogSink *previous_ = nullptr;
  std::mutex mu_;
  std::vector<std::pair<int, std::string>> host_, sys_;
};

}  // namespace zeltest
