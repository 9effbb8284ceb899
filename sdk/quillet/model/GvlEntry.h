#pragma once

// Pieces shared by the purpose and vendor parsers. Internal to the model.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <boost/json/object.hpp>

namespace quillet::gvl {

/// The id of a vendor list entry: its "id" when that is an exact integer, else its member key
/// read as a decimal integer, else 0.
std::int64_t entryId(const boost::json::object& entry, std::string_view key);

/// Texts printed as a list for log lines: ["1", "10", "2"].
std::string printList(std::span<const std::string_view> texts);

/// Integers printed as a list for log lines: [1, 2, 3].
std::string printList(std::span<const std::int64_t> numbers);

}  // namespace quillet::gvl
