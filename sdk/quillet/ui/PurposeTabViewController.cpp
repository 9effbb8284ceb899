#include "quillet/ui/PurposeTabViewController.h"

#include "quillet/base/QltLog.h"
#include "quillet/model/Json.h"
#include "quillet/state/ConsentCommit.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/ui/Html.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "PurposeTabVC";
constexpr std::string_view kEssentialTitle = "Quillet CMP Essential";
constexpr std::string_view kEssentialText =
    "Required to securely save your consent choices. Stored locally as a TC String in this app "
    "(UserDefaults) for up to 390 days. Does not track/process your data for other purposes. "
    "Disabling is not possible.";

std::string flag(bool on) {
  return on ? "true" : "false";
}

std::optional<std::int64_t> featureId(const boost::json::object& feature) {
  return Json::exactInteger(Json::member(feature, "id"));
}

// Whether any of the vendors has legitimate interest on for the purpose.
bool anyLegitimateInterest(const NestedConsentFlags& li, const std::vector<VendorModel>& vendors,
                           std::int64_t purposeId) {
  for (const auto& vendor : vendors) {
    const auto found = li.find(vendor.id());
    if (found != li.end()) {
      const auto on = found->second.find(purposeId);
      if (on != found->second.end() && on->second) return true;
    }
  }
  return false;
}

std::string vendorRow(const VendorModel& vendor, const WebCMPStyleToggle& toggle,
                      const std::string& id, const std::string& link, std::string_view kind) {
  std::string out = "<div class=\"qlt-row\"><div class=\"qlt-row-text\">";
  out += Html::escape(vendor.name());
  out += "</div>";
  out += toggle.html(id, link, std::string(kind) + ": " + vendor.name());
  out += "</div>";
  return out;
}

}  // namespace

PurposeTabViewController::PurposeTabViewController(
    std::vector<PurposeModel> purposes, std::vector<boost::json::object> specialFeatures,
    std::map<std::int64_t, std::vector<VendorModel>> vendorsForPurpose,
    std::map<std::int64_t, std::vector<VendorModel>> liVendorsForPurpose,
    const BrandingConfig& brandingConfig)
    : purposes(std::move(purposes)),
      specialFeatures(std::move(specialFeatures)),
      vendorsForPurpose(std::move(vendorsForPurpose)),
      liVendorsForPurpose(std::move(liVendorsForPurpose)),
      page_(this->purposes, brandingConfig, purposeToggles) {
  essentialToggle_.setOn(essentialConsentOn);
  essentialToggle_.setLocked(true);
  page_.switchChanged = [this](std::int64_t id, bool on) { purposeConsentChanged(id, on); };
  page_.readMore = [this](std::int64_t id) {
    if (onReadMore) onReadMore(id);
  };
  reload();
  observe();
}

PurposeTabViewController::~PurposeTabViewController() = default;

void PurposeTabViewController::wire(WebCMPStyleToggle& toggle) {
  toggle.onImpact = [this] {
    if (onImpact) onImpact();
  };
}

void PurposeTabViewController::reload() {
  const auto& pending = PendingConsentStore::shared();
  const ConsentFlags consent = pending.purposeConsent();
  const NestedConsentFlags li = pending.liPurposeConsent();
  const ConsentFlags masters = SpecialFeatureConsentStore::shared().masterStates();
  for (const auto& purpose : purposes) {
    const auto on = consent.find(purpose.id());
    purposeToggles[purpose.id()].setOn(on != consent.end() && on->second);
    wire(purposeToggles[purpose.id()]);
    const auto vendors = liVendorsForPurpose.find(purpose.id());
    if (vendors != liVendorsForPurpose.end() && !vendors->second.empty()) {
      liToggles[purpose.id()].setOn(anyLegitimateInterest(li, vendors->second, purpose.id()));
      wire(liToggles[purpose.id()]);
    }
  }
  for (const auto& feature : specialFeatures) {
    const auto id = featureId(feature);
    if (!id) continue;
    const auto on = masters.find(*id);
    specialFeatureToggles[*id].setOn(on != masters.end() && on->second);
    wire(specialFeatureToggles[*id]);
  }
}

