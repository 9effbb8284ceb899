#include "quillet/ui/PurposeDetailsViewController.h"

#include "quillet/base/QltLog.h"
#include "quillet/state/ConsentCommit.h"
#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/ui/Html.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "PurposeDetailsVC";

std::string flag(bool on) {
  return on ? "true" : "false";
}

std::string vendorNames(const std::vector<VendorModel>& vendors) {
  std::string out;
  for (const auto& vendor : vendors) {
    if (!out.empty()) out += ", ";
    out += Html::escape(vendor.name());
  }
  return out.empty() ? "none" : out;
}

}  // namespace

PurposeDetailsViewController::PurposeDetailsViewController(PurposeModel purpose,
                                                           std::vector<VendorModel> consentVendors,
                                                           std::vector<VendorModel> liVendors,
                                                           std::string accent)
    : purpose(std::move(purpose)),
      consentVendors(std::move(consentVendors)),
      liVendors(std::move(liVendors)),
      accent_(std::move(accent)) {
  const auto& pending = PendingConsentStore::shared();
  const auto consent = pending.purposeConsent();
  const auto on = consent.find(this->purpose.id());
  masterToggle.setOn(on != consent.end() && on->second);
  const auto li = pending.liPurposeConsent();
  bool anyLi = false;
  for (const auto& vendor : this->liVendors) {
    if (const auto found = li.find(vendor.id()); found != li.end()) {
      const auto purposeOn = found->second.find(this->purpose.id());
      anyLi = anyLi || (purposeOn != found->second.end() && purposeOn->second);
    }
  }
  liToggle.setOn(anyLi);
  masterToggle.onImpact = liToggle.onImpact = [this] { playImpact(); };
  masterToggle.onValueChanged = [this](bool isOn) { masterConsentChanged(isOn); };
  liToggle.onValueChanged = [this](bool isOn) { legitimateInterestChanged(isOn); };
}

std::string PurposeDetailsViewController::title() const {
  return purpose.name();
}

void PurposeDetailsViewController::masterConsentChanged(bool isOn) {
  auto& pending = PendingConsentStore::shared();
  pending.setPurposeConsent(purpose.id(), isOn);
  QltLog::d(kTag, [&] {
    return "Purpose " + std::to_string(purpose.id()) + " master\u2011consent → " + flag(isOn);
  });
  // The vendors follow through both stores, so that the vendors page shows what Save hands on;
  // the purpose itself is not announced.
  for (const auto& vendor : consentVendors) {
    ConsentCommit::switchVendor(vendor.id(), isOn);
    QltLog::d(kTag, [&] {
      return "  └─ vendor " + std::to_string(vendor.id()) + " consent auto\u2011set → " +
             flag(isOn);
    });
  }
}

void PurposeDetailsViewController::legitimateInterestChanged(bool isOn) {
  for (const auto& vendor : liVendors)
    PendingConsentStore::shared().setLiPurposeConsent(vendor.id(), purpose.id(), isOn);
  NotificationCenter::defaultCenter().post(NotificationNames::purposeLegitimateInterestChanged,
                                           {{"purposeId", purpose.id()}, {"on", isOn}});
  QltLog::d(kTag, [&] {
    return "Purpose " + std::to_string(purpose.id()) + " LI\u2011master → " + flag(isOn);
  });
}

void PurposeDetailsViewController::handleEvent(const ScreenEvent& event) {
  if (event.name == "master-consent") {
    masterToggle.tap();
    focusId_ = "master-consent";
  } else if (event.name == "li") {
    liToggle.tap();
    focusId_ = "li";
  } else if (event.name == "li-vendors") {
    expanded = !expanded;
    focusId_ = "li-vendors";
  } else if (event.name == "close") {
    dismiss(*this, true);
    return;
  } else {
    return;
  }
  changed();
}

std::string PurposeDetailsViewController::document() const {
  std::string out = Html::documentStart(purpose.name(), accent_, focusId_);
  out += Html::backHeader(ScreenEvent::link("close"), purpose.name()) + "<main>";
  if (purpose.description()) {
    out += "<p class=\"qlt-para\">" + Html::escape(*purpose.description()) + "</p>";
  }
  out +=
      "<div class=\"qlt-group\"><div class=\"qlt-row\"><div class=\"qlt-row-text\">"
      "<div class=\"qlt-row-title\">Consent</div><div class=\"qlt-row-note\">Consent vendors: " +
      vendorNames(consentVendors) + "</div></div>";
  out += masterToggle.html("master-consent", ScreenEvent::link("master-consent"),
                           "Consent: " + purpose.name());
  out += "</div></div>";
  if (!liVendors.empty()) {
    out +=
        "<h2>Legitimate Interest Vendors</h2><div class=\"qlt-group\"><div class=\"qlt-row\">"
        "<div class=\"qlt-row-text qlt-row-note\">Allow processing under legitimate interest "
        "for these purposes.</div>";
    out += liToggle.html("li", ScreenEvent::link("li"), "Legitimate interest: " + purpose.name());
    out +=
        "</div><div class=\"qlt-row\"><a id=\"li-vendors\" class=\"qlt-link\" role=\"button\" "
        "aria-expanded=\"" +
        std::string(expanded ? "true" : "false") + "\" href=\"" + ScreenEvent::link("li-vendors") +
        "\">" + (expanded ? "Hide vendors" : "Show vendors") + "</a></div>";
    if (expanded) {
      out += "<div class=\"qlt-sub\">";
      for (const auto& vendor : liVendors)
        out += "<div class=\"qlt-row\">" + Html::escape(vendor.name()) + "</div>";
      out += "</div>";
    }
    out += "</div>";
  }
  out += "</main>";
  out += Html::documentEnd();
  return out;
}

}  // namespace quillet
