#pragma once

#include "quillet/core/Export.h"
// Pieces shared by the purpose and vendor parsers. Internal to the model.

#include <cstdint>
#include <string>
#include <string_view>

#include <boost/json/object.hpp>

namespace quillet::gvl {

/// The id of a vendor list entry: its "id" when that is an exact integer, else its member key
/// read as a decimal integer, else 0.
QUILLET_EXPORT std::int64_t entryId(const boost::json::object& entry, std::string_view key);

}  // namespace quillet::gvl
