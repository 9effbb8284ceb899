#include "quillet/storage/KeyValueStore.h"

#include <cctype>
#include <charconv>
#include <cmath>

#include "quillet/base/Text.h"

namespace quillet {
namespace {

bool equalsIgnoringCase(std::string_view text, std::string_view word) {
  if (text.size() != word.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto a = static_cast<unsigned char>(text[i]);
    const auto b = static_cast<unsigned char>(word[i]);
    if (std::tolower(a) != std::tolower(b)) return false;
  }
  return true;
}

std::int64_t truncated(double number) {
  const double whole = std::trunc(number);
  if (!(whole >= -9223372036854775808.0 && whole < 9223372036854775808.0)) return 0;
  return static_cast<std::int64_t>(whole);
}

}  // namespace

bool KeyValueStore::readBool(std::string_view key) const {
  const auto value = get(key);
  if (!value) return false;
  if (const bool* flag = value->get<bool>()) return *flag;
  if (const std::int64_t* number = value->get<std::int64_t>()) return *number != 0;
  if (const double* number = value->get<double>()) return *number != 0.0;
  if (const std::string* text = value->get<std::string>()) {
    return equalsIgnoringCase(*text, "true") || equalsIgnoringCase(*text, "yes") || *text == "1";
  }
  return false;
}

std::int64_t KeyValueStore::readInteger(std::string_view key) const {
  const auto value = get(key);
  if (!value) return 0;
  if (const std::int64_t* number = value->get<std::int64_t>()) return *number;
  if (const double* number = value->get<double>()) return truncated(*number);
  if (const bool* flag = value->get<bool>()) return *flag ? 1 : 0;
  if (const std::string* text = value->get<std::string>()) {
    return Text::parseInteger(*text).value_or(0);
  }
  return 0;
}

std::optional<std::string> KeyValueStore::readString(std::string_view key) const {
  const auto value = get(key);
  if (!value) return std::nullopt;
  if (const std::string* text = value->get<std::string>()) return *text;
  if (const std::int64_t* number = value->get<std::int64_t>()) return std::to_string(*number);
  if (const double* number = value->get<double>()) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, *number);
    return std::string(buffer, result.ptr);
  }
  return std::nullopt;
}

std::optional<Bytes> KeyValueStore::readBytes(std::string_view key) const {
  auto value = get(key);
  if (!value) return std::nullopt;
  if (Bytes* bytes = value->get<Bytes>()) return std::move(*bytes);
  return std::nullopt;
}

bool KeyValueStore::readBytesInPieces(
    std::string_view key, const std::function<bool(std::span<const std::uint8_t>)>& sink) const {
  const auto bytes = readBytes(key);
  return bytes && sink(*bytes);
}

std::optional<std::size_t> KeyValueStore::byteCount(std::string_view /*key*/) const {
  return std::nullopt;
}

std::optional<std::uint64_t> KeyValueStore::revision(std::string_view /*key*/) const {
  return std::nullopt;
}

std::optional<StoreValue::Dictionary> KeyValueStore::readDictionary(std::string_view key) const {
  auto value = get(key);
  if (!value) return std::nullopt;
  if (auto* dictionary = value->get<StoreValue::Dictionary>()) return std::move(*dictionary);
  return std::nullopt;
}

}  // namespace quillet
