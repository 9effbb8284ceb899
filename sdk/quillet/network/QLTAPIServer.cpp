#include "quillet/network/QLTAPIServer.h"

#include <chrono>
#include <mutex>

#include <boost/json/serialize.hpp>

#include "quillet/base/Clock.h"
#include "quillet/base/Endpoints.h"
#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Uuid.h"
#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/QLTAPIServerStart.h"
#include "quillet/network/Url.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/ConsentStorageStart.h"
#include "quillet/storage/StorageKeys.h"

namespace quillet::QLTAPIServer {
namespace {

constexpr std::string_view kTag = "QLTAPIServer";

// What one operation needs, taken under the lock so that an operation runs on one environment.
// Completions keep only a weak reference to the client: a completion that owned its client could
// end up destroying it on the client's own thread.
struct Services {
  std::weak_ptr<HttpClient> http;
  Endpoints endpoints;
  std::shared_ptr<const Clock> clock;
  std::function<std::string()> makeUuid;
};

// Process-wide state. Never destroyed: completions may still arrive while the process exits.
struct State {
  std::mutex mutex;
  std::shared_ptr<HttpClient> defaultHttp;
  VendorList cachedGVL;
  std::optional<BrandingConfig> cachedConfig;
};

State& state() {
  static State* const instance = new State();
  return *instance;
}

Services services() {
  Platform platform = Platform::current();
  Services out;
  out.http = Platform::installedHttpClient();
  if (out.http.expired()) {
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.defaultHttp) s.defaultHttp = std::make_shared<CurlHttpClient>();
    out.http = s.defaultHttp;
  }
  out.endpoints = platform.endpoints.value_or(Endpoints::builtIn());
  out.clock = std::move(platform.clock);
  out.makeUuid = std::move(platform.makeUuid);
  return out;
}

void setCachedGVL(VendorList gvl) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.cachedGVL = std::move(gvl);
}

