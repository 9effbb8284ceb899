#include "quillet/ui/VendorDetailsViewController.h"

#include <algorithm>

#include "quillet/base/QltLog.h"
#include "quillet/model/Json.h"
#include "quillet/network/Url.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"
#include "quillet/ui/DeviceStorageDisclosureViewController.h"
#include "quillet/ui/Html.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "VendorDetailsVC";

std::string flag(bool on) {
  return on ? "true" : "false";
}

// The "name" of entry `id` of one of the vendor list's objects ("purposes", "features", ...).
std::optional<std::string> entryName(const boost::json::object* gvl, std::string_view member,
                                     std::int64_t id) {
  if (gvl == nullptr) return std::nullopt;
  const auto* entries = Json::object(Json::member(*gvl, member));
  if (entries == nullptr) return std::nullopt;
  const auto* entry = Json::object(Json::member(*entries, std::to_string(id)));
  if (entry == nullptr) return std::nullopt;
  const auto name = Json::string(Json::member(*entry, "name"));
  return name ? std::optional<std::string>(*name) : std::nullopt;
}

std::string row(std::string_view titleHtml, std::string_view rest = {}) {
  std::string out = "<div class=\"qlt-row\"><div class=\"qlt-row-text\">";
  out += titleHtml;
  out += "</div>";
  out += rest;
  out += "</div>";
  return out;
}

std::string yesNo(bool value) {
  return value ? "yes" : "no";
}

}  // namespace

VendorDetailsViewController::VendorDetailsViewController(
    boost::json::object vendor, std::shared_ptr<const boost::json::object> gvl,
    VendorConsentStore& consentStore, std::set<std::int64_t> allowedPurposeIds, std::string accent)
    : vendor(std::move(vendor)),
      gvl(std::move(gvl)),
      consentStore(consentStore),
      vendorId(Json::exactInteger(Json::member(this->vendor, "id")).value_or(0)),
      allowedPurposeIds(std::move(allowedPurposeIds)),
      accent_(std::move(accent)) {
  for (const auto p : Json::integerMembers(Json::member(this->vendor, "legIntPurposes"))) {
    if (this->allowedPurposeIds.contains(p) &&
        std::find(liPurposeIDs.begin(), liPurposeIDs.end(), p) == liPurposeIDs.end()) {
      liPurposeIDs.push_back(p);
    }
  }
  const auto li = PendingConsentStore::shared().liPurposeConsent();
  const auto mine = li.find(vendorId);
  for (const auto p : liPurposeIDs) {
    bool on = false;
    if (mine != li.end()) {
      const auto found = mine->second.find(p);
      on = found != mine->second.end() && found->second;
    }
    liPurposeStates[p] = on;
    liPurposeToggles[p].setOn(on);
    liPurposeToggles[p].onValueChanged = [this, p](bool isOn) { liPurposeChanged(p, isOn); };
    liMaster = liMaster || on;
  }
  liMasterSwitch.setOn(liMaster);
  liMasterSwitch.onValueChanged = [this](bool isOn) { liMasterChanged(isOn); };

  const auto consents = consentStore.states();
  const auto given = consents.find(vendorId);
  consentGiven = given != consents.end() && given->second;
  mainSwitch.setOn(consentGiven);
  mainSwitch.onValueChanged = [this](bool isOn) { mainConsentChanged(isOn); };

  for (const auto f : Json::integerMembers(Json::member(this->vendor, "specialFeatures"))) {
    const bool on = SpecialFeatureConsentStore::shared().vendorState(f, vendorId);
    specialFeaturesStates[f] = on;
    sfToggles[f].setOn(on);
    sfToggles[f].onValueChanged = [this, f](bool isOn) { specialFeatureChanged(f, isOn); };
  }
  const auto impact = [this] { playImpact(); };
  mainSwitch.onImpact = liMasterSwitch.onImpact = impact;
  for (auto& [id, toggle] : liPurposeToggles)
    toggle.onImpact = impact;
  for (auto& [id, toggle] : sfToggles)
    toggle.onImpact = impact;
  observe();
}

VendorDetailsViewController::~VendorDetailsViewController() = default;

std::string VendorDetailsViewController::name() const {
  return std::string(Json::string(Json::member(vendor, "name")).value_or("Vendor"));
}

std::string VendorDetailsViewController::title() const {
  return name();
}

std::string VendorDetailsViewController::purposeName(std::int64_t id) const {
  return entryName(gvl.get(), "purposes", id).value_or("Purpose " + std::to_string(id));
}

