#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/VendorConsentStore.h"

namespace quillet {
namespace {

void announceEach(std::string_view name, const ConsentFlags& states) {
  for (const auto& [id, on] : states) {
    NotificationCenter::defaultCenter().post(name, {{"id", id}, {"on", on}});
  }
}

}  // namespace

PurposeConsentStore& PurposeConsentStore::shared() {
  static PurposeConsentStore* const instance = new PurposeConsentStore();
  return *instance;
}

ConsentFlags PurposeConsentStore::states() const {
  std::lock_guard lock(mutex_);
  return states_;
}

void PurposeConsentStore::replaceStates(ConsentFlags states) {
  {
    std::lock_guard lock(mutex_);
    states_ = states;
  }
  announceEach(NotificationNames::purposeConsentChanged, states);
}

VendorConsentStore& VendorConsentStore::shared() {
  static VendorConsentStore* const instance = new VendorConsentStore();
  return *instance;
}

ConsentFlags VendorConsentStore::states() const {
  std::lock_guard lock(mutex_);
  return states_;
}

void VendorConsentStore::replaceStates(ConsentFlags states) {
  {
    std::lock_guard lock(mutex_);
    states_ = states;
  }
  announceEach(NotificationNames::vendorConsentChanged, states);
}

void VendorConsentStore::setConsent(std::int64_t vendorId, bool isOn) {
  {
    std::lock_guard lock(mutex_);
    const auto found = states_.find(vendorId);
    if (found != states_.end() && found->second == isOn) return;
    states_[vendorId] = isOn;
  }
  NotificationCenter::defaultCenter().post(NotificationNames::vendorConsentChanged,
                                           {{"id", vendorId}, {"on", isOn}});
}

}  // namespace quillet
