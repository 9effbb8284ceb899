#pragma once

#include <optional>
#include <string>

#include "quillet/base/Export.h"

namespace quillet {

/// The device's current locale.
class QUILLET_EXPORT Locale {
 public:
  virtual ~Locale() = default;
  /// The language code ("de", "pt"), or nothing when the locale has none.
  virtual std::optional<std::string> languageCode() const = 0;
};

/// The process's locale from LC_ALL, LC_MESSAGES or LANG ("de_DE.UTF-8" gives "de"); "C",
/// "POSIX" and unset give nothing.
class QUILLET_EXPORT SystemLocale final : public Locale {
 public:
  std::optional<std::string> languageCode() const override;
};

/// A locale with a fixed language code, for tests and hosts that know better.
class QUILLET_EXPORT FixedLocale final : public Locale {
 public:
  explicit FixedLocale(std::optional<std::string> languageCode)
      : languageCode_(std::move(languageCode)) {}
  std::optional<std::string> languageCode() const override { return languageCode_; }

 private:
  std::optional<std::string> languageCode_;
};

}  // namespace quillet
