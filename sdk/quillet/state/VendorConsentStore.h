#pragma once

#include <cstdint>
#include <mutex>

#include "quillet/state/ConsentFlags.h"

namespace quillet {

/// The consent switch per vendor, in memory only. Posts "qlt.vendorConsentChanged" ("id", "on")
/// on the default notification centre. Safe to use from several threads; no lock is held while
/// posting.
class VendorConsentStore {
 public:
  static VendorConsentStore& shared();

  ConsentFlags states() const;
  /// Assigns the states whole, then posts one notification per entry, in ascending id order.
  void replaceStates(const ConsentFlags& states);
  /// Stores and announces the switch, unless the vendor already has exactly this value (a
  /// vendor that was absent counts as changed, even to off).
  void setConsent(std::int64_t vendorId, bool isOn);

 private:
  mutable std::mutex mutex_;
  ConsentFlags states_;
};

}  // namespace quillet
