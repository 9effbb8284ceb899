#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <boost/container/flat_map.hpp>

namespace quillet {

/// Switches by id, ascending and held in one array; an absent id reads as off. Inserting or
/// erasing moves the entries after it, so iterators do not outlive a change.
using ConsentFlags = boost::container::flat_map<std::int64_t, bool>;
/// Switches by outer id (vendor or special feature), then inner id.
using NestedConsentFlags = boost::container::flat_map<std::int64_t, ConsentFlags>;

/// "{1: true, 7: false}": a stable rendering for log lines.
std::string describe(const ConsentFlags& flags);
/// "{1: {755: true}}": a stable rendering for log lines.
std::string describe(const NestedConsentFlags& flags);

/// The ids switched on, ascending.
std::vector<std::int64_t> idsOn(const ConsentFlags& flags);

}  // namespace quillet
