#pragma once

#include <mutex>

#include "quillet/state/ConsentFlags.h"

namespace quillet {

/// The consent switch per purpose, in memory only. Posts "qlt.purposeConsentChanged" ("id",
/// "on") on the default notification centre. Safe to use from several threads; no lock is held
/// while posting.
class PurposeConsentStore {
 public:
  static PurposeConsentStore& shared();

  ConsentFlags states() const;
  /// Assigns the states whole, then posts one notification per entry, in ascending id order.
  void replaceStates(const ConsentFlags& states);

 private:
  mutable std::mutex mutex_;
  ConsentFlags states_;
};

}  // namespace quillet
