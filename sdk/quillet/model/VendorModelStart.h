#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/model/VendorModel.h"

// `VendorModel::parse` in two steps, for a start that needs the vendors' ids before their models.
namespace quillet::VendorModels {

/// The ids of the models that `VendorModel::parse` gives for `selection` (the configuration's
/// `selectedVendorIds`), in their order, and the purposes those models list in `purposes` or
/// `legIntPurposes`, ascending and unique. Writes the log lines that `parse` writes.
struct Outline {
  std::vector<std::int64_t> ids;
  std::vector<std::int64_t> declaredPurposes;
};
Outline outline(const boost::json::object& from,
                const std::optional<std::vector<std::int64_t>>& selection);

/// The models themselves, as `parse` gives them, without its log lines.
std::vector<VendorModel> models(const boost::json::object& from,
                                const std::optional<std::vector<std::int64_t>>& selection);

}  // namespace quillet::VendorModels
