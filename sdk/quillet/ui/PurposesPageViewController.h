#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/model/BrandingConfig.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/ui/Screen.h"
#include "quillet/ui/WebCMPStyleToggle.h"

namespace quillet {

/// The list of purposes inside the purposes tab: one "PurposeCell" row per purpose with its name,
/// the hint "Tap to read more" and a consent switch. The switches belong to the owner, which
/// hands them in and outlives this page.
class PurposesPageViewController {
 public:
  static constexpr std::string_view kCellIdentifier = "PurposeCell";

  PurposesPageViewController(std::vector<PurposeModel> purposes, BrandingConfig brandingConfig,
                             std::map<std::int64_t, WebCMPStyleToggle>& toggles);

  /// One purpose's row; `below` is written inside the row's cell, under the row itself.
  std::string row(const PurposeModel& purpose, std::string_view below) const;
  /// Every row, each with what `below` gives for it.
  std::string html(const std::function<std::string(const PurposeModel&)>& below) const;
  /// "purpose-consent/<id>" taps the purpose's switch; "read-more/<id>" asks to read more.
  /// Returns whether the event was one of these.
  bool handle(const ScreenEvent& event);

  std::vector<PurposeModel> purposes;
  BrandingConfig brandingConfig;
  /// After a tap, with the switch's new state.
  std::function<void(std::int64_t, bool)> switchChanged;
  std::function<void(std::int64_t)> readMore;

 private:
  std::map<std::int64_t, WebCMPStyleToggle>& toggles_;
};

}  // namespace quillet
