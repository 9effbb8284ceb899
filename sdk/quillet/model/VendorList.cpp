#include "quillet/model/VendorList.h"

#include <algorithm>

#include "quillet/base/NeverDestroyed.h"
#include "quillet/base/Text.h"
#include "quillet/model/Json.h"
#include "quillet/model/VendorModel.h"

namespace quillet::VendorList {

const boost::json::object& vendors(const boost::json::object& gvl) {
  static const NeverDestroyed<boost::json::object> kNone;  // outlives threads
  const boost::json::object* found = Json::object(Json::member(gvl, "vendors"));
  return found != nullptr ? *found : kNone.get();
}

std::vector<std::int64_t> integerKeys(const boost::json::object& object) {
  std::vector<std::int64_t> ids;
  for (const auto& member : object) {
    if (const auto id = Text::parseInteger(member.key())) ids.push_back(*id);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

Facts facts(const boost::json::object& gvl) {
  Facts out;
  out.vendorIds = integerKeys(vendors(gvl));
  out.vendorListVersion = Json::exactInteger(Json::member(gvl, "vendorListVersion")).value_or(1);
  out.policyVersion = Json::exactInteger(Json::member(gvl, "tcfPolicyVersion")).value_or(1);
  out.specialFeatureIds = specialFeatureIds(gvl);
  out.specialFeatureKeys = specialFeatureKeys(gvl);
  return out;
}

std::int64_t entryId(const boost::json::object& entry, std::string_view key) {
  if (const auto id = Json::exactInteger(Json::member(entry, "id"))) return *id;
  return Text::parseInteger(key).value_or(0);
}

std::optional<std::vector<std::int64_t>> declared(const boost::json::object& vendors,
                                                  std::int64_t vendorId, std::string_view key) {
  const boost::json::object* entry = Json::object(Json::member(vendors, std::to_string(vendorId)));
  if (entry == nullptr) return std::nullopt;
  return Json::exactIntegerArray(Json::member(*entry, key));
}

std::vector<std::int64_t> specialFeatureKeys(const boost::json::object& gvl) {
  const boost::json::object* features = Json::object(Json::member(gvl, "specialFeatures"));
  return features != nullptr ? integerKeys(*features) : std::vector<std::int64_t>{};
}

std::vector<std::int64_t> specialFeatureIds(const boost::json::object& gvl) {
  const boost::json::value* features = Json::member(gvl, "specialFeatures");
  if (const boost::json::object* object = Json::object(features)) return integerKeys(*object);
  std::vector<std::int64_t> ids;
  if (const boost::json::array* array = Json::array(features)) {
    for (const auto& element : *array) {
      const boost::json::object* entry = element.if_object();
      if (entry == nullptr) continue;
      if (const auto id = Json::exactInteger(Json::member(*entry, "id"))) ids.push_back(*id);
    }
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<const boost::json::object*> specialFeatures(const boost::json::object& gvl) {
  std::vector<const boost::json::object*> entries;
  const boost::json::value* features = Json::member(gvl, "specialFeatures");
  if (const boost::json::object* object = Json::object(features)) {
    for (const auto& member : *object) {
      if (const auto* entry = member.value().if_object()) entries.push_back(entry);
    }
  } else if (const boost::json::array* array = Json::array(features)) {
    for (const auto& element : *array) {
      if (const auto* entry = element.if_object()) entries.push_back(entry);
    }
  }
  return entries;
}

std::vector<std::shared_ptr<const boost::json::object>> entriesOf(
    const std::shared_ptr<const boost::json::object>& gvl,
    const std::vector<VendorModel>& vendors) {
  std::vector<std::shared_ptr<const boost::json::object>> entries;
  if (!gvl) return entries;
  const boost::json::object& all = VendorList::vendors(*gvl);
  entries.reserve(vendors.size());
  for (const auto& vendor : vendors) {
    // Empty for a vendor without an entry under its id, so that entry i stays vendor i's.
    const auto* entry = Json::object(Json::member(all, std::to_string(vendor.id())));
    entries.push_back(entry != nullptr ? std::shared_ptr<const boost::json::object>(gvl, entry)
                                       : nullptr);
  }
  return entries;
}

}  // namespace quillet::VendorList
