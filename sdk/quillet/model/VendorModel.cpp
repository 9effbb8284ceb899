#include "quillet/model/VendorModel.h"

#include <algorithm>

#include "quillet/base/IdList.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/Json.h"
#include "quillet/model/KeyedDecoder.h"
#include "quillet/model/VendorList.h"
#include "quillet/model/VendorModelStart.h"

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

namespace {

// The walk that `parse` and a start's two steps share: `visit(id, name, members)` for each vendor
// that `parse` keeps, in member order, with the log lines `parse` writes when `log` is set.
template <class Visit>
void forEachVendor(const boost::json::object& from,
                   const std::optional<std::vector<std::int64_t>>& selection, bool log,
                   Visit&& visit) {
  const boost::json::object* vendors = Json::object(Json::member(from, "vendors"));
  if (vendors == nullptr) {
    if (log) QltLog::e(kTag, "GVL missing 'vendors' key");
    return;
  }
  const std::vector<std::int64_t> allowed =
      IdList::sortedUnique(selection.value_or(std::vector<std::int64_t>{}));
  const auto isAllowed = [&](std::int64_t id) { return IdList::contains(allowed, id); };
  if (log) {
    QltLog::d(kTag, [&] { return "Allowed Vendor IDs: " + Text::printedList(allowed); });
    QltLog::d(kTag, [&] {
      std::vector<std::string_view> keys;
      keys.reserve(vendors->size());
      for (const auto& member : *vendors)
        keys.emplace_back(member.key());
      return "Vendors raw keys: " + Text::printedList(keys);
    });
  }
  for (const auto& member : *vendors) {
    const boost::json::object* entry = member.value().if_object();
    if (entry == nullptr) continue;
    const VendorMembers members(*entry);
    const std::int64_t id = VendorList::entryId(members.id, member.key());
    if (!allowed.empty() && !isAllowed(id)) continue;
    const std::string_view name = Json::string(members.name).value_or("");
    // "allowed" is whether the selection names the vendor: false for every vendor when there is
    // no selection, although all of them are kept.
    if (log) {
      QltLog::d(kTag, [&] {
        return "Vendor parsed: id=" + std::to_string(id) + ", name=" + std::string(name) +
               ", allowed=" + (isAllowed(id) ? "true" : "false") +
               ", url=" + policyAddress(members).value_or("");
      });
    }
    if (name.empty()) continue;
    visit(id, name, members);
  }
}

std::vector<VendorModel> parseModels(const boost::json::object& from,
                                     const std::optional<std::vector<std::int64_t>>& selection,
                                     bool log) {
  std::vector<VendorModel> parsed;
  if (const auto* vendors = Json::object(Json::member(from, "vendors"))) {
    parsed.reserve(selection && !selection->empty() ? selection->size() : vendors->size());
  }
  forEachVendor(from, selection, log,
                [&](std::int64_t id, std::string_view name, const VendorMembers& members) {
                  parsed.emplace_back(id, std::string(name), policyAddress(members),
                                      Json::exactIntegerArray(members.purposes)
                                          .value_or(std::vector<std::int64_t>{}),
                                      Json::exactIntegerArray(members.legIntPurposes)
                                          .value_or(std::vector<std::int64_t>{}));
                });
  return parsed;
}

}  // namespace

std::vector<VendorModel> VendorModel::parse(const boost::json::object& from,
                                            const BrandingConfig& config) {
  return parseModels(from, config.selectedVendorIds(), true);
}

namespace VendorModels {

Outline outline(const boost::json::object& from,
                const std::optional<std::vector<std::int64_t>>& selection) {
  Outline out;
  IdList::Gatherer declared;
  std::vector<std::int64_t> list;  // one buffer for every vendor's declared lists
  forEachVendor(from, selection, true,
                [&](std::int64_t id, std::string_view, const VendorMembers& members) {
                  out.ids.push_back(id);
                  for (const auto* value : {members.purposes, members.legIntPurposes}) {
                    list.clear();
                    if (!Json::appendExactIntegerArray(value, list)) continue;
                    for (const auto purpose : list)
                      declared.add(purpose);
                  }
                });
  out.declaredPurposes = std::move(declared).sorted();
  return out;
}

std::vector<VendorModel> models(const boost::json::object& from,
                                const std::optional<std::vector<std::int64_t>>& selection) {
  return parseModels(from, selection, false);
}

}  // namespace VendorModels

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