void PurposeTabViewController::observe() {
  auto& center = NotificationCenter::defaultCenter();
  const std::weak_ptr<bool> alive = alive_;
  masterObserver_ = center.addObserver(
      std::string(NotificationNames::specialFeatureMasterChanged),
      [this, alive](const Notification& note) {
        const auto id = note.integer("featureId");
        const auto on = note.boolean("on");
        if (!id || !on) return;
        runOnMainThread([this, alive, id = *id, on = *on] {
          if (alive.expired()) return;
          const auto toggle = specialFeatureToggles.find(id);
          if (toggle == specialFeatureToggles.end() || toggle->second.isOn() == on) return;
          toggle->second.setOn(on, true);
          if (onChange) onChange();
        });
      });
  liObserver_ = center.addObserver(std::string(NotificationNames::purposeLegitimateInterestChanged),
                                   [this, alive](const Notification& note) {
                                     const auto id = note.integer("purposeId");
                                     const auto on = note.boolean("on");
                                     if (!id || !on) return;
                                     runOnMainThread([this, alive, id = *id, on = *on] {
                                       if (alive.expired()) return;
                                       const auto toggle = liToggles.find(id);
                                       if (toggle == liToggles.end() || toggle->second.isOn() == on)
                                         return;
                                       toggle->second.setOn(on, true);
                                       if (onChange) onChange();
                                     });
                                   });
}

void PurposeTabViewController::purposeConsentChanged(std::int64_t purposeId, bool isOn) {
  PendingConsentStore::shared().setPurposeConsent(purposeId, isOn);
  NotificationCenter::defaultCenter().post(NotificationNames::purposeConsentChanged,
                                           {{"id", purposeId}, {"on", isOn}});
  QltLog::d(kTag, [&] {
    return "Purpose " + std::to_string(purposeId) + " Consent\u2011master → " + flag(isOn);
  });
}

void PurposeTabViewController::purposeLegitimateInterestChanged(std::int64_t purposeId, bool isOn) {
  const auto vendors = liVendorsForPurpose.find(purposeId);
  if (vendors != liVendorsForPurpose.end()) {
    for (const auto& vendor : vendors->second)
      PendingConsentStore::shared().setLiPurposeConsent(vendor.id(), purposeId, isOn);
  }
  NotificationCenter::defaultCenter().post(NotificationNames::purposeLegitimateInterestChanged,
                                           {{"purposeId", purposeId}, {"on", isOn}});
  QltLog::d(kTag, [&] {
    return "Purpose " + std::to_string(purposeId) + " LI\u2011master → " + flag(isOn);
  });
}

void PurposeTabViewController::vendorConsentChanged(std::int64_t vendorId, bool isOn) {
  ConsentCommit::switchVendor(vendorId, isOn);
  QltLog::d(kTag,
            [&] { return "Vendor " + std::to_string(vendorId) + " consent user→ " + flag(isOn); });
}

void PurposeTabViewController::vendorLegitimateInterestChanged(std::int64_t purposeId,
                                                               std::int64_t vendorId, bool isOn) {
  PendingConsentStore::shared().setLiPurposeConsent(vendorId, purposeId, isOn);
  QltLog::d(kTag, [&] { return "Vendor " + std::to_string(vendorId) + " LI user→ " + flag(isOn); });
}

void PurposeTabViewController::specialFeatureMasterChanged(std::int64_t featureId, bool isOn) {
  PendingConsentStore::shared().setSpecialFeatureMaster(featureId, isOn);
  SpecialFeatureConsentStore::shared().setMaster(featureId, isOn);
  QltLog::d(kTag, [&] {
    return "SF\u2011Master fid " + std::to_string(featureId) + " user→ " + flag(isOn);
  });
}

bool PurposeTabViewController::handle(const ScreenEvent& event) {
  if (page_.handle(event)) return true;
  const auto first = event.id(0);
  if (!first) return false;
  const auto second = event.id(1);
  if (event.name == "purpose-li") {
    const auto toggle = liToggles.find(*first);
    if (toggle != liToggles.end() && toggle->second.tap()) {
      purposeLegitimateInterestChanged(*first, toggle->second.isOn());
    }
  } else if (event.name == "purpose-vendor" && second) {
    const auto flags = PendingConsentStore::shared().vendorConsent();
    const auto on = flags.find(*second);
    vendorConsentChanged(*second, !(on != flags.end() && on->second));
    if (onImpact) onImpact();
  } else if (event.name == "purpose-vendor-li" && second) {
    const auto li = PendingConsentStore::shared().liPurposeConsent();
    bool was = false;
    if (const auto vendor = li.find(*second); vendor != li.end()) {
      const auto on = vendor->second.find(*first);
      was = on != vendor->second.end() && on->second;
    }
    vendorLegitimateInterestChanged(*first, *second, !was);
    if (onImpact) onImpact();
  } else if (event.name == "sf-master") {
    const auto toggle = specialFeatureToggles.find(*first);
    if (toggle != specialFeatureToggles.end() && toggle->second.tap()) {
      specialFeatureMasterChanged(*first, toggle->second.isOn());
    }
  } else if (event.name == "expand") {
    if (!expandedPurposeIds.erase(*first)) expandedPurposeIds.insert(*first);
  } else {
    return false;
  }
  return true;
}

