#include "quillet/state/PurposeConsentStore.h"

#include "quillet/state/ConsentFlagsAnnouncement.h"
#include "quillet/state/NotificationNames.h"

namespace quillet {

PurposeConsentStore& PurposeConsentStore::shared() {
  static PurposeConsentStore* const instance = new PurposeConsentStore();
  return *instance;
}

ConsentFlags PurposeConsentStore::states() const {
  std::lock_guard lock(mutex_);
  return states_;
}

void PurposeConsentStore::replaceStates(const ConsentFlags& states) {
  {
    std::lock_guard lock(mutex_);
    states_ = states;
  }
  announceEachFlag(NotificationNames::purposeConsentChanged, states);
}

}  // namespace quillet
