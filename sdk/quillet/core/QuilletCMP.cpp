#include "quillet/core/QuilletCMP.h"

#include <algorithm>
#include <future>
#include <mutex>
#include <thread>

#include "quillet/base/Fatal.h"
#include "quillet/base/IdList.h"
#include "quillet/base/Locale.h"
#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/core/ConsentDecision.h"
#include "quillet/core/GoogleConsentMode.h"
#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"
#include "quillet/model/VendorModelStart.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/network/QLTAPIServerStart.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/ui/CMPBannerViewController.h"
#include "quillet/ui/ScreenHost.h"
#include "quillet/ui/SecondLayerViewController.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "QuilletCMP";
using Ids = std::vector<std::int64_t>;

// The stored TC String when consent counts as stored (a non-empty text).
std::optional<std::string> storedConsent() {
  auto text = ConsentStorage::store()->readString(StorageKeys::tcString);
  if (!text || text->empty()) return std::nullopt;
  return text;
}

using IdList::contains;
using IdList::sortedUnique;

// Process-wide: the last consent event handed to the network, to skip exact repeats.
struct LastPosted {
  std::mutex mutex;
  std::optional<std::string> tcString;
  std::optional<std::string> eventType;
};

LastPosted& lastPosted() {
  static LastPosted* const instance = new LastPosted();
  return *instance;
}

using Document = std::shared_ptr<const boost::json::object>;

// The whole vendor list behind a start document, read from the text once by whichever thread asks
// first; the others wait for it. A text that gave a start document gives a whole one too.
class WholeList {
 public:
  explicit WholeList(std::shared_ptr<const std::string> text) : text_(std::move(text)) {}

  Document get() {
    std::call_once(read_, [this] {
      if (auto document = Json::parseDocument(*text_); document && document->is_object()) {
        gvl_ = std::make_shared<const boost::json::object>(std::move(document->get_object()));
      }
      text_.reset();
    });
    return gvl_;
  }

 private:
  std::once_flag read_;
  std::shared_ptr<const std::string> text_;
  Document gvl_;
};

}  // namespace

struct QuilletCMP::Loaded {
  explicit Loaded(BrandingConfig configuration) : config(std::move(configuration)) {}

  // The whole vendor list: `gvl`, unless `gvl` is a start document, whose whole list `whole` reads.
  Document wholeGvl() const { return whole ? whole->get() : gvl; }

  BrandingConfig config;
  Document gvl;
  std::shared_ptr<WholeList> whole;  // set while `gvl` is a start document
  std::shared_ptr<const VendorList::Facts> facts;  // never null
  SharedList<PurposeModel> purposes;
  SharedList<VendorModel> vendors;
  SharedList<std::shared_ptr<const boost::json::object>> rawVendors;
  // The ids of `purposes` and `vendors` in their order, and both ascending and unique.
  Ids purposeIds;
  Ids vendorIds;
  Ids sortedPurposeIds;
  Ids sortedVendorIds;
  // The vendors a decision covers: the configuration's selection when it names one, else
  // `vendorIds`; and the same ascending and unique.
  Ids decisionVendorIds;
  Ids sortedDecisionVendorIds;
};

struct QuilletCMP::Snapshot {
  std::optional<std::string> settingsId;
  std::shared_ptr<const Loaded> loaded;
};

QuilletCMP& QuilletCMP::shared() {
  static std::shared_ptr<QuilletCMP>* const instance = new std::shared_ptr<QuilletCMP>(create());
  return **instance;
}

std::shared_ptr<QuilletCMP> QuilletCMP::create() {
  return std::shared_ptr<QuilletCMP>(new QuilletCMP());
}

QuilletCMP::Snapshot QuilletCMP::snapshot() const {
  std::lock_guard lock(mutex_);
  return Snapshot{settingsId_, loaded_};
}

