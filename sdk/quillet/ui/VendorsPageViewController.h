#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/base/SharedList.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/VendorModel.h"
#include "quillet/ui/Screen.h"

namespace quillet {

class VendorConsentStore;

/// The vendors page of the second layer: one "VendorCell" row per vendor with its consent
/// switch (read from and written to the vendor consent store) and a way to its details.
class VendorsPageViewController {
 public:
  static constexpr std::string_view kCellIdentifier = "VendorCell";

  VendorsPageViewController(SharedList<VendorModel> vendors,
                            SharedList<std::shared_ptr<const boost::json::object>> rawVendors,
                            std::shared_ptr<const boost::json::object> gvl,
                            BrandingConfig brandingConfig, VendorConsentStore& consentStore,
                            std::set<std::int64_t> allowedPurposeIds);

  /// The page's part of the second layer's document.
  std::string html() const;
  /// "vendor/<id>" flips the vendor's consent; "vendor-details/<index>" asks for its details.
  bool handle(const ScreenEvent& event);

  /// The vendor's switch: logged, then written to the consent store (which announces real
  /// changes).
  void vendorSwitchChanged(std::int64_t vendorId, bool isOn);

  const SharedList<VendorModel> vendors;
  const SharedList<std::shared_ptr<const boost::json::object>> rawVendors;
  const std::shared_ptr<const boost::json::object> gvl;
  const BrandingConfig brandingConfig;
  VendorConsentStore& consentStore;
  /// After a tap, with the new state.
  std::function<void(std::int64_t, bool)> switchChanged;
  /// With the vendor's index in `vendors`.
  std::function<void(std::size_t)> policyTapped;
  const std::set<std::int64_t> allowedPurposeIds;
  /// The vendor whose switch was tapped last, animated on the next rendering.
  std::optional<std::int64_t> lastTapped;
};

}  // namespace quillet
