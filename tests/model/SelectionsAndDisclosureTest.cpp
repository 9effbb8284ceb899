#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/model/ConsentSelections.h"
#include "quillet/model/DeviceStorageDisclosure.h"

#include "support/TestData.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::jsonObject;
using Entry = DeviceStorageDisclosure::Entry;

TEST(ConsentSelections, LooseReadingIsAllOrNothingPerList) {
  auto selections =
      ConsentSelections::init(jsonObject(R"({"purposesConsent": [1, 2, 3]})")).value();
  EXPECT_THAT(selections.purposeIds, ElementsAre(1, 2, 3));
  EXPECT_THAT(selections.vendorIds, IsEmpty());
  selections =
      ConsentSelections::init(jsonObject(R"({"purposesConsent": [1, "2"], "vendorConsent": [7, 2.0],
                                  "purposeIds": [9]})"))
          .value();
  EXPECT_THAT(selections.purposeIds, IsEmpty());
  EXPECT_THAT(selections.vendorIds, ElementsAre(7, 2));
}

TEST(ConsentSelections, KeyedCodingUsesItsOwnKeysAndRequiresBoth) {
  const ConsentSelections selections{.purposeIds = {3, 1}, .vendorIds = {755}};
  EXPECT_EQ(boost::json::value(selections.toJson()),
            boost::json::parse(R"({"purposeIds":[3,1],"vendorIds":[755]})"));
  EXPECT_EQ(ConsentSelections::fromJson(selections.toJson()).value(), selections);
  EXPECT_EQ(ConsentSelections::fromJson(boost::json::parse(R"({"purposeIds": [1]})")).error(),
            R"(key "vendorIds" is missing)");
}

TEST(DeviceStorageDisclosure, RealDocumentsDecodeOrFailAsAWhole) {
  // Its web entries have "maxAgeSeconds": null, which fails the document; its cookie entries
  // alone decode, their singular "domain" becoming a one-element list.
  const auto tangoo = DeviceStorageDisclosure::decode(testing::testdataText("dsd-tangoo.json"));
  ASSERT_FALSE(tangoo);
  EXPECT_EQ(tangoo.error(), R"(disclosures[4]: key "maxAgeSeconds" is null)");
  auto cookiesOnly = jsonObject(testing::testdataText("dsd-tangoo.json"));
  cookiesOnly["disclosures"].as_array().resize(4);
  const auto cookies = DeviceStorageDisclosure::fromJson(cookiesOnly);
  ASSERT_TRUE(cookies) << cookies.error();
  ASSERT_EQ(cookies->disclosures->size(), 4U);
  EXPECT_EQ(cookies->disclosures->front(), (Entry{.identifier = "XXXXX_viewnew",
                                                  .type = "cookie",
                                                  .maxAgeSeconds = 2592000,
                                                  .cookieRefresh = false,
                                                  .domains = {"*"},
                                                  .purposes = {1, 3, 4, 5, 6}}));
  ASSERT_EQ(cookies->domains->size(), 3U);
  EXPECT_EQ(cookies->domains->front().domain, "*.tangoo.it");

  const auto cavai = DeviceStorageDisclosure::decode(testing::testdataText("dsd-cavai-empty.json"));
  ASSERT_TRUE(cavai) << cavai.error();
  EXPECT_THAT(cavai->disclosures.value(), IsEmpty());
  EXPECT_EQ(cavai->domains->at(1).use, "Ad Serving");

  // Entries without "maxAgeSeconds" fail their whole document.
  const auto probes =
      DeviceStorageDisclosure::decode(testing::testdataText("dsd-prebid-probes.json"));
  ASSERT_FALSE(probes);
  EXPECT_EQ(probes.error(), R"(disclosures[1]: key "maxAgeSeconds" is missing)");
  const auto large = DeviceStorageDisclosure::decode(testing::testdataText("dsd-large-mixed.json"));
  ASSERT_FALSE(large);
  EXPECT_THAT(large.error(), HasSubstr(R"(key "maxAgeSeconds" is missing)"));
}

// An entry with every required member and the given domain members.
std::string entryWith(const std::string& domainMembers) {
  return R"({"disclosures": [{"identifier": "id", "type": "cookie", "maxAgeSeconds": 60,
             "cookieRefresh": true, "purposes": [1])" +
         domainMembers + "}]}";
}

TEST(DeviceStorageDisclosure, EntryDomainsFallBackWithoutFailing) {
  const auto domainsOf = [](const std::string& members) {
    const auto document = DeviceStorageDisclosure::decode(entryWith(members));
    EXPECT_TRUE(document) << document.error();
    return document ? document->disclosures->front().domains : std::vector<std::string>{"?"};
  };
  EXPECT_THAT(domainsOf(R"(, "domain": "a.example")"), ElementsAre("a.example"));
  EXPECT_THAT(domainsOf(R"(, "domains": ["x", "y"], "domain": "a.example")"),
              ElementsAre("x", "y"));
  EXPECT_THAT(domainsOf(R"(, "domains": [], "domain": "a.example")"), IsEmpty());
  EXPECT_THAT(domainsOf(R"(, "domains": [1], "domain": "a.example")"), ElementsAre("a.example"));
  EXPECT_THAT(domainsOf(R"(, "domains": "x", "domain": 3)"), IsEmpty());
  EXPECT_THAT(domainsOf(""), IsEmpty());
}

TEST(DeviceStorageDisclosure, RequiredMembersAndDomainsAreStrict) {
  const auto document = DeviceStorageDisclosure::decode("{}");
  ASSERT_TRUE(document);
  EXPECT_EQ(document->disclosures, std::nullopt);
  EXPECT_EQ(document->domains, std::nullopt);
  EXPECT_TRUE(DeviceStorageDisclosure::decode(R"({"disclosures": null, "domains": null})"));
  const auto noUse = DeviceStorageDisclosure::decode(R"({"domains": [{"domain": "a"}]})");
  ASSERT_TRUE(noUse);
  EXPECT_EQ(noUse->domains->front().use, std::nullopt);

  const auto entry = [](const char* maxAge, const char* refresh) {
    return std::string(
               R"({"disclosures": [{"identifier": "id", "type": "web", "maxAgeSeconds": )") +
           maxAge + R"(, "cookieRefresh": )" + refresh + R"(, "purposes": []}]})";
  };
  const std::pair<std::string, const char*> refused[] = {
      {entry("null", "false"), R"(disclosures[0]: key "maxAgeSeconds" is null)"},
      {entry("1.5", "false"),
       R"(disclosures[0]: key "maxAgeSeconds" holds a number, expected an integer)"},
      {entry("1", "0"),
       R"(disclosures[0]: key "cookieRefresh" holds an integer, expected a boolean)"},
      {R"({"domains": [{"domain": "a"}, {"use": "x"}]})", R"(domains[1]: key "domain" is missing)"},
      {R"({"domains": {}})", R"(key "domains" holds an object, expected an array)"},
      {"not json", "the document is not JSON"},
  };
  for (const auto& [text, error] : refused)
    EXPECT_EQ(DeviceStorageDisclosure::decode(text).error(), error) << text;
}

}  // namespace
}  // namespace quillet
