#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/model/BrandingConfig.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/VendorModel.h"
#include "quillet/state/NotificationCenter.h"
#include "quillet/ui/PurposesPageViewController.h"
#include "quillet/ui/Screen.h"
#include "quillet/ui/WebCMPStyleToggle.h"

namespace quillet {

/// The purposes page of the second layer: the locked essential row, each purpose with its
/// consent and legitimate-interest switches and, unfolded, the vendors behind it, and the special
/// features' master switches. Every switch writes the pending store (and where it must, a toggle
/// store and a notification). Observes the special-feature and legitimate-interest
/// notifications and brings its switches in line. Used on the main thread; notifications from
/// other threads are handled there.
class PurposeTabViewController {
 public:
  PurposeTabViewController(std::vector<PurposeModel> purposes,
                           std::vector<boost::json::object> specialFeatures,
                           std::map<std::int64_t, std::vector<VendorModel>> vendorsForPurpose,
                           std::map<std::int64_t, std::vector<VendorModel>> liVendorsForPurpose,
                           const BrandingConfig& brandingConfig);
  ~PurposeTabViewController();
  PurposeTabViewController(const PurposeTabViewController&) = delete;
  PurposeTabViewController& operator=(const PurposeTabViewController&) = delete;

  /// The page's part of the second layer's document.
  std::string html() const;
  /// Handles the page's events; returns whether the event was the page's.
  bool handle(const ScreenEvent& event);
  /// Reads every switch back from the stores (after a details screen changed them).
  void reload();

  void purposeConsentChanged(std::int64_t purposeId, bool isOn);
  void purposeLegitimateInterestChanged(std::int64_t purposeId, bool isOn);
  void vendorConsentChanged(std::int64_t vendorId, bool isOn);
  void vendorLegitimateInterestChanged(std::int64_t purposeId, std::int64_t vendorId, bool isOn);
  void specialFeatureMasterChanged(std::int64_t featureId, bool isOn);

  /// Asks the owner to show the document again.
  std::function<void()> onChange;
  /// Asks the owner to open the purpose's details.
  std::function<void(std::int64_t)> onReadMore;
  /// Plays the light impact of a tap.
  std::function<void()> onImpact;

  const std::vector<PurposeModel> purposes;
  const std::vector<boost::json::object> specialFeatures;
  const std::map<std::int64_t, std::vector<VendorModel>> vendorsForPurpose;
  const std::map<std::int64_t, std::vector<VendorModel>> liVendorsForPurpose;
  const bool essentialConsentOn = true;
  std::set<std::int64_t> expandedPurposeIds;
  std::map<std::int64_t, WebCMPStyleToggle> purposeToggles;
  std::map<std::int64_t, WebCMPStyleToggle> liToggles;
  std::map<std::int64_t, WebCMPStyleToggle> specialFeatureToggles;

 private:
  std::string purposeBelow(const PurposeModel& purpose) const;
  void observe();
  void wire(WebCMPStyleToggle& toggle);

  WebCMPStyleToggle essentialToggle_;
  PurposesPageViewController page_;
  NotificationCenter::Token masterObserver_;
  NotificationCenter::Token liObserver_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace quillet