std::string PurposeTabViewController::purposeBelow(const PurposeModel& purpose) const {
  const std::int64_t p = purpose.id();
  const std::string id = std::to_string(p);
  std::string out;
  const auto li = liToggles.find(p);
  if (li != liToggles.end()) {
    out +=
        "<div class=\"qlt-row\"><div class=\"qlt-row-text qlt-row-note\">Legitimate interest"
        "</div>";
    out += li->second.html("purpose-li-" + id, ScreenEvent::link("purpose-li", {p}),
                           "Legitimate interest: " + purpose.name());
    out += "</div>";
  }
  const auto consentVendors = vendorsForPurpose.find(p);
  const auto liVendors = liVendorsForPurpose.find(p);
  const std::size_t count =
      (consentVendors != vendorsForPurpose.end() ? consentVendors->second.size() : 0) +
      (liVendors != liVendorsForPurpose.end() ? liVendors->second.size() : 0);
  if (count == 0) return out;
  const bool expanded = expandedPurposeIds.contains(p);
  out += "<div class=\"qlt-row\"><a class=\"qlt-link\" id=\"expand-" + id +
         "\" role=\"button\" aria-expanded=\"" + (expanded ? "true" : "false") + "\" href=\"" +
         ScreenEvent::link("expand", {p}) + "\">" + (expanded ? "Hide vendors" : "Show vendors") +
         " (" + std::to_string(count) +
         ")<span class=\"qlt-sr\">: " + Html::escape(purpose.name()) + "</span></a></div>";
  if (!expanded) return out;
  out += "<div class=\"qlt-sub\">";
  const auto& pending = PendingConsentStore::shared();
  if (consentVendors != vendorsForPurpose.end() && !consentVendors->second.empty()) {
    const ConsentFlags flags = pending.vendorConsent();
    out += "<div class=\"qlt-row-note\">Consent vendors</div>";
    for (const auto& vendor : consentVendors->second) {
      const auto on = flags.find(vendor.id());
      const WebCMPStyleToggle toggle(on != flags.end() && on->second);
      out += vendorRow(vendor, toggle, "purpose-vendor-" + id + "-" + std::to_string(vendor.id()),
                       ScreenEvent::link("purpose-vendor", {p, vendor.id()}), "Consent");
    }
  }
  if (liVendors != liVendorsForPurpose.end() && !liVendors->second.empty()) {
    const NestedConsentFlags flags = pending.liPurposeConsent();
    out += "<div class=\"qlt-row-note\">Legitimate interest vendors</div>";
    for (const auto& vendor : liVendors->second) {
      bool on = false;
      if (const auto found = flags.find(vendor.id()); found != flags.end()) {
        const auto purposeOn = found->second.find(p);
        on = purposeOn != found->second.end() && purposeOn->second;
      }
      out += vendorRow(vendor, WebCMPStyleToggle(on),
                       "purpose-vendor-li-" + id + "-" + std::to_string(vendor.id()),
                       ScreenEvent::link("purpose-vendor-li", {p, vendor.id()}),
                       "Legitimate interest");
    }
  }
  out += "</div>";
  return out;
}

std::string PurposeTabViewController::html() const {
  std::string out = "<h2 id=\"essential-heading\">Essential</h2><div class=\"qlt-group\">";
  out += "<div class=\"qlt-row\"><div class=\"qlt-row-text\"><div class=\"qlt-row-title\">";
  out += kEssentialTitle;
  out += "</div><div class=\"qlt-row-note\">";
  out += kEssentialText;
  out += "</div></div>";
  out += essentialToggle_.html("essential", "", kEssentialTitle);
  out += "</div></div>";
  out += "<h2>Purposes</h2><div class=\"qlt-group\">";
  out += page_.html([this](const PurposeModel& purpose) { return purposeBelow(purpose); });
  out += "</div>";
  if (!specialFeatureToggles.empty()) {
    out += "<h2>Special Features (Master)</h2><div class=\"qlt-group\">";
    for (const auto& feature : specialFeatures) {
      const auto fid = featureId(feature);
      if (!fid) continue;
      const auto toggle = specialFeatureToggles.find(*fid);
      const std::string name(Json::string(Json::member(feature, "name")).value_or(""));
      out += "<div class=\"qlt-row\"><div class=\"qlt-row-text\"><div class=\"qlt-row-title\">";
      out += Html::escape(name);
      out += "</div>";
      if (const auto description = Json::string(Json::member(feature, "description"))) {
        out += "<div class=\"qlt-row-note\">" + Html::escape(*description) + "</div>";
      }
      out += "</div>";
      out += toggle->second.html("sf-master-" + std::to_string(*fid),
                                 ScreenEvent::link("sf-master", {*fid}), name);
      out += "</div>";
    }
    out += "</div>";
  }
  return out;
}

}  // namespace quillet
