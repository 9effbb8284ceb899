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

#include "support/ConsentWalk.h"
#include "support/RecordingScreenHost.h"
#include "support/ScreenData.h"
#include "support/TestData.h"

namespace quillet::testing {

/// testdata/screen-gvl.json: purposes 1, 2, 3, 7; special features 1 and 2; vendors 8 (consent
/// 1, 2; LI 7), 10 (consent 1, 3) and 755 (consent 1, 3; LI 2, 7; special feature 1; feature 1);
/// with `stacks` and 755's `disclosureUrl`.
inline std::string screenVendorList(const std::string& stacks = "{}",
                                    const std::string& disclosureUrl = "") {
  std::string list = testdataText("screen-gvl.json");
  list.replace(list.find("\"stacks\": {}"), 12, "\"stacks\": " + stacks);
  const std::string url = "\"deviceStorageDisclosureUrl\": \"";
  return list.insert(list.find(url) + url.size(), disclosureUrl);
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
