#include "quillet/core/TcfApi.h"

#include <boost/json.hpp>

#include "quillet/codec/RestrictionTypes.h"

namespace quillet {
namespace {

template <int N>
boost::json::object idMap(IdMask<N> mask, int last) {
  boost::json::object map;
  for (int id = 1; id <= last; ++id)
    map[std::to_string(id)] = mask.contains(id);
  return map;
}

boost::json::object idMap(const VendorSection& section) {
  boost::json::object map;
  for (std::int64_t id = 1; id <= section.maxVendorId; ++id)
    map[std::to_string(id)] = section.contains(id);
  return map;
}

boost::json::object restrictions(const std::vector<PublisherRestriction>& all) {
  boost::json::object out;
  for (const auto& [purpose, vendors] : restrictionTypes(all)) {
    boost::json::object byVendor;
    for (const auto& [vendor, type] : vendors)
      byVendor[std::to_string(vendor)] = type;
    out[std::to_string(purpose)] = std::move(byVendor);
  }
  return out;
}

template <class T>
boost::json::value orNull(const std::optional<T>& value) {
  return value ? boost::json::value(*value) : boost::json::value(nullptr);
}

}  // namespace

std::string tcDataJson(const TCString& tc, std::string_view tcString,
                       const TCDataContext& context) {
  const auto& publisher = tc.publisherTC;
  const int custom = publisher ? publisher->numCustomPurposes : 0;
  boost::json::object data{
      {"tcString", tcString},
      {"tcfPolicyVersion", tc.policyVersion},
      {"cmpId", tc.cmpId},
      {"cmpVersion", tc.cmpVersion},
      {"gdprApplies", context.gdprApplies},
      {"eventStatus", context.eventStatus},
      {"cmpStatus", "loaded"},
      {"listenerId", orNull(context.listenerId)},
      {"isServiceSpecific", tc.isServiceSpecific},
      {"useNonStandardStacks", tc.useNonStandardTexts},
      {"publisherCC", tc.publisherCountryCode},
      {"purposeOneTreatment", tc.purposeOneTreatment},
      {"purpose",
       {{"consents", idMap(tc.purposeConsents, 24)},
        {"legitimateInterests", idMap(tc.purposeLegitimateInterests, 24)}}},
      {"vendor",
       {{"consents", idMap(tc.vendorConsents)},
        {"legitimateInterests", idMap(tc.vendorLegitimateInterests)}}},
      {"specialFeatureOptins", idMap(tc.specialFeatureOptins, 12)},
      {"publisher",
       {{"consents", publisher ? idMap(publisher->purposesConsent, 24) : boost::json::object()},
        {"legitimateInterests",
         publisher ? idMap(publisher->purposesLegitimateInterests, 24) : boost::json::object()},
        {"customPurpose",
         {{"consents",
           publisher ? idMap(publisher->customPurposesConsent, custom) : boost::json::object()},
          {"legitimateInterests", publisher
                                      ? idMap(publisher->customPurposesLegitimateInterests, custom)
                                      : boost::json::object()}}},
        {"restrictions", restrictions(tc.publisherRestrictions)}}},
  };
  return boost::json::serialize(data);
}

std::string pingReturnJson(const PingContext& context) {
  return boost::json::serialize(boost::json::object{
      {"gdprApplies", context.gdprApplies},
      {"cmpLoaded", context.cmpLoaded},
      {"cmpStatus", context.cmpStatus},
      {"displayStatus", context.displayStatus},
      {"apiVersion", "2.2"},
      {"cmpVersion", context.cmpVersion},
      {"cmpId", context.cmpId},
      {"gvlVersion", orNull(context.gvlVersion)},
      {"tcfPolicyVersion", orNull(context.tcfPolicyVersion)},
  });
}

std::string tcfApiState(std::string_view tcString, std::string_view eventStatus, PingContext ping) {
  boost::json::value data = nullptr;
  ping.cmpStatus = "loaded";
  if (eventStatus.empty()) {
    ping.cmpStatus = "stub";
  } else if (const auto tc = tcString.empty() ? Result<TCString, TCStringError>(TCString())
                                              : TCString::parse(tcString)) {
    data = boost::json::parse(tcDataJson(*tc, tcString, {.eventStatus = eventStatus}));
  } else {
    ping.cmpStatus = "error";
  }
  return boost::json::serialize(
      boost::json::object{{"ping", boost::json::parse(pingReturnJson(ping))}, {"tcData", data}});
}

}  // namespace quillet
