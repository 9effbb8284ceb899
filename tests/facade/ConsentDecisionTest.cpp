// The facade's pure parts, each result written out whole against a golden file: the consent
// decision (testdata/golden/decisions.txt), the Consent Mode signals and their log lines
// (testdata/golden/consent-mode.txt) and what __tcfapi hands web content
// (testdata/golden/tcfapi.json).

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/base/Clock.h"
#include "quillet/base/Text.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/core/ConsentDecision.h"
#include "quillet/core/GoogleConsentMode.h"
#include "quillet/core/TcfApi.h"

#include "SmallVendorList.h"
#include "support/ConsentWalk.h"
#include "support/RecordingLogSink.h"
#include "support/RecordingScreenHost.h"
#include "support/TCStringBrief.h"

namespace quillet {
namespace {

using ConsentDecision::Ids;
using testing::ConsentWalk;

std::string text(const ConsentDecision::Choices& c) {
  return "purposes " + Text::printedList(c.purposeConsents) + " li " +
         Text::printedList(c.purposeLegitimateInterests) + " features " +
         Text::printedList(c.specialFeatureOptins) + " vendors " +
         Text::printedList(c.vendorConsents) + " vendor li " +
         Text::printedList(c.vendorLegitimateInterests);
}

// Each action on the small vendor list (vendors 8, 10 and 755 selected, the purposes they declare
// configured) or on a list of its own: the five lists, then for whole decisions the string in
// brief with the consent flag and the event type; then what the stores hold for stored strings.
TEST(ConsentDecision, EachDecisionGivesItsGoldenListsAndString) {
  const NestedConsentFlags li{
      {8, {{7, true}}}, {755, {{2, false}, {10, true}}}, {900, {{11, true}}}};
  struct Case {
    const char* name;
    ConsentAction action;
    Ids purposeIds = {1, 2, 3, 7, 10};
    Ids vendorIds = {8, 10, 755};
    NestedConsentFlags legitimateInterests = {};
    ConsentFlags specialFeatureMasters = {};
    std::string gvl = testing::smallVendorList();
    std::optional<std::string_view> publisherCC = std::nullopt;
  };
  const Case cases[] = {
      {"accept all",
       ConsentAction::acceptAll(),
       {1, 2, 3, 7, 10},
       {755, 8, 10},
       {},
       {},
       testing::smallVendorList(),
       "de"},
      {"accept all with an empty selection", ConsentAction::acceptAll(), {1, 2}, {}},
      {"accept all with special features as an array",
       ConsentAction::acceptAll(),
       {1, 3},
       {10},
       {},
       {},
       R"({"specialFeatures": [{"id": 5}, {"name": "no id"}, {"id": 3}],
           "vendors": {"10": {"purposes": [1, 3], "legIntPurposes": []}}})"},
      {"a vendor without an entry or with a mistyped list declares nothing",
       ConsentAction::acceptAll(),
       {1, 2},
       {6, 5, 4},
       {},
       {},
       R"({"vendors": {"5": {"purposes": [2], "legIntPurposes": ["7"]}, "6": []}})"},
      {"reject all", ConsentAction::rejectAll(), {1, 2}, {8}, li, {{1, true}}},
      {"customize keeps the given order of configured purposes, sorts the selected vendors",
       ConsentAction::customize({7, 99, 1}, {755, 900, 8}),
       {1, 2, 3, 7, 10},
       {8, 10, 755},
       li,
       {{1, false}, {2, true}},
       testing::smallVendorList(),
       "gbr"},
      {"customize without switches on",
       ConsentAction::customize({}, {10}),
       {1},
       {10},
       {{8, {{7, false}}}},
       {{1, false}}},
  };
  std::string all;
  const auto now = std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000123));
  for (const auto& c : cases) {
    const auto gvl = boost::json::parse(c.gvl).as_object();
    const VendorList::Facts facts = VendorList::facts(gvl);
    const ConsentDecision::Inputs inputs{.gvl = gvl,
                                         .facts = facts,
                                         .purposeIds = c.purposeIds,
                                         .vendorIds = c.vendorIds,
                                         .publisherCC = c.publisherCC,
                                         .consentLanguage = "FR",
                                         .legitimateInterests = c.legitimateInterests,
                                         .specialFeatureMasters = c.specialFeatureMasters,
                                         .now = now};
    const auto decision = ConsentDecision::decide(c.action, inputs);
    EXPECT_EQ(decision.choices, ConsentDecision::choose(c.action, inputs)) << c.name;
    all += std::string(c.name) + "\n  " + text(decision.choices) + "\n  " +
           std::to_string(decision.consent) + " " + std::string(decision.eventType) + " " +
           testing::brief(decision.tcString) + "\n";
  }
  const std::string core = QLTCMPUtils::encodeTCString(
      QLTCMPUtils::TCStringInput{.purposeConsents = {1, 7},
                                 .purposeLegitimateInterests = {7, 10},
                                 .specialFeatureOptins = {2},
                                 .vendorConsents = {10, 900},
                                 .vendorLegitimateInterests = {8, 10, 755},
                                 .gvlVendorIds = {900}},
      FixedClock({}));
  const auto small = boost::json::parse(testing::smallVendorList()).as_object();
  const auto arrayFeatures = boost::json::parse(R"({"specialFeatures": [{"id": 2}]})").as_object();
  // Only the core before the first separator is read; an array of special features is not.
  for (const auto& [stored, gvl] : {std::pair{core, &small},
                                    {core + ".IFoEUQQgAIQwgIwQABAEAAAAOIAACAIAUA", &small},
                                    {core, &arrayFeatures},
                                    {"", &small},
                                    {".", &small},
                                    {"not base64!", &small},
                                    {"CAAAAAA", &small}}) {
    const Ids purposeIds{1, 2, 7};
    const Ids vendorIds{8, 10, 755};
    const auto held = ConsentDecision::storeContents(stored, purposeIds, vendorIds, *gvl);
    all += "stores for \"" + stored.substr(0, 12) + "\": " +
           (held ? ConsentWalk::text(held->purposes) + " | " + ConsentWalk::text(held->vendors) +
                       " | " + ConsentWalk::text(held->legitimateInterests) + "| " +
                       ConsentWalk::text(held->specialFeatureMasters)
                 : "none") +
           "\n";
  }
  EXPECT_TRUE(testing::matchesGolden("decisions.txt", all));
}

