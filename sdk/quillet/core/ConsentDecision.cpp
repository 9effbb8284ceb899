#include "quillet/core/ConsentDecision.h"

#include <algorithm>

#include "quillet/base/Clock.h"
#include "quillet/base/IdList.h"
#include "quillet/base/Text.h"
#include "quillet/codec/QLTCMPUtils.h"

namespace quillet::ConsentDecision {
namespace {

using IdList::contains;
using IdList::sortedUnique;

Ids declared(const boost::json::object& vendors, std::int64_t vendorId, std::string_view key) {
  return VendorList::declared(vendors, vendorId, key).value_or(Ids{});
}

Choices acceptAll(const Inputs& in) {
  Choices choices;
  const boost::json::object& vendors = VendorList::vendors(in.gvl);
  Ids purposes;
  Ids legInt;
  for (const auto vendorId : in.vendorIds) {
    const Ids declaredPurposes = declared(vendors, vendorId, "purposes");
    purposes.insert(purposes.end(), declaredPurposes.begin(), declaredPurposes.end());
    const Ids declaredLegInt = declared(vendors, vendorId, "legIntPurposes");
    legInt.insert(legInt.end(), declaredLegInt.begin(), declaredLegInt.end());
    if (!declaredLegInt.empty()) choices.vendorLegitimateInterests.push_back(vendorId);
  }
  // Consent goes to what the selected vendors declare; legitimate interest only to configured
  // purposes.
  choices.purposeConsents = sortedUnique(std::move(purposes));
  legInt = sortedUnique(std::move(legInt));
  for (const auto id : in.purposeIds) {
    if (contains(legInt, id)) choices.purposeLegitimateInterests.push_back(id);
  }
  choices.specialFeatureOptins = in.facts.specialFeatureIds;
  choices.vendorConsents = sortedUnique({in.vendorIds.begin(), in.vendorIds.end()});
  choices.vendorLegitimateInterests = sortedUnique(std::move(choices.vendorLegitimateInterests));
  return choices;
}

Choices customize(const ConsentAction& action, const Inputs& in) {
  Choices choices;
  const Ids configured = sortedUnique({in.purposeIds.begin(), in.purposeIds.end()});
  const Ids selected = sortedUnique({in.vendorIds.begin(), in.vendorIds.end()});
  for (const auto id : action.purposes()) {
    if (contains(configured, id)) choices.purposeConsents.push_back(id);
  }
  Ids purposesOn;
  for (const auto& [vendorId, purposes] : in.legitimateInterests) {
    const Ids on = idsOn(purposes);
    purposesOn.insert(purposesOn.end(), on.begin(), on.end());
    if (!on.empty() && contains(selected, vendorId)) {
      choices.vendorLegitimateInterests.push_back(vendorId);
    }
  }
  purposesOn = sortedUnique(std::move(purposesOn));
  for (const auto id : configured) {
    if (contains(purposesOn, id)) choices.purposeLegitimateInterests.push_back(id);
  }
  choices.specialFeatureOptins = idsOn(in.specialFeatureMasters);
  for (const auto id : action.vendors()) {
    if (contains(selected, id)) choices.vendorConsents.push_back(id);
  }
  std::sort(choices.vendorConsents.begin(), choices.vendorConsents.end());
  return choices;
}

std::string_view eventTypeOf(ConsentAction::Kind kind) {
  switch (kind) {
    case ConsentAction::Kind::acceptAll:
      return "accepted";
    case ConsentAction::Kind::rejectAll:
      return "rejected";
    case ConsentAction::Kind::customize:
      return "customized";
  }
  return "customized";
}

}  // namespace

Choices choose(const ConsentAction& action, const Inputs& inputs) {
  switch (action.kind()) {
    case ConsentAction::Kind::acceptAll:
      return acceptAll(inputs);
    case ConsentAction::Kind::rejectAll:
      return {};
    case ConsentAction::Kind::customize:
      return customize(action, inputs);
  }
  return {};
}

Decision decide(const ConsentAction& action, const Inputs& inputs) {
  Decision decision;
  decision.choices = choose(action, inputs);
  const Choices& c = decision.choices;
  const std::string publisherCC =
      Text::uppercased(Text::prefixCharacters(inputs.publisherCC.value_or("US"), 2));
  const std::string core = QLTCMPUtils::encodeTCString(
      QLTCMPUtils::TCStringInput{
          .purposeConsents = c.purposeConsents,
          .purposeLegitimateInterests = c.purposeLegitimateInterests,
          .specialFeatureOptins = c.specialFeatureOptins,
          .vendorConsents = c.vendorConsents,
          .vendorLegitimateInterests = c.vendorLegitimateInterests,
          .gvlVendorIds = inputs.facts.vendorIds,
          .cmpId = 471,
          .cmpVersion = 1,
          .consentScreen = 0,
          .consentLanguage = std::string(inputs.consentLanguage),
          .vendorListVersion = inputs.facts.vendorListVersion,
          .policyVersion = inputs.facts.policyVersion,
          .isServiceSpecific = true,
          .useNonStandardStacks = false,
          .purposeOneTreatment = false,
          .publisherCC = publisherCC,
      },
      FixedClock(inputs.now));
  // Every selected vendor was disclosed, whatever the action.
  const Ids disclosed = sortedUnique({inputs.vendorIds.begin(), inputs.vendorIds.end()});
  decision.tcString =
      core + "." + QLTCMPUtils::encodeDisclosedVendorsSegment(disclosed, inputs.facts.vendorIds);
  decision.consent = action.kind() != ConsentAction::Kind::rejectAll;
  decision.eventType = eventTypeOf(action.kind());
  return decision;
}

std::optional<StoreContents> storeContents(std::string_view storedTCString,
                                           std::span<const std::int64_t> purposeIds,
                                           std::span<const std::int64_t> vendorIds,
                                           const boost::json::object& gvl) {
  if (storedTCString.empty()) return std::nullopt;
  const std::string_view core = storedTCString.substr(0, storedTCString.find('.'));
  if (!QLTCMPUtils::canDecodeTCString(core)) return std::nullopt;  // another party's string
  const auto decoded = QLTCMPUtils::decodeTCString(core);
  if (!decoded) return std::nullopt;

  StoreContents contents;
  for (const auto id : purposeIds)
    contents.purposes.emplace(id, contains(decoded->purposeConsents, id));
  for (const auto id : vendorIds)
    contents.vendors.emplace(id, contains(decoded->vendorConsents, id));
  const boost::json::object& vendors = VendorList::vendors(gvl);
  for (const auto vendorId : vendorIds) {
    if (!contains(decoded->vendorLegitimateInterests, vendorId)) continue;
    for (const auto purpose : declared(vendors, vendorId, "legIntPurposes")) {
      if (contains(decoded->purposeLegitimateInterests, purpose)) {
        contents.legitimateInterests[vendorId][purpose] = true;
      }
    }
  }
  for (const auto feature : VendorList::specialFeatureKeys(gvl))
    contents.specialFeatureMasters.emplace(feature,
                                           contains(decoded->specialFeatureOptins, feature));
  return contents;
}

}  // namespace quillet::ConsentDecision
