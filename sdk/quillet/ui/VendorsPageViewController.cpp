#include "quillet/ui/VendorsPageViewController.h"

#include "quillet/base/QltLog.h"
#include "quillet/state/VendorConsentStore.h"
#include "quillet/ui/Html.h"
#include "quillet/ui/WebCMPStyleToggle.h"

namespace quillet {

VendorsPageViewController::VendorsPageViewController(
    SharedList<VendorModel> vendors,
    SharedList<std::shared_ptr<const boost::json::object>> rawVendors,
    std::shared_ptr<const boost::json::object> gvl, BrandingConfig brandingConfig,
    VendorConsentStore& consentStore, std::set<std::int64_t> allowedPurposeIds)
    : vendors(std::move(vendors)),
      rawVendors(std::move(rawVendors)),
      gvl(std::move(gvl)),
      brandingConfig(std::move(brandingConfig)),
      consentStore(consentStore),
      allowedPurposeIds(std::move(allowedPurposeIds)) {}

std::string VendorsPageViewController::html() const {
  const ConsentFlags states = consentStore.states();
  std::string out;
  out.reserve(vendors.size() * 900);
  out += "<h2>Vendors (" + std::to_string(vendors.size()) + ")</h2><div class=\"qlt-group\">";
  for (std::size_t index = 0; index < vendors.size(); ++index) {
    const VendorModel& vendor = vendors[index];
    const std::string id = std::to_string(vendor.id());
    const std::string name = Html::escape(vendor.name());
    std::size_t shown = 0;
    for (const auto p : vendor.purposes())
      shown += allowedPurposeIds.contains(p) ? 1 : 0;
    const auto on = states.find(vendor.id());
    WebCMPStyleToggle toggle;
    toggle.setOn(on != states.end() && on->second);
    if (lastTapped == vendor.id()) {
      toggle.setOn(!toggle.isOn());
      toggle.setOn(!toggle.isOn(), true);
    }
    out += "<div class=\"qlt-row\" data-cell=\"";
    out += kCellIdentifier;
    out.append("\" id=\"vendor-row-").append(id);
    out.append("\"><div class=\"qlt-row-text\"><div class=\"qlt-row-title\">").append(name);
    out.append("</div><a class=\"qlt-link\" id=\"vendor-details-").append(std::to_string(index));
    out.append("\" href=\"")
        .append(ScreenEvent::link("vendor-details", {static_cast<std::int64_t>(index)}));
    out.append("\" aria-label=\"Details: ").append(name).append("\">");
    out.append(std::to_string(shown)).append(shown == 1 ? " purpose" : " purposes");
    out.append(" · Details</a></div>");
    out += toggle.html("vendor-" + id, ScreenEvent::link("vendor", {vendor.id()}),
                       "Consent: " + vendor.name());
    out += "</div>";
  }
  out += "</div>";
  return out;
}

void VendorsPageViewController::vendorSwitchChanged(std::int64_t vendorId, bool isOn) {
  QltLog::d("VendorsPageViewController", [&] {
    return "[VendorsPageViewController] Toggle changed for vendorId " + std::to_string(vendorId);
  });
  consentStore.setConsent(vendorId, isOn);
}

bool VendorsPageViewController::handle(const ScreenEvent& event) {
  const auto first = event.id(0);
  if (!first) return false;
  if (event.name == "vendor") {
    const ConsentFlags states = consentStore.states();
    const auto on = states.find(*first);
    const bool isOn = !(on != states.end() && on->second);
    lastTapped = *first;
    vendorSwitchChanged(*first, isOn);
    if (switchChanged) switchChanged(*first, isOn);
    return true;
  }
  if (event.name == "vendor-details") {
    if (*first >= 0 && static_cast<std::size_t>(*first) < vendors.size() && policyTapped) {
      policyTapped(static_cast<std::size_t>(*first));
    }
    return true;
  }
  return false;
}

}  // namespace quillet