// Only purposes one and seven decide the signals; the registered analytics library gets them,
// and without one the log says it is missing.
TEST(GoogleConsentMode, SignalsForEachStringAndTheirHandingOver) {
  const auto withPurposes = [](std::vector<std::int64_t> purposes) {
    return QLTCMPUtils::encodeTCString(purposes, std::vector<std::int64_t>{1},
                                       std::vector<std::int64_t>{1}, FixedClock({}));
  };
  std::string all;
  for (const auto& tcString :
       {withPurposes({1}), withPurposes({7}), withPurposes({2, 3, 4}),
        withPurposes({1, 7}) + ".IAAA", std::string(), std::string("garbage"), std::string("CA"),
        std::string("!!"), std::string("a.b")}) {
    all += "\"" + tcString.substr(0, 12) + "\":";
    for (const auto& [key, value] : GoogleConsentMode::signalsFor(tcString))
      all += " " + key + "=" + value;
    all += "\n";
  }
  const testing::LogCapture log;
  for (const char* name : {"FIRAnalytics", "SomethingElse"}) {
    AnalyticsRegistry registry;
    auto analytics = std::make_shared<testing::RecordingAnalytics>();
    registry.registerClass(name, analytics);
    GoogleConsentMode::update(withPurposes({1, 2}), registry);
    all += std::string(name) + ": " + std::to_string(analytics->calls().size()) + " calls\n";
  }
  for (const auto& line : log.lines())
    all += line + "\n";
  EXPECT_TRUE(testing::matchesGolden("consent-mode.txt", all));
}

// What __tcfapi hands web content, whole: a string with publisher restrictions and one with a
// publisher TC segment as TCData, the ping before and after loading, and the page's state: a stub
// before start-up ends, the CMP's error for an unreadable stored string, an empty string's data
// before any decision.
TEST(TcfApi, TCDataPingAndPageStateAsWebContentReadsThem) {
  std::string text;
  for (const std::string tcString :
       {"COxPe2TOxPe2TALABAENAPCgAAAAAAAAAAAAAFAAAAoAAA4IACACAIABgACAFA4ADACAAIygAGADwAQBIAIAIB0AEA"
        "EBSACACAA",
        "CQSbk4AQSbk4ANwAAAENAwCgAAAAAAAAAAYgACPAAAAA.IDKQA4AAgAKAGQAygAAA.YAAAAAAAAAAA"}) {
    text += tcDataJson(*TCString::parse(tcString), tcString,
                       {.eventStatus = "useractioncomplete", .listenerId = 3}) +
            "\n";
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
  for (const auto& [stored, status] :
       {std::pair{"COtybn4PA_zT4KjACBENAPCIAEBAAECAAIAAAAAAAAAA", ""},
        {"COtybn4PA_zT4KjACBENAPCIAEBAAECAAIAAAAAAAAAA", "tcloaded"},
        {"CO-not a string", "tcloaded"},
        {"", "cmpuishown"}})
    text += tcfApiState(stored, status, {}) + "\n";
  EXPECT_TRUE(testing::matchesGolden("tcfapi.json", text));
}

}  // namespace
}  // namespace quillet
