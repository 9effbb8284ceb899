#include "quillet/state/VendorConsentStore.h"

#include "quillet/state/ConsentFlagsAnnouncement.h"
#include "quillet/state/NotificationNames.h"

namespace quillet {

VendorConsentStore& VendorConsentStore::shared() {
  static VendorConsentStore* const instance = new VendorConsentStore();
  return *instance;
}

ConsentFlags VendorConsentStore::states() const {
  std::lock_guard lock(mutex_);
  return states_;
}

void VendorConsentStore::replaceStates(const ConsentFlags& states) {
  {
    std::lock_guard lock(mutex_);
    states_ = states;
  }
  announceEachFlag(NotificationNames::vendorConsentChanged, states);
}

void VendorConsentStore::setConsent(std::int64_t vendorId, bool isOn) {
  {
    std::lock_guard lock(mutex_);
    const auto found = states_.find(vendorId);
    if (found != states_.end() && found->second == isOn) return;
    states_[vendorId] = isOn;
  }
  auto& center = NotificationCenter::defaultCenter();
  if (center.observed(NotificationNames::vendorConsentChanged)) {
    center.post(NotificationNames::vendorConsentChanged, {{"id", vendorId}, {"on", isOn}});
  }
}

}  // namespace quillet
