#pragma once

// Empties every process-wide consent store, so that a test (or a fuzz input) starts from none.

#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"

namespace quillet::testing {

inline void emptyConsentStores() {
  PurposeConsentStore::shared().replaceStates({});
  VendorConsentStore::shared().replaceStates({});
  SpecialFeatureConsentStore::shared().replaceMasterStates({});
  SpecialFeatureConsentStore::shared().replaceVendorStates({});
  PendingConsentStore::shared().reset({}, {}, {});
  PendingConsentStore::shared().setLiPurposeConsent({});
}

}  // namespace quillet::testing
