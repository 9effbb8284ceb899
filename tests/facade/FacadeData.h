#pragma once

// A vendor list small enough to reason about in the facade tests (testdata/small-gvl.json:
// vendors 8, 10, 755 and 900, purposes 1 to 3, 7, 10 and 11, special features 1 and 2), and a
// configuration that selects vendors 8, 10 and 755; and a TC String put on one line.

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/codec/TCString.h"

#include "support/TestData.h"

namespace quillet::testing {

inline const std::string& smallVendorList() {
  static const std::string text = testdataText("small-gvl.json");
  return text;
}

inline constexpr const char* kSmallConfig =
    R"({"vendorListVersion": 12, "selectedVendorIds": [8, 10, 755], "publisherCC": "de",
        "showRejectButton": true})";

/// A TC String read and put on one line: language, country, CMP id and version, screen,
/// service-specific, non-standard texts, purpose one treatment, list and policy version, created
/// and last updated (deciseconds), then purposes, their legitimate interests, special features,
/// vendors, the largest vendor id, vendor legitimate interests and, when present, the allowed
/// vendors and the disclosed vendors. A string that does not read gives "unreadable: " and why.
inline std::string brief(std::string_view text) {
  const auto tc = TCString::parse(text);
  if (!tc) return "unreadable: " + tc.error().message();
  std::ostringstream out;
  const auto list = [&out](const std::vector<std::int64_t>& ids) {
    out << " [";
    for (std::size_t i = 0; i < ids.size(); ++i)
      out << (i ? "," : "") << ids[i];
    out << "]";
  };
  out << tc->consentLanguage << " " << tc->publisherCountryCode << " " << tc->cmpId << "/"
      << tc->cmpVersion << " " << tc->consentScreen << " " << tc->isServiceSpecific
      << tc->useNonStandardTexts << tc->purposeOneTreatment << " " << tc->vendorListVersion << " "
      << tc->policyVersion << " " << tc->created << " " << tc->lastUpdated;
  list(tc->purposeConsents.ids());
  list(tc->purposeLegitimateInterests.ids());
  list(tc->specialFeatureOptins.ids());
  list(tc->vendorConsents.ids());
  out << " " << tc->vendorConsents.maxVendorId;
  list(tc->vendorLegitimateInterests.ids());
  if (tc->vendorsAllowed) list(tc->vendorsAllowed->ids());
  if (tc->vendorsDisclosed) {
    out << " disclosed";
    list(tc->vendorsDisclosed->ids());
  }
  return out.str();
}

}  // namespace quillet::testing