std::optional<std::string> QuilletCMP::settingsId() const {
  std::lock_guard lock(mutex_);
  return settingsId_;
}
std::optional<BrandingConfig> QuilletCMP::config() const {
  const auto loaded = snapshot().loaded;
  return loaded ? std::optional(loaded->config) : std::nullopt;
}
std::shared_ptr<const boost::json::object> QuilletCMP::gvl() const {
  const auto loaded = snapshot().loaded;
  return loaded ? loaded->wholeGvl() : nullptr;
}
std::vector<PurposeModel> QuilletCMP::purposes() const {
  const auto loaded = snapshot().loaded;
  return loaded ? loaded->purposes.get() : std::vector<PurposeModel>{};
}
std::vector<VendorModel> QuilletCMP::vendors() const {
  const auto loaded = snapshot().loaded;
  return loaded ? loaded->vendors.get() : std::vector<VendorModel>{};
}
std::vector<std::shared_ptr<const boost::json::object>> QuilletCMP::rawVendors() const {
  const auto loaded = snapshot().loaded;
  if (!loaded) return {};
  if (!loaded->whole) return loaded->rawVendors.get();
  const Document whole = loaded->wholeGvl();
  return whole ? VendorList::entriesOf(whole, loaded->vendorIds)
               : std::vector<std::shared_ptr<const boost::json::object>>{};
}
bool QuilletCMP::isConfigLoaded() const {
  std::lock_guard lock(mutex_);
  return loaded_ != nullptr;
}

void QuilletCMP::initialize(std::string settingsId, std::function<void()> completion) {
  std::function<void()> done = completion ? std::move(completion) : [] {};
  {
    std::lock_guard lock(mutex_);
    settingsId_ = settingsId;
  }
  QLTAPIServer::postAnalyticsSessionEvent(settingsId, std::nullopt);
  QltLog::i(kTag, [&] { return "Initializing with settingsId «" + settingsId + "»"; });
  if (const auto stored = storedConsent()) {
    QltLog::i(kTag, [&] { return "TCString already present → " + *stored; });
    if (isConfigLoaded()) {
      done();
    } else {
      fetch(std::move(done));
    }
    return;
  }
  if (isConfigLoaded()) {
    presentBannerForStartup(std::move(done));
    return;
  }
  fetch([self = weak_from_this(), done]() mutable {
    if (const auto facade = self.lock()) {
      facade->presentBannerForStartup(std::move(done));
    } else {
      done();
    }
  });
}

void QuilletCMP::fetch(std::function<void()> continuation) {
  const auto id = settingsId();
  if (!id) {
    continuation();
    return;
  }
  QLTAPIServer::fetchBannerConfigAndMaybeStartGVL(
      *id, [self = weak_from_this(), continuation = std::move(continuation)](
               std::optional<BrandingConfig> config, QLTAPIServer::StartList list) {
        const auto facade = self.lock();
        if (facade) facade->applyFetchedConfig(std::move(config), list.list, list.text);
        continuation();
        // The banner is on its way; what it does not read is made now. On one core, the main
        // thread that the banner was posted to goes first.
        if (facade) {
          std::this_thread::yield();
          list.text.reset();
          facade->completeStart(std::move(list.list));
        }
      });
}

void QuilletCMP::completeStart(std::shared_ptr<const boost::json::object>&& list) {
  // When the start's own reference is the last one, the list goes here, after the banner.
  const std::shared_ptr<const boost::json::object> held = std::move(list);
  const auto current = snapshot().loaded;
  if (!current || current->gvl != held) return;
  current->vendors.get();  // the vendor models
  // What reads more of a start document than the banner gets the whole list.
  if (!current->whole) return;
  const Document whole = current->whole->get();
  if (!whole) return;
  auto next = std::make_shared<Loaded>(*current);
  next->gvl = whole;
  next->whole = nullptr;
  next->rawVendors = VendorList::entriesOf(whole, current->vendorIds);
  std::lock_guard lock(mutex_);
  if (loaded_ == current) loaded_ = std::move(next);
}

