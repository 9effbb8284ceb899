#pragma once

#include <atomic>
#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "quillet/base/Export.h"

namespace quillet {

/// Severity of a log line; the raw values are part of the public contract.
enum class QltLogLevel : int { verbose = 0, debug = 1, info = 2, warning = 3, error = 4 };

/// The level with this raw value (0 to 4), or nothing.
QUILLET_EXPORT std::optional<QltLogLevel> qltLogLevelFromRawValue(int rawValue) noexcept;

/// The label a line carries: "VERBOSE", "DEBUG", "INFO", "WARN", "ERROR".
QUILLET_EXPORT std::string_view qltLogLevelLabel(QltLogLevel level) noexcept;

/// Where finished log lines go. `write` gets one complete line without its final line break
/// (a line may itself contain line breaks: the error description and the call stack). It may be
/// called from any thread at the same time.
class QUILLET_EXPORT LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(std::string_view line) noexcept = 0;
};

/// The library's one diagnostic channel. Off until the host turns it on; no minimum level.
///
/// A line reads "[2024-05-01T10:00:00Z] [DEBUG] [QLT-CMP:QLTCMPUtils] message", followed by the
/// error description on its own line when an error is given, and for `e` with an error also by
/// the call stack, one frame per line. By default lines go to standard output, one write each.
///
/// Threads: every member may be called from any thread. While logging is off a call costs one
/// relaxed atomic load; the overloads that take a callable build the message only when on.
class QUILLET_EXPORT QltLog {
 public:
  QltLog() = delete;

  static bool enabled() noexcept { return enabled_.load(std::memory_order_relaxed); }
  static void setEnabled(bool enabled) noexcept;

  /// Put in front of every tag with ":" between; an empty prefix leaves the tag alone.
  /// Default "QLT-CMP".
  static std::string tagPrefix();
  static void setTagPrefix(std::string prefix);

  /// Replaces the destination of lines; nullptr restores standard output.
  static void setSink(std::shared_ptr<LogSink> sink);

  using ErrorText = std::optional<std::string_view>;

  static void v(std::string_view tag, std::string_view message, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::verbose, tag, message, error);
  }
  static void d(std::string_view tag, std::string_view message, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::debug, tag, message, error);
  }
  static void i(std::string_view tag, std::string_view message, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::info, tag, message, error);
  }
  static void w(std::string_view tag, std::string_view message, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::warning, tag, message, error);
  }
  static void e(std::string_view tag, std::string_view message, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::error, tag, message, error);
  }

  /// Lazy forms: `makeMessage()` runs only when logging is on.
  template <class F>
  requires std::invocable<F&>
  static void v(std::string_view tag, F&& makeMessage, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::verbose, tag, std::string(makeMessage()), error);
  }
  template <class F>
  requires std::invocable<F&>
  static void d(std::string_view tag, F&& makeMessage, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::debug, tag, std::string(makeMessage()), error);
  }
  template <class F>
  requires std::invocable<F&>
  static void i(std::string_view tag, F&& makeMessage, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::info, tag, std::string(makeMessage()), error);
  }
  template <class F>
  requires std::invocable<F&>
  static void w(std::string_view tag, F&& makeMessage, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::warning, tag, std::string(makeMessage()), error);
  }
  template <class F>
  requires std::invocable<F&>
  static void e(std::string_view tag, F&& makeMessage, ErrorText error = std::nullopt) {
    if (enabled()) write(QltLogLevel::error, tag, std::string(makeMessage()), error);
  }

 private:
  static void write(QltLogLevel level, std::string_view tag, std::string_view message,
                    ErrorText error);

  static inline std::atomic<bool> enabled_{false};
};

}  // namespace quillet
