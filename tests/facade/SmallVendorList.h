#pragma once

// A vendor list small enough to reason about in the facade tests, and a configuration for it.

namespace quillet::testing {

inline constexpr const char* kSmallVendorList = R"({
  "vendorListVersion": 12, "tcfPolicyVersion": 4,
  "purposes": {"1": {"id": 1, "name": "Store"}, "2": {"id": 2, "name": "Basic ads"},
               "3": {"id": 3, "name": "Profiles"}, "7": {"id": 7, "name": "Measure"},
               "10": {"id": 10, "name": "Develop"}, "11": {"id": 11, "name": "Undeclared"}},
  "specialFeatures": {"1": {"id": 1, "name": "Geolocation"}, "2": {"id": 2, "name": "Scan"}},
  "vendors": {
    "8": {"id": 8, "name": "Eight", "purposes": [1, 2], "legIntPurposes": [7]},
    "10": {"id": 10, "name": "Ten", "purposes": [1, 3], "legIntPurposes": []},
    "755": {"id": 755, "name": "Google", "purposes": [1, 3, 4], "legIntPurposes": [2, 7, 10],
            "urls": [{"privacy": "https://policies.google.com/privacy"}]},
    "900": {"id": 900, "name": "Not selected", "purposes": [5], "legIntPurposes": [11]}}})";

inline constexpr const char* kSmallConfig =
    R"({"vendorListVersion": 12, "selectedVendorIds": [8, 10, 755], "publisherCC": "de",
        "showRejectButton": true})";

}  // namespace quillet::testing
