#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/state/NotificationCenter.h"
#include "quillet/ui/Screen.h"
#include "quillet/ui/WebCMPStyleToggle.h"

namespace quillet {

class VendorConsentStore;

/// One vendor in full: its consent switch, its legitimate-interest master and purpose switches
/// (kept in step with each other), its special features, what it stores on the device, its
/// privacy policy, and the way to its device storage disclosure. Observes the vendor and
/// special-feature notifications and brings its switches in line.
class VendorDetailsViewController final : public Screen {
 public:
  VendorDetailsViewController(boost::json::object vendor,
                              std::shared_ptr<const boost::json::object> gvl,
                              VendorConsentStore& consentStore,
                              std::set<std::int64_t> allowedPurposeIds, std::string accent);
  ~VendorDetailsViewController() override;

  std::string title() const override;
  std::string_view kind() const noexcept override { return "vendorDetails"; }
  std::string document() const override;

  void mainConsentChanged(bool isOn);
  void specialFeatureChanged(std::int64_t featureId, bool isOn);
  void liPurposeChanged(std::int64_t purposeId, bool isOn);
  void liMasterChanged(bool isOn);
  /// Presents the disclosure screen for "deviceStorageDisclosureUrl" and starts its download.
  void showDisclosure();

  const boost::json::object vendor;
  const std::shared_ptr<const boost::json::object> gvl;
  VendorConsentStore& consentStore;
  const std::int64_t vendorId;
  /// The vendor's legitimate-interest purposes that are offered, in the vendor's order.
  std::vector<std::int64_t> liPurposeIDs;
  bool liMaster = false;
  std::map<std::int64_t, bool> liPurposeStates;
  std::map<std::int64_t, WebCMPStyleToggle> liPurposeToggles;
  bool expandedLIs = false;
  bool ignoreMasterLISync = false;
  bool consentGiven = false;
  std::map<std::int64_t, bool> specialFeaturesStates;
  WebCMPStyleToggle mainSwitch;
  WebCMPStyleToggle liMasterSwitch;
  std::map<std::int64_t, WebCMPStyleToggle> sfToggles;
  const std::set<std::int64_t> allowedPurposeIds;

 protected:
  void handleEvent(const ScreenEvent& event) override;

 private:
  void syncLIPending();
  void observe();
  std::string name() const;
  std::string purposeName(std::int64_t id) const;

  std::string accent_;
  NotificationCenter::Token featureObserver_;
  NotificationCenter::Token vendorObserver_;
};

}  // namespace quillet
