#include "quillet/state/ConsentCommit.h"

#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"

namespace quillet::ConsentCommit {

void acceptEverything(std::span<const std::int64_t> purposeIds,
                      std::span<const std::int64_t> vendorIds,
                      std::span<const std::int64_t> specialFeatureIds) {
  auto& pending = PendingConsentStore::shared();
  auto& features = SpecialFeatureConsentStore::shared();
  for (const auto featureId : specialFeatureIds) {
    features.assignMaster(featureId, true);
    pending.setSpecialFeatureMaster(featureId, true);
    auto& center = NotificationCenter::defaultCenter();
    if (center.observed(NotificationNames::specialFeatureMasterChanged)) {
      center.post(NotificationNames::specialFeatureMasterChanged,
                  {{"featureId", featureId}, {"on", true}});
    }
    for (const auto vendorId : vendorIds)
      features.setVendor(featureId, vendorId, true);
  }
  for (const auto purposeId : purposeIds)
    pending.setPurposeConsent(purposeId, true);
  for (const auto vendorId : vendorIds)
    pending.setVendorConsent(vendorId, true);
}

void switchVendor(std::int64_t vendorId, bool isOn) {
  PendingConsentStore::shared().setVendorConsent(vendorId, isOn);
  VendorConsentStore::shared().setConsent(vendorId, isOn);
}

void commitPending() {
  auto& pending = PendingConsentStore::shared();
  auto& vendors = VendorConsentStore::shared();
  auto& purposes = PurposeConsentStore::shared();
  auto& features = SpecialFeatureConsentStore::shared();
  vendors.replaceStates(pending.vendorConsent());
  purposes.replaceStates(pending.purposeConsent());
  features.replaceVendorStates(pending.specialFeatureConsent());
  features.replaceMasterStates(pending.specialFeatureMaster());
  features.persist();
  pending.load(vendors, purposes, features);
}

}  // namespace quillet::ConsentCommit
