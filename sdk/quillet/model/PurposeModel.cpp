#include "quillet/model/PurposeModel.h"

#include <algorithm>

#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/model/Json.h"
#include "quillet/model/KeyedDecoder.h"
#include "quillet/model/VendorList.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "PurposeModel";

}  // namespace

PurposeModel::PurposeModel(std::int64_t id, std::string name,
                           std::optional<std::string> description)
    : id_(id), name_(std::move(name)), description_(std::move(description)) {}

std::vector<PurposeModel> PurposeModel::parse(const boost::json::object& from) {
  const boost::json::object* purposes = Json::object(Json::member(from, "purposes"));
  if (purposes == nullptr) {
    QltLog::e(kTag, "❌ GVL missing 'purposes' key");
    return {};
  }
  QltLog::d(kTag, [&] {
    std::vector<std::string_view> keys;
    for (const auto& member : *purposes)
      keys.emplace_back(member.key());
    std::sort(keys.begin(), keys.end());
    return "Purposes raw keys: " + Text::printedList(keys);
  });

  std::vector<PurposeModel> parsed;
  parsed.reserve(purposes->size());
  for (const auto& member : *purposes) {
    const std::string_view key = member.key();
    const boost::json::object* entry = member.value().if_object();
    if (entry == nullptr) {
      QltLog::w(kTag, [&] {
        return "⚠️ Purpose " + std::string(key) +
               " is not a dict: " + Json::print(member.value());
      });
      continue;
    }
    const std::int64_t id = VendorList::entryId(*entry, key);
    const std::string_view name = Json::string(Json::member(*entry, "name")).value_or("");
    std::optional<std::string> description;
    if (const auto text = Json::string(Json::member(*entry, "description"))) {
      description.emplace(*text);
    }
    if (name.empty()) {
      QltLog::w(kTag, [&] {
        return "⚠️ Empty purpose name for key " + std::string(key) +
               ", dict: " + Json::print(member.value());
      });
      continue;
    }
    QltLog::d(kTag, [&] {
      return "Purpose parsed: id=" + std::to_string(id) + ", name=" + std::string(name);
    });
    parsed.emplace_back(id, std::string(name), std::move(description));
  }
  return parsed;
}

boost::json::object PurposeModel::toJson() const {
  boost::json::object json;
  json["id"] = id_;
  json["name"] = name_;
  if (description_) json["description"] = *description_;
  return json;
}

Result<PurposeModel> PurposeModel::fromJson(const boost::json::value& json) {
  KeyedDecoder decoder(json);
  auto id = decoder.requiredInteger("id");
  auto name = decoder.requiredString("name");
  auto description = decoder.optionalString("description");
  if (decoder.failed()) return Failure{decoder.error()};
  return PurposeModel(*id, std::move(*name), std::move(description));
}

}  // namespace quillet
