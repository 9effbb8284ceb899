#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/base/QltLog.h"

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

/// Turns logging on into a fresh recording sink for the life of the object, then turns it off
/// and restores standard output.
class LogCapture {
 public:
  LogCapture() {
    QltLog::setSink(sink_);
    QltLog::setEnabled(true);
  }
  ~LogCapture() {
    QltLog::setEnabled(false);
    QltLog::setSink(nullptr);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// The lines as written.
  std::vector<std::string> raw() const { return sink_->lines(); }
  /// Each line from its level on, without the timestamp: "[INFO] [QLT-CMP:Tag] message".
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& line : sink_->lines())
      out.push_back(line.substr(line.find("] [") + 2));
    return out;
  }
  /// Forgets what was written so far.
  void clear() {
    sink_ = std::make_shared<RecordingLogSink>();
    QltLog::setSink(sink_);
  }

 private:
  std::shared_ptr<RecordingLogSink> sink_ = std::make_shared<RecordingLogSink>();
};

}  // namespace quillet::testing
