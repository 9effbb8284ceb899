#include "quillet/ui/SecondLayerViewController.h"

#include <algorithm>
#include <map>

#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"
#include "quillet/state/ConsentCommit.h"
#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/VendorConsentStore.h"
#include "quillet/ui/Html.h"
#include "quillet/ui/PurposeDetailsViewController.h"
#include "quillet/ui/PurposeTabViewController.h"
#include "quillet/ui/VendorDetailsViewController.h"
#include "quillet/ui/VendorsPageViewController.h"

namespace quillet {

SecondLayerViewController::SecondLayerViewController(ScreenContent content)
    : content_(std::move(content)) {
  // Observers run on the posting thread; the screen is only touched on the main thread, where
  // it is also destroyed, so the weak flag tells whether it is still there.
  vendorObserver_ =
      std::make_shared<NotificationCenter::Token>(NotificationCenter::defaultCenter().addObserver(
          std::string(NotificationNames::vendorConsentChanged),
          [this, alive = std::weak_ptr<bool>(alive_)](const Notification&) {
            runOnMainThread([this, alive] {
              if (!alive.expired() && !handling_) scheduleRender();
            });
          }));
}

void SecondLayerViewController::scheduleRender() {
  if (renderScheduled_) return;
  renderScheduled_ = true;
  Platform::current().mainQueue->post([this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.expired()) return;
    renderScheduled_ = false;
    changed();
  });
}

SecondLayerViewController::~SecondLayerViewController() = default;

std::string SecondLayerViewController::title() const {
  return "Manage Preferences";
}

std::set<std::int64_t> SecondLayerViewController::purposeIds() const {
  const auto ids = content_.purposeIds();
  return {ids.begin(), ids.end()};
}

PurposeTabViewController& SecondLayerViewController::purposeVC() {
  if (!purposeVC_) {
    std::map<std::int64_t, std::vector<VendorModel>> consent;
    std::map<std::int64_t, std::vector<VendorModel>> li;
    for (const auto& purpose : content_.purposes) {
      for (const auto& vendor : content_.vendors) {
        const auto& declared = vendor.purposes();
        if (std::find(declared.begin(), declared.end(), purpose.id()) != declared.end()) {
          consent[purpose.id()].push_back(vendor);
        }
        const auto& legInt = vendor.legIntPurposes();
        if (std::find(legInt.begin(), legInt.end(), purpose.id()) != legInt.end()) {
          li[purpose.id()].push_back(vendor);
        }
      }
    }
    std::vector<boost::json::object> features;
    if (content_.gvl) {
      for (const auto* feature : VendorList::specialFeatures(*content_.gvl))
        features.push_back(*feature);
    }
    purposeVC_ = std::make_unique<PurposeTabViewController>(
        content_.purposes, std::move(features), std::move(consent), std::move(li), content_.config);
    purposeVC_->onChange = [this] { changed(); };
    purposeVC_->onImpact = [this] { playImpact(); };
    purposeVC_->onReadMore = [this](std::int64_t purposeId) {
      const auto purpose = std::find_if(content_.purposes.begin(), content_.purposes.end(),
                                        [&](const PurposeModel& p) { return p.id() == purposeId; });
      if (purpose == content_.purposes.end()) return;
      const auto consent = purposeVC_->vendorsForPurpose.find(purposeId);
      const auto li = purposeVC_->liVendorsForPurpose.find(purposeId);
      openDetails(std::make_shared<PurposeDetailsViewController>(
          *purpose,
          consent != purposeVC_->vendorsForPurpose.end() ? consent->second
                                                         : std::vector<VendorModel>{},
          li != purposeVC_->liVendorsForPurpose.end() ? li->second : std::vector<VendorModel>{},
          Html::accentColour(content_.config.brandColor())));
    };
  }
  return *purposeVC_;
}

VendorsPageViewController& SecondLayerViewController::vendorsVC() {
  if (!vendorsVC_) {
    vendorsVC_ = std::make_unique<VendorsPageViewController>(
        content_.vendors, content_.rawVendors, content_.gvl, content_.config,
        VendorConsentStore::shared(), purposeIds());
    // The page writes the vendor consent store; the pending store is what Save hands on.
    vendorsVC_->switchChanged = [this](std::int64_t vendorId, bool isOn) {
      PendingConsentStore::shared().setVendorConsent(vendorId, isOn);
      playImpact();
    };
    vendorsVC_->policyTapped = [this](std::size_t index) {
      if (index >= content_.rawVendors.size() || !content_.rawVendors[index]) return;
      openDetails(std::make_shared<VendorDetailsViewController>(
          *content_.rawVendors[index], content_.gvl, VendorConsentStore::shared(), purposeIds(),
          Html::accentColour(content_.config.brandColor())));
    };
  }
  return *vendorsVC_;
}

