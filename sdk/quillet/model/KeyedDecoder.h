#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/value.hpp>

namespace quillet {

/// Strict reading of one JSON object for the records' keyed decoding: required members must be
/// present, not null and of their type; optional members are read when present and not null and
/// must then be of their type. Integers must be exact (3.0 is 3, 3.5 is an error); booleans are
/// only true and false. The first problem is kept as a message that names the key (with the
/// path of the object inside its document) and what was wrong; after it every read is absent.
class KeyedDecoder {
 public:
  /// `path` names the object in messages, e.g. "disclosures[2]"; empty for the document itself.
  KeyedDecoder(const boost::json::value& value, std::string path = {});

  std::optional<std::string> requiredString(std::string_view key);
  std::optional<std::int64_t> requiredInteger(std::string_view key);
  std::optional<bool> requiredBool(std::string_view key);
  std::optional<std::vector<std::int64_t>> requiredIntegerArray(std::string_view key);

  std::optional<std::string> optionalString(std::string_view key);
  /// An optional array: nullptr when absent or null (and on error).
  const boost::json::array* optionalArray(std::string_view key);

  /// Lenient reads that never record a problem: the value when it is there and of its type.
  std::optional<std::vector<std::string>> tryStringArray(std::string_view key) const;
  std::optional<std::string> tryString(std::string_view key) const;

  /// The path of element `index` of the array under `key`, for nested decoders.
  std::string elementPath(std::string_view key, std::size_t index) const;

  /// Records a problem found by the caller (a nested decoder's message, for one).
  void fail(std::string message);

  bool failed() const noexcept { return error_.has_value(); }
  /// The first problem; empty when there was none.
  const std::string& error() const noexcept;

 private:
  const boost::json::value* present(std::string_view key, bool required);
  void failKey(std::string_view key, std::string_view problem);

  const boost::json::object* object_ = nullptr;
  std::string path_;
  std::optional<std::string> error_;
};

}  // namespace quillet
