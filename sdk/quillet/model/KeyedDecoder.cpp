#include "quillet/model/KeyedDecoder.h"

#include "quillet/base/NeverDestroyed.h"
#include "quillet/model/Json.h"

namespace quillet {
namespace {

std::string holds(const boost::json::value& value, std::string_view expected) {
  return "holds " + std::string(Json::kindName(value)) + ", expected " + std::string(expected);
}

}  // namespace

KeyedDecoder::KeyedDecoder(const boost::json::value& value, std::string path)
    : object_(value.if_object()), path_(std::move(path)) {
  if (object_ == nullptr) {
    error_ =
        (path_.empty() ? std::string("the document") : path_) + " " + holds(value, "an object");
  }
}

const std::string& KeyedDecoder::error() const noexcept {
  static const NeverDestroyed<std::string> kNone;  // outlives every thread
  return error_ ? *error_ : kNone.get();
}

void KeyedDecoder::fail(std::string message) {
  if (!error_) error_ = std::move(message);
}

void KeyedDecoder::failKey(std::string_view key, std::string_view problem) {
  std::string message = path_.empty() ? std::string() : path_ + ": ";
  message.append("key \"").append(key).append("\" ").append(problem);
  fail(std::move(message));
}

std::string KeyedDecoder::elementPath(std::string_view key, std::size_t index) const {
  std::string path = path_.empty() ? std::string() : path_ + ".";
  return path.append(key).append("[").append(std::to_string(index)).append("]");
}

const boost::json::value* KeyedDecoder::present(std::string_view key, bool required) {
  if (error_ || object_ == nullptr) return nullptr;
  const boost::json::value* value = Json::member(*object_, key);
  if (value == nullptr || value->is_null()) {
    if (required) failKey(key, value == nullptr ? "is missing" : "is null");
    return nullptr;
  }
  return value;
}

std::optional<std::string> KeyedDecoder::requiredString(std::string_view key) {
  const boost::json::value* value = present(key, true);
  if (value == nullptr) return std::nullopt;
  if (const auto text = Json::string(value)) return std::string(*text);
  failKey(key, holds(*value, "a string"));
  return std::nullopt;
}

std::optional<std::int64_t> KeyedDecoder::requiredInteger(std::string_view key) {
  const boost::json::value* value = present(key, true);
  if (value == nullptr) return std::nullopt;
  if (const auto number = Json::exactInteger(value)) return number;
  failKey(key, holds(*value, "an integer"));
  return std::nullopt;
}

std::optional<bool> KeyedDecoder::requiredBool(std::string_view key) {
  const boost::json::value* value = present(key, true);
  if (value == nullptr) return std::nullopt;
  if (const auto flag = Json::boolean(value)) return flag;
  failKey(key, holds(*value, "a boolean"));
  return std::nullopt;
}

std::optional<std::vector<std::int64_t>> KeyedDecoder::requiredIntegerArray(std::string_view key) {
  const boost::json::value* value = present(key, true);
  if (value == nullptr) return std::nullopt;
  const boost::json::array* elements = Json::array(value);
  if (elements == nullptr) {
    failKey(key, holds(*value, "an array of integers"));
    return std::nullopt;
  }
  std::vector<std::int64_t> numbers;
  numbers.reserve(elements->size());
  for (std::size_t i = 0; i < elements->size(); ++i) {
    const auto number = Json::exactInteger(&(*elements)[i]);
    if (!number) {
      failKey(key, "element " + std::to_string(i) + " " + holds((*elements)[i], "an integer"));
      return std::nullopt;
    }
    numbers.push_back(*number);
  }
  return numbers;
}

std::optional<std::string> KeyedDecoder::optionalString(std::string_view key) {
  const boost::json::value* value = present(key, false);
  if (value == nullptr) return std::nullopt;
  if (const auto text = Json::string(value)) return std::string(*text);
  failKey(key, holds(*value, "a string"));
  return std::nullopt;
}

const boost::json::array* KeyedDecoder::optionalArray(std::string_view key) {
  const boost::json::value* value = present(key, false);
  if (value == nullptr) return nullptr;
  if (const boost::json::array* elements = Json::array(value)) return elements;
  failKey(key, holds(*value, "an array"));
  return nullptr;
}

std::optional<std::vector<std::string>> KeyedDecoder::tryStringArray(std::string_view key) const {
  if (object_ == nullptr) return std::nullopt;
  const boost::json::array* elements = Json::array(Json::member(*object_, key));
  if (elements == nullptr) return std::nullopt;
  std::vector<std::string> texts;
  texts.reserve(elements->size());
  for (const auto& element : *elements) {
    const auto text = Json::string(&element);
    if (!text) return std::nullopt;
    texts.emplace_back(*text);
  }
  return texts;
}

std::optional<std::string> KeyedDecoder::tryString(std::string_view key) const {
  if (object_ == nullptr) return std::nullopt;
  if (const auto text = Json::string(Json::member(*object_, key))) return std::string(*text);
  return std::nullopt;
}

}  // namespace quillet
