#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "quillet/base/Bytes.h"
#include "quillet/base/Export.h"

namespace quillet {

/// One value of the key-value store: a boolean, a 64-bit integer, a floating-point number, a
/// text, bytes, or a dictionary from text keys to such values (nested as deep as needed).
class QUILLET_EXPORT StoreValue {
 public:
  using Dictionary = std::map<std::string, StoreValue, std::less<>>;
  using Variant = std::variant<bool, std::int64_t, double, std::string, Bytes, Dictionary>;

  StoreValue(bool value) : value_(value) {}  // NOLINT: values convert implicitly on purpose
  template <std::integral I>
  requires(!std::same_as<I, bool>) StoreValue(I value)
      : value_(static_cast<std::int64_t>(value)) {}                   // NOLINT
  StoreValue(double value) : value_(value) {}                         // NOLINT
  StoreValue(std::string value) : value_(std::move(value)) {}         // NOLINT
  StoreValue(std::string_view value) : value_(std::string(value)) {}  // NOLINT
  StoreValue(const char* value) : value_(std::string(value)) {}       // NOLINT
  StoreValue(Bytes value) : value_(std::move(value)) {}               // NOLINT
  StoreValue(Dictionary value) : value_(std::move(value)) {}          // NOLINT

  const Variant& variant() const noexcept { return value_; }
  /// The value when it holds a T, else nullptr.
  template <class T>
  const T* get() const noexcept {
    return std::get_if<T>(&value_);
  }
  template <class T>
  T* get() noexcept {
    return std::get_if<T>(&value_);
  }

  bool operator==(const StoreValue&) const = default;

 private:
  Variant value_;
};

}  // namespace quillet
