#include "quillet/model/GvlEntry.h"

#include "quillet/core/Text.h"
#include "quillet/model/Json.h"

namespace quillet::gvl {

std::int64_t entryId(const boost::json::object& entry, std::string_view key) {
  if (const auto id = Json::exactInteger(Json::member(entry, "id"))) return *id;
  return Text::parseInteger(key).value_or(0);
}

}  // namespace quillet::gvl
