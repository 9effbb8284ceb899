#include "quillet/model/VendorModel.h"

#include <algorithm>

#include "quillet/base/IdList.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/Json.h"
#include "quillet/model/KeyedDecoder.h"
#include "quillet/model/VendorList.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "VendorModel";

// The members a vendor's model is read from, found in one pass over its entry rather than a
// search for each (a list has about a thousand entries of some sixteen members). Keys in a parsed
// object are unique, so each is the member that a search would find.
struct VendorMembers {
  const boost::json::value* id = nullptr;
  const boost::json::value* name = nullptr;
  const boost::json::value* policyUrl = nullptr;
  const boost::json::value* urls = nullptr;
  const boost::json::value* purposes = nullptr;
  const boost::json::value* legIntPurposes = nullptr;

  explicit VendorMembers(const boost::json::object& entry) {
    for (const auto& member : entry) {
      const std::string_view key = member.key();
      const boost::json::value* const value = &member.value();
      switch (key.size()) {
        case 2:
          if (key == "id") id = value;
          break;
        case 4:
          if (key == "name") name = value;
          if (key == "urls") urls = value;
          break;
        case 8:
          if (key == "purposes") purposes = value;
          break;
        case 9:
          if (key == "policyUrl") policyUrl = value;
          break;
        case 14:
          if (key == "legIntPurposes") legIntPurposes = value;
          break;
        default:
          break;
      }
    }
  }
};

// "policyUrl" when it is a string; else, when "urls" is an array of objects, the first string
// "privacy" among them.
std::optional<std::string> policyAddress(const VendorMembers& members) {
  if (const auto url = Json::string(members.policyUrl)) return std::string(*url);
  const boost::json::array* urls = Json::array(members.urls);
  if (urls == nullptr) return std::nullopt;
  if (!std::all_of(urls->begin(), urls->end(), [](const auto& u) { return u.is_object(); })) {
    return std::nullopt;
  }
  for (const auto& url : *urls) {
    if (const auto privacy = Json::string(Json::member(url.get_object(), "privacy"))) {
      return std::string(*privacy);
    }
  }
  return std::nullopt;
}

}  // namespace

VendorModel::VendorModel(std::int64_t id, std::string name, std::optional<std::string> policyUrl,
                         std::vector<std::int64_t> purposes,
                         std::vector<std::int64_t> legIntPurposes)
    : id_(id),
      name_(std::move(name)),
      policyUrl_(std::move(policyUrl)),
      purposes_(std::move(purposes)),
      legIntPurposes_(std::move(legIntPurposes)) {}

std::vector<VendorModel> VendorModel::parse(const boost::json::object& from,
                                            const BrandingConfig& config) {
  const boost::json::object* vendors = Json::object(Json::member(from, "vendors"));
  if (vendors == nullptr) {
    QltLog::e(kTag, "GVL missing 'vendors' key");
    return {};
  }
  const std::vector<std::int64_t> allowed =
      IdList::sortedUnique(config.selectedVendorIds().value_or(std::vector<std::int64_t>{}));
  const auto isAllowed = [&](std::int64_t id) { return IdList::contains(allowed, id); };
  QltLog::d(kTag, [&] { return "Allowed Vendor IDs: " + Text::printedList(allowed); });
  QltLog::d(kTag, [&] {
    std::vector<std::string_view> keys;
    keys.reserve(vendors->size());
    for (const auto& member : *vendors)
      keys.emplace_back(member.key());
    return "Vendors raw keys: " + Text::printedList(keys);
  });

  std::vector<VendorModel> parsed;
  parsed.reserve(allowed.empty() ? vendors->size() : allowed.size());
  for (const auto& member : *vendors) {
    const boost::json::object* entry = member.value().if_object();
    if (entry == nullptr) continue;
    const VendorMembers members(*entry);
    const std::int64_t id = VendorList::entryId(members.id, member.key());
    if (!allowed.empty() && !isAllowed(id)) continue;
    const std::string_view name = Json::string(members.name).value_or("");
    std::optional<std::string> policyUrl = policyAddress(members);
    // "allowed" is whether the selection names the vendor: false for every vendor when there is
    // no selection, although all of them are kept.
    QltLog::d(kTag, [&] {
      return "Vendor parsed: id=" + std::to_string(id) + ", name=" + std::string(name) +
             ", allowed=" + (isAllowed(id) ? "true" : "false") + ", url=" + policyUrl.value_or("");
    });
    if (name.empty()) continue;
    parsed.emplace_back(
        id, std::string(name), std::move(policyUrl),
        Json::exactIntegerArray(members.purposes).value_or(std::vector<std::int64_t>{}),
        Json::exactIntegerArray(members.legIntPurposes).value_or(std::vector<std::int64_t>{}));
  }
  return parsed;
}

boost::json::object VendorModel::toJson() const {
  boost::json::object json;
  json["id"] = id_;
  json["name"] = name_;
  if (policyUrl_) json["policyUrl"] = *policyUrl_;
  json["purposes"] = boost::json::array(purposes_.begin(), purposes_.end());
  json["legIntPurposes"] = boost::json::array(legIntPurposes_.begin(), legIntPurposes_.end());
  return json;
}

Result<VendorModel> VendorModel::fromJson(const boost::json::value& json) {
  KeyedDecoder decoder(json);
  auto id = decoder.requiredInteger("id");
  auto name = decoder.requiredString("name");
  auto policyUrl = decoder.optionalString("policyUrl");
  auto purposes = decoder.requiredIntegerArray("purposes");
  auto legIntPurposes = decoder.requiredIntegerArray("legIntPurposes");
  if (decoder.failed()) return Failure{decoder.error()};
  return VendorModel(*id, std::move(*name), std::move(policyUrl), std::move(*purposes),
                     std::move(*legIntPurposes));
}

}  // namespace quillet
