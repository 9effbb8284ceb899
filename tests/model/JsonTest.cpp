#include <gtest/gtest.h>

#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"

#include "support/TestData.h"

namespace quillet {
namespace {

using testing::jsonObject;

TEST(Json, IntegerReadersTellExactFromTruncated) {
  const auto json = jsonObject(
      R"({"int": 3, "whole": 3.0, "fraction": 3.9, "negative": -3.9, "huge": 1e30, "edge": 9223372036854775808.0,
          "big": 18446744073709551615, "flag": true, "text": "3", "none": null})");
  const auto at = [&](const char* key) { return Json::member(json, key); };
  EXPECT_EQ(Json::exactInteger(at("int")), 3);
  EXPECT_EQ(Json::exactInteger(at("whole")), 3);
  EXPECT_EQ(Json::exactInteger(at("fraction")), std::nullopt);
  EXPECT_EQ(Json::truncatedInteger(at("fraction")), 3);
  EXPECT_EQ(Json::truncatedInteger(at("negative")), -3);
  EXPECT_EQ(Json::truncatedInteger(at("huge")), std::nullopt);
  EXPECT_EQ(Json::truncatedInteger(at("edge")), std::nullopt);  // 2^63, one past the largest
  EXPECT_EQ(Json::exactInteger(at("big")), std::nullopt);
  for (const char* key : {"flag", "text", "none", "missing"}) {
    EXPECT_EQ(Json::exactInteger(at(key)), std::nullopt) << key;
    EXPECT_EQ(Json::truncatedInteger(at(key)), std::nullopt) << key;
  }
  EXPECT_EQ(Json::idListElement(at("flag")), 1);
  EXPECT_EQ(Json::idListElement(at("negative")), -3);
  EXPECT_EQ(Json::idListElement(at("text")), std::nullopt);
}

TEST(Json, ExactIntegerArraysAreAllOrNothing) {
  const auto json = jsonObject(R"({"ok": [1, 2.0, -3], "mixed": [1, "2"], "fraction": [1, 2.5],
                                   "empty": [], "object": {}})");
  EXPECT_EQ(Json::exactIntegerArray(Json::member(json, "ok")),
            (std::vector<std::int64_t>{1, 2, -3}));
  EXPECT_EQ(Json::exactIntegerArray(Json::member(json, "mixed")), std::nullopt);
  EXPECT_EQ(Json::exactIntegerArray(Json::member(json, "fraction")), std::nullopt);
  EXPECT_EQ(Json::exactIntegerArray(Json::member(json, "empty")), std::vector<std::int64_t>{});
  EXPECT_EQ(Json::exactIntegerArray(Json::member(json, "object")), std::nullopt);
}

TEST(VendorList, FactsReadOnceWhatTheDecisionsNeed) {
  const auto facts =
      VendorList::facts(jsonObject(R"({"vendorListVersion": 12, "tcfPolicyVersion": 4.5,
      "vendors": {"755": {}, "x": {}, "8": {}}, "specialFeatures": {"2": {}, "1": {}}})"));
  EXPECT_EQ(facts.vendorIds, (std::vector<std::int64_t>{8, 755}));
  EXPECT_EQ(facts.largestVendorId(), 755);
  EXPECT_EQ(facts.vendorListVersion, 12);
  EXPECT_EQ(facts.policyVersion, 1);  // not an exact integer
  EXPECT_EQ(facts.specialFeatureKeys, (std::vector<std::int64_t>{1, 2}));
  // Special features as an array count by their "id" members, and only for the ids.
  const auto array = VendorList::facts(
      jsonObject(R"({"specialFeatures": [{"id": 5}, {"name": "x"}, {"id": 3}]})"));
  EXPECT_EQ(array.specialFeatureIds, (std::vector<std::int64_t>{3, 5}));
  EXPECT_TRUE(array.specialFeatureKeys.empty());
  EXPECT_EQ(VendorList::facts(jsonObject("{}")).largestVendorId(), 0);
}

TEST(Json, ParseRefusesWhatIsNotJson) {
  EXPECT_FALSE(Json::parse("{").has_value());
  EXPECT_FALSE(Json::parse("").has_value());
  EXPECT_FALSE(Json::parse("{} trailing").has_value());
  EXPECT_TRUE(Json::parse(" [1, {\"a\": null}] ").has_value());
}

}  // namespace
}  // namespace quillet
