#include "quillet/model/ConsentSelections.h"

#include "quillet/model/Json.h"
#include "quillet/model/KeyedDecoder.h"

namespace quillet {

std::optional<ConsentSelections> ConsentSelections::init(const boost::json::object& json) {
  return ConsentSelections{
      .purposeIds = Json::exactIntegerArray(Json::member(json, "purposesConsent"))
                        .value_or(std::vector<std::int64_t>{}),
      .vendorIds = Json::exactIntegerArray(Json::member(json, "vendorConsent"))
                       .value_or(std::vector<std::int64_t>{}),
  };
}

boost::json::object ConsentSelections::toJson() const {
  boost::json::object json;
  json["purposeIds"] = boost::json::array(purposeIds.begin(), purposeIds.end());
  json["vendorIds"] = boost::json::array(vendorIds.begin(), vendorIds.end());
  return json;
}

Result<ConsentSelections> ConsentSelections::fromJson(const boost::json::value& json) {
  KeyedDecoder decoder(json);
  auto purposeIds = decoder.requiredIntegerArray("purposeIds");
  auto vendorIds = decoder.requiredIntegerArray("vendorIds");
  if (decoder.failed()) return Failure{decoder.error()};
  return ConsentSelections{.purposeIds = std::move(*purposeIds),
                           .vendorIds = std::move(*vendorIds)};
}

}  // namespace quillet
