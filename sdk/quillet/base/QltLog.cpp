#include "quillet/base/QltLog.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include <cxxabi.h>
#include <execinfo.h>

namespace quillet {
namespace {

class StandardOutputSink final : public LogSink {
 public:
  void write(std::string_view line) noexcept override {
    std::string out;
    out.reserve(line.size() + 1);
    out.append(line);
    out.push_back('\n');
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
  }
};

struct Settings {
  std::mutex mutex;
  std::string tagPrefix = "QLT-CMP";
  std::shared_ptr<LogSink> sink;  // null: standard output
};

// Process-wide and never destroyed, like the sink below: HTTP completions and main-queue tasks
// may log while the process exits.
Settings& settings() {
  static Settings* const instance = new Settings();
  return *instance;
}

LogSink& standardOutput() {
  static StandardOutputSink* const sink = new StandardOutputSink();
  return *sink;
}

// ISO 8601 in UTC with whole seconds: 2024-05-01T10:00:00Z.
std::string timestamp() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::array<char, 32> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
  return std::string(text.data(), length);
}

// One frame per line: "<index>  <module>  <function> + <offset>", demangled where the symbol is
// known. Frames of the logger itself are left out.
[[gnu::noinline]] std::string callStackSymbols() {
  std::array<void*, 64> frames{};
  const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
  char** symbols = backtrace_symbols(frames.data(), count);
  if (symbols == nullptr) return {};
  constexpr int kOwnFrames = 2;  // callStackSymbols and QltLog::write
  std::string out;
  for (int index = kOwnFrames; index < count; ++index) {
    std::string_view raw(symbols[index]);
    std::string frame(raw);
    // glibc's form is "module(mangled+0xoffset) [0xaddress]".
    const auto open = raw.find('(');
    const auto plus = raw.find('+', open == std::string_view::npos ? 0 : open);
    if (open != std::string_view::npos && plus != std::string_view::npos && plus > open + 1) {
      const std::string mangled(raw.substr(open + 1, plus - open - 1));
      int status = 0;
      char* demangled = abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status);
      if (status == 0 && demangled != nullptr) {
        frame = std::string(raw.substr(0, open)) + "  " + demangled + " " +
                std::string(raw.substr(plus, raw.find(')', plus) - plus));
      }
      std::free(demangled);
    }
    if (!out.empty()) out.push_back('\n');
    out.append(std::to_string(index - kOwnFrames)).append("  ").append(frame);
  }
  std::free(symbols);
  return out;
}

}  // namespace

std::optional<QltLogLevel> qltLogLevelFromRawValue(int rawValue) noexcept {
  if (rawValue < 0 || rawValue > 4) return std::nullopt;
  return static_cast<QltLogLevel>(rawValue);
}

std::string_view qltLogLevelLabel(QltLogLevel level) noexcept {
  switch (level) {
    case QltLogLevel::verbose:
      return "VERBOSE";
    case QltLogLevel::debug:
      return "DEBUG";
    case QltLogLevel::info:
      return "INFO";
    case QltLogLevel::warning:
      return "WARN";
    case QltLogLevel::error:
      return "ERROR";
  }
  return "";
}

void QltLog::setEnabled(bool enabled) noexcept {
  enabled_.store(enabled, std::memory_order_relaxed);
}

std::string QltLog::tagPrefix() {
  Settings& s = settings();
  std::lock_guard lock(s.mutex);
  return s.tagPrefix;
}

void QltLog::setTagPrefix(std::string prefix) {
  Settings& s = settings();
  std::lock_guard lock(s.mutex);
  s.tagPrefix = std::move(prefix);
}

void QltLog::setSink(std::shared_ptr<LogSink> sink) {
  Settings& s = settings();
  std::lock_guard lock(s.mutex);
  s.sink = std::move(sink);
}

void QltLog::write(QltLogLevel level, std::string_view tag, std::string_view message,
                   ErrorText error) {
  std::string prefix;
  std::shared_ptr<LogSink> sink;
  {
    Settings& s = settings();
    std::lock_guard lock(s.mutex);
    prefix = s.tagPrefix;
    sink = s.sink;
  }
  std::string line;
  line.reserve(48 + prefix.size() + tag.size() + message.size());
  line.append("[").append(timestamp()).append("] [").append(qltLogLevelLabel(level)).append("] [");
  if (!prefix.empty()) line.append(prefix).append(":");
  line.append(tag).append("] ").append(message);
  if (error) {
    line.append("\n").append(*error);
    if (level == QltLogLevel::error) line.append("\n").append(callStackSymbols());
  }
  (sink ? *sink : standardOutput()).write(line);
}

}  // namespace quillet
