#pragma once

// A platform for the screen tests: an in-memory store, a main queue the test pumps, a recording
// host and the real HTTP client; consent stores emptied; and a small vendor list to build
// screens from.

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/model/Json.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/ui/CMPBannerViewController.h"

#include "support/ConsentStores.h"
#include "support/RecordingScreenHost.h"
#include "support/ScreenData.h"

namespace quillet::testing {

/// Purposes 1, 2, 3, 7; special features 1 and 2; vendors 8 (consent 1, 2; LI 7), 10 (consent
/// 1, 3) and 755 (consent 1, 3; LI 2, 7; special feature 1; feature 1), then `stacks`.
inline std::string screenVendorList(const std::string& stacks = "{}",
                                    const std::string& disclosureUrl = "") {
  return R"({"vendorListVersion": 12,
  "purposes": {"1": {"id": 1, "name": "Store", "description": "Store and/or access"},
               "2": {"id": 2, "name": "Basic ads"}, "3": {"id": 3, "name": "Profiles"},
               "7": {"id": 7, "name": "Measure"}},
  "specialFeatures": {"1": {"id": 1, "name": "Geolocation"}, "2": {"id": 2, "name": "Scan"}},
  "features": {"1": {"id": 1, "name": "Match data"}},
  "stacks": )" +
         stacks + R"(,
  "vendors": {
    "8": {"id": 8, "name": "Eight", "purposes": [1, 2], "legIntPurposes": [7]},
    "10": {"id": 10, "name": "Ten", "purposes": [1, 3], "legIntPurposes": []},
    "755": {"id": 755, "name": "Google", "purposes": [1, 3], "legIntPurposes": [2, 7],
            "specialFeatures": [1], "features": [1], "usesCookies": true,
            "cookieMaxAgeSeconds": 34190000, "cookieRefresh": false,
            "deviceStorageDisclosureUrl": ")" +
         disclosureUrl + R"(",
            "urls": [{"privacy": "https://policies.google.com/privacy"}]}}})";
}

class ScreenFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    Platform::install({.keyValueStore = std::make_shared<MemoryKeyValueStore>(),
                       .httpClient = http_,
                       .mainQueue = main_,
                       .screenHost = host_});
    testing::emptyConsentStores();
  }
  void TearDown() override { Platform::install({}); }

  /// Screen content from a configuration and a vendor list; consent actions are recorded.
  ScreenContent content(BrandingConfig::Fields fields, const std::string& vendorList) {
    return screenContent(BrandingConfig(std::move(fields)), vendorList,
                         [this](const ConsentAction& action) { actions_.push_back(action); });
  }

  std::shared_ptr<CMPBannerViewController> makeBanner(BrandingConfig::Fields fields,
                                                      const std::string& stacks = "{}") {
    return std::make_shared<CMPBannerViewController>(
        content(std::move(fields), screenVendorList(stacks)),
        [this](ConsentAction action) { completions_.push_back(action); });
  }

  std::shared_ptr<RunLoop> main_ = std::make_shared<RunLoop>();
  std::shared_ptr<CurlHttpClient> http_ = std::make_shared<CurlHttpClient>();
  std::shared_ptr<RecordingScreenHost> host_ = std::make_shared<RecordingScreenHost>();
  std::vector<ConsentAction> actions_;      ///< handed to the facade's handler
  std::vector<ConsentAction> completions_;  ///< handed to the banner's completion
};

}  // namespace quillet::testing
