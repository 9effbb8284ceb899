#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/QltLog.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/VendorModel.h"

#include "support/RecordingLogSink.h"
#include "support/TestData.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using testing::jsonObject;

const BrandingConfig kNoSelection({});

BrandingConfig selecting(std::vector<std::int64_t> ids) {
  return BrandingConfig({.selectedVendorIds = std::move(ids)});
}

std::vector<std::int64_t> idsOf(const auto& records) {
  std::vector<std::int64_t> ids;
  for (const auto& record : records)
    ids.push_back(record.id());
  return ids;
}

using testing::LogCapture;

struct RealList {
  const char* file;
  std::size_t purposes;
  std::size_t vendors;
};

class RealVendorLists : public ::testing::TestWithParam<RealList> {};

TEST_P(RealVendorLists, ParseToTheRightCountsWithAndWithoutASelection) {
  const auto gvl = jsonObject(testing::testdataText(GetParam().file));
  const auto purposes = PurposeModel::parse(gvl);
  EXPECT_EQ(purposes.size(), GetParam().purposes);
  EXPECT_EQ(purposes.front().id(), 1);
  EXPECT_EQ(purposes.front().name(), "Store and/or access information on a device");
  EXPECT_TRUE(purposes.front().description().has_value());

  const auto all = VendorModel::parse(gvl, kNoSelection);
  EXPECT_EQ(all.size(), GetParam().vendors);
  EXPECT_EQ(VendorModel::parse(gvl, selecting({})).size(), GetParam().vendors);

  const auto selected = VendorModel::parse(gvl, selecting({755, 8, 999999, 8}));
  EXPECT_THAT(idsOf(selected), ElementsAre(8, 755));  // document order; unknown ids give nothing
  const VendorModel& google = selected[1];
  EXPECT_EQ(google.name(), "Google Advertising Products");
  EXPECT_EQ(google.policyUrl(), "https://business.safety.google/privacy/");
  EXPECT_THAT(google.purposes(), ElementsAre(1, 3, 4));
  EXPECT_THAT(google.legIntPurposes(), ElementsAre(2, 7, 9, 10));
  EXPECT_EQ(&google.legitimateInterests(), &google.legIntPurposes());
}

INSTANTIATE_TEST_SUITE_P(Gvl, RealVendorLists,
                         ::testing::Values(RealList{"gvl-v3-106.json", 11, 987},
                                           RealList{"vendor-list.json", 11, 692},
                                           RealList{"gvl-v2-224.json", 10, 1007}));

TEST(PurposeModel, IdsComeFromTheFieldThenTheKeyThenZero) {
  const auto purposes = PurposeModel::parse(jsonObject(R"({"purposes": {
      "7": {"name": "Seven"}, "x": {"name": "Letter"}, "8": {"id": 9, "name": "Nine"},
      "+3": {"name": "Plus"}, "4": {"id": 4.5, "name": "Fraction id"}}})"));
  EXPECT_THAT(idsOf(purposes), ElementsAre(7, 0, 9, 3, 4));
}

TEST(PurposeModel, DropsUnnamedAndNonObjectMembersWithWarnings) {
  const LogCapture log;
  const auto purposes = PurposeModel::parse(jsonObject(R"({"purposes": {
      "2": {"id": 2, "name": "Two", "description": 5}, "1": {"id": 1, "name": "One",
      "description": "First"}, "3": {"name": ""}, "4": {}, "5": [1]}})"));
  ASSERT_EQ(purposes.size(), 2U);
  EXPECT_EQ(purposes[0], PurposeModel(2, "Two", std::nullopt));
  EXPECT_EQ(purposes[1], PurposeModel(1, "One", "First"));
  EXPECT_THAT(
      log.lines(),
      ElementsAre(
          R"([DEBUG] [QLT-CMP:PurposeModel] Purposes raw keys: ["1", "2", "3", "4", "5"])",
          "[DEBUG] [QLT-CMP:PurposeModel] Purpose parsed: id=2, name=Two",
          "[DEBUG] [QLT-CMP:PurposeModel] Purpose parsed: id=1, name=One",
          R"([WARN] [QLT-CMP:PurposeModel] ⚠️ Empty purpose name for key 3, dict: {"name":""})",
          "[WARN] [QLT-CMP:PurposeModel] ⚠️ Empty purpose name for key 4, dict: {}",
          "[WARN] [QLT-CMP:PurposeModel] ⚠️ Purpose 5 is not a dict: [1]"));
}

TEST(PurposeAndVendorModel, MissingSectionsGiveNothingAndOneErrorLine) {
  const LogCapture log;
  EXPECT_THAT(PurposeModel::parse(jsonObject(R"({"purposes": [1]})")), IsEmpty());
  EXPECT_THAT(VendorModel::parse(jsonObject("{}"), kNoSelection), IsEmpty());
  EXPECT_THAT(log.lines(),
              ElementsAre("[ERROR] [QLT-CMP:PurposeModel] ❌ GVL missing 'purposes' key",
                          "[ERROR] [QLT-CMP:VendorModel] GVL missing 'vendors' key"));
}

