#include "quillet/state/PendingConsentStore.h"

#include <algorithm>

#include "quillet/base/QltLog.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"

namespace quillet {
namespace {

// Writes `flags` (id and value pairs) over `held`. Both are ascending, so each entry is usually
// right at the hint. Values are moved out of `flags` unless they are const.
template <typename Held, typename Flags>
void merge(Held& held, Flags& flags) {
  const std::size_t added = std::size(flags);
  if (held.capacity() - held.size() < added)  // grows as single inserts would, at most once
    held.reserve(std::max(held.size() + added, 2 * held.capacity()));
  auto next = held.begin();
  for (auto& [id, value] : flags)
    next = std::next(held.insert_or_assign(next, id, std::move(value)));
}

}  // namespace

PendingConsentStore& PendingConsentStore::shared() {
  static PendingConsentStore* const instance = new PendingConsentStore();
  return *instance;
}

void PendingConsentStore::logSpecialFeatureConsent() const {
  QltLog::d("PendingConsentStore", [this] {
    std::lock_guard lock(mutex_);
    return "specialFeatureConsent changed: " + describe(specialFeatureConsent_);
  });
}

ConsentFlags PendingConsentStore::vendorConsent() const {
  std::lock_guard lock(mutex_);
  return vendorConsent_;
}
void PendingConsentStore::setVendorConsent(ConsentFlags flags) {
  std::lock_guard lock(mutex_);
  vendorConsent_ = std::move(flags);
}
void PendingConsentStore::setVendorConsent(std::int64_t vendorId, bool on) {
  std::lock_guard lock(mutex_);
  vendorConsent_[vendorId] = on;
}

void PendingConsentStore::mergeVendorConsent(const ConsentFlags& flags) {
  std::lock_guard lock(mutex_);
  merge(vendorConsent_, flags);
}

ConsentFlags PendingConsentStore::purposeConsent() const {
  std::lock_guard lock(mutex_);
  return purposeConsent_;
}
void PendingConsentStore::setPurposeConsent(ConsentFlags flags) {
  std::lock_guard lock(mutex_);
  purposeConsent_ = std::move(flags);
}
void PendingConsentStore::setPurposeConsent(std::int64_t purposeId, bool on) {
  std::lock_guard lock(mutex_);
  purposeConsent_[purposeId] = on;
}

void PendingConsentStore::mergePurposeConsent(const ConsentFlags& flags) {
  std::lock_guard lock(mutex_);
  merge(purposeConsent_, flags);
}

NestedConsentFlags PendingConsentStore::liPurposeConsent() const {
  std::lock_guard lock(mutex_);
  return liPurposeConsent_;
}
void PendingConsentStore::setLiPurposeConsent(NestedConsentFlags flags) {
  std::lock_guard lock(mutex_);
  liPurposeConsent_ = std::move(flags);
}
void PendingConsentStore::setLiPurposeConsent(std::int64_t vendorId, ConsentFlags purposes) {
  std::lock_guard lock(mutex_);
  liPurposeConsent_[vendorId] = std::move(purposes);
}
void PendingConsentStore::setLiPurposeConsent(std::int64_t vendorId, std::int64_t purposeId,
                                              bool on) {
  std::lock_guard lock(mutex_);
  liPurposeConsent_[vendorId][purposeId] = on;
}

void PendingConsentStore::replaceLiPurposeConsent(NestedConsentFlags flags) {
  std::lock_guard lock(mutex_);
  merge(liPurposeConsent_, flags);
}

void PendingConsentStore::mergeLiPurposeConsent(const NestedConsentFlags& flags) {
  std::lock_guard lock(mutex_);
  for (const auto& [vendorId, purposes] : flags)
    merge(liPurposeConsent_[vendorId], purposes);
}

NestedConsentFlags PendingConsentStore::specialFeatureConsent() const {
  std::lock_guard lock(mutex_);
  return specialFeatureConsent_;
}
void PendingConsentStore::setSpecialFeatureConsent(NestedConsentFlags flags) {
  {
    std::lock_guard lock(mutex_);
    specialFeatureConsent_ = std::move(flags);
  }
  logSpecialFeatureConsent();
}
void PendingConsentStore::setSpecialFeatureConsent(std::int64_t featureId, std::int64_t vendorId,
                                                   bool isOn) {
  {
    std::lock_guard lock(mutex_);
    specialFeatureConsent_[featureId][vendorId] = isOn;
  }
  logSpecialFeatureConsent();
}
void PendingConsentStore::mergeSpecialFeatureConsent(
    std::int64_t featureId, std::span<const std::pair<std::int64_t, bool>> flags) {
  {
    std::lock_guard lock(mutex_);
    merge(specialFeatureConsent_[featureId], flags);
  }
  logSpecialFeatureConsent();
}
bool PendingConsentStore::specialFeatureConsent(std::int64_t featureId,
                                                std::int64_t vendorId) const {
  std::lock_guard lock(mutex_);
  const auto feature = specialFeatureConsent_.find(featureId);
  if (feature == specialFeatureConsent_.end()) return false;
  const auto vendor = feature->second.find(vendorId);
  return vendor != feature->second.end() && vendor->second;
}

ConsentFlags PendingConsentStore::specialFeatureMaster() const {
  std::lock_guard lock(mutex_);
  return specialFeatureMaster_;
}
void PendingConsentStore::setSpecialFeatureMaster(ConsentFlags flags) {
  std::lock_guard lock(mutex_);
  specialFeatureMaster_ = std::move(flags);
}
void PendingConsentStore::setSpecialFeatureMaster(std::int64_t featureId, bool on) {
  std::lock_guard lock(mutex_);
  specialFeatureMaster_[featureId] = on;
}

void PendingConsentStore::reset(std::span<const std::int64_t> purposes,
                                std::span<const std::int64_t> vendors,
                                std::span<const std::int64_t> specialFeatures) {
  {
    std::lock_guard lock(mutex_);
    purposeConsent_.clear();
    vendorConsent_.clear();
    specialFeatureMaster_.clear();
    specialFeatureConsent_.clear();
  }
  logSpecialFeatureConsent();
  {
    std::lock_guard lock(mutex_);
    liPurposeConsent_.clear();  // stays empty: legitimate interests are not pre-filled
    for (const auto id : purposes)
      purposeConsent_[id] = false;
    for (const auto id : vendors)
      vendorConsent_[id] = false;
  }
  for (const auto feature : specialFeatures) {
    {
      std::lock_guard lock(mutex_);
      specialFeatureMaster_[feature] = false;
      specialFeatureConsent_[feature] = ConsentFlags{};
    }
    logSpecialFeatureConsent();
    for (const auto vendor : vendors) {
      {
        std::lock_guard lock(mutex_);
        specialFeatureConsent_[feature][vendor] = false;
      }
      logSpecialFeatureConsent();
    }
  }
}

void PendingConsentStore::load(const VendorConsentStore& vendorStore,
                               const PurposeConsentStore& purposeStore,
                               const SpecialFeatureConsentStore& specialFeatureStore) {
  ConsentFlags vendors = vendorStore.states();
  ConsentFlags purposes = purposeStore.states();
  NestedConsentFlags features = specialFeatureStore.vendorStates();
  ConsentFlags masters = specialFeatureStore.masterStates();
  {
    std::lock_guard lock(mutex_);
    vendorConsent_ = std::move(vendors);
    purposeConsent_ = std::move(purposes);
    liPurposeConsent_.clear();
    specialFeatureConsent_ = std::move(features);
  }
  logSpecialFeatureConsent();
  std::lock_guard lock(mutex_);
  specialFeatureMaster_ = std::move(masters);
}

}  // namespace quillet