void VendorDetailsViewController::observe() {
  auto& center = NotificationCenter::defaultCenter();
  // Observers run on the posting thread; the switches change on the main thread only. The
  // screen lives in its host's stack, so a weak reference tells whether it is still there.
  featureObserver_ =
      center.addObserver(std::string(NotificationNames::specialFeatureVendorChanged),
                         [this](const Notification& note) {
                           const auto feature = note.integer("featureId");
                           const auto vendorOf = note.integer("vendorId");
                           const auto on = note.boolean("on");
                           if (!feature || !vendorOf || !on || *vendorOf != vendorId) return;
                           runOnMainThread([self = weak_from_this(), f = *feature, on = *on] {
                             const auto screen = self.lock();
                             if (!screen) return;
                             auto& details = static_cast<VendorDetailsViewController&>(*screen);
                             const auto toggle = details.sfToggles.find(f);
                             if (toggle == details.sfToggles.end() || toggle->second.isOn() == on)
                               return;
                             details.specialFeaturesStates[f] = on;
                             toggle->second.setOn(on, true);
                             details.changed();
                           });
                         });
  vendorObserver_ = center.addObserver(
      std::string(NotificationNames::vendorConsentChanged), [this](const Notification& note) {
        auto vendorOf = note.integer("id");
        if (!vendorOf) vendorOf = note.integer("vendorId");
        if (!vendorOf) {
          QltLog::w(kTag,
                    "vendorConsentChanged: notification received but could not resolve "
                    "vendorId");
          return;
        }
        const auto on = note.boolean("on");
        if (*vendorOf != vendorId || !on) return;
        runOnMainThread([self = weak_from_this(), on = *on] {
          const auto screen = self.lock();
          if (!screen) return;
          auto& details = static_cast<VendorDetailsViewController&>(*screen);
          if (details.mainSwitch.isOn() == on) return;
          details.consentGiven = on;
          details.mainSwitch.setOn(on, true);
          details.changed();
        });
      });
}

void VendorDetailsViewController::mainConsentChanged(bool isOn) {
  QltLog::d(kTag, [&] { return "mainConsentChanged user→ " + flag(isOn); });
  consentGiven = isOn;
  consentStore.setConsent(vendorId, isOn);
  PendingConsentStore::shared().setVendorConsent(vendorId, isOn);
}

void VendorDetailsViewController::specialFeatureChanged(std::int64_t featureId, bool isOn) {
  specialFeaturesStates[featureId] = isOn;
  PendingConsentStore::shared().setSpecialFeatureConsent(featureId, vendorId, isOn);
  SpecialFeatureConsentStore::shared().setVendor(featureId, vendorId, isOn);
}

void VendorDetailsViewController::syncLIPending() {
  ConsentFlags states(liPurposeStates.begin(), liPurposeStates.end());
  PendingConsentStore::shared().setLiPurposeConsent(vendorId, states);
  QltLog::d(kTag, [&] { return "syncLIPending – now: " + describe(states); });
}

void VendorDetailsViewController::liPurposeChanged(std::int64_t purposeId, bool isOn) {
  liPurposeStates[purposeId] = isOn;
  syncLIPending();
  const bool anyOn = std::any_of(liPurposeIDs.begin(), liPurposeIDs.end(),
                                 [&](std::int64_t p) { return liPurposeStates[p]; });
  if (anyOn != liMaster) {
    ignoreMasterLISync = true;
    liMaster = anyOn;
    liMasterSwitch.setOn(anyOn, true);
    liMasterChanged(anyOn);  // what the switch's value-changed event runs; ignored here
    ignoreMasterLISync = false;
  }
}

void VendorDetailsViewController::liMasterChanged(bool isOn) {
  if (ignoreMasterLISync) return;
  liMaster = isOn;
  for (const auto p : liPurposeIDs) {
    liPurposeStates[p] = isOn;
    liPurposeToggles[p].setOn(isOn, true);
  }
  syncLIPending();
}

void VendorDetailsViewController::showDisclosure() {
  const auto url = Json::string(Json::member(vendor, "deviceStorageDisclosureUrl"));
  boost::json::object purposes;
  if (gvl) {
    if (const auto* found = Json::object(Json::member(*gvl, "purposes"))) purposes = *found;
  }
  auto screen = std::make_shared<DeviceStorageDisclosureViewController>(
      name(), std::string(url.value_or("")), std::move(purposes), accent_);
  const std::weak_ptr<DeviceStorageDisclosureViewController> weak = screen;
  present(std::move(screen),
          Presentation{PresentationStyle::sheet, Transition::coverVertical, true}, [weak] {
            if (const auto disclosure = weak.lock()) disclosure->load();
          });
}

void VendorDetailsViewController::handleEvent(const ScreenEvent& event) {
  const auto first = event.id(0);
  if (event.name == "main-consent") {
    mainSwitch.tap();
    focusId_ = "main-consent";
  } else if (event.name == "li-master") {
    liMasterSwitch.tap();
    focusId_ = "li-master";
  } else if (event.name == "li" && first && liPurposeToggles.contains(*first)) {
    liPurposeToggles[*first].tap();
    focusId_ = "li-" + std::to_string(*first);
  } else if (event.name == "sf" && first && sfToggles.contains(*first)) {
    sfToggles[*first].tap();
    focusId_ = "sf-" + std::to_string(*first);
  } else if (event.name == "li-fold") {
    expandedLIs = !expandedLIs;
    focusId_ = "li-fold";
  } else if (event.name == "disclosure") {
    focusId_ = "disclosure";
    showDisclosure();
    return;
  } else if (event.name == "close") {
    dismiss(*this, true);
    return;
  } else {
    return;
  }
  changed();
}

