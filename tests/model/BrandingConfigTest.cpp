#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/model/BrandingConfig.h"

#include "support/TestData.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using testing::jsonObject;

BrandingConfig read(const std::string& text) {
  return BrandingConfig::init(jsonObject(text)).value();
}

// Each field from its own key, strings never converted, wrong kinds dropped.
TEST(BrandingConfig, ReadsEveryFieldFromItsOwnKeyAndDropsWrongKinds) {
  const std::pair<const char*, BrandingConfig::Fields> rows[] = {
      {"{}", {}},
      {R"({"showRejectButton": "true", "showCustomizeButton": 1, "vendorListVersion": "3",
           "configVersion": true, "logoUrl": 5, "bannerText": null, "publisherCC": ["DE"]})",
       {}},
      {R"({"logoUrl": "https://p.example/logo.png", "brandColor": "#0a7",
           "privacyUrl": "https://p.example/privacy", "layout": "bottom", "bannerText": "We care",
           "showRejectButton": true, "showCustomizeButton": true, "acceptButtonText": "OK",
           "rejectButtonText": "No", "manageButtonText": "Manage",
           "customizeLinkId": "qlt-customize", "selectedVendorIds": [755, 1],
           "selectedPurposesIds": [1, 2], "vendorListVersion": 106, "configVersion": 7,
           "publisherCC": "de", "unknown": 1})",
       {"https://p.example/logo.png", "#0a7", "https://p.example/privacy", "bottom", "We care",
        true, true, "OK", "No", "Manage", "qlt-customize", std::vector<std::int64_t>{755, 1},
        std::vector<std::int64_t>{1, 2}, 106, 7, "DE"}},
  };
  for (const auto& [json, fields] : rows)
    EXPECT_TRUE(read(json).fields() == fields) << json;
  const BrandingConfig config = read("{}");
  EXPECT_FALSE(config.showRejectButton() || config.showCustomizeButton());
  EXPECT_EQ(config.selectedVendorIds(), std::nullopt);
}

TEST(BrandingConfig, IdListsKeepOrderDuplicatesAndTheAbsentEmptyDifference) {
  EXPECT_EQ(read(R"({"selectedVendorIds": []})").selectedVendorIds(), std::vector<std::int64_t>{});
  EXPECT_EQ(read(R"({"selectedVendorIds": null})").selectedVendorIds(), std::nullopt);
  EXPECT_EQ(read(R"({"selectedVendorIds": "1,2"})").selectedVendorIds(), std::nullopt);
  EXPECT_EQ(read(R"({"selectedVendorIds": 4})").selectedVendorIds(), std::nullopt);
  EXPECT_THAT(read(R"({"selectedVendorIds": [5, 5, 1]})").selectedVendorIds().value(),
              ElementsAre(5, 5, 1));
  EXPECT_THAT(
      read(R"({"selectedPurposesIds": [1, "2", 3.7, null, 4]})").selectedPurposesIds().value(),
      ElementsAre(1, 3, 4));
  EXPECT_THAT(
      read(R"({"selectedVendorIds": [true, false, -2.5, {}, []]})").selectedVendorIds().value(),
      ElementsAre(1, 0, -2));
  EXPECT_EQ(read(R"({"selectedPurposesIds": ["a", null]})").selectedPurposesIds(),
            std::vector<std::int64_t>{});
}

TEST(BrandingConfig, VersionsTruncateAnyNumber) {
  EXPECT_EQ(read(R"({"vendorListVersion": 3.0})").vendorListVersion(), 3);
  EXPECT_EQ(read(R"({"vendorListVersion": 3.9})").vendorListVersion(), 3);
  EXPECT_EQ(read(R"({"vendorListVersion": -2})").vendorListVersion(), -2);
  EXPECT_EQ(read(R"({"configVersion": 0})").configVersion(), 0);
}

TEST(BrandingConfig, PublisherCountryIsUpperCasedWithTheFullMapping) {
  EXPECT_EQ(read(R"({"publisherCC": "us"})").publisherCC(), "US");
  EXPECT_EQ(read(R"({"publisherCC": "deu"})").publisherCC(), "DEU");
  EXPECT_EQ(read(R"({"publisherCC": "ß"})").publisherCC(), "SS");
  EXPECT_EQ(read(R"({"publisherCC": ""})").publisherCC(), "");
  const BrandingConfig built({.publisherCC = "fr"});
  EXPECT_EQ(built.publisherCC(), "FR");
}

}  // namespace
}  // namespace quillet
