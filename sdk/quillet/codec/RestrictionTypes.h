#pragma once

// Internal to the codec and the facade: a string's publisher restrictions by purpose and vendor.

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

#include "quillet/codec/TCString.h"

namespace quillet {

/// Purpose id to vendor id to restriction type (0 not allowed, 1 consent required, 2 legitimate
/// interest required). The undefined type 3 restricts nothing and is left out; where several
/// restrictions of a purpose name a vendor, the strictest (lowest) holds.
inline std::map<int, std::map<std::int64_t, int>> restrictionTypes(
    const std::vector<PublisherRestriction>& restrictions) {
  std::map<int, std::map<std::int64_t, int>> types;
  for (const auto& restriction : restrictions) {
    if (restriction.restrictionType > 2 || restriction.vendors.empty()) continue;
    auto& vendors = types[restriction.purposeId];
    restriction.vendors.forEach([&](std::int64_t id) {
      const auto [at, added] = vendors.emplace(id, restriction.restrictionType);
      if (!added) at->second = std::min(at->second, restriction.restrictionType);
    });
  }
  return types;
}

}  // namespace quillet