std::string VendorDetailsViewController::document() const {
  const std::string vendorName = name();
  std::string out = Html::documentStart(vendorName, accent_, focusId_);
  out += Html::backHeader(ScreenEvent::link("close"), vendorName) + "<main>";

  out += "<div class=\"qlt-group\">";
  out += row(
      "<div class=\"qlt-row-title\">Consent</div>",
      mainSwitch.html("main-consent", ScreenEvent::link("main-consent"), "Consent: " + vendorName));
  std::optional<std::string_view> policy = Json::string(Json::member(vendor, "policyUrl"));
  if (const auto* urls = Json::array(Json::member(vendor, "urls")); !policy && urls) {
    for (const auto& entry : *urls) {
      if (const auto* object = entry.if_object()) {
        if ((policy = Json::string(Json::member(*object, "privacy")))) break;
      }
    }
  }
  if (policy && Html::isSafeLink(*policy)) {
    out += row("<a id=\"policy\" class=\"qlt-link\" href=\"" + Html::escape(*policy) +
               "\" target=\"_blank\" rel=\"noopener\">Privacy Policy</a>");
  }
  out += "</div>";

  if (!liPurposeIDs.empty()) {
    out += "<h2>Legitimate Interest Consent</h2><div class=\"qlt-group\">";
    out +=
        row("<div class=\"qlt-row-note\">Allow processing under legitimate interest for these "
            "purposes.</div>",
            liMasterSwitch.html("li-master", ScreenEvent::link("li-master"),
                                "Legitimate interest: " + vendorName));
    out +=
        row(std::string("<a id=\"li-fold\" class=\"qlt-link\" role=\"button\" aria-expanded=\"") +
            (expandedLIs ? "true" : "false") + "\" href=\"" + ScreenEvent::link("li-fold") + "\">" +
            (expandedLIs ? "Hide Legitimate Interests" : "Show Legitimate Interests") + "</a>");
    if (expandedLIs) {
      for (const auto p : liPurposeIDs) {
        const std::string purpose = purposeName(p);
        out +=
            row(Html::escape(purpose),
                liPurposeToggles.at(p).html("li-" + std::to_string(p), ScreenEvent::link("li", {p}),
                                            "Legitimate interest: " + purpose));
      }
    }
    out += "</div>";
  }

  const auto features = Json::integerMembers(Json::member(vendor, "features"));
  if (!sfToggles.empty() || !features.empty()) {
    out += "<h2>Special Features</h2><div class=\"qlt-group\">";
    for (const auto& [f, toggle] : sfToggles) {
      const std::string feature =
          entryName(gvl.get(), "specialFeatures", f).value_or("Feature " + std::to_string(f));
      out += row("<div class=\"qlt-row-note\">Special Feature" + std::string(Html::kNoBreakSpace) +
                     "</div><div class=\"qlt-row-title\">" + Html::escape(feature) + "</div>",
                 toggle.html("sf-" + std::to_string(f), ScreenEvent::link("sf", {f}), feature));
    }
    for (const auto f : features) {
      const std::string feature =
          entryName(gvl.get(), "features", f).value_or("Feature " + std::to_string(f));
      out += row("<div class=\"qlt-row-note\">Info" + std::string(Html::kNonBreakingHyphen) +
                 "only Feature" + std::string(Html::kNoBreakSpace) +
                 "</div><div class=\"qlt-row-title\">" + Html::escape(feature) + "</div>");
    }
    out += "</div>";
  }

  std::string storage;
  if (const auto cookies = Json::boolean(Json::member(vendor, "usesCookies"))) {
    storage += row("Uses cookies: " + yesNo(*cookies));
  }
  if (const auto age = Json::truncatedInteger(Json::member(vendor, "cookieMaxAgeSeconds"))) {
    storage += row("Cookie max age: " + DeviceStorageDisclosureTableViewController::maxAge(*age));
  }
  if (const auto refresh = Json::boolean(Json::member(vendor, "cookieRefresh"))) {
    storage += row("Cookie refresh: " + yesNo(*refresh));
  }
  if (const auto other = Json::boolean(Json::member(vendor, "usesNonCookieAccess"))) {
    storage += row("Uses other device storage: " + yesNo(*other));
  }
  if (!storage.empty())
    out += "<h2>Max Device Storage</h2><div class=\"qlt-group\">" + storage + "</div>";

  const auto disclosure = Json::string(Json::member(vendor, "deviceStorageDisclosureUrl"));
  if (disclosure && isValidHttpUrl(*disclosure)) {
    out += "<div class=\"qlt-group\">" +
           row("Device Storage Disclosure: <a id=\"disclosure\" class=\"qlt-link\" href=\"" +
               ScreenEvent::link("disclosure") + "\">See Details</a>") +
           "</div>";
  }
  out += "</main>";
  out += Html::documentEnd();
  return out;
}

}  // namespace quillet
