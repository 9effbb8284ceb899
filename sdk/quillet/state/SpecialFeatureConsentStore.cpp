#include "quillet/state/SpecialFeatureConsentStore.h"

#include <algorithm>

#include "quillet/base/Fatal.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/StorageKeys.h"

namespace quillet {
namespace {

// A resynchronisation announces about a thousand vendors: no payload is built for no one.
void announceMaster(std::int64_t featureId, bool on) {
  auto& center = NotificationCenter::defaultCenter();
  if (!center.observed(NotificationNames::specialFeatureMasterChanged)) return;
  center.post(NotificationNames::specialFeatureMasterChanged,
              {{"featureId", featureId}, {"on", on}});
}

void announceVendor(std::int64_t featureId, std::int64_t vendorId, bool on) {
  auto& center = NotificationCenter::defaultCenter();
  if (!center.observed(NotificationNames::specialFeatureVendorChanged)) return;
  center.post(NotificationNames::specialFeatureVendorChanged,
              {{"featureId", featureId}, {"vendorId", vendorId}, {"on", on}});
}

StoreValue::Dictionary toDictionary(const ConsentFlags& flags) {
  StoreValue::Dictionary out;
  for (const auto& [id, on] : flags)
    out.emplace(std::to_string(id), on);
  return out;
}

std::int64_t integerKey(const std::string& key, std::string_view storeKey) {
  const auto id = Text::parseInteger(key);
  if (!id) {
    fatalError("the stored \"" + std::string(storeKey) + "\" has the key \"" + key +
               "\", which is not an integer");
  }
  return *id;
}

// Only booleans inside: the persisted shape. Checked before any key is read, so that a value
// of the wrong shape is ignored rather than judged by its keys.
bool isFlagDictionary(const StoreValue::Dictionary& dictionary) {
  return std::all_of(dictionary.begin(), dictionary.end(), [](const auto& entry) {
    return entry.second.template get<bool>() != nullptr;
  });
}

// The flags of a dictionary of booleans.
ConsentFlags flagsOf(const StoreValue::Dictionary& dictionary, std::string_view storeKey) {
  ConsentFlags flags;
  for (const auto& [key, value] : dictionary)
    flags.emplace(integerKey(key, storeKey), *value.get<bool>());
  return flags;
}

}  // namespace

SpecialFeatureConsentStore& SpecialFeatureConsentStore::shared() {
  static SpecialFeatureConsentStore* const instance = new SpecialFeatureConsentStore();
  return *instance;
}

ConsentFlags SpecialFeatureConsentStore::masterStates() const {
  std::lock_guard lock(mutex_);
  return masterStates_;
}

NestedConsentFlags SpecialFeatureConsentStore::vendorStates() const {
  std::lock_guard lock(mutex_);
  return vendorStates_;
}

void SpecialFeatureConsentStore::setVendorLocked(std::int64_t featureId, std::int64_t vendorId,
                                                 bool on) {
  bool& state = vendorStates_[featureId][vendorId];
  if (state != on) {
    std::size_t& count = vendorsOn_[featureId];
    count = on ? count + 1 : count - 1;
  }
  state = on;
}

void SpecialFeatureConsentStore::recountLocked() {
  vendorsOn_.clear();
  for (const auto& [featureId, vendors] : vendorStates_) {
    vendorsOn_[featureId] = static_cast<std::size_t>(
        std::count_if(vendors.begin(), vendors.end(), [](const auto& v) { return v.second; }));
  }
}

bool SpecialFeatureConsentStore::vendorState(std::int64_t featureId, std::int64_t vendorId) const {
  std::lock_guard lock(mutex_);
  const auto feature = vendorStates_.find(featureId);
  if (feature == vendorStates_.end()) return false;
  const auto vendor = feature->second.find(vendorId);
  return vendor != feature->second.end() && vendor->second;
}

void SpecialFeatureConsentStore::setMaster(std::int64_t featureId, bool isOn) {
  std::vector<std::int64_t> switchedOff;
  {
    std::lock_guard lock(mutex_);
    masterStates_[featureId] = isOn;
    const auto on = vendorsOn_.find(featureId);
    if (!isOn && on != vendorsOn_.end() && on->second > 0) {
      const auto feature = vendorStates_.find(featureId);
      if (feature != vendorStates_.end()) {
        for (const auto& [vendorId, on] : feature->second) {
          if (on) switchedOff.push_back(vendorId);
        }
      }
    }
  }
  PendingConsentStore::shared().setSpecialFeatureMaster(featureId, isOn);
  for (const auto vendorId : switchedOff) {
    {
      std::lock_guard lock(mutex_);
      setVendorLocked(featureId, vendorId, false);
    }
    PendingConsentStore::shared().setSpecialFeatureConsent(featureId, vendorId, false);
    announceVendor(featureId, vendorId, false);
  }
  announceMaster(featureId, isOn);
}

void SpecialFeatureConsentStore::setVendor(std::int64_t featureId, std::int64_t vendorId,
                                           bool isOn) {
  bool masterOn = false;
  {
    std::lock_guard lock(mutex_);
    setVendorLocked(featureId, vendorId, isOn);
    const auto master = masterStates_.find(featureId);
    masterOn = master != masterStates_.end() && master->second;
  }
  PendingConsentStore::shared().setSpecialFeatureConsent(featureId, vendorId, isOn);
  if (isOn && !masterOn) setMaster(featureId, true);
  bool anyOn = false;
  {
    std::lock_guard lock(mutex_);
    anyOn = vendorsOn_[featureId] > 0;
  }
  if (!anyOn) setMaster(featureId, false);
  announceVendor(featureId, vendorId, isOn);
}

void SpecialFeatureConsentStore::resynchronise(std::int64_t featureId, bool isOn,
                                               std::span<const std::int64_t> vendorIds) {
  PendingConsentStore& pending = PendingConsentStore::shared();
  auto& center = NotificationCenter::defaultCenter();
  if (QltLog::enabled() || center.observed(NotificationNames::specialFeatureMasterChanged) ||
      center.observed(NotificationNames::specialFeatureVendorChanged)) {
    setMaster(featureId, isOn);
    for (const auto vendorId : vendorIds) {
      const bool value = vendorState(featureId, vendorId);
      pending.setSpecialFeatureConsent(featureId, vendorId, value);
      setVendor(featureId, vendorId, value);
    }
    return;
  }
  // Unobserved and unlogged, only the end states count. Every vendor keeps its state (after the
  // master's cascade), the absent ones enter as off, and the master stays on only while a
  // vendor is on, as setVendor's last-vendor-off rule leaves it.
  std::vector<std::pair<std::int64_t, bool>> switchedOff;
  std::vector<std::pair<std::int64_t, bool>> held;
  held.reserve(vendorIds.size());
  bool master = isOn;
  {
    std::lock_guard lock(mutex_);
    const auto feature = vendorStates_.find(featureId);
    if (!isOn && feature != vendorStates_.end()) {
      for (auto& [vendorId, on] : feature->second) {
        if (!on) continue;
        on = false;
        switchedOff.emplace_back(vendorId, false);
      }
      vendorsOn_[featureId] = 0;
    }
    if (!vendorIds.empty()) {
      ConsentFlags& states = vendorStates_[featureId];
      auto at = states.begin();
      for (const auto vendorId : vendorIds) {
        while (at != states.end() && at->first < vendorId)
          ++at;
        if (at == states.end() || at->first != vendorId)
          at = states.emplace_hint(at, vendorId, false);
        held.emplace_back(vendorId, at->second);
      }
      master = isOn && vendorsOn_[featureId] > 0;
    }
    masterStates_[featureId] = master;
  }
  pending.setSpecialFeatureMaster(featureId, master);
  if (!switchedOff.empty()) pending.mergeSpecialFeatureConsent(featureId, switchedOff);
  if (!held.empty()) pending.mergeSpecialFeatureConsent(featureId, held);
}

void SpecialFeatureConsentStore::assignMaster(std::int64_t featureId, bool isOn) {
  std::lock_guard lock(mutex_);
  masterStates_[featureId] = isOn;
}

void SpecialFeatureConsentStore::replaceMasterStates(const ConsentFlags& states) {
  {
    std::lock_guard lock(mutex_);
    masterStates_ = states;
  }
  for (const auto& [featureId, on] : states)
    announceMaster(featureId, on);
}

void SpecialFeatureConsentStore::replaceVendorStates(const NestedConsentFlags& states) {
  {
    std::lock_guard lock(mutex_);
    vendorStates_ = states;
    recountLocked();
  }
  for (const auto& [featureId, vendors] : states) {
    for (const auto& [vendorId, on] : vendors)
      announceVendor(featureId, vendorId, on);
  }
}

void SpecialFeatureConsentStore::persist() const {
  StoreValue::Dictionary vendors;
  StoreValue::Dictionary masters;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [featureId, flags] : vendorStates_) {
      vendors.emplace(std::to_string(featureId), toDictionary(flags));
    }
    masters = toDictionary(masterStates_);
  }
  const auto store = ConsentStorage::store();
  store->set(StorageKeys::specialFeatureVendorStates, std::move(vendors));
  store->set(StorageKeys::specialFeatureMasterStates, std::move(masters));
}

void SpecialFeatureConsentStore::loadPersisted() {
  const auto store = ConsentStorage::store();
  if (const auto stored = store->readDictionary(StorageKeys::specialFeatureVendorStates)) {
    const bool shaped = std::all_of(stored->begin(), stored->end(), [](const auto& entry) {
      const auto* inner = entry.second.template get<StoreValue::Dictionary>();
      return inner != nullptr && isFlagDictionary(*inner);
    });
    if (shaped) {
      NestedConsentFlags states;
      for (const auto& [key, value] : *stored) {
        states.emplace(
            integerKey(key, StorageKeys::specialFeatureVendorStates),
            flagsOf(*value.get<StoreValue::Dictionary>(), StorageKeys::specialFeatureVendorStates));
      }
      std::lock_guard lock(mutex_);
      vendorStates_ = std::move(states);
      recountLocked();
    }
  }
  if (const auto stored = store->readDictionary(StorageKeys::specialFeatureMasterStates)) {
    if (isFlagDictionary(*stored)) {
      ConsentFlags states = flagsOf(*stored, StorageKeys::specialFeatureMasterStates);
      std::lock_guard lock(mutex_);
      masterStates_ = std::move(states);
    }
  }
}

}  // namespace quillet
