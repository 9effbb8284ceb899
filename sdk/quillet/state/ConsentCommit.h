#pragma once

#include <cstdint>
#include <span>

#include "quillet/core/Export.h"

/// The two store sequences that the consent screens' buttons end with.
namespace quillet::ConsentCommit {

/// Accept everything in the pending and toggle stores: for each special feature, its master on
/// (assigned, pending, announced) and each vendor on for it; then each purpose and each vendor on
/// in the pending store. Does not commit.
QUILLET_EXPORT void acceptEverything(std::span<const std::int64_t> purposeIds,
                                     std::span<const std::int64_t> vendorIds,
                                     std::span<const std::int64_t> specialFeatureIds);

/// Hands the pending maps to the toggle stores (vendor consent, purpose consent, special-feature
/// vendors, special-feature masters), persists the special features, then reloads the pending
/// store from the three stores.
QUILLET_EXPORT void commitPending();

}  // namespace quillet::ConsentCommit
