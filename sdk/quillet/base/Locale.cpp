#include "quillet/base/Locale.h"

#include <cstdlib>
#include <string_view>

namespace quillet {

std::optional<std::string> SystemLocale::languageCode() const {
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    // The library only reads the environment; the host must not change it while it runs.
    const char* value = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe)
    if (value == nullptr || value[0] == '\0') continue;
    std::string_view locale(value);
    if (locale == "C" || locale == "POSIX" || locale.starts_with("C.")) return std::nullopt;
    const auto end = locale.find_first_of("_.@");
    std::string_view language = locale.substr(0, end);
    if (language.empty()) return std::nullopt;
    return std::string(language);
  }
  return std::nullopt;
}

}  // namespace quillet
