#include "quillet/codec/InAppValues.h"

#include <algorithm>
#include <map>

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

// Purpose id to its restriction text: one character per vendor id from 1.
std::map<int, std::string> restrictionTexts(const std::vector<PublisherRestriction>& restrictions) {
  std::map<int, std::string> texts;
  for (const auto& restriction : restrictions) {
    if (restriction.vendors.empty()) continue;
    std::string& text = texts[restriction.purposeId];
    const auto last = static_cast<std::size_t>(restriction.vendors.last());
    if (text.size() < last) text.resize(last, '_');
    const char type = restriction.restrictionType <= 2
                          ? static_cast<char>('0' + restriction.restrictionType)
                          : '_';
    // "0" < "1" < "2" < "_": the strictest restriction of a vendor holds.
    restriction.vendors.forEach([&](std::int64_t id) {
      char& at = text[static_cast<std::size_t>(id - 1)];
      at = std::min(at, type);
    });
  }
  return texts;
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
  for (auto& [purposeId, text] : restrictionTexts(tc.publisherRestrictions)) {
    values.push_back({"IABTCF_PublisherRestrictions" + std::to_string(purposeId), std::move(text)});
  }
  return values;
}

}  // namespace quillet
