#include "quillet/core/Platform.h"

#include <mutex>

#include "quillet/core/AnalyticsRegistry.h"
#include "quillet/core/Clock.h"
#include "quillet/core/Locale.h"
#include "quillet/core/MainQueue.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/ConsentStorage.h"

namespace quillet {
namespace {

struct Installed {
  std::mutex mutex;
  std::optional<Platform> platform;
};

Installed& installed() {
  static Installed* const instance = new Installed();
  return *instance;
}

// Fills the members that only this layer provides; the store and the HTTP client default inside
// their own layers, which keep a single process-wide default each.
Platform withDefaults(Platform platform) {
  if (!platform.mainQueue) platform.mainQueue = std::make_shared<RunLoop>();
  if (!platform.analytics) platform.analytics = std::make_shared<AnalyticsRegistry>();
  if (!platform.clock)
    platform.clock = std::shared_ptr<const Clock>(&systemClock(), [](const Clock*) {});
  if (!platform.locale) platform.locale = std::make_shared<SystemLocale>();
  return platform;
}

// Hands the parts that the storage and network layers keep to them.
void distribute(const Platform& platform) {
  ConsentStorage::setStore(platform.keyValueStore);
  QLTAPIServer::setEnvironment({.httpClient = platform.httpClient,
                                .endpoints = platform.endpoints,
                                .clock = platform.clock,
                                .makeUuid = platform.makeUuid});
}

}  // namespace

void Platform::install(Platform platform) {
  platform = withDefaults(std::move(platform));
  Installed& state = installed();
  std::lock_guard lock(state.mutex);
  distribute(platform);
  // The network layer owns the client from here. Copies handed out by `current()` must not: a
  // copy taken inside an HTTP completion could otherwise end up destroying the client on its
  // own thread once the host replaces the platform.
  platform.httpClient.reset();
  state.platform = std::move(platform);
}

Platform Platform::current() {
  Installed& state = installed();
  std::lock_guard lock(state.mutex);
  if (!state.platform) {
    state.platform = withDefaults({});
    distribute(*state.platform);
  }
  return *state.platform;
}

}  // namespace quillet
