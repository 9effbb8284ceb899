#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"

#include "support/Announcements.h"
#include "support/RecordingLogSink.h"

namespace quillet::testing {

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
      if (std::exchange(seen_[key], value) != value) transcript += "  " + key + ": " + value + "\n";
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
