#include "quillet/core/ConsentDecision.h"

#include <algorithm>
#include <bitset>

#include "quillet/base/Clock.h"
#include "quillet/base/IdList.h"
#include "quillet/base/Text.h"
#include "quillet/codec/QLTCMPUtils.h"

namespace quillet::ConsentDecision {
namespace {

using IdList::contains;
using IdList::sortedUnique;

using List = VendorList::Facts::List;

std::span<const std::int64_t> declared(const VendorList::Facts& facts, std::int64_t vendorId,
                                       List list) {
  return facts.declared(vendorId, list).value_or(std::span<const std::int64_t>{});
}

// The union of id lists, ascending and unique. A thousand vendors declare the same dozen
// purposes over and over: ids below 256 are dropped as repeats when they come, so the final sort
// sees each of them once.
class IdUnion {
 public:
  void add(std::span<const std::int64_t> ids) {
    for (const auto id : ids) {
      if (id >= 0 && id < kTracked) {
        if (seen_.test(static_cast<std::size_t>(id))) continue;
        seen_.set(static_cast<std::size_t>(id));
      }
      ids_.push_back(id);
    }
  }
  Ids take() && { return sortedUnique(std::move(ids_)); }

 private:
  static constexpr std::int64_t kTracked = 256;
  std::bitset<kTracked> seen_;
  Ids ids_;
};

Choices acceptAll(const Inputs& in) {
  Choices choices;
  IdUnion purposes;
  IdUnion legIntPurposes;
  for (const auto vendorId : in.vendorIds) {
    purposes.add(declared(in.facts, vendorId, List::purposes));
    const auto declaredLegInt = declared(in.facts, vendorId, List::legIntPurposes);
    legIntPurposes.add(declaredLegInt);
    if (!declaredLegInt.empty()) choices.vendorLegitimateInterests.push_back(vendorId);
  }
  // Consent goes to what the selected vendors declare; legitimate interest only to configured
  // purposes.
  choices.purposeConsents = std::move(purposes).take();
  const Ids legInt = std::move(legIntPurposes).take();
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
                                           const VendorList::Facts& facts) {
  if (storedTCString.empty()) return std::nullopt;
  const std::string_view core = storedTCString.substr(0, storedTCString.find('.'));
  if (!QLTCMPUtils::canDecodeTCString(core)) return std::nullopt;  // another party's string
  const auto decoded = QLTCMPUtils::decodeTCString(core);
  if (!decoded) return std::nullopt;

  StoreContents contents;
  contents.purposes.reserve(purposeIds.size());
  contents.vendors.reserve(vendorIds.size());
  for (const auto id : purposeIds)
    contents.purposes.emplace_hint(contents.purposes.end(), id,
                                   contains(decoded->purposeConsents, id));
  IdList::Cursor consents(decoded->vendorConsents);
  for (const auto id : vendorIds)
    contents.vendors.emplace_hint(contents.vendors.end(), id, consents.contains(id));
  IdList::Cursor legitimate(decoded->vendorLegitimateInterests);
  for (const auto vendorId : vendorIds) {
    if (!legitimate.contains(vendorId)) continue;
    for (const auto purpose : declared(facts, vendorId, List::legIntPurposes)) {
      if (contains(decoded->purposeLegitimateInterests, purpose)) {
        contents.legitimateInterests[vendorId][purpose] = true;
      }
    }
  }
  for (const auto feature : facts.specialFeatureKeys)
    contents.specialFeatureMasters.emplace(feature,
                                           contains(decoded->specialFeatureOptins, feature));
  return contents;
}

}  // namespace quillet::ConsentDecision
