#pragma once

#include <string>

#include "quillet/base/Export.h"

namespace quillet {

/// Where the library's requests go.
struct QUILLET_EXPORT Endpoints {
  /// Base of the configuration CDN, ending in "/": configurations are at
  /// `<base><settings id>/banner_config.json`, the vendor list at `<base>gvl.json`.
  std::string cdnBaseUrl;
  /// Base of the consent API: posts go to `<base>/v1/consent` and `<base>/v1/analytics/events`.
  std::string consentApiBaseUrl;

  /// The addresses this build was configured with (CMake cache variables QUILLET_CDN_BASE_URL
  /// and QUILLET_CONSENT_API_BASE_URL).
  static Endpoints builtIn();

  bool operator==(const Endpoints&) const = default;
};

}  // namespace quillet
