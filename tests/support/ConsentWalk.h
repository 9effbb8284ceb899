#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"

#include "support/LogCapture.h"

namespace quillet::testing {

/// Empties every process-wide consent store, so that a test (or a fuzz input) starts from none.
inline void emptyConsentStores() {
  PurposeConsentStore::shared().replaceStates({});
  VendorConsentStore::shared().replaceStates({});
  SpecialFeatureConsentStore::shared().replaceMasterStates({});
  SpecialFeatureConsentStore::shared().replaceVendorStates({});
  PendingConsentStore::shared().reset({}, {}, {});
  PendingConsentStore::shared().setLiPurposeConsent({});
}

/// Records every consent notification on the default centre as "name key=value ...", in order.
class Announcements {
 public:
  Announcements() {
    auto& center = NotificationCenter::defaultCenter();
    for (const std::string_view name :
         {NotificationNames::purposeConsentChanged,
          NotificationNames::purposeLegitimateInterestChanged,
          NotificationNames::vendorConsentChanged, NotificationNames::specialFeatureMasterChanged,
          NotificationNames::specialFeatureVendorChanged}) {
      tokens_.push_back(center.addObserver(std::string(name), [this](const Notification& n) {
        std::string line = n.name;
        for (const auto& [key, value] : n.userInfo) {
          line +=
              " " + key + "=" +
              (std::holds_alternative<bool>(value) ? (std::get<bool>(value) ? "true" : "false")
                                                   : std::to_string(std::get<std::int64_t>(value)));
        }
        std::lock_guard lock(mutex_);
        lines_.push_back(line);
      }));
    }
  }
  std::vector<std::string> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::vector<NotificationCenter::Token> tokens_;
};

/// Narrates a walk through the consent stores, for comparison whole with a golden file: each
/// step's name, then the notifications and log lines it caused, then every observed value it
/// changed ("name: value"). The consent stores are always observed; `more` adds a caller's own.
/// Logging is on while the walk lives; with a `logTag`, only that component's lines are told.
class ConsentWalk {
 public:
  using Values = std::vector<std::pair<std::string, std::string>>;

  explicit ConsentWalk(std::function<Values()> more = {}, std::string logTag = {})
      : more_(std::move(more)), logTag_("[QLT-CMP:" + std::move(logTag)) {}

  void step(const std::string& name, const std::function<void()>& action) {
    transcript += name + "\n";
    action();
    for (const auto& line : announced_.take())
      transcript += "  ! " + line + "\n";
    for (const auto& line : log_.lines()) {
      if (line.find(logTag_) != std::string::npos) transcript += "  log " + line + "\n";
    }
    log_.clear();
    const auto& pending = PendingConsentStore::shared();
    const auto& features = SpecialFeatureConsentStore::shared();
    Values values = more_ ? more_() : Values{};
    values.insert(values.end(), {{"pending purposes", text(pending.purposeConsent())},
                                 {"pending vendors", text(pending.vendorConsent())},
                                 {"pending li", text(pending.liPurposeConsent())},
                                 {"pending masters", text(pending.specialFeatureMaster())},
                                 {"pending features", text(pending.specialFeatureConsent())},
                                 {"vendor store", text(VendorConsentStore::shared().states())},
                                 {"purpose store", text(PurposeConsentStore::shared().states())},
                                 {"feature masters", text(features.masterStates())},
                                 {"feature vendors", text(features.vendorStates())}});
    for (const auto& [key, value] : values) {
      if (std::exchange(seen_[key], value) != value)
        transcript.append("  ").append(key).append(": ").append(value).append("\n");
    }
  }

  /// "1+ 2-": each id, then + when on and - when off.
  static std::string text(const ConsentFlags& flags) {
    std::string out;
    for (const auto& [id, on] : flags)
      out += (out.empty() ? "" : " ") + std::to_string(id) + (on ? "+" : "-");
    return out;
  }
  static std::string text(const NestedConsentFlags& nested) {
    std::string out;
    for (const auto& [id, flags] : nested)
      out += std::to_string(id) + "{" + text(flags) + "} ";
    return out;
  }

  std::string transcript;

 private:
  std::function<Values()> more_;
  std::string logTag_;
  Announcements announced_;
  LogCapture log_;
  std::map<std::string, std::string> seen_;
};

}  // namespace quillet::testing
