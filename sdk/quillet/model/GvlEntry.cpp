#include "quillet/model/GvlEntry.h"

#include "quillet/core/Text.h"
#include "quillet/model/Json.h"

namespace quillet::gvl {

std::int64_t entryId(const boost::json::object& entry, std::string_view key) {
  if (const auto id = Json::exactInteger(Json::member(entry, "id"))) return *id;
  return Text::parseInteger(key).value_or(0);
}

std::string printList(std::span<const std::string_view> texts) {
  std::string out = "[";
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (i > 0) out += ", ";
    out.append("\"").append(texts[i]).append("\"");
  }
  return out + "]";
}

std::string printList(std::span<const std::int64_t> numbers) {
  std::string out = "[";
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    if (i > 0) out += ", ";
    out += std::to_string(numbers[i]);
  }
  return out + "]";
}

}  // namespace quillet::gvl