std::string_view textOf(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The vendor list stored under qlt_gvl_json, when its bytes form a JSON object.
VendorList storedGVL() {
  auto stored = ConsentStorage::loadGVL();
  return stored ? std::make_shared<const boost::json::object>(std::move(*stored)) : nullptr;
}

// Sends through the operation's client; when that client is gone the request fails at once as
// cancelled.
void send(const Services& services, HttpRequest request, HttpCompletion completion) {
  const std::shared_ptr<HttpClient> http = services.http.lock();
  if (!http) {
    if (completion) {
      completion(std::nullopt, std::nullopt,
                 HttpError{HttpErrorCode::cancelled, "the HTTP client is gone"});
    }
    return;
  }
  http->send(std::move(request), std::move(completion));
}

// GETs `url`; completes with the body when the transfer produced one, whatever the status.
void get(const Services& services, const std::string& url,
         std::function<void(std::optional<Bytes>, std::optional<HttpError>)> completion) {
  send(services, HttpRequest{.method = "GET", .url = url},
       [completion = std::move(completion)](
           std::optional<Bytes> data, const std::optional<HttpResponse>& /*response*/,
           std::optional<HttpError> error) { completion(std::move(data), std::move(error)); });
}

std::optional<BrandingConfig> configFrom(const std::optional<Bytes>& data) {
  if (!data) return std::nullopt;
  const auto document = Json::parse(textOf(*data));
  if (!document || !document->is_object()) return std::nullopt;
  return BrandingConfig::init(document->get_object());
}

// Downloads the configuration; an invalid address completes at once with nothing.
void downloadConfig(const Services& services, std::string_view settingsId,
                    std::function<void(std::optional<BrandingConfig>, bool urlValid)> completion) {
  std::string url = services.endpoints.cdnBaseUrl;
  url.append(settingsId).append("/banner_config.json");
  if (!isValidHttpUrl(url)) {
    completion(std::nullopt, false);
    return;
  }
  get(services, url,
      [completion = std::move(completion)](const std::optional<Bytes>& data,
                                           const std::optional<HttpError>& /*error*/) {
        completion(configFrom(data), true);
      });
}

// Downloads the vendor list (the steps shared by fetchGVL and the combined operation). Besides the
// list, the completion gets the downloaded bytes when the list is the whole document: they are
// JSON that parses to exactly this object, so the combined operation can store them instead of
// serialising the object again.
void downloadGVL(const Services& services,
                 std::function<void(VendorList, std::optional<Bytes> wholeDocument)> completion) {
  QltLog::d(kTag, "fetchGVL - starting network request");
  const std::string url = services.endpoints.cdnBaseUrl + "gvl.json";
  if (!isValidHttpUrl(url)) {
    QltLog::e(kTag, "Invalid GVL URL");
    completion(nullptr, std::nullopt);
    return;
  }
  get(services, url,
      [completion = std::move(completion)](std::optional<Bytes> data,
                                           std::optional<HttpError> error) {
        if (error) QltLog::e(kTag, "GVL network error: " + error->description);
        auto document = data ? Json::parseDocument(textOf(*data)) : std::nullopt;
        if (!document || !document->is_object()) {
          QltLog::e(kTag, "Failed to fetch or parse GVL JSON");
          completion(nullptr, std::nullopt);
          return;
        }
        boost::json::object& root = document->get_object();
        VendorList gvl;
        if (boost::json::value* nested = root.if_contains("gvl");
            nested != nullptr && nested->is_object()) {
          QltLog::d(kTag, "Found nested GVL root");
          gvl = std::make_shared<const boost::json::object>(std::move(nested->get_object()));
          data.reset();
        } else {
          QltLog::d(kTag, "Parsed GVL JSON successfully");
          gvl = std::make_shared<const boost::json::object>(std::move(root));
        }
        // What is left of the document lets go of its storage before the list is shared, so that
        // the list's last owner frees that storage whole, on one thread.
        document.reset();
        setCachedGVL(gvl);
        completion(std::move(gvl), std::move(data));
      });
}

using ListCompletion = std::function<void(std::optional<BrandingConfig>, StartList)>;
using EarlyList = std::shared_ptr<ConsentStorage::EarlyStartGVL>;

// The stored vendor list: whole, or for a start as its start document with its text, which the
// start may have begun to read early.
StartList storedList(bool forStart, const EarlyList& early = nullptr) {
  if (!forStart) return StartList{storedGVL(), nullptr};
  auto stored = early ? early->take() : ConsentStorage::loadStartGVL();
  if (!stored) return {};
  return StartList{std::make_shared<const boost::json::object>(std::move(stored->document)),
                   std::move(stored->text)};
}

// Completes with the cached vendor list: the in-memory one, else `stored` when the caller has
// already read the stored one, else the stored one read now. Never downloads.
void completeWithFallback(const BrandingConfig& config, StartList stored, bool forStart,
                          const ListCompletion& completion) {
  StartList list{cachedGVL(), nullptr};
  if (!list.list) list = stored.list ? std::move(stored) : storedList(forStart);
  QltLog::d(kTag, std::string("Using cached GVL: ") + (list.list ? "yes" : "no"));
  completion(config, std::move(list));
}

void decideAboutGVL(const Services& services, BrandingConfig config, bool forStart, EarlyList early,
                    ListCompletion completion) {
  const auto store = ConsentStorage::store();
  const std::int64_t local = store->readInteger(StorageKeys::vendorListVersion);
  const std::int64_t remote = config.vendorListVersion().value_or(0);
  // The stored list only matters when the versions match, or for the log line; parsing it is
  // the costly part of this step, so it is skipped when neither needs it. With a list in memory,
  // which the fallback takes first, the stored one is only checked, not built; and not read
  // at all when the store tells that it is unchanged since it was last found.
  StartList stored;
  bool hasLocal = false;
  if (local == remote || QltLog::enabled()) {
    if (cachedGVL()) {
      hasLocal = ConsentStorage::hasGVL();
    } else {
      stored = storedList(forStart, early);
      hasLocal = stored.list != nullptr;
    }
  }
  early.reset();  // an early read that is not taken stops here
  QltLog::d(kTag, [&] {
    return "config fetched. localVendorListVersion=" + std::to_string(local) +
           ", remoteVendorListVersion=" + std::to_string(remote) +
           ", hasLocalGVL=" + (hasLocal ? "true" : "false");
  });
  if (hasLocal && local == remote) {
    QltLog::d(kTag, "GVL already cached, will use local");
    completeWithFallback(config, std::move(stored), forStart, completion);
    return;
  }
  QltLog::d(kTag, "Will fetch GVL (mustFetchGVL=true)");
  downloadGVL(services,
              [config = std::move(config), remote, forStart, completion = std::move(completion)](
                  VendorList gvl, std::optional<Bytes> wholeDocument) {
                if (!gvl) {
                  QltLog::e(kTag, "GVL fetch failed, using fallback");
                  completeWithFallback(config, {}, forStart, completion);
                  return;
                }
                QltLog::d(kTag, "GVL fetched from CDN");
                const auto store = ConsentStorage::store();
                if (wholeDocument) {
                  store->set(StorageKeys::gvlJson, std::move(*wholeDocument));
                  store->synchronize();
                } else {
                  ConsentStorage::saveGVL(*gvl);  // serialises, stores and synchronises; skips what
                                                  // JSON cannot represent
                }
                store->set(StorageKeys::vendorListVersion, remote);
                store->synchronize();
                setCachedGVL(gvl);
                completion(config, StartList{std::move(gvl), nullptr});
              });
}

void fetchConfigAndList(std::string_view settingsId, bool forStart, ListCompletion completion) {
  QltLog::d(kTag, [&] {
    return "fetchBannerConfigAndMaybeGVL - starting for " + std::string(settingsId);
  });
  const Services current = services();
  // A start reads the stored list while the configuration downloads, for the likely case that
  // the configuration then asks for the stored version.
  EarlyList early =
      forStart && !cachedGVL() ? std::make_shared<ConsentStorage::EarlyStartGVL>() : nullptr;
  downloadConfig(current, settingsId,
                 [current, forStart, early = std::move(early), completion = std::move(completion)](
                     std::optional<BrandingConfig> config, bool) mutable {
                   if (!config) {
                     early.reset();
                     QltLog::e(kTag, "fetchBrandingConfig failed");
                     completion(std::nullopt, {});
                     return;
                   }
                   decideAboutGVL(current, std::move(*config), forStart, std::move(early),
                                  std::move(completion));
                 });
}

HttpRequest jsonPost(std::string url, const boost::json::object& body) {
  return HttpRequest{.method = "POST",
                     .url = std::move(url),
                     .headers = {{"Content-Type", "application/json"}},
                     .body = boost::json::serialize(body),
                     .timeout = std::chrono::seconds(60)};
}

std::string deviceIdWith(const Services& services) {
  const auto store = ConsentStorage::store();
  if (auto stored = store->readString(StorageKeys::deviceId)) return std::move(*stored);
  std::string fresh = services.makeUuid ? services.makeUuid() : randomUuid();
  store->set(StorageKeys::deviceId, fresh);
  return fresh;
}

}  // namespace

