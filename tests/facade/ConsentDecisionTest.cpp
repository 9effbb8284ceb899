// The facade's pure parts, each result written out whole against a golden file: the consent
// decision (testdata/golden/decisions.txt), the Consent Mode signals and their log lines
// (testdata/golden/consent-mode.txt) and what __tcfapi hands web content
// (testdata/golden/tcfapi.json).

#include <sstream>

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/base/Clock.h"
#include "quillet/base/Text.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/core/ConsentDecision.h"
#include "quillet/core/GoogleConsentMode.h"
#include "quillet/core/TcfApi.h"

#include "facade/FacadeData.h"
#include "support/ConsentWalk.h"
#include "support/LogCapture.h"
#include "support/RecordingScreenHost.h"
#include "support/TestData.h"

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

Ids ids(const boost::json::value& list) {
  Ids out;
  for (const auto& id : list.as_array())
    out.push_back(id.as_int64());
  return out;
}

ConsentFlags flags(const boost::json::value* json) {
  ConsentFlags out;
  for (const auto& [key, on] : json ? json->as_object() : boost::json::object{})
    out.emplace(std::stoll(std::string(key)), on.as_bool());
  return out;
}

// Each case of testdata/decision-cases.txt against testdata/golden/decisions.txt.
TEST(ConsentDecision, EveryCaseGivesItsGoldenResult) {
  const auto small = boost::json::parse(testing::smallVendorList()).as_object();
  const auto now = std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000123));
  std::string all;
  for (const auto& [title, body] : testing::cases("decision-cases.txt")) {
    all += "== " + title + "\n";
    std::vector<std::string> lines;
    std::istringstream bodyLines(body);
    for (std::string line; std::getline(bodyLines, line);)
      lines.push_back(line);
    if (title.starts_with("decide")) {
      const auto c = testing::jsonObject(body);
      const auto gvl = c.contains("gvl") ? c.at("gvl").as_object() : small;
      const auto facts = VendorList::facts(gvl);
      const Ids purposeIds = ids(c.at("purposes")), vendorIds = ids(c.at("vendors"));
      NestedConsentFlags li;
      for (const auto& [vendor, purposes] :
           c.contains("li") ? c.at("li").as_object() : boost::json::object{})
        li.emplace(std::stoll(std::string(vendor)), flags(&purposes));
      const ConsentFlags masters = flags(c.if_contains("masters"));
      const auto* country = c.if_contains("country");
      const auto& a = c.at("action");
      const ConsentAction action = a == "acceptAll" ? ConsentAction::acceptAll()
                                   : a == "rejectAll"
                                       ? ConsentAction::rejectAll()
                                       : ConsentAction::customize(ids(a.at("customize").at(0)),
                                                                  ids(a.at("customize").at(1)));
      const ConsentDecision::Inputs inputs{
          .facts = facts,
          .purposeIds = purposeIds,
          .vendorIds = vendorIds,
          .publisherCC =
              country ? std::optional<std::string_view>(country->as_string()) : std::nullopt,
          .consentLanguage = "FR",
          .legitimateInterests = li,
          .specialFeatureMasters = masters,
          .now = now};
      const auto decision = ConsentDecision::decide(action, inputs);
      EXPECT_EQ(decision.choices, ConsentDecision::choose(action, inputs)) << title;
      all += text(decision.choices) + "\n" + std::to_string(decision.consent) + " " +
             std::string(decision.eventType) + " " + testing::brief(decision.tcString) + "\n";
    } else if (title.starts_with("stores")) {
      const auto gvl = lines.size() > 1 ? testing::jsonObject(lines[1]) : small;
      const Ids purposeIds{1, 2, 7}, vendorIds{8, 10, 755};
      const auto held = ConsentDecision::storeContents(lines.empty() ? "" : lines[0], purposeIds,
                                                       vendorIds, VendorList::facts(gvl));
      all += (held ? ConsentWalk::text(held->purposes) + " | " + ConsentWalk::text(held->vendors) +
                         " | " + ConsentWalk::text(held->legitimateInterests) + "| " +
                         ConsentWalk::text(held->specialFeatureMasters)
                   : "none") +
             "\n";
    } else {
      for (const auto& line : lines) {
        for (const auto& [key, value] : GoogleConsentMode::signalsFor(line))
          all += key + "=" + value + " ";
        all += "\n";
      }
    }
  }
  EXPECT_TRUE(testing::matchesGolden("decisions.txt", all));
}

// The registered analytics library is handed the signals; without one the log says it is missing.
TEST(GoogleConsentMode, HandsTheSignalsToTheAnalyticsLibrary) {
  const std::string tcString = "CAAAAAAAAAAAAHXABAENABBAAMAAAAAAACiQAAoAAgAA";  // purposes 1 and 2
  std::string all;
  const testing::LogCapture log;
  for (const char* name : {"FIRAnalytics", "SomethingElse"}) {
    AnalyticsRegistry registry;
    auto analytics = std::make_shared<testing::RecordingAnalytics>();
    registry.registerClass(name, analytics);
    GoogleConsentMode::update(tcString, registry);
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
