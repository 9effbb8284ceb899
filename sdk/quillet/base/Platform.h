#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "quillet/base/Endpoints.h"
#include "quillet/base/Export.h"

namespace quillet {

class AnalyticsRegistry;
class Clock;
class HttpClient;
class KeyValueStore;
class Locale;
class MainQueue;
class ScreenHost;

/// Everything the library takes from the platform it runs on. The host installs one value once,
/// before `QuilletCMP::initialize`; members it leaves empty take the defaults.
struct QUILLET_EXPORT Platform {
  /// Default: the SQLite store at its default path, opened on first use.
  std::shared_ptr<KeyValueStore> keyValueStore;
  /// Default: one process-wide CurlHttpClient.
  std::shared_ptr<HttpClient> httpClient;
  /// Default: the built-in endpoints.
  std::optional<Endpoints> endpoints;
  /// Default: a RunLoop whose main thread is the thread that installs the platform (or first
  /// asks for it); the host must pump it.
  std::shared_ptr<MainQueue> mainQueue;
  /// Default: none, so no screen is shown.
  std::shared_ptr<ScreenHost> screenHost;
  /// Default: an empty registry (the analytics library is "not available").
  std::shared_ptr<AnalyticsRegistry> analytics;
  /// Default: the system clock.
  std::shared_ptr<const Clock> clock;
  /// Default: the process locale (LC_ALL, LC_MESSAGES, LANG).
  std::shared_ptr<const Locale> locale;
  /// Default: random version-4 UUIDs.
  std::function<std::string()> makeUuid;

  /// Installs `platform` for every later use, filling in the main queue, analytics registry,
  /// clock and locale defaults. The store and the HTTP client stay empty when the host leaves
  /// them so: the storage and network layers open their own defaults when they find none.
  static void install(Platform platform);
  /// The installed platform (installs the defaults on first use). The HTTP client is always
  /// empty here, so that no copy handed out can end up destroying the client on its own thread:
  /// read it through `installedHttpClient()`.
  static Platform current();
  /// The store the host installed; null when it left the member empty.
  static std::shared_ptr<KeyValueStore> installedKeyValueStore();
  /// The HTTP client the host installed, held weakly; empty when it left the member empty.
  static std::weak_ptr<HttpClient> installedHttpClient();
  /// Counts installs: a layer that keeps a default of its own drops it when this changes.
  static std::uint64_t generation();
};

}  // namespace quillet