std::shared_ptr<HttpClient> httpClient() {
  return services().http.lock();
}

void fetchBannerConfigAndMaybeGVL(
    std::string_view settingsId,
    std::function<void(std::optional<BrandingConfig>, VendorList)> completion) {
  fetchConfigAndList(
      settingsId, false,
      [completion = std::move(completion)](std::optional<BrandingConfig> config, StartList list) {
        completion(std::move(config), std::move(list.list));
      });
}

void fetchBannerConfigAndMaybeStartGVL(
    std::string_view settingsId,
    std::function<void(std::optional<BrandingConfig>, StartList)> completion) {
  fetchConfigAndList(settingsId, true, std::move(completion));
}

void fetchBrandingConfig(std::string_view settingsId,
                         std::function<void(std::optional<BrandingConfig>)> completion) {
  downloadConfig(
      services(), settingsId,
      [completion = std::move(completion)](std::optional<BrandingConfig> config, bool urlValid) {
        if (!urlValid) {
          QltLog::e(kTag, "fetchBrandingConfig failed");
        } else if (config) {
          State& s = state();
          std::lock_guard lock(s.mutex);
          s.cachedConfig = config;
        }
        completion(std::move(config));
      });
}

void fetchGVL(std::function<void(VendorList)> completion) {
  downloadGVL(services(), [completion = std::move(completion)](
                              VendorList gvl, const std::optional<Bytes>& /*data*/) {
    completion(std::move(gvl));
  });
}

void initializeCache() {
  if (cachedGVL()) return;
  VendorList stored = storedGVL();
  if (!stored) return;
  // A start that uses this list finds its facts read.
  quillet::VendorList::sharedFacts(stored);
  State& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.cachedGVL) s.cachedGVL = std::move(stored);
}

void clearCache() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.cachedGVL = nullptr;
  s.cachedConfig.reset();
}

VendorList cachedGVL() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.cachedGVL;
}

std::optional<BrandingConfig> cachedConfig() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.cachedConfig;
}

std::string deviceId() {
  return deviceIdWith(services());
}

void postAnalyticsSessionEvent(std::string_view settingsId, std::optional<std::string> deviceId) {
  const Services current = services();
  std::string url = current.endpoints.consentApiBaseUrl + "/v1/analytics/events";
  if (!isValidHttpUrl(url)) return;
  const auto now = current.clock ? current.clock->now() : systemClock().now();
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  const boost::json::object body{
      {"app_id", settingsId},
      {"uuid", deviceId ? std::move(*deviceId) : deviceIdWith(current)},
      {"platform", "ios"},
      {"ts", milliseconds},
  };
  send(current, jsonPost(std::move(url), body),
       [](const std::optional<Bytes>& /*data*/, const std::optional<HttpResponse>& response,
          const std::optional<HttpError>& error) {
         if (error) {
           QltLog::e(kTag, "postAnalyticsSessionEvent failed: " + error->description);
         } else if (response) {
           QltLog::d(kTag, [&] {
             return "postAnalyticsSessionEvent → HTTP " + std::to_string(response->status);
           });
         }
       });
}

void postConsent(std::string_view tcString, std::string_view settingsId, std::string_view eventType,
                 std::optional<std::string> deviceId) {
  const Services current = services();
  std::string url = current.endpoints.consentApiBaseUrl + "/v1/consent";
  if (!isValidHttpUrl(url)) return;
  const boost::json::object body{
      {"tcString", tcString},
      {"settingsId", settingsId},
      {"eventType", eventType},
      {"source", "ios"},
      {"deviceId", deviceId ? std::move(*deviceId) : deviceIdWith(current)},
  };
  // The outcome of a consent post is deliberately ignored.
  send(current, jsonPost(std::move(url), body), nullptr);
}

}  // namespace quillet::QLTAPIServer
