#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/value.hpp>

#include "quillet/base/Export.h"
#include "quillet/base/Result.h"

namespace quillet {

/// A vendor's device storage disclosure document (the JSON a vendor publishes at its
/// "deviceStorageDisclosureUrl"), decoded strictly: one entry or domain that fails to decode
/// fails the whole document, and the error names the key and the problem.
struct QUILLET_EXPORT DeviceStorageDisclosure {
  /// One stored item: a cookie or another kind of device storage.
  struct Entry {
    std::string identifier;
    std::string type;  ///< as the vendor writes it: "cookie", "web", "app", ...
    std::int64_t maxAgeSeconds = 0;
    bool cookieRefresh = false;
    /// "domains" when it is an array of strings (even empty), else "domain" as a one-element
    /// list, else empty: a malformed "domains" or "domain" never fails the entry.
    std::vector<std::string> domains;
    std::vector<std::int64_t> purposes;

    bool operator==(const Entry&) const = default;
  };

  /// One domain the vendor's storage is used on.
  struct Domain {
    std::string domain;
    std::optional<std::string> use;

    bool operator==(const Domain&) const = default;
  };

  std::optional<std::vector<Entry>> disclosures;  ///< absent when missing or null
  std::optional<std::vector<Domain>> domains;     ///< absent when missing or null

  /// Keyed decoding of a parsed document.
  static Result<DeviceStorageDisclosure> fromJson(const boost::json::value& json);
  /// Parses and decodes the document's text; text that is not JSON is an error too.
  static Result<DeviceStorageDisclosure> decode(std::string_view text);

  bool operator==(const DeviceStorageDisclosure&) const = default;
};

}  // namespace quillet
