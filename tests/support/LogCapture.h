#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/base/QltLog.h"

namespace quillet::testing {

/// Turns logging on into a fresh recording sink for the life of the object, then turns it off
/// and restores standard output. The sink may be written from many threads.
class LogCapture {
 public:
  LogCapture() {
    clear();
    QltLog::setEnabled(true);
  }
  ~LogCapture() {
    QltLog::setEnabled(false);
    QltLog::setSink(nullptr);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// The lines as written.
  std::vector<std::string> raw() const {
    std::lock_guard lock(sink_->mutex);
    return sink_->lines;
  }
  /// Each line from its level on, without the timestamp: "[INFO] [QLT-CMP:Tag] message".
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& line : raw())
      out.push_back(line.substr(line.find("] [") + 2));
    return out;
  }
  /// Forgets what was written so far.
  void clear() {
    sink_ = std::make_shared<Sink>();
    QltLog::setSink(sink_);
  }

 private:
  struct Sink final : LogSink {
    void write(std::string_view line) noexcept override {
      std::lock_guard lock(mutex);
      lines.emplace_back(line);
    }
    std::mutex mutex;
    std::vector<std::string> lines;
  };
  std::shared_ptr<Sink> sink_;
};

}  // namespace quillet::testing
