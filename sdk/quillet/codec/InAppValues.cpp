#include "quillet/codec/InAppValues.h"

#include "quillet/codec/RestrictionTypes.h"

namespace quillet {
namespace {

template <int N>
std::string binary(IdMask<N> mask, int length) {
  std::string text(static_cast<std::size_t>(length), '0');
  for (int id = 1; id <= length; ++id) {
    if (mask.contains(id)) text[static_cast<std::size_t>(id - 1)] = '1';
  }
  return text;
}

std::string binary(const VendorSection& section) {
  std::string text(static_cast<std::size_t>(section.maxVendorId), '0');
  section.vendors.forEach([&text](std::int64_t id) {
    if (id <= static_cast<std::int64_t>(text.size())) text[static_cast<std::size_t>(id - 1)] = '1';
  });
  return text;
}

}  // namespace

Result<std::vector<InAppValue>, TCStringError> inAppValues(std::string_view tcString,
                                                           const InAppSettings& settings) {
  auto parsed = TCString::parse(tcString);
  if (!parsed) return Failure{parsed.error()};
  const TCString& tc = *parsed;
  std::vector<InAppValue> values = {
      {"IABTCF_CmpSdkID", settings.cmpSdkId},
      {"IABTCF_CmpSdkVersion", settings.cmpSdkVersion},
      {"IABTCF_PolicyVersion", std::int64_t{tc.policyVersion}},
      {"IABTCF_gdprApplies", std::int64_t{settings.gdprApplies ? 1 : 0}},
      {"IABTCF_PurposeOneTreatment", std::int64_t{tc.purposeOneTreatment ? 1 : 0}},
      {"IABTCF_UseNonStandardStacks", std::int64_t{tc.useNonStandardTexts ? 1 : 0}},
      {"IABTCF_TCString", std::string(tcString)},
      {"IABTCF_PublisherCC", tc.publisherCountryCode},
      {"IABTCF_VendorConsents", binary(tc.vendorConsents)},
      {"IABTCF_VendorLegitimateInterests", binary(tc.vendorLegitimateInterests)},
      {"IABTCF_PurposeConsents", binary(tc.purposeConsents, 24)},
      {"IABTCF_PurposeLegitimateInterests", binary(tc.purposeLegitimateInterests, 24)},
      {"IABTCF_SpecialFeaturesOptIns", binary(tc.specialFeatureOptins, 12)},
  };
  const auto& publisher = tc.publisherTC;
  const int custom = publisher ? publisher->numCustomPurposes : 0;
  values.push_back({"IABTCF_PublisherConsent",
                    publisher ? binary(publisher->purposesConsent, 24) : std::string()});
  values.push_back(
      {"IABTCF_PublisherLegitimateInterests",
       publisher ? binary(publisher->purposesLegitimateInterests, 24) : std::string()});
  values.push_back({"IABTCF_PublisherCustomPurposesConsents",
                    publisher ? binary(publisher->customPurposesConsent, custom) : std::string()});
  values.push_back(
      {"IABTCF_PublisherCustomPurposesLegitimateInterests",
       publisher ? binary(publisher->customPurposesLegitimateInterests, custom) : std::string()});
  for (const auto& [purposeId, vendors] : restrictionTypes(tc.publisherRestrictions)) {
    // One character per vendor id from 1 to the highest restricted one.
    std::string text(static_cast<std::size_t>(vendors.rbegin()->first), '_');
    for (const auto& [vendorId, type] : vendors)
      text[static_cast<std::size_t>(vendorId - 1)] = static_cast<char>('0' + type);
    values.push_back({"IABTCF_PublisherRestrictions" + std::to_string(purposeId), std::move(text)});
  }
  return values;
}

}  // namespace quillet
