#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "quillet/core/AnalyticsRegistry.h"
#include "quillet/ui/ScreenHost.h"

namespace quillet::testing {

/// A screen host that records what it is asked to present, and can answer for the user.
class RecordingScreenHost final : public ScreenHost {
 public:
  struct Presented {
    bool secondLayer = false;
    ScreenContent content;
    std::thread::id thread;
  };

  bool canPresent() const override { return available.load(); }
  void presentBanner(ScreenContent content) override { record(false, std::move(content)); }
  void presentSecondLayer(ScreenContent content) override { record(true, std::move(content)); }

  std::vector<Presented> presented() const {
    std::lock_guard lock(mutex_);
    return presented_;
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return presented_.size();
  }
  /// Decides on the most recent screen, as the user would.
  void decide(const ConsentAction& action) {
    std::function<void(ConsentAction)> outcome;
    {
      std::lock_guard lock(mutex_);
      outcome = presented_.back().content.onOutcome;
    }
    outcome(action);
  }

  std::atomic<bool> available{true};
  /// When set, every banner is answered with it at once.
  std::optional<ConsentAction> answer;

 private:
  void record(bool secondLayer, ScreenContent content) {
    {
      std::lock_guard lock(mutex_);
      presented_.push_back(Presented{secondLayer, content, std::this_thread::get_id()});
    }
    if (answer && !secondLayer) content.onOutcome(*answer);
  }

  mutable std::mutex mutex_;
  std::vector<Presented> presented_;
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