void SecondLayerViewController::openDetails(std::shared_ptr<Screen> details) {
  const std::weak_ptr<Screen> self = weak_from_this();
  details->onDismissed = [self] {
    const auto screen = self.lock();
    if (!screen) return;
    auto& secondLayer = static_cast<SecondLayerViewController&>(*screen);
    if (secondLayer.purposeVC_) secondLayer.purposeVC_->reload();
    secondLayer.changed();
  };
  present(std::move(details),
          Presentation{PresentationStyle::sheet, Transition::coverVertical, true});
}

void SecondLayerViewController::segmentChanged(std::int64_t index) {
  if (index < 0 || index > 1) return;
  selected_ = index;
  changed();
}

void SecondLayerViewController::acceptAllTapped() {
  ConsentCommit::acceptEverything(content_.purposeIds(), content_.vendorIds(),
                                  content_.specialFeatureKeys());
  ConsentCommit::commitPending();
  if (content_.handleConsentAction) content_.handleConsentAction(ConsentAction::acceptAll());
  close([this] {
    if (const auto d = delegate.lock()) d->didAcceptAll();
  });
}

void SecondLayerViewController::rejectAllTapped() {
  PendingConsentStore::shared().reset(content_.purposeIds(), content_.vendorIds(),
                                      content_.specialFeatureKeys());
  ConsentCommit::commitPending();
  if (content_.handleConsentAction) content_.handleConsentAction(ConsentAction::rejectAll());
  close({});
}

void SecondLayerViewController::saveTapped() {
  auto& pending = PendingConsentStore::shared();
  const auto purposes = idsOn(pending.purposeConsent());
  const auto vendors = idsOn(pending.vendorConsent());
  if (content_.handleConsentAction) {
    content_.handleConsentAction(ConsentAction::customize(purposes, vendors));
  }
  QltLog::d("PendingConsentStore", [&] {
    return "specialFeatureConsent changed: " + describe(pending.specialFeatureConsent());
  });
  ConsentCommit::commitPending();
  close([this, purposes, vendors] {
    if (const auto d = delegate.lock()) d->didSaveSelections(purposes, vendors);
  });
}

void SecondLayerViewController::close(std::function<void()> followUp) {
  const auto presenter = presentingScreen();
  const std::weak_ptr<Screen> self = weak_from_this();
  auto then = [self, followUp = std::move(followUp)] {
    if (self.lock() && followUp) followUp();
  };
  if (presenter) {
    presenter->setHidden(false);
    dismiss(*presenter, true, std::move(then));
  } else {
    dismiss(*this, true, std::move(then));
  }
}

void SecondLayerViewController::handleEvent(const ScreenEvent& event) {
  handling_ = true;
  dispatch(event);
  handling_ = false;
}

void SecondLayerViewController::dispatch(const ScreenEvent& event) {
  std::string focus = event.name;
  for (const auto id : event.ids)
    focus += "-" + std::to_string(id);
  if (event.name == "segment") {
    focusId_ = focus;
    if (const auto index = event.id(0)) segmentChanged(*index);
    return;
  }
  if (event.name == "save") return saveTapped();
  if (event.name == "accept-all") return acceptAllTapped();
  if (event.name == "reject-all") return rejectAllTapped();
  const bool handled = selected_ == 0 ? purposeVC().handle(event) : vendorsVC().handle(event);
  if (!handled) return;
  focusId_ = focus;
  changed();
}

std::string SecondLayerViewController::document() const {
  auto& self = const_cast<SecondLayerViewController&>(*this);  // pages are built on first use
  const std::string accent = Html::accentColour(content_.config.brandColor());
  std::string out = Html::documentStart("Manage Preferences", accent, focusId_);
  out +=
      "<header><h1>Manage Preferences</h1><div class=\"qlt-segments\" role=\"tablist\" "
      "aria-label=\"Sections\">";
  const std::string_view names[] = {"Purposes", "Vendors"};
  for (std::int64_t i = 0; i < 2; ++i) {
    const bool selected = selected_ == i;
    out += "<a id=\"segment-" + std::to_string(i) + "\" role=\"tab\" aria-selected=\"" +
           (selected ? "true" : "false") + "\" aria-controls=\"page\" href=\"" +
           ScreenEvent::link("segment", {i}) + "\"" + ">" + std::string(names[i]) + "</a>";
  }
  out += "</div></header><main id=\"page\" role=\"tabpanel\" aria-labelledby=\"segment-" +
         std::to_string(selected_) + "\">";
  out += selected_ == 0 ? self.purposeVC().html() : self.vendorsVC().html();
  out += "</main><footer>";
  out += Html::eventButton("save", ScreenEvent::link("save"), "Save");
  out += Html::eventButton("accept-all", ScreenEvent::link("accept-all"), "Accept All");
  out +=
      Html::eventButton("reject-all", ScreenEvent::link("reject-all"), "Reject All", "qlt-orange");
  out += "</footer>";
  out += Html::documentEnd();
  return out;
}

}  // namespace quillet
