#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace quillet {

/// Switches by id; an absent id reads as off.
using ConsentFlags = std::map<std::int64_t, bool>;
/// Switches by outer id (vendor or special feature), then inner id.
using NestedConsentFlags = std::map<std::int64_t, ConsentFlags>;

/// "{1: true, 7: false}": a stable rendering for log lines.
std::string describe(const ConsentFlags& flags);
/// "{1: {755: true}}": a stable rendering for log lines.
std::string describe(const std::map<std::int64_t, ConsentFlags>& flags);

/// The ids switched on, ascending.
std::vector<std::int64_t> idsOn(const ConsentFlags& flags);

}  // namespace quillet
