#include "quillet/model/BrandingConfig.h"

#include "quillet/base/Text.h"
#include "quillet/model/Json.h"

namespace quillet {
namespace {

std::optional<std::string> text(const boost::json::object& json, std::string_view key) {
  if (const auto value = Json::string(Json::member(json, key))) return std::string(*value);
  return std::nullopt;
}

// An id list: every number truncated, booleans as 1 or 0, other elements skipped; absent when
// the value is not an array. (When every element is an exact integer, this is the array as it
// stands.)
std::optional<std::vector<std::int64_t>> idList(const boost::json::object& json,
                                                std::string_view key) {
  const boost::json::array* elements = Json::array(Json::member(json, key));
  if (elements == nullptr) return std::nullopt;
  std::vector<std::int64_t> ids;
  ids.reserve(elements->size());
  for (const auto& element : *elements) {
    if (const auto id = Json::idListElement(&element)) ids.push_back(*id);
  }
  return ids;
}

}  // namespace

BrandingConfig::BrandingConfig(Fields fields) : fields_(std::move(fields)) {
  if (fields_.publisherCC) fields_.publisherCC = Text::uppercased(*fields_.publisherCC);
}

std::optional<BrandingConfig> BrandingConfig::init(const boost::json::object& json) {
  Fields fields;
  fields.logoUrl = text(json, "logoUrl");
  fields.brandColor = text(json, "brandColor");
  fields.privacyUrl = text(json, "privacyUrl");
  fields.layout = text(json, "layout");
  fields.bannerText = text(json, "bannerText");
  fields.showRejectButton = Json::boolean(Json::member(json, "showRejectButton")).value_or(false);
  fields.showCustomizeButton =
      Json::boolean(Json::member(json, "showCustomizeButton")).value_or(false);
  fields.acceptButtonText = text(json, "acceptButtonText");
  fields.rejectButtonText = text(json, "rejectButtonText");
  fields.manageButtonText = text(json, "manageButtonText");
  fields.customizeLinkId = text(json, "customizeLinkId");
  fields.selectedVendorIds = idList(json, "selectedVendorIds");
  fields.selectedPurposesIds = idList(json, "selectedPurposesIds");
  fields.vendorListVersion = Json::truncatedInteger(Json::member(json, "vendorListVersion"));
  fields.configVersion = Json::truncatedInteger(Json::member(json, "configVersion"));
  fields.publisherCC = text(json, "publisherCC");
  return BrandingConfig(std::move(fields));
}

}  // namespace quillet
