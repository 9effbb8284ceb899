#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/base/Export.h"
#include "quillet/base/Result.h"

namespace quillet {

/// A chosen set of purpose ids and vendor ids, in the order given.
struct QUILLET_EXPORT ConsentSelections {
  std::vector<std::int64_t> purposeIds;
  std::vector<std::int64_t> vendorIds;

  /// Reads "purposesConsent" and "vendorConsent" loosely: each is taken only when it is an
  /// array of exact integers as a whole, else it is empty (one string or fraction empties the
  /// list). Always present.
  static std::optional<ConsentSelections> init(const boost::json::object& json);

  /// Keyed coding: "purposeIds" then "vendorIds", both required arrays of integers.
  boost::json::object toJson() const;
  static Result<ConsentSelections> fromJson(const boost::json::value& json);

  bool operator==(const ConsentSelections&) const = default;
};

}  // namespace quillet
