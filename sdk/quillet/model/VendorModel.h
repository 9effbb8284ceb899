#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/base/Export.h"
#include "quillet/base/Result.h"

namespace quillet {

class BrandingConfig;

/// One vendor of the Global Vendor List, as the screens show it. An immutable value.
class QUILLET_EXPORT VendorModel {
 public:
  VendorModel(std::int64_t id, std::string name, std::optional<std::string> policyUrl,
              std::vector<std::int64_t> purposes, std::vector<std::int64_t> legIntPurposes);

  std::int64_t id() const noexcept { return id_; }
  /// Never empty in records made by `parse`.
  const std::string& name() const noexcept { return name_; }
  const std::optional<std::string>& policyUrl() const noexcept { return policyUrl_; }
  /// Purposes the vendor asks consent for.
  const std::vector<std::int64_t>& purposes() const noexcept { return purposes_; }
  /// Purposes the vendor bases on legitimate interest.
  const std::vector<std::int64_t>& legIntPurposes() const noexcept { return legIntPurposes_; }
  /// The same list as `legIntPurposes`.
  const std::vector<std::int64_t>& legitimateInterests() const noexcept { return legIntPurposes_; }

  /// The vendors of a vendor list's "vendors" object, in the object's member order, narrowed to
  /// the configuration's `selectedVendorIds` when that selection is not empty. Members that are
  /// not objects, are not selected, or have no name are dropped without a message; a missing
  /// "vendors" gives no vendors and an error line. "purposes" and "legIntPurposes" must be arrays
  /// of integers as a whole or read as empty. The policy address is "policyUrl", else the first
  /// string "privacy" of "urls". Logs under the tag "VendorModel"; builds no message while logging
  /// is off.
  static std::vector<VendorModel> parse(const boost::json::object& from,
                                        const BrandingConfig& config);

  /// Keyed coding: "id", "name", "purposes" and "legIntPurposes" required, "policyUrl" written and
  /// read only when present.
  boost::json::object toJson() const;
  static Result<VendorModel> fromJson(const boost::json::value& json);

  bool operator==(const VendorModel&) const = default;

 private:
  std::int64_t id_;
  std::string name_;
  std::optional<std::string> policyUrl_;
  std::vector<std::int64_t> purposes_;
  std::vector<std::int64_t> legIntPurposes_;
};

}  // namespace quillet
