#include "quillet/base/Platform.h"

#include <mutex>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/base/Clock.h"
#include "quillet/base/Locale.h"
#include "quillet/base/MainQueue.h"

namespace quillet {
namespace {

// Process-wide and never destroyed: HTTP completions and main-queue tasks may read it while the
// process exits.
struct Installed {
  std::mutex mutex;
  std::optional<Platform> platform;
  std::uint64_t generation = 0;
};

Installed& installed() {
  static Installed* const instance = new Installed();
  return *instance;
}

Platform withDefaults(Platform platform) {
  if (!platform.mainQueue) platform.mainQueue = std::make_shared<RunLoop>();
  if (!platform.analytics) platform.analytics = std::make_shared<AnalyticsRegistry>();
  if (!platform.clock)
    platform.clock = std::shared_ptr<const Clock>(&systemClock(), [](const Clock*) {});
  if (!platform.locale) platform.locale = std::make_shared<SystemLocale>();
  return platform;
}

}  // namespace

void Platform::install(Platform platform) {
  std::optional<Platform> replaced = withDefaults(std::move(platform));
  Installed& state = installed();
  {
    std::lock_guard lock(state.mutex);
    state.platform.swap(replaced);
    ++state.generation;
  }
  // The replaced members go here, outside the lock: destroying an HTTP client waits for its
  // worker, whose completions may read the platform.
}

Platform Platform::current() {
  Installed& state = installed();
  std::lock_guard lock(state.mutex);
  if (!state.platform) state.platform = withDefaults({});
  Platform copy = *state.platform;
  copy.httpClient.reset();
  return copy;
}

std::shared_ptr<KeyValueStore> Platform::installedKeyValueStore() {
  Installed& state = installed();
  std::lock_guard lock(state.mutex);
  return state.platform ? state.platform->keyValueStore : nullptr;
}

std::weak_ptr<HttpClient> Platform::installedHttpClient() {
  Installed& state = installed();
  std::lock_guard lock(state.mutex);
  if (!state.platform) return {};
  return state.platform->httpClient;
}

std::uint64_t Platform::generation() {
  Installed& state = installed();
  std::lock_guard lock(state.mutex);
  return state.generation;
}

}  // namespace quillet
