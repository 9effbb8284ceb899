#pragma once

#include <string>
#include <vector>

#include "quillet/model/PurposeModel.h"
#include "quillet/model/VendorModel.h"
#include "quillet/ui/Screen.h"
#include "quillet/ui/WebCMPStyleToggle.h"

namespace quillet {

/// One purpose in full: its description, a consent master switch that also switches every
/// consent vendor of the purpose, the consent vendors, and the legitimate-interest vendors
/// (folded) with a switch for all of them.
class PurposeDetailsViewController final : public Screen {
 public:
  PurposeDetailsViewController(PurposeModel purpose, std::vector<VendorModel> consentVendors,
                               std::vector<VendorModel> liVendors, std::string accent);

  std::string title() const override;
  std::string_view kind() const noexcept override { return "purposeDetails"; }
  std::string document() const override;

  /// The master switch: pending purpose consent, then each consent vendor, no notification.
  void masterConsentChanged(bool isOn);
  /// The legitimate-interest switch: each legitimate-interest vendor, then the notification.
  void legitimateInterestChanged(bool isOn);

  const PurposeModel purpose;
  const std::vector<VendorModel> consentVendors;
  const std::vector<VendorModel> liVendors;
  bool expanded = false;
  WebCMPStyleToggle masterToggle;
  WebCMPStyleToggle liToggle;

 protected:
  void handleEvent(const ScreenEvent& event) override;

 private:
  std::string accent_;
};

}  // namespace quillet
