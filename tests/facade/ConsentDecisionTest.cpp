#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/codec/TCString.h"
#include "quillet/core/ConsentDecision.h"
#include "quillet/core/TcfApi.h"

#include "SmallVendorList.h"
#include "support/TCStringBrief.h"
#include "support/TestData.h"

namespace quillet {
namespace {

using ConsentDecision::Choices;
using ConsentDecision::Ids;
using ConsentDecision::StoreContents;
using ::testing::ElementsAre;

const boost::json::object& smallVendorList() {
  static const boost::json::object gvl = boost::json::parse(testing::kSmallVendorList).as_object();
  return gvl;
}

// What the facade would read: the small vendor list with vendors 8, 10 and 755 selected and the
// purposes they declare configured.
struct Case {
  const char* name;
  ConsentAction action;
  Choices expected;
  Ids purposeIds = {1, 2, 3, 7, 10};
  Ids vendorIds = {8, 10, 755};
  NestedConsentFlags legitimateInterests = {};
  ConsentFlags specialFeatureMasters = {};
  const char* gvl = testing::kSmallVendorList;
};

TEST(ConsentDecision, TheFiveListsOfEachAction) {
  const NestedConsentFlags li{
      {8, {{7, true}}}, {755, {{2, false}, {10, true}}}, {900, {{11, true}}}};
  const Case cases[] = {
      {"accept all: what the selected vendors declare, legitimate interest narrowed to the "
       "configuration",
       ConsentAction::acceptAll(),
       {{1, 2, 3, 4}, {2, 7, 10}, {1, 2}, {8, 10, 755}, {8, 755}}},
      {"accept all with an empty selection consents to nothing but the special features",
       ConsentAction::acceptAll(),
       {{}, {}, {1, 2}, {}, {}},
       {1, 2},
       {}},
      {"accept all with the special features as an array",
       ConsentAction::acceptAll(),
       {{1, 3}, {}, {3, 5}, {10}, {}},
       {1, 3},
       {10},
       {},
       {},
       R"({"specialFeatures": [{"id": 5}, {"name": "no id"}, {"id": 3}],
           "vendors": {"10": {"purposes": [1, 3], "legIntPurposes": []}}})"},
      {"a vendor without an entry or with a mistyped list declares nothing",
       ConsentAction::acceptAll(),
       {{2}, {}, {}, {4, 5, 6}, {}},
       {1, 2},
       {6, 5, 4},
       {},
       {},
       R"({"vendors": {"5": {"purposes": [2], "legIntPurposes": ["7"]}, "6": []}})"},
      {"reject all", ConsentAction::rejectAll(), {}, {1, 2}, {8}, li, {{1, true}}},
      {"customize keeps the given order of configured purposes and sorts the selected vendors",
       ConsentAction::customize({7, 99, 1}, {755, 900, 8}),
       {{7, 1}, {7, 10}, {2}, {8, 755}, {8, 755}},
       {1, 2, 3, 7, 10},
       {8, 10, 755},
       li,
       {{1, false}, {2, true}}},
      {"customize without switches on",
       ConsentAction::customize({}, {10}),
       {{}, {}, {}, {10}, {}},
       {1},
       {10},
       {{8, {{7, false}}}},
       {{1, false}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const boost::json::object gvl = boost::json::parse(c.gvl).as_object();
    const VendorList::Facts facts = VendorList::facts(gvl);
    const Choices chosen =
        ConsentDecision::choose(c.action, {.gvl = gvl,
                                           .facts = facts,
                                           .purposeIds = c.purposeIds,
                                           .vendorIds = c.vendorIds,
                                           .publisherCC = std::nullopt,
                                           .consentLanguage = "EN",
                                           .legitimateInterests = c.legitimateInterests,
                                           .specialFeatureMasters = c.specialFeatureMasters,
                                           .now = {}});
    EXPECT_EQ(chosen.purposeConsents, c.expected.purposeConsents);
    EXPECT_EQ(chosen.purposeLegitimateInterests, c.expected.purposeLegitimateInterests);
    EXPECT_EQ(chosen.specialFeatureOptins, c.expected.specialFeatureOptins);
    EXPECT_EQ(chosen.vendorConsents, c.expected.vendorConsents);
    EXPECT_EQ(chosen.vendorLegitimateInterests, c.expected.vendorLegitimateInterests);
  }
}

TEST(ConsentDecision, TheStringCarriesTheListsTheMetadataAndEverySelectedVendor) {
  const auto& gvl = smallVendorList();
  const VendorList::Facts facts = VendorList::facts(gvl);
  const Ids purposeIds{1, 2, 3, 7, 10};
  const Ids vendorIds{755, 8, 10};
  const NestedConsentFlags none;
  const ConsentFlags noFeatures;
  const auto now = std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000123));
  struct Row {
    ConsentAction action;
    std::optional<std::string_view> publisherCC;
    const char* country;
    bool consent;
    const char* eventType;
    const char* brief;
  };
  const Row rows[] = {
      {ConsentAction::acceptAll(), "de", "DE", true, "accepted",
       "FR DE 471/1 0 100 12 4 17000000001 17000000001 [1,2,3,4] [2,7,10] [1,2] [8,10,755] 900 "
       "[8,755] [8,10,755]"},
      {ConsentAction::rejectAll(), std::nullopt, "US", false, "rejected",
       "FR US 471/1 0 100 12 4 17000000001 17000000001 [] [] [] [] 900 [] [8,10,755]"},
      {ConsentAction::customize({1}, {8}), "gbr", "GB", true, "customized",
       "FR GB 471/1 0 100 12 4 17000000001 17000000001 [1] [] [] [8] 900 [] [8,10,755]"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.eventType);
    const auto decision = ConsentDecision::decide(row.action, {.gvl = gvl,
                                                               .facts = facts,
                                                               .purposeIds = purposeIds,
                                                               .vendorIds = vendorIds,
                                                               .publisherCC = row.publisherCC,
                                                               .consentLanguage = "FR",
                                                               .legitimateInterests = none,
                                                               .specialFeatureMasters = noFeatures,
                                                               .now = now});
    EXPECT_EQ(decision.consent, row.consent);
    EXPECT_EQ(decision.eventType, row.eventType);
    EXPECT_EQ(testing::brief(decision.tcString), row.brief);
  }
}

TEST(ConsentDecision, WhatTheStoresHoldForAStoredString) {
  const auto& gvl = smallVendorList();
  const Ids purposeIds{1, 2, 7};
  const Ids vendorIds{8, 10, 755};
  const std::string core = QLTCMPUtils::encodeTCString(
      QLTCMPUtils::TCStringInput{.purposeConsents = {1, 7},
                                 .purposeLegitimateInterests = {7, 10},
                                 .specialFeatureOptins = {2},
                                 .vendorConsents = {10, 900},
                                 .vendorLegitimateInterests = {8, 10, 755},
                                 .gvlVendorIds = {900}});
  const StoreContents expected{
      .purposes = {{1, true}, {2, false}, {7, true}},
      .vendors = {{8, false}, {10, true}, {755, false}},
      // 10 declares no legitimate interest; 755's purpose 2 is not in the string.
      .legitimateInterests = {{8, {{7, true}}}, {755, {{7, true}, {10, true}}}},
      .specialFeatureMasters = {{1, false}, {2, true}},
  };
  EXPECT_EQ(ConsentDecision::storeContents(core, purposeIds, vendorIds, gvl), expected);
  EXPECT_EQ(ConsentDecision::storeContents(core + ".IFoEUQQgAIQwgIwQABAEAAAAOIAACAIAUA", purposeIds,
                                           vendorIds, gvl),
            expected)
      << "only the core before the first separator is read";

  const boost::json::object arrayFeatures =
      boost::json::parse(R"({"specialFeatures": [{"id": 2}]})").as_object();
  const auto withoutFeatures = ConsentDecision::storeContents(core, {}, {}, arrayFeatures);
  ASSERT_TRUE(withoutFeatures.has_value());
  EXPECT_EQ(*withoutFeatures, StoreContents{}) << "an array of special features is not read";

  for (const std::string_view undecodable : {"", ".", "not base64!", "CAAAAAA"}) {
    SCOPED_TRACE(undecodable);
    EXPECT_EQ(ConsentDecision::storeContents(undecodable, purposeIds, vendorIds, gvl),
              std::nullopt);
  }
}

// What __tcfapi hands web content, whole: a string with publisher restrictions and one with a
// publisher TC segment as TCData, and the ping before and after loading.
TEST(TcfApi, TCDataAndPingAsWebContentReadsThem) {
  std::string text;
  for (const std::string tcString :
       {"COxPe2TOxPe2TALABAENAPCgAAAAAAAAAAAAAFAAAAoAAA4IACACAIABgACAFA4ADACAAIygAGADwAQBIAIAIB0AEA"
        "EBSAC"
        "ACAA",
        "CQSbk4AQSbk4ANwAAAENAwCgAAAAAAAAAAYgACPAAAAA.IDKQA4AAgAKAGQAygAAA.YAAAAAAAAAAA"}) {
    const auto tc = TCString::parse(tcString);
    ASSERT_TRUE(tc);
    text +=
        tcDataJson(*tc, tcString, {.eventStatus = "useractioncomplete", .listenerId = 3}) + "\n";
  }
  text += pingReturnJson({}) + "\n";
  text += pingReturnJson({.gdprApplies = false,
                          .cmpLoaded = true,
                          .cmpStatus = "loaded",
                          .displayStatus = "visible",
                          .cmpId = 471,
                          .cmpVersion = 1,
                          .gvlVersion = 106,
                          .tcfPolicyVersion = 5}) +
          "\n";
  EXPECT_TRUE(testing::matchesGolden("tcfapi.json", text));

  // What a page gets: a stub before start-up ends, the CMP's error for an unreadable stored
  // string, an empty string's data before any decision.
  const auto state = [](std::string_view stored, std::string_view status) {
    const auto json = boost::json::parse(tcfApiState(stored, status, {})).as_object();
    return std::string(json.at("ping").at("cmpStatus").as_string()) + " " +
           (json.at("tcData").is_null()
                ? "no data"
                : std::string(json.at("tcData").at("eventStatus").as_string()));
  };
  EXPECT_EQ(state("COtybn4PA_zT4KjACBENAPCIAEBAAECAAIAAAAAAAAAA", ""), "stub no data");
  EXPECT_EQ(state("COtybn4PA_zT4KjACBENAPCIAEBAAECAAIAAAAAAAAAA", "tcloaded"), "loaded tcloaded");
  EXPECT_EQ(state("CO-not a string", "tcloaded"), "error no data");
  EXPECT_EQ(state("", "cmpuishown"), "loaded cmpuishown");
}

}  // namespace
}  // namespace quillet
