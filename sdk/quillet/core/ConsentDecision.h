#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/base/ConsentAction.h"
#include "quillet/model/VendorList.h"
#include "quillet/state/ConsentFlags.h"

/// The facade's consent decision without its effects: what a consent action stores, and what the
/// consent stores hold for a stored TC String. Pure functions of their arguments, safe from any
/// thread; the facade reads the stores and the platform, and writes, posts and mirrors.
namespace quillet::ConsentDecision {

using Ids = std::vector<std::int64_t>;

/// The five id lists of a TC String.
struct Choices {
  Ids purposeConsents;
  Ids purposeLegitimateInterests;
  Ids specialFeatureOptins;
  Ids vendorConsents;
  Ids vendorLegitimateInterests;

  bool operator==(const Choices&) const = default;
};

/// What a decision reads besides the action.
struct Inputs {
  /// The vendor list's facts, each vendor's declared "purposes" and "legIntPurposes" among them.
  const VendorList::Facts& facts;
  /// The configured purposes and the selected vendors, in their order.
  std::span<const std::int64_t> purposeIds;
  std::span<const std::int64_t> vendorIds;
  /// The configuration's publisher country; "US" when absent.
  std::optional<std::string_view> publisherCC;
  /// The two-letter consent language, as the encoder takes it.
  std::string_view consentLanguage;
  /// Read by a custom selection only: the pending legitimate-interest switches and the special
  /// feature masters.
  const NestedConsentFlags& legitimateInterests;
  const ConsentFlags& specialFeatureMasters;
  /// Created and LastUpdated of the string.
  std::chrono::system_clock::time_point now;
};

/// What one consent action stores.
struct Decision {
  Choices choices;
  /// The core string, ".", and the disclosed-vendors segment listing every selected vendor.
  std::string tcString;
  /// The stored consent flag: false only after a reject-all.
  bool consent = false;
  /// The consent event's type: "accepted", "rejected" or "customized".
  std::string_view eventType;
};

/// The five lists for `action`.
Choices choose(const ConsentAction& action, const Inputs& inputs);

/// The lists, the string and the flag for `action`. Stops the process, as the encoder does, when
/// the vendor list has no positive vendor id.
Decision decide(const ConsentAction& action, const Inputs& inputs);

/// What the consent stores hold for a stored TC String.
struct StoreContents {
  /// Every given purpose and vendor, on exactly when the string consents to it.
  ConsentFlags purposes;
  ConsentFlags vendors;
  /// The legitimate-interest switches to turn on (none is turned off): for each given vendor with
  /// legitimate interest in the string, its declared "legIntPurposes" that the string lists.
  NestedConsentFlags legitimateInterests;
  /// Each special feature of the vendor list's "specialFeatures" object, on when opted in.
  ConsentFlags specialFeatureMasters;

  bool operator==(const StoreContents&) const = default;
};

/// The contents for `storedTCString` (its part before the first "."); nothing when it is empty
/// or its core cannot be decoded.
std::optional<StoreContents> storeContents(std::string_view storedTCString,
                                           std::span<const std::int64_t> purposeIds,
                                           std::span<const std::int64_t> vendorIds,
                                           const VendorList::Facts& facts);

}  // namespace quillet::ConsentDecision