void QuilletCMP::applyFetchedConfig(std::optional<BrandingConfig> config,
                                    const std::shared_ptr<const boost::json::object>& gvl,
                                    std::shared_ptr<const std::string> wholeText) {
  if (!config || !gvl) return;
  std::shared_ptr<const VendorList::Facts> facts = VendorList::sharedFacts(gvl);
  if (facts->largestVendorId() > QLTCMPUtils::kLargestVendorId) {
    // No string can record a choice on this list as it is made: the facade keeps what it had.
    QltLog::e(kTag, [&] {
      return "Vendor list not applied: vendor id " + std::to_string(facts->largestVendorId()) +
             " is above " + std::to_string(QLTCMPUtils::kLargestVendorId) +
             ", the largest a TC String can name";
    });
    return;
  }
  std::vector<PurposeModel> purposes = PurposeModel::parse(*gvl);
  // The models' ids now; the models themselves when first read, which the start's banner does not.
  VendorModels::Outline vendors = VendorModels::outline(*gvl, config->selectedVendorIds());

  // Parsing keeps only the vendors the configuration selects, or all of them when it names none;
  // an empty selection selects none.
  const auto& selection = config->selectedVendorIds();
  const bool selectsNone = selection && selection->empty();
  if (selectsNone) vendors = {};
  std::erase_if(purposes, [&](const PurposeModel& purpose) {
    return !contains(vendors.declaredPurposes, purpose.id());
  });

  auto loaded = std::make_shared<Loaded>(std::move(*config));
  loaded->vendorIds = std::move(vendors.ids);
  loaded->rawVendors = VendorList::entriesOf(gvl, loaded->vendorIds);
  if (!selectsNone) {
    loaded->vendors = SharedList<VendorModel>::deferred(
        loaded->vendorIds.size(),
        [gvl, selection = loaded->config.selectedVendorIds()] {
          return VendorModels::models(*gvl, selection);
        });
  }
  for (const auto& purpose : purposes)
    loaded->purposeIds.push_back(purpose.id());
  loaded->sortedPurposeIds = sortedUnique(loaded->purposeIds);
  loaded->sortedVendorIds = sortedUnique(loaded->vendorIds);
  const auto& selected = loaded->config.selectedVendorIds();
  loaded->decisionVendorIds = selected ? *selected : loaded->vendorIds;
  loaded->sortedDecisionVendorIds = sortedUnique(loaded->decisionVendorIds);
  loaded->purposes = std::move(purposes);
  loaded->gvl = gvl;
  if (wholeText) loaded->whole = std::make_shared<WholeList>(std::move(wholeText));
  loaded->facts = std::move(facts);
  {
    std::lock_guard lock(mutex_);
    loaded_ = loaded;
  }

  const auto stored = storedConsent();
  if (!stored) {
    // Legitimate interest starts switched on for every purpose a vendor declares it for.
    NestedConsentFlags legIntOn;
    legIntOn.reserve(loaded->sortedVendorIds.size());
    for (const auto vendorId : loaded->sortedVendorIds) {
      const auto legInt = loaded->facts->declared(vendorId, VendorList::Facts::List::legIntPurposes);
      if (!legInt) continue;
      ConsentFlags on;
      on.reserve(legInt->size());
      for (const auto purpose : *legInt) {
        if (!on.emplace(purpose, true).second) {
          fatalError("Duplicate values for key: '" + std::to_string(purpose) + "'");
        }
      }
      legIntOn.emplace_hint(legIntOn.end(), vendorId, std::move(on));
    }
    PendingConsentStore::shared().replaceLiPurposeConsent(std::move(legIntOn));
  }
  syncStores(loaded->sortedPurposeIds, loaded->sortedVendorIds, *loaded->facts);
  if (stored) updateGoogleConsentModeFromTCString(*stored);
}

void QuilletCMP::presentBannerForStartup(std::function<void()> completion) {
  const auto host = Platform::current().screenHost;
  if (!host || !host->canPresent() || !isConfigLoaded()) {
    completion();
    return;
  }
  presentBanner(std::move(completion));
}

ScreenContent QuilletCMP::screenContent(const Snapshot& snapshot) {
  const Loaded& loaded = *snapshot.loaded;
  ScreenContent content{loaded.config,
                        loaded.purposes,
                        loaded.vendors,
                        loaded.rawVendors,
                        loaded.gvl,
                        std::nullopt,
                        [self = weak_from_this()](const ConsentAction& action) {
                          if (const auto facade = self.lock()) facade->handleConsentAction(action);
                        },
                        nullptr};
  if (loaded.whole) content.wholeGvl = [whole = loaded.whole] { return whole->get(); };
  return content;
}

void QuilletCMP::presentBanner(std::function<void()> onFinished) {
  const Platform platform = Platform::current();
  platform.mainQueue->post([self = weak_from_this(), host = platform.screenHost,
                            onFinished = std::move(onFinished)]() mutable {
    const auto facade = self.lock();
    if (!facade || !host || !host->canPresent()) return;
    const Snapshot s = facade->snapshot();
    if (!s.loaded) return;
    auto banner = std::make_shared<CMPBannerViewController>(facade->screenContent(s),
                                                            [self](const ConsentAction& action) {
                                                              if (const auto f = self.lock())
                                                                f->handleConsentAction(action);
                                                            });
    banner->onFinished = std::move(onFinished);
    host->present(std::move(banner),
                  Presentation{PresentationStyle::fullScreen, Transition::crossDissolve, true});
  });
}

