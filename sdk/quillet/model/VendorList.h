#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <boost/json/object.hpp>

namespace quillet {
class VendorModel;
}

/// Readers of the parts of a vendor list document that the models, the facade and the screens
/// share: every rule for reading a vendor list fact lives here.
namespace quillet::VendorList {

/// The facts a consent decision and the consent stores read from a vendor list, read once.
struct Facts {
  /// The keys of "vendors" that read as decimal integers, ascending.
  std::vector<std::int64_t> vendorIds;
  /// "vendorListVersion" and "tcfPolicyVersion" when they are exact integers, else 1.
  std::int64_t vendorListVersion = 1;
  std::int64_t policyVersion = 1;
  /// As `specialFeatureIds`.
  std::vector<std::int64_t> specialFeatureIds;
  /// As `specialFeatureKeys`.
  std::vector<std::int64_t> specialFeatureKeys;

  /// The largest vendor id, 0 for none.
  std::int64_t largestVendorId() const noexcept { return vendorIds.empty() ? 0 : vendorIds.back(); }

  /// The declared lists that `declared` reads.
  enum class List { purposes, legIntPurposes };
  /// What `declared(vendors(gvl), vendorId, list)` gives, without reading the document again;
  /// valid as long as these facts.
  std::optional<std::span<const std::int64_t>> declared(std::int64_t vendorId,
                                                        List list) const noexcept;

 private:
  friend Facts facts(const boost::json::object& gvl);
  struct Declared {
    std::int64_t vendorId;
    // Where each list starts in `declaredIds_` and its length; a negative length for none.
    std::uint32_t at[2];
    std::int32_t count[2];
  };
  std::vector<Declared> declared_;  // ascending by vendor id
  // Position in `declared_` + 1 by vendor id (0 for none), when the ids are small enough.
  std::vector<std::uint32_t> byId_;
  std::vector<std::int64_t> declaredIds_;
};

Facts facts(const boost::json::object& gvl);

/// `facts(*gvl)`, read once for a document that several starts share (a list kept in memory): the
/// last document asked about keeps its facts while it lives. Thread-safe; nullptr for no document.
std::shared_ptr<const Facts> sharedFacts(const std::shared_ptr<const boost::json::object>& gvl);

/// The id of a vendor list entry: its "id" when that is an exact integer, else its member key
/// read as a decimal integer, else 0.
std::int64_t entryId(const boost::json::object& entry, std::string_view key);
/// `entryId` of an entry whose "id" member is `id` (nullptr for none).
std::int64_t entryId(const boost::json::value* id, std::string_view key);

/// A vendor's declared list `key` ("purposes", "legIntPurposes") from the entry under its
/// decimal id in `vendors`; nothing when the entry or the key is missing or not all integers.
std::optional<std::vector<std::int64_t>> declared(const boost::json::object& vendors,
                                                  std::int64_t vendorId, std::string_view key);

/// The document's "vendors" object, or an empty one.
const boost::json::object& vendors(const boost::json::object& gvl);

/// The keys of an object that read as decimal integers, ascending.
std::vector<std::int64_t> integerKeys(const boost::json::object& object);

/// The special feature ids: the integer keys of "specialFeatures" when it is an object, the
/// integer "id" of each element when it is an array, else none. Ascending.
std::vector<std::int64_t> specialFeatureIds(const boost::json::object& gvl);

/// The integer keys of "specialFeatures" when it is an object; none for any other form.
std::vector<std::int64_t> specialFeatureKeys(const boost::json::object& gvl);

/// The special feature entries in document order: the object's member values, or the array's
/// object elements; none when the member is missing or of another kind.
std::vector<const boost::json::object*> specialFeatures(const boost::json::object& gvl);

/// The "vendors" entries of `vendors`, one per vendor in their order, sharing ownership of `gvl`;
/// empty for a vendor without an entry under its decimal id (whose "id" member names another).
std::vector<std::shared_ptr<const boost::json::object>> entriesOf(
    const std::shared_ptr<const boost::json::object>& gvl, const std::vector<VendorModel>& vendors);
/// `entriesOf` for the vendors with these ids, in this order.
std::vector<std::shared_ptr<const boost::json::object>> entriesOf(
    const std::shared_ptr<const boost::json::object>& gvl, std::span<const std::int64_t> ids);

}  // namespace quillet::VendorList
