#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "quillet/base/Export.h"
#include "quillet/base/Result.h"
#include "quillet/codec/TCString.h"

namespace quillet {

/// What the in-app values take from the host rather than from the TC String.
struct InAppSettings {
  bool gdprApplies = true;
  std::int64_t cmpSdkId = 0;       ///< the CMP's registered id
  std::int64_t cmpSdkVersion = 0;  ///< the CMP's version
};

/// One of the IAB's in-app values, under the key ad SDKs read from the platform's preferences
/// store ("IABTCF_..."): a number or a text. A binary text has "1" at index n (from 0) when id
/// n + 1 is set and "0" when not.
struct InAppValue {
  std::string key;
  std::variant<std::int64_t, std::string> value;

  bool operator==(const InAppValue&) const = default;
};

/// The in-app values of `tcString`, for the host to write after every stored decision (the
/// library writes none of them itself), in this order:
/// - numbers "IABTCF_CmpSdkID", "IABTCF_CmpSdkVersion", "IABTCF_PolicyVersion",
///   "IABTCF_gdprApplies" (1 or 0), "IABTCF_PurposeOneTreatment", "IABTCF_UseNonStandardStacks";
/// - texts "IABTCF_TCString", "IABTCF_PublisherCC";
/// - binary texts "IABTCF_VendorConsents" and "IABTCF_VendorLegitimateInterests" (MaxVendorId
///   characters), "IABTCF_PurposeConsents" and "IABTCF_PurposeLegitimateInterests" (24),
///   "IABTCF_SpecialFeaturesOptIns" (12), "IABTCF_PublisherConsent" and
///   "IABTCF_PublisherLegitimateInterests" (24), "IABTCF_PublisherCustomPurposesConsents" and
///   "IABTCF_PublisherCustomPurposesLegitimateInterests" (NumCustomPurposes); the publisher's
///   are empty when the string has no publisher TC segment;
/// - for each purpose that restricts at least one vendor, ascending,
///   "IABTCF_PublisherRestrictions" and the purpose id: a character per vendor id from 1 to the
///   highest restricted one, "0" (not allowed), "1" (consent required), "2" (legitimate interest
///   required) or "_" (no restriction; the undefined type 3 restricts nothing). Where several
///   restrictions of a purpose name a vendor, the strictest holds: not allowed, then consent,
///   then legitimate interest.
/// A string the reader refuses gives its error. Thread-safe; allocates the result.
QUILLET_EXPORT Result<std::vector<InAppValue>, TCStringError> inAppValues(
    std::string_view tcString, const InAppSettings& settings);

}  // namespace quillet
