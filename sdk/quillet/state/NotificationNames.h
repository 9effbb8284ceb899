#pragma once

#include <string_view>

/// The names of the notifications the consent stores post and the screens observe. Payload keys
/// are given with each; the two special-feature names carry no prefix on purpose.
namespace quillet::NotificationNames {

/// "id" (purpose id), "on".
inline constexpr std::string_view purposeConsentChanged = "qlt.purposeConsentChanged";
/// "purposeId", "on": posted by the purpose details screen.
inline constexpr std::string_view purposeLegitimateInterestChanged =
    "qlt.purposeLegitimateInterestChanged";
/// "id" (vendor id), "on".
inline constexpr std::string_view vendorConsentChanged = "qlt.vendorConsentChanged";
/// "featureId", "on".
inline constexpr std::string_view specialFeatureMasterChanged = "specialFeatureMasterChanged";
/// "featureId", "vendorId", "on".
inline constexpr std::string_view specialFeatureVendorChanged = "specialFeatureVendorChanged";

}  // namespace quillet::NotificationNames
