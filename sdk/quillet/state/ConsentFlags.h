#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "quillet/core/Export.h"

namespace quillet {

/// Switches by id; an absent id reads as off.
using ConsentFlags = std::map<std::int64_t, bool>;
/// Switches by outer id (vendor or special feature), then inner id.
using NestedConsentFlags = std::map<std::int64_t, ConsentFlags>;

/// "{1: true, 7: false}" and "{1: {755: true}}": stable renderings for log lines.
QUILLET_EXPORT std::string describe(const ConsentFlags& flags);
QUILLET_EXPORT std::string describe(const NestedConsentFlags& flags);

/// The ids switched on, ascending.
QUILLET_EXPORT std::vector<std::int64_t> idsOn(const ConsentFlags& flags);

}  // namespace quillet
