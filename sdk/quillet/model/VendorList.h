#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/core/Export.h"

namespace quillet {
class VendorModel;
}

/// Readers of the parts of a vendor list document that the facade and the screens share.
namespace quillet::VendorList {

/// The document's "vendors" object, or an empty one.
QUILLET_EXPORT const boost::json::object& vendors(const boost::json::object& gvl);

/// The keys of an object that read as decimal integers, ascending.
QUILLET_EXPORT std::vector<std::int64_t> integerKeys(const boost::json::object& object);

/// The special feature ids: the integer keys of "specialFeatures" when it is an object, the
/// integer "id" of each element when it is an array, else none. Ascending.
QUILLET_EXPORT std::vector<std::int64_t> specialFeatureIds(const boost::json::object& gvl);

/// The special feature entries in document order: the object's member values, or the array's
/// object elements; none when the member is missing or of another kind.
QUILLET_EXPORT std::vector<const boost::json::object*> specialFeatures(
    const boost::json::object& gvl);

/// The "vendors" entries of `vendors`, one per vendor in their order, sharing ownership of `gvl`;
/// empty for a vendor without an entry under its decimal id (whose "id" member names another).
QUILLET_EXPORT std::vector<std::shared_ptr<const boost::json::object>> entriesOf(
    const std::shared_ptr<const boost::json::object>& gvl, const std::vector<VendorModel>& vendors);

}  // namespace quillet::VendorList