void QuilletCMP::openSecondLayer() {
  const auto host = Platform::current().screenHost;
  if (!host || !host->canPresent()) return;
  const Snapshot s = snapshot();
  if (!s.loaded) return;
  syncStores(s.loaded->sortedPurposeIds, s.loaded->sortedVendorIds, *s.loaded->facts);
  host->present(std::make_shared<SecondLayerViewController>(screenContent(s).withWholeList()),
                Presentation{PresentationStyle::fullScreen, Transition::coverVertical, true});
}

void QuilletCMP::showBanner(bool force) {
  SpecialFeatureConsentStore::shared().loadPersisted();
  const bool stored = storedConsent().has_value();
  if (!force && stored) {
    QltLog::i(kTag, "banner suppressed – consent already stored");
    return;
  }
  const auto queue = Platform::current().mainQueue;
  const auto screen = [self = weak_from_this(), secondLayer = force && stored] {
    const auto facade = self.lock();
    if (!facade) return;
    if (secondLayer) {
      facade->openSecondLayer();
    } else {
      facade->presentBanner({});
    }
  };
  const auto onMain = [queue, screen] {
    if (queue->isMainThread()) {
      screen();
    } else {
      queue->post(screen);
    }
  };
  if (!isConfigLoaded() && settingsId()) {
    fetch(onMain);
  } else {
    onMain();
  }
}

bool QuilletCMP::ensureConfigLoaded() {
  if (isConfigLoaded()) return true;
  auto loaded = std::make_shared<std::promise<void>>();
  auto future = loaded->get_future();
  if (settingsId()) {
    fetch([loaded] { loaded->set_value(); });
  } else {
    loaded->set_value();
  }
  future.wait();
  return isConfigLoaded();
}

std::string QuilletCMP::deviceLanguageCode() const {
  auto code = Platform::current().locale->languageCode();
  // A code that is not made of letters is no language code; the encoder could not write it.
  if (!code || code->empty() || !QLTCMPUtils::isEncodableCode(*code)) code = "en";
  return Text::uppercased(Text::prefixCharacters(*code, 2));
}

void QuilletCMP::acceptAllSelections() {
  handleConsentAction(ConsentAction::acceptAll());
}

void QuilletCMP::rejectAllSelections() {
  handleConsentAction(ConsentAction::rejectAll());
}

void QuilletCMP::applyCustomSelections(std::vector<std::int64_t> purposes,
                                       std::vector<std::int64_t> vendors) {
  handleConsentAction(ConsentAction::customize(std::move(purposes), std::move(vendors)));
}

void QuilletCMP::updateGoogleConsentModeFromTCString(std::string_view tcString) {
  GoogleConsentMode::update(tcString, *Platform::current().analytics);
}

