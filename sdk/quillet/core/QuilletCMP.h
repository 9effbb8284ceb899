#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/base/ConsentAction.h"
#include "quillet/base/Export.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/VendorModel.h"
#include "quillet/ui/ScreenContent.h"

namespace quillet {

namespace VendorList {
struct Facts;
}

/// The library's entry point. Install a `Platform` first, then call `initialize` once at start:
/// the facade posts an analytics session event, fetches the banner configuration and the vendor
/// list, and shows the first-layer banner through the platform's screen host unless a TC String
/// is stored. Consent actions store the TC String, mirror it into Google Consent Mode, post it
/// and bring the consent stores in line with it. Logs under the tag "QuilletCMP" (info).
///
/// Threads: every member may be called from any thread. Fetches complete on the HTTP client's
/// thread, which applies them; screens are presented on the main queue; consent actions run on
/// the caller's thread. `makeTCStringRejectAll` and `ensureConfigLoaded` block until a needed
/// fetch completes: never call them from an HTTP completion.
class QUILLET_EXPORT QuilletCMP : public std::enable_shared_from_this<QuilletCMP> {
 public:
  /// The one process-wide instance.
  static QuilletCMP& shared();
  /// A separate instance (tests); the consent stores and the remembered last post stay shared.
  static std::shared_ptr<QuilletCMP> create();

  /// Keeps `settingsId`, posts a session event, and unless a TC String is stored, presents the
  /// banner once the configuration is loaded. `completion` runs once: after the user's decision
  /// when a banner is shown, else when nothing more is pending.
  void initialize(std::string settingsId, std::function<void()> completion = {});
  /// The first-layer banner; with `force` and a stored TC String, the second layer instead.
  /// Without `force`, nothing is shown when a TC String is stored.
  void showBanner(bool force);

  void acceptAllSelections();
  void rejectAllSelections();
  void applyCustomSelections(std::vector<std::int64_t> purposes, std::vector<std::int64_t> vendors);
  /// A reject-all core segment ("EN", "AA"), without storing, posting or mirroring anything;
  /// nothing when no vendor list could be loaded.
  std::optional<std::string> makeTCStringRejectAll();
  /// Mirrors any TC String into Google Consent Mode through the platform's analytics registry.
  void updateGoogleConsentModeFromTCString(std::string_view tcString);

  /// The single place where a decision becomes a stored TC String; does nothing until the
  /// configuration and the vendor list are loaded.
  void handleConsentAction(const ConsentAction& action);
  /// Called with the stored TC String after every decision is stored and the consent stores
  /// follow it, on the thread that handled the decision, with no lock held: for the host to
  /// rewrite what it keeps of the consent, such as the in-app values (see inAppValues()).
  /// Replaces any earlier handler; an empty one removes it.
  void setConsentStoredHandler(std::function<void(const std::string& tcString)> handler);
  /// With `on`, the strings that consent actions create end in a disclosed vendors segment
  /// (TCF 2.3) listing the vendors the screens disclose: the configuration's selected vendors
  /// when it names them, else every vendor of the vendor list in use. Off by default.
  void setAppendsDisclosedVendorsSegment(bool on);
  /// True when the configuration and the vendor list are loaded, fetching and waiting first when
  /// a settings id is known.
  bool ensureConfigLoaded();
  /// The device's two-letter language, upper-cased; "EN" when the locale has none.
  std::string deviceLanguageCode() const;
  /// Rewrites the pending and toggle stores from the stored TC String.
  void syncStoresFromStoredTCString(const std::set<std::int64_t>& purposeIds,
                                    const std::set<std::int64_t>& vendorIds,
                                    const boost::json::object& gvl);

  std::optional<std::string> settingsId() const;
  std::optional<BrandingConfig> config() const;
  /// The vendor list in use, whole. A start that reads the list from the store shows its banner
  /// first and reads the whole list right after; until then, this and `rawVendors` wait for it
  /// (a few milliseconds), or read it themselves when asked first.
  std::shared_ptr<const boost::json::object> gvl() const;
  std::vector<PurposeModel> purposes() const;
  /// The vendor models, which a start makes right after posting its banner; until then, this
  /// waits for them, or makes them itself when asked first.
  std::vector<VendorModel> vendors() const;
  std::vector<std::shared_ptr<const boost::json::object>> rawVendors() const;
  bool isConfigLoaded() const;

 private:
  struct Snapshot;
  QuilletCMP() = default;

  Snapshot snapshot() const;
  void fetch(std::function<void()> continuation);
  // A start document comes with `wholeText`, the text its whole list reads from.
  void applyFetchedConfig(std::optional<BrandingConfig> config,
                          const std::shared_ptr<const boost::json::object>& gvl,
                          std::shared_ptr<const std::string> wholeText);
  // While `list` is still the one loaded, makes its vendor models and, when it is a start
  // document, replaces it with its whole list.
  void completeStart(std::shared_ptr<const boost::json::object>&& list);
  void presentBannerForStartup(std::function<void()> completion);
  // Presents the first-layer banner on the main queue; `onFinished` runs once the user decided.
  void presentBanner(std::function<void()> onFinished);
  ScreenContent screenContent(const Snapshot& snapshot);
  void openSecondLayer();

  // Rewrites the stores for ascending, unique ids, reading the vendor list through `facts`.
  void syncStores(std::span<const std::int64_t> purposeIds, std::span<const std::int64_t> vendorIds,
                  const VendorList::Facts& facts);

  mutable std::mutex mutex_;
  std::optional<std::string> settingsId_;
  // What a fetch applied, replaced whole and never changed: readers share it without copies.
  struct Loaded;
  std::shared_ptr<const Loaded> loaded_;
  std::function<void(const std::string&)> consentStored_;
  std::atomic<bool> appendsDisclosedVendors_{false};
};

}  // namespace quillet