TEST(VendorModel, ReadsListsWholeAndFindsThePolicyAddress) {
  const auto vendors = VendorModel::parse(jsonObject(R"({"vendors": {
      "1": {"name": "A", "purposes": [1, 2, "3"], "legIntPurposes": [2.0, 7], "policyUrl": "https://a/p",
            "urls": [{"privacy": "https://a/ignored"}]},
      "2": {"name": "B", "urls": [{"langId": "en"}, {"privacy": 5}, {"privacy": "https://b/p"},
            {"privacy": "https://b/later"}]},
      "3": {"name": "C", "urls": [{"privacy": "https://c/p"}, "not an object"]},
      "4": {"name": "D", "urls": {"privacy": "https://d/p"}, "purposes": 3},
      "5": {"name": ""}, "6": "not an object", "7": {"id": 70, "name": "G"}}})"),
                                          kNoSelection);
  ASSERT_THAT(idsOf(vendors), ElementsAre(1, 2, 3, 4, 70));
  EXPECT_THAT(vendors[0].purposes(), IsEmpty());  // one string empties the whole list
  EXPECT_THAT(vendors[0].legIntPurposes(), ElementsAre(2, 7));
  EXPECT_EQ(vendors[0].policyUrl(), "https://a/p");
  EXPECT_EQ(vendors[1].policyUrl(), "https://b/p");
  EXPECT_EQ(vendors[2].policyUrl(), std::nullopt);  // "urls" is not an array of objects
  EXPECT_EQ(vendors[3].policyUrl(), std::nullopt);
  EXPECT_THAT(vendors[3].purposes(), IsEmpty());
}

TEST(VendorModel, LogsEveryNamedOrUnnamedSelectedVendor) {
  const auto gvl = jsonObject(R"({"vendors": {"2": {"name": "B", "policyUrl": "https://b"},
                                              "1": {"name": "A"}, "3": {"name": ""}}})");
  {
    const LogCapture log;
    (void)VendorModel::parse(gvl, kNoSelection);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            "[DEBUG] [QLT-CMP:VendorModel] Allowed Vendor IDs: []",
            R"([DEBUG] [QLT-CMP:VendorModel] Vendors raw keys: ["2", "1", "3"])",
            "[DEBUG] [QLT-CMP:VendorModel] Vendor parsed: id=2, name=B, allowed=false, "
            "url=https://b",
            "[DEBUG] [QLT-CMP:VendorModel] Vendor parsed: id=1, name=A, allowed=false, url=",
            "[DEBUG] [QLT-CMP:VendorModel] Vendor parsed: id=3, name=, allowed=false, url="));
  }
  const LogCapture log;
  EXPECT_THAT(idsOf(VendorModel::parse(gvl, selecting({3, 1}))), ElementsAre(1));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_THAT(lines[0], EndsWith("Allowed Vendor IDs: [1, 3]"));
  EXPECT_THAT(lines[2], EndsWith("Vendor parsed: id=1, name=A, allowed=true, url="));
  EXPECT_THAT(lines[3], EndsWith("Vendor parsed: id=3, name=, allowed=true, url="));
}

TEST(PurposeAndVendorModel, KeyedCodingRoundTripsAndNamesTheFaultyKey) {
  const PurposeModel purpose(3, "Three", std::nullopt);
  EXPECT_EQ(boost::json::value(purpose.toJson()), boost::json::parse(R"({"id":3,"name":"Three"})"));
  EXPECT_EQ(PurposeModel::fromJson(purpose.toJson()).value(), purpose);
  const VendorModel vendor(755, "G", "https://g", {1, 3}, {2});
  EXPECT_EQ(VendorModel::fromJson(vendor.toJson()).value(), vendor);
  const VendorModel noUrl(8, "E", std::nullopt, {}, {});
  EXPECT_FALSE(noUrl.toJson().contains("policyUrl"));
  EXPECT_EQ(VendorModel::fromJson(noUrl.toJson()).value(), noUrl);

  EXPECT_EQ(PurposeModel::fromJson(boost::json::parse(R"({"id": 1})")).error(),
            R"(key "name" is missing)");
  EXPECT_EQ(PurposeModel::fromJson(boost::json::parse(R"({"id": 1, "name": 5})")).error(),
            R"(key "name" holds an integer, expected a string)");
  EXPECT_EQ(PurposeModel::fromJson(boost::json::parse(R"({"id": 1.5, "name": "x"})")).error(),
            R"(key "id" holds a number, expected an integer)");
  EXPECT_EQ(
      PurposeModel::fromJson(boost::json::parse(R"({"id": 1, "name": "x", "description": 2})"))
          .error(),
      R"(key "description" holds an integer, expected a string)");
  EXPECT_TRUE(
      PurposeModel::fromJson(boost::json::parse(R"({"id": 1, "name": "x", "description": null})")));
  EXPECT_EQ(VendorModel::fromJson(boost::json::parse(R"({"id": 1, "name": "x", "purposes": [1, "2"],
                                                         "legIntPurposes": []})"))
                .error(),
            R"(key "purposes" element 1 holds a string, expected an integer)");
  EXPECT_EQ(VendorModel::fromJson(boost::json::parse("[]")).error(),
            "the document holds an array, expected an object");
}

}  // namespace
}  // namespace quillet