void QuilletCMP::handleConsentAction(const ConsentAction& action) {
  const Snapshot s = snapshot();
  if (!s.loaded) return;
  const Loaded& loaded = *s.loaded;
  const bool custom = action.kind() == ConsentAction::Kind::customize;
  const NestedConsentFlags legitimateInterests =
      custom ? PendingConsentStore::shared().liPurposeConsent() : NestedConsentFlags{};
  const ConsentFlags specialFeatureMasters =
      custom ? SpecialFeatureConsentStore::shared().masterStates() : ConsentFlags{};
  const ConsentDecision::Decision decision =
      ConsentDecision::decide(action, {.facts = *loaded.facts,
                                       .purposeIds = loaded.purposeIds,
                                       .vendorIds = loaded.decisionVendorIds,
                                       .publisherCC = loaded.config.publisherCC(),
                                       .consentLanguage = deviceLanguageCode(),
                                       .legitimateInterests = legitimateInterests,
                                       .specialFeatureMasters = specialFeatureMasters,
                                       .now = Platform::current().clock->now()});
  std::string tcString = decision.tcString;
  if (appendsDisclosedVendors_.load()) {
    tcString += '.';
    // the vendors the screens list
    tcString += QLTCMPUtils::encodeDisclosedVendors(loaded.decisionVendorIds);
  }

  const auto store = ConsentStorage::store();
  store->set(StorageKeys::consent, decision.consent);
  store->set(StorageKeys::tcString, tcString);
  store->synchronize();
  QltLog::i(kTag, [&] {
    return std::string("Saved consent = ") + (decision.consent ? "YES" : "NO") + "\n" + tcString;
  });
  QltLog::i(kTag, [&] {
    return "[GoogleConsentMode] DEBUG: purposeConsents in AcceptAll = " +
           Text::printedList(decision.choices.purposeConsents);
  });
  updateGoogleConsentModeFromTCString(tcString);

  bool duplicate = false;
  {
    LastPosted& last = lastPosted();
    std::lock_guard lock(last.mutex);
    duplicate = last.tcString == tcString && last.eventType == decision.eventType;
    if (!duplicate && s.settingsId) {
      last.tcString = tcString;
      last.eventType = std::string(decision.eventType);
    }
  }
  if (duplicate) {
    QltLog::i(kTag, "Skipping duplicate consent event (TCString/eventType unchanged)");
  } else if (s.settingsId) {
    QLTAPIServer::postConsent(tcString, *s.settingsId, decision.eventType, std::nullopt);
  }

  syncStores(loaded.sortedPurposeIds, loaded.sortedDecisionVendorIds, *loaded.facts);
  std::function<void(const std::string&)> stored;
  {
    std::lock_guard lock(mutex_);
    stored = consentStored_;
  }
  if (stored) stored(tcString);
}

void QuilletCMP::setAppendsDisclosedVendorsSegment(bool on) {
  appendsDisclosedVendors_.store(on);
}

void QuilletCMP::setConsentStoredHandler(std::function<void(const std::string&)> handler) {
  std::lock_guard lock(mutex_);
  consentStored_ = std::move(handler);
}

void QuilletCMP::syncStoresFromStoredTCString(const std::set<std::int64_t>& purposeIds,
                                              const std::set<std::int64_t>& vendorIds,
                                              const boost::json::object& gvl) {
  const auto loaded = snapshot().loaded;
  const Ids purposes(purposeIds.begin(), purposeIds.end());
  const Ids vendors(vendorIds.begin(), vendorIds.end());
  if (loaded && loaded->gvl.get() == &gvl) {
    syncStores(purposes, vendors, *loaded->facts);
  } else {
    syncStores(purposes, vendors, VendorList::facts(gvl));
  }
}

void QuilletCMP::syncStores(std::span<const std::int64_t> purposeIds,
                            std::span<const std::int64_t> vendorIds,
                            const VendorList::Facts& facts) {
  const auto stored = storedConsent();
  if (!stored) return;
  const auto contents = ConsentDecision::storeContents(*stored, purposeIds, vendorIds, facts);
  if (!contents) return;

  PendingConsentStore& pending = PendingConsentStore::shared();
  pending.mergePurposeConsent(contents->purposes);
  PurposeConsentStore::shared().replaceStates(contents->purposes);
  pending.mergeVendorConsent(contents->vendors);
  VendorConsentStore::shared().replaceStates(contents->vendors);
  pending.mergeLiPurposeConsent(contents->legitimateInterests);
  // Each master first, with its cascade; then the pending store takes the vendors' states.
  SpecialFeatureConsentStore& specialFeatures = SpecialFeatureConsentStore::shared();
  for (const auto& [feature, isOn] : contents->specialFeatureMasters) {
    pending.setSpecialFeatureMaster(feature, isOn);
    specialFeatures.resynchronise(feature, isOn, vendorIds);
  }
}

std::optional<std::string> QuilletCMP::makeTCStringRejectAll() {
  if (!ensureConfigLoaded()) return std::nullopt;
  const auto loaded = snapshot().loaded;
  if (!loaded) return std::nullopt;
  const VendorList::Facts* const facts = loaded->facts.get();
  return QLTCMPUtils::encodeTCString(
      QLTCMPUtils::TCStringInput{
          .gvlVendorIds = facts->vendorIds,
          .cmpId = 471,
          .cmpVersion = 1,
          .consentScreen = 0,
          .consentLanguage = "EN",
          .vendorListVersion = facts->vendorListVersion,
          .policyVersion = facts->policyVersion,
          .isServiceSpecific = true,
          .useNonStandardStacks = false,
          .purposeOneTreatment = false,
          .publisherCC = "AA",
      },
      *Platform::current().clock);
}

}  // namespace quillet
