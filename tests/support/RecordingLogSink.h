#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/core/QltLog.h"

namespace quillet::testing {

/// A log sink that keeps every line it is given, safe to write from many threads.
class RecordingLogSink final : public LogSink {
 public:
  void write(std::string_view line) noexcept override {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace quillet::testing
