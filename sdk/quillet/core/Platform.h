#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "quillet/core/Export.h"
#include "quillet/network/Endpoints.h"

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
  /// Default: the SQLite store at its default path.
  std::shared_ptr<KeyValueStore> keyValueStore;
  /// Default: a CurlHttpClient.
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

  /// Installs `platform`, filling in the defaults, and hands the store, the HTTP client, the
  /// endpoints, the clock and the UUID source to the storage and network layers.
  static void install(Platform platform);
  /// The installed platform (installs the defaults on first use). The HTTP client is always
  /// empty here, and the key-value store when defaulted: their layers hold them
  /// (`QLTAPIServer::httpClient()`, `ConsentStorage::store()`).
  static Platform current();
};

}  // namespace quillet
