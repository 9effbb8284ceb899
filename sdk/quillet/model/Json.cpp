#include "quillet/model/Json.h"

#include <cmath>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace quillet::Json {
namespace {

// Doubles in [-2^63, 2^63) convert to int64 without overflow.
constexpr double kInt64Lower = -9223372036854775808.0;
constexpr double kInt64Upper = 9223372036854775808.0;

std::optional<std::int64_t> fromDouble(double number, bool exact) noexcept {
  const double truncated = std::trunc(number);
  if (exact && truncated != number) return std::nullopt;
  if (!(truncated >= kInt64Lower && truncated < kInt64Upper)) return std::nullopt;
  return static_cast<std::int64_t>(truncated);
}

std::optional<std::int64_t> fromNumber(const boost::json::value* value, bool exact) noexcept {
  if (value == nullptr) return std::nullopt;
  switch (value->kind()) {
    case boost::json::kind::int64:
      return value->get_int64();
    case boost::json::kind::uint64:
      if (value->get_uint64() > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
      return static_cast<std::int64_t>(value->get_uint64());
    case boost::json::kind::double_:
      return fromDouble(value->get_double(), exact);
    default:
      return std::nullopt;
  }
}

}  // namespace

const boost::json::value* member(const boost::json::object& object, std::string_view key) noexcept {
  return object.if_contains(key);
}

std::optional<std::int64_t> exactInteger(const boost::json::value* value) noexcept {
  return fromNumber(value, true);
}

std::optional<std::int64_t> truncatedInteger(const boost::json::value* value) noexcept {
  return fromNumber(value, false);
}

std::optional<std::int64_t> idListElement(const boost::json::value* value) noexcept {
  if (value != nullptr && value->is_bool()) return value->get_bool() ? 1 : 0;
  return fromNumber(value, false);
}

std::optional<bool> boolean(const boost::json::value* value) noexcept {
  if (value == nullptr || !value->is_bool()) return std::nullopt;
  return value->get_bool();
}

std::optional<std::string_view> string(const boost::json::value* value) noexcept {
  if (value == nullptr || !value->is_string()) return std::nullopt;
  const auto& text = value->get_string();
  return std::string_view(text.data(), text.size());
}

const boost::json::array* array(const boost::json::value* value) noexcept {
  return value != nullptr ? value->if_array() : nullptr;
}

const boost::json::object* object(const boost::json::value* value) noexcept {
  return value != nullptr ? value->if_object() : nullptr;
}

std::vector<std::int64_t> integerMembers(const boost::json::value* value) {
  std::vector<std::int64_t> out;
  if (const boost::json::array* elements = array(value)) {
    for (const auto& element : *elements) {
      if (const auto id = exactInteger(&element)) out.push_back(*id);
    }
  }
  return out;
}

std::optional<std::vector<std::int64_t>> exactIntegerArray(const boost::json::value* value) {
  const boost::json::array* elements = array(value);
  if (elements == nullptr) return std::nullopt;
  std::vector<std::int64_t> ids;
  ids.reserve(elements->size());
  for (const auto& element : *elements) {
    const auto id = exactInteger(&element);
    if (!id) return std::nullopt;
    ids.push_back(*id);
  }
  return ids;
}

std::optional<boost::json::value> parse(std::string_view text) {
  boost::system::error_code error;
  boost::json::value value = boost::json::parse(text, error);
  if (error) return std::nullopt;
  return value;
}

std::string print(const boost::json::value& value) {
  return boost::json::serialize(value);
}

std::string_view kindName(const boost::json::value& value) noexcept {
  switch (value.kind()) {
    case boost::json::kind::null:
      return "null";
    case boost::json::kind::bool_:
      return "a boolean";
    case boost::json::kind::int64:
    case boost::json::kind::uint64:
      return "an integer";
    case boost::json::kind::double_:
      return "a number";
    case boost::json::kind::string:
      return "a string";
    case boost::json::kind::array:
      return "an array";
    case boost::json::kind::object:
      return "an object";
  }
  return "a value";
}

}  // namespace quillet::Json
