#pragma once

#include <string_view>

namespace quillet::webhost {

/// The `__tcfapi` script a page loads first (served at /tcfapi.js), reading the consent from the
/// host (GET /tcfapi/state) and following its changes (/events).
extern const std::string_view kTcfApiScript;
/// A reference ad slot (served at /ad-slot): a frame that reads the consent only through the
/// postMessage proxy and shows what it got.
extern const std::string_view kAdSlotPage;

}  // namespace quillet::webhost
