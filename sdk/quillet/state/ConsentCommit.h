#pragma once

#include <cstdint>
#include <span>

/// Store sequences the consent screens share: the two their buttons end with, and one vendor's
/// consent switch.
namespace quillet::ConsentCommit {

/// One vendor's consent switch, from whichever screen: the pending store (what the buttons hand
/// on), then the vendor consent store, which announces a real change to every open screen.
void switchVendor(std::int64_t vendorId, bool isOn);

/// Accept everything in the pending and toggle stores: for each special feature, its master on
/// (assigned, pending, announced) and each vendor on for it; then each purpose and each vendor on
/// in the pending store. Does not commit.
void acceptEverything(std::span<const std::int64_t> purposeIds,
                      std::span<const std::int64_t> vendorIds,
                      std::span<const std::int64_t> specialFeatureIds);

/// Hands the pending maps to the toggle stores (vendor consent, purpose consent, special-feature
/// vendors, special-feature masters), persists the special features, then reloads the pending
/// store from the three stores.
void commitPending();

}  // namespace quillet::ConsentCommit
