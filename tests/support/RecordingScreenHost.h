#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/ui/CMPBannerViewController.h"
#include "quillet/ui/ScreenHost.h"
#include "quillet/ui/SecondLayerViewController.h"

namespace quillet::testing {

/// A screen host that records what it is asked to present, and can answer for the user.
class RecordingScreenHost final : public ScreenHost {
 public:
  struct Presented {
    bool secondLayer = false;
    ScreenContent content;  ///< of a banner or a second layer
    std::thread::id thread;
    std::shared_ptr<Screen> screen;
    Presentation presentation;
  };

  bool canPresent() const override { return available.load(); }
  void openUrl(const std::string& url) override {
    std::lock_guard lock(mutex_);
    opened_.push_back(url);
  }
  void playImpact() override { ++impacts; }

  std::vector<Presented> presented() const {
    std::lock_guard lock(mutex_);
    return presented_;
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return presented_.size();
  }
  /// Each update as its kind, the screen's title and "animated" for an animated transition.
  std::vector<std::string> updates() const {
    std::lock_guard lock(mutex_);
    return updates_;
  }
  std::vector<std::string> opened() const {
    std::lock_guard lock(mutex_);
    return opened_;
  }
  /// Decides on the top screen as the user would: the banner's buttons, or the second layer's.
  void decide(const ConsentAction& action) {
    const auto top = topScreen();
    if (!top) return;
    if (const auto banner = std::dynamic_pointer_cast<CMPBannerViewController>(top)) {
      banner->perform(action.kind() == ConsentAction::Kind::rejectAll ? "onRejectAll"
                                                                      : "onAcceptAll");
    } else {
      top->decidePolicy({action.kind() == ConsentAction::Kind::rejectAll   ? "quillet://reject-all"
                         : action.kind() == ConsentAction::Kind::acceptAll ? "quillet://accept-all"
                                                                           : "quillet://save",
                         true});
    }
  }
  /// Follows a link in the top screen's document; what the navigation delegate answered.
  NavigationPolicy follow(const std::string& url) { return topScreen()->decidePolicy({url, true}); }

  std::atomic<bool> available{true};
  std::atomic<int> impacts{0};
  /// When set, every banner is answered with it at once.
  std::optional<ConsentAction> answer;

 protected:
  void update(const Update& update) override {
    {
      std::lock_guard lock(mutex_);
      static constexpr const char* kKinds[] = {"presented", "dismissed", "changed"};
      updates_.push_back(
          std::string(kKinds[static_cast<int>(update.kind)]) + " " + update.screen->title() +
          (update.kind != Update::Kind::changed && update.presentation.animated ? " animated"
                                                                                : ""));
    }
    if (update.kind != Update::Kind::presented) return;
    const auto screen = topScreen();
    Presented record{
        false, {BrandingConfig({})}, std::this_thread::get_id(), screen, update.presentation};
    const auto banner = std::dynamic_pointer_cast<CMPBannerViewController>(screen);
    if (banner) record.content = banner->content();
    if (const auto second = std::dynamic_pointer_cast<SecondLayerViewController>(screen)) {
      record.secondLayer = true;
      record.content = second->content();
    }
    {
      std::lock_guard lock(mutex_);
      presented_.push_back(record);
    }
    if (answer && banner) decide(*answer);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Presented> presented_;
  std::vector<std::string> updates_;
  std::vector<std::string> opened_;
};

/// An analytics library stand-in that keeps every set of signals it is given.
class RecordingAnalytics final : public ConsentSignalReceiver {
 public:
  void setConsent(const std::map<std::string, std::string>& signals) override {
    std::lock_guard lock(mutex_);
    calls_.push_back(signals);
  }
  std::vector<std::map<std::string, std::string>> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::map<std::string, std::string>> calls_;
};

}  // namespace quillet::testing
