#pragma once

// A vendor list small enough to reason about in the facade tests (testdata/small-gvl.json:
// vendors 8, 10, 755 and 900, purposes 1 to 3, 7, 10 and 11, special features 1 and 2), and a
// configuration that selects vendors 8, 10 and 755.

#include "support/TestData.h"

namespace quillet::testing {

inline const std::string& smallVendorList() {
  static const std::string text = testdataText("small-gvl.json");
  return text;
}

inline constexpr const char* kSmallConfig =
    R"({"vendorListVersion": 12, "selectedVendorIds": [8, 10, 755], "publisherCC": "de",
        "showRejectButton": true})";

}  // namespace quillet::testing
