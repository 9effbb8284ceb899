#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"

namespace quillet::testing {

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

}  // namespace quillet::testing
