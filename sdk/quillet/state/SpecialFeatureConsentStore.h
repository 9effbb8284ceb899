#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <span>

#include "quillet/state/ConsentFlags.h"

namespace quillet {

/// Special-feature opt-ins: a master switch per feature and a switch per feature and vendor,
/// with the cascades between them, mirrored into the pending store and persisted under
/// "qlt_sf_vendor_states" and "qlt_sf_master_states". Posts "specialFeatureMasterChanged"
/// ("featureId", "on") and "specialFeatureVendorChanged" ("featureId", "vendorId", "on") on the
/// default notification centre. Safe to use from several threads; no lock is held while posting.
class SpecialFeatureConsentStore {
 public:
  static SpecialFeatureConsentStore& shared();

  ConsentFlags masterStates() const;
  /// By feature, then vendor.
  NestedConsentFlags vendorStates() const;
  /// One vendor's opt-in; false when absent.
  bool vendorState(std::int64_t featureId, std::int64_t vendorId) const;

  /// Sets the master; switching it off first switches off (and announces) each of the feature's
  /// vendors that was on. Then announces the master.
  void setMaster(std::int64_t featureId, bool isOn);
  /// Sets one vendor's opt-in: the first vendor on switches the master on, the last vendor off
  /// switches it off (each announced first); then announces the vendor.
  void setVendor(std::int64_t featureId, std::int64_t vendorId, bool isOn);

  /// setMaster(featureId, isOn), then for each of `vendorIds` (ascending, each once) the pending
  /// store's and setVendor's write of the state the vendor holds (false when absent): what a
  /// stored string brings back. The same states, pending store and notifications as those calls;
  /// in one pass when no one observes the notifications and logging is off.
  void resynchronise(std::int64_t featureId, bool isOn, std::span<const std::int64_t> vendorIds);

  /// Sets one master entry as a plain assignment: no cascade, no announcement.
  void assignMaster(std::int64_t featureId, bool isOn);

  /// Assign whole maps and announce each entry; the pending store is not written.
  void replaceMasterStates(const ConsentFlags& states);
  void replaceVendorStates(const NestedConsentFlags& states);

  /// Writes both maps to the store with decimal text keys (vendor states first).
  void persist() const;
  /// Reads them back when they have the persisted shape, else leaves them. A key that is not a
  /// decimal integer stops the process (only another party could have written one).
  void loadPersisted();

 private:
  // Sets one vendor state and keeps the count of vendors on; the mutex must be held.
  void setVendorLocked(std::int64_t featureId, std::int64_t vendorId, bool on);
  void recountLocked();

  mutable std::mutex mutex_;
  ConsentFlags masterStates_;
  NestedConsentFlags vendorStates_;
  // Vendors switched on per feature, so that "is any vendor on" is not a scan of every vendor
  // (resynchronising a 1,000-vendor list asks it once per vendor).
  std::map<std::int64_t, std::size_t> vendorsOn_;
};

}  // namespace quillet
