#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/json/object.hpp>

#include "quillet/base/Export.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/network/HttpClient.h"

/// The library's network client: the banner configuration and vendor list downloads with their
/// caches, and the consent and analytics posts.
///
/// Nothing here blocks the caller. Completions run on the HTTP client's background thread (an
/// address that is not a valid URL completes at once, on the caller's thread). Logs under the tag
/// "QLTAPIServer". Keys are read and written in the ConsentStorage store. No request is ever
/// retried. Every operation may be called from any thread.
namespace quillet::QLTAPIServer {

/// A parsed vendor list document, shared rather than copied; null means none.
using VendorList = std::shared_ptr<const boost::json::object>;

/// The client requests go through: the installed platform's, or the process-wide default
/// CurlHttpClient. Requests use the platform's endpoints, clock and UUID source as they are when
/// the request is made.
QUILLET_EXPORT std::shared_ptr<HttpClient> httpClient();

/// Downloads the configuration for `settingsId`, then either uses the cached vendor list (when
/// one is stored and its stored version equals the configuration's `vendorListVersion`) or
/// downloads the vendor list and stores it with that version, falling back to the cache when the
/// download fails. Completes with the configuration (absent when it could not be read, and then
/// without a vendor list) and the vendor list (absent when there is none at all).
QUILLET_EXPORT void fetchBannerConfigAndMaybeGVL(
    std::string_view settingsId,
    std::function<void(std::optional<BrandingConfig>, VendorList)> completion);

/// Downloads and parses the configuration, keeps it as the cached configuration, completes with it.
/// Any response body that is a JSON object is used, whatever the HTTP status.
QUILLET_EXPORT void fetchBrandingConfig(
    std::string_view settingsId, std::function<void(std::optional<BrandingConfig>)> completion);

/// Downloads the vendor list (its "gvl" member when that is an object, else the whole document),
/// keeps it as the cached vendor list and completes with it; stores nothing persistently.
QUILLET_EXPORT void fetchGVL(std::function<void(VendorList)> completion);

/// Fills the in-memory vendor list from the stored one when it is empty, and reads what every start
/// reads of it, so that a start that uses it does less.
QUILLET_EXPORT void initializeCache();
/// Empties the in-memory vendor list and configuration; the store is not touched.
QUILLET_EXPORT void clearCache();
QUILLET_EXPORT VendorList cachedGVL();
QUILLET_EXPORT std::optional<BrandingConfig> cachedConfig();

/// Posts an analytics session event (app_id, uuid, platform "ios", ts in milliseconds) and logs
/// the outcome: the HTTP status at debug level, a transport error at error level.
QUILLET_EXPORT void postAnalyticsSessionEvent(std::string_view settingsId,
                                              std::optional<std::string> deviceId);

/// Posts a consent event (tcString, settingsId, eventType, source "ios", deviceId) and ignores
/// the outcome entirely.
QUILLET_EXPORT void postConsent(std::string_view tcString, std::string_view settingsId,
                                std::string_view eventType, std::optional<std::string> deviceId);

/// The installation's device id: the stored one, or a new random UUID that is stored (without
/// synchronising) and kept from then on.
QUILLET_EXPORT std::string deviceId();

}  // namespace quillet::QLTAPIServer
