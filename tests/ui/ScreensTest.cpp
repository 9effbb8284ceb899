// What every button, switch and observer of the consent screens writes, announces and hands on.

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/state/ConsentCommit.h"
#include "quillet/state/NotificationCenter.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/ui/DeviceStorageDisclosureViewController.h"
#include "quillet/ui/Html.h"
#include "quillet/ui/PurposeDetailsViewController.h"
#include "quillet/ui/PurposeTabViewController.h"
#include "quillet/ui/VendorDetailsViewController.h"
#include "quillet/ui/VendorsPageViewController.h"
#include "quillet/ui/WebCMPStyleToggle.h"

#include "support/Announcements.h"
#include "support/RecordingLogSink.h"
#include "support/TestServer.h"
#include "ui/ScreenFixture.h"

namespace quillet {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

ConsentFlags flags(std::initializer_list<std::pair<const std::int64_t, bool>> entries) {
  return ConsentFlags(entries);
}

class Screens : public testing::ScreenFixture {
 protected:
  // Presents a banner and opens its second layer, as a tap on customise does.
  std::shared_ptr<SecondLayerViewController> openSecondLayer(const std::string& vendorList) {
    banner_ = std::make_shared<CMPBannerViewController>(
        content({.showCustomizeButton = true}, vendorList),
        [this](ConsentAction action) { completions_.push_back(action); });
    banner_->onFinished = [this] { ++finished_; };
    host_->present(banner_, {});
    banner_->onCustomize();
    auto second = std::dynamic_pointer_cast<SecondLayerViewController>(host_->topScreen());
    EXPECT_NE(second, nullptr);
    return second;
  }

  // Follows one of the library's links in the top screen.
  void tap(const std::string& link) {
    EXPECT_EQ(host_->follow(link), NavigationPolicy::cancel) << link;
  }

  std::shared_ptr<CMPBannerViewController> banner_;
  int finished_ = 0;
  testing::Announcements announced_;
};

// Shown on, knob offset, track colour, icon, opacity, spoken value, slide time.
std::string look(const WebCMPStyleToggle& toggle) {
  const auto a = toggle.appearance();
  std::ostringstream out;
  out << a.displayedOn << " " << a.knobOffset << " " << a.trackColour << " " << a.icon << " "
      << a.opacity << " " << a.accessibilityValue << " " << a.animationSeconds;
  return out.str();
}

TEST_F(Screens, ToggleShowsItsStateAndOnlyATapOnAnUnlockedToggleSendsAnEvent) {
  WebCMPStyleToggle toggle;
  std::vector<bool> sent;
  int impacts = 0;
  toggle.onValueChanged = [&](bool on) { sent.push_back(on); };
  toggle.onImpact = [&] { ++impacts; };
  EXPECT_EQ(look(toggle), "0 2 #8E8E93 xmark 1 Off 0");
  toggle.setOn(true);  // not a tap: no event
  EXPECT_EQ(look(toggle), "1 25 #0040DD checkmark 1 On 0");
  EXPECT_TRUE(toggle.tap());
  EXPECT_EQ(look(toggle), "0 2 #8E8E93 xmark 1 Off 0.18");
  EXPECT_THAT(toggle.html("t", "quillet://t", "T"),
              HasSubstr("style=\"left:25px;transition:left 0.18s ease 0s\""));  // slides from on
  toggle.setLocked(true);  // locked with isOn false: shown on, dimmed, taps ignored
  EXPECT_EQ(look(toggle), "1 25 rgba(0,64,221,0.2) checkmark 0.8 On 0");
  EXPECT_FALSE(toggle.tap());
  EXPECT_FALSE(toggle.isOn());
  EXPECT_THAT(sent, ElementsAre(false));
  EXPECT_EQ(impacts, 1);
  const auto html = toggle.html("t", "quillet://t", "<T>");
  EXPECT_THAT(html, Not(HasSubstr("href")));
  EXPECT_THAT(html, HasSubstr("role=\"switch\" aria-checked=\"true\" aria-label=\"&lt;T&gt;\""));
}

// Each button switches every purpose, vendor and special feature of the list on or off, then
// completes once the banner is gone; a second tap after that changes nothing.
TEST_F(Screens, BannerButtonsSwitchEverythingThenCompleteAfterDismissal) {
  for (const bool accept : {true, false}) {
    SCOPED_TRACE(accept ? "accept" : "reject");
    SpecialFeatureConsentStore::shared().setVendor(1, 755, !accept);
    completions_.clear();
    const auto banner = makeBanner({.showRejectButton = true});
    int finished = 0;
    banner->onFinished = [&] {
      ++finished;
      EXPECT_EQ(completions_.size(), 1U);  // after the completion
    };
    host_->present(banner, {});
    announced_.take();
    banner->perform(accept ? "onAcceptAll" : "onRejectAll");
    EXPECT_THAT(completions_,
                ElementsAre(accept ? ConsentAction::acceptAll() : ConsentAction::rejectAll()));
    EXPECT_EQ(finished, 1);
    EXPECT_THAT(host_->screens(), IsEmpty());
    const auto& pending = PendingConsentStore::shared();
    const auto all = [accept](std::initializer_list<std::int64_t> ids) {
      ConsentFlags out;
      for (const auto id : ids)
        out[id] = accept;
      return out;
    };
    EXPECT_EQ(pending.purposeConsent(), all({1, 2, 3, 7}));
    EXPECT_EQ(pending.vendorConsent(), all({8, 10, 755}));
    EXPECT_EQ(pending.specialFeatureMaster(), all({1, 2}));
    EXPECT_EQ(VendorConsentStore::shared().states(), pending.vendorConsent());
    EXPECT_EQ(PurposeConsentStore::shared().states(), pending.purposeConsent());
    EXPECT_EQ(SpecialFeatureConsentStore::shared().vendorState(2, 10), accept);
    EXPECT_EQ(SpecialFeatureConsentStore::shared().vendorState(1, 755), accept);
    EXPECT_TRUE(ConsentStorage::store()->readDictionary(StorageKeys::specialFeatureVendorStates));
    const auto lines = announced_.take();
    EXPECT_THAT(lines, Contains(accept ? "specialFeatureMasterChanged featureId=1 on=true"
                                       : "specialFeatureVendorChanged featureId=1 on=false "
                                         "vendorId=755"));
    if (accept) {
      ASSERT_GE(lines.size(), 2U);
      EXPECT_EQ(lines[1], "specialFeatureVendorChanged featureId=1 on=true vendorId=8");
    }
    banner->perform("onAcceptAll");
    EXPECT_EQ(completions_.size(), 1U);
  }
}

TEST_F(Screens, CustomizeNeedsPurposesAndVendors) {
  const auto empty = makeBanner({.selectedVendorIds = std::vector<std::int64_t>{999}});
  host_->present(empty, {});
  empty->perform("onCustomize");  // no vendors selected: nothing opens
  EXPECT_EQ(host_->screens().size(), 1U);
  EXPECT_FALSE(empty->isHidden());
}

TEST_F(Screens, SaveHandsTheSwitchedOnListsToTheHandlerAndTheDelegate) {
  const auto second = openSecondLayer(testing::screenVendorList());
  EXPECT_TRUE(banner_->isHidden());
  tap("quillet://save");  // nothing switched on
  EXPECT_THAT(actions_, ElementsAre(ConsentAction::customize({}, {})));
  EXPECT_THAT(host_->screens(), IsEmpty());  // both layers closed
  EXPECT_FALSE(banner_->isHidden());
  EXPECT_EQ(finished_, 1);
  EXPECT_TRUE(completions_.empty());  // the banner's own completion is for its own buttons

  actions_.clear();
  const auto again = openSecondLayer(testing::screenVendorList());
  tap("quillet://purpose-consent/3");
  tap("quillet://segment/1");
  tap("quillet://vendor/755");
  tap("quillet://segment/7");  // no such page: ignored
  EXPECT_EQ(again->selectedSegment(), 1);
  tap("quillet://save");
  EXPECT_THAT(actions_, ElementsAre(ConsentAction::customize({3}, {755})));
  EXPECT_EQ(VendorConsentStore::shared().states(), flags({{755, true}}));
}

TEST_F(Screens, AcceptAllTellsTheDelegateAndRejectAllDoesNot) {
  struct Delegate : SecondLayerDelegate {
    void didAcceptAll() override { calls.push_back("accept"); }
    void didSaveSelections(const std::vector<std::int64_t>&,
                           const std::vector<std::int64_t>&) override {
      calls.push_back("save");
    }
    std::vector<std::string> calls;
  };
  auto delegate = std::make_shared<Delegate>();
  auto second =
      std::make_shared<SecondLayerViewController>(content({}, testing::screenVendorList()));
  second->delegate = delegate;
  host_->present(second, {});
  tap("quillet://accept-all");
  EXPECT_THAT(actions_, ElementsAre(ConsentAction::acceptAll()));
  EXPECT_THAT(delegate->calls, ElementsAre("accept"));
  EXPECT_EQ(SpecialFeatureConsentStore::shared().masterStates(), flags({{1, true}, {2, true}}));

  second = std::make_shared<SecondLayerViewController>(content({}, testing::screenVendorList()));
  second->delegate = delegate;
  host_->present(second, {});
  tap("quillet://reject-all");
  EXPECT_THAT(delegate->calls, ElementsAre("accept"));
  EXPECT_EQ(actions_.back(), ConsentAction::rejectAll());
  EXPECT_EQ(PendingConsentStore::shared().vendorConsent(),
            flags({{8, false}, {10, false}, {755, false}}));
  EXPECT_EQ(ConsentStorage::store()->readDictionary(StorageKeys::specialFeatureMasterStates),
            (StoreValue::Dictionary{{"1", false}, {"2", false}}));

  // A delegate gone before the closing ends is simply not told.
  second = std::make_shared<SecondLayerViewController>(content({}, testing::screenVendorList()));
  second->delegate = delegate;
  host_->present(second, {});
  delegate.reset();
  tap("quillet://save");
  EXPECT_EQ(actions_.size(), 3U);

  // Without "specialFeatures" accept all leaves special features alone.
  const auto masters = SpecialFeatureConsentStore::shared().masterStates();
  const auto vendorsOn = SpecialFeatureConsentStore::shared().vendorStates();
  std::string list = testing::screenVendorList();
  list.replace(list.find("\"specialFeatures\": {"), 20, "\"noSpecialFeatures\": {");
  host_->present(std::make_shared<SecondLayerViewController>(content({}, list)), {});
  tap("quillet://accept-all");
  EXPECT_EQ(SpecialFeatureConsentStore::shared().masterStates(), masters);
  EXPECT_EQ(SpecialFeatureConsentStore::shared().vendorStates(), vendorsOn);
}

TEST_F(Screens, PurposeSwitchesOnTheTabAndOnTheDetailsDifferAsIntended) {
  for (const auto vendor : {8, 10, 755})
    ConsentCommit::switchVendor(vendor, true);
  PendingConsentStore::shared().setPurposeConsent(1, true);
  const auto second = openSecondLayer(testing::screenVendorList());
  const ConsentFlags allOff = flags({{8, false}, {10, false}, {755, false}});
  testing::LogCapture log;
  announced_.take();
  tap("quillet://purpose-consent/1");  // on the tab: off, announced, vendors untouched
  EXPECT_EQ(PendingConsentStore::shared().purposeConsent().at(1), false);
  EXPECT_EQ(PendingConsentStore::shared().vendorConsent(),
            flags({{8, true}, {10, true}, {755, true}}));
  EXPECT_THAT(announced_.take(), ElementsAre("qlt.purposeConsentChanged id=1 on=false"));
  EXPECT_THAT(log.lines(), Contains("[DEBUG] [QLT-CMP:PurposeTabVC] Purpose 1 Consent\u2011master "
                                    "→ false"));
  EXPECT_GT(host_->impacts.load(), 0);

  // The details: on, then off; every consent vendor follows in both stores, and only the vendor
  // store's own announcements are made.
  tap("quillet://read-more/1");
  ASSERT_NE(std::dynamic_pointer_cast<PurposeDetailsViewController>(host_->topScreen()), nullptr);
  tap("quillet://master-consent");
  tap("quillet://master-consent");
  EXPECT_EQ(PendingConsentStore::shared().vendorConsent(), allOff);
  EXPECT_EQ(VendorConsentStore::shared().states(), allOff);
  EXPECT_THAT(announced_.take(), ElementsAre("qlt.vendorConsentChanged id=8 on=false",
                                             "qlt.vendorConsentChanged id=10 on=false",
                                             "qlt.vendorConsentChanged id=755 on=false"));
  // The second layer below shows them anew, once for all of them.
  const auto updates = host_->updates().size();
  main_->runUntilIdle();
  EXPECT_EQ(host_->updates().size(), updates + 1);
  EXPECT_THAT(log.lines(), Contains("[DEBUG] [QLT-CMP:PurposeDetailsVC]   └─ vendor 755 consent "
                                    "auto\u2011set → false"));
  tap("quillet://close");  // back on the tab, which reads the switches back
  EXPECT_EQ(host_->topScreen(), second);
  EXPECT_FALSE(second->purposeVC().purposeToggles.at(1).isOn());

  // Switched on again there, the vendors page and Save agree with the purposes tab.
  tap("quillet://read-more/1");
  tap("quillet://master-consent");
  tap("quillet://close");
  tap("quillet://segment/1");
  EXPECT_THAT(second->document(), HasSubstr("id=\"vendor-10\" class=\"qlt-toggle\" "
                                            "role=\"switch\" aria-checked=\"true\""));
  tap("quillet://save");
  EXPECT_EQ(actions_.back(), ConsentAction::customize({1}, {8, 10, 755}));
}

TEST_F(Screens, LegitimateInterestAndSpecialFeatureSwitchesOnThePurposesTab) {
  const auto second = openSecondLayer(testing::screenVendorList());
  announced_.take();
  tap("quillet://purpose-li/7");  // vendors 8 and 755 base purpose 7 on legitimate interest
  EXPECT_EQ(PendingConsentStore::shared().liPurposeConsent(),
            (NestedConsentFlags{{8, {{7, true}}}, {755, {{7, true}}}}));
  EXPECT_THAT(announced_.take(),
              ElementsAre("qlt.purposeLegitimateInterestChanged on=true purposeId=7"));
  tap("quillet://expand/7");
  EXPECT_THAT(second->document(), HasSubstr("id=\"purpose-vendor-li-7-755\""));
  tap("quillet://purpose-vendor-li/7/755");
  EXPECT_EQ(PendingConsentStore::shared().liPurposeConsent().at(755).at(7), false);
  tap("quillet://purpose-vendor/1/10");
  EXPECT_EQ(PendingConsentStore::shared().vendorConsent().at(10), true);

  // A special feature master off also switches off (and announces) its vendors.
  SpecialFeatureConsentStore::shared().setVendor(1, 755, true);
  second->purposeVC().reload();
  announced_.take();
  tap("quillet://sf-master/1");
  EXPECT_THAT(announced_.take(),
              ElementsAre("specialFeatureVendorChanged featureId=1 on=false vendorId=755",
                          "specialFeatureMasterChanged featureId=1 on=false"));
  EXPECT_EQ(PendingConsentStore::shared().specialFeatureMaster().at(1), false);

  // The tab follows a master or a legitimate interest changed elsewhere, and only those it shows.
  SpecialFeatureConsentStore::shared().setMaster(2, true);
  EXPECT_TRUE(second->purposeVC().specialFeatureToggles.at(2).isOn());
  EXPECT_THAT(second->document(), HasSubstr("Special Features (Master)"));
  auto& center = NotificationCenter::defaultCenter();
  center.post(NotificationNames::purposeLegitimateInterestChanged,
              {{"purposeId", std::int64_t{7}}, {"on", false}});
  EXPECT_FALSE(second->purposeVC().liToggles.at(7).isOn());
  const auto updates = host_->updates().size();
  center.post(NotificationNames::specialFeatureMasterChanged,
              {{"featureId", std::int64_t{2}}, {"on", true}});
  center.post(NotificationNames::specialFeatureMasterChanged,
              {{"featureId", std::int64_t{9}}, {"on", true}});
  main_->runUntilIdle();
  EXPECT_EQ(host_->updates().size(), updates);  // nothing changed, nothing shown anew
}

TEST_F(Screens, VendorDetailsKeepTheLegitimateInterestMasterInStepWithoutLoops) {
  PendingConsentStore::shared().setLiPurposeConsent(755, ConsentFlags{{2, true}, {7, true}});
  const auto second = openSecondLayer(testing::screenVendorList());
  tap("quillet://segment/1");
  tap("quillet://vendor-details/2");  // Google
  const auto details = std::dynamic_pointer_cast<VendorDetailsViewController>(host_->topScreen());
  ASSERT_NE(details, nullptr);
  EXPECT_THAT(details->liPurposeIDs, ElementsAre(2, 7));
  EXPECT_TRUE(details->liMaster);
  tap("quillet://li-fold");
  EXPECT_THAT(details->document(), HasSubstr("Hide Legitimate Interests"));
  tap("quillet://li/2");
  EXPECT_TRUE(details->liMasterSwitch.isOn());
  tap("quillet://li/7");  // the last one off: the master follows, the purposes stay as they are
  EXPECT_FALSE(details->liMasterSwitch.isOn());
  EXPECT_FALSE(details->ignoreMasterLISync);
  EXPECT_EQ(PendingConsentStore::shared().liPurposeConsent().at(755),
            flags({{2, false}, {7, false}}));
  tap("quillet://li-master");  // the master on switches every purpose on
  EXPECT_EQ(PendingConsentStore::shared().liPurposeConsent().at(755),
            flags({{2, true}, {7, true}}));
  EXPECT_TRUE(details->liPurposeToggles.at(7).isOn());

  announced_.take();
  tap("quillet://main-consent");
  EXPECT_EQ(PendingConsentStore::shared().vendorConsent().at(755), true);
  EXPECT_THAT(announced_.take(), ElementsAre("qlt.vendorConsentChanged id=755 on=true"));
  tap("quillet://sf/1");
  EXPECT_TRUE(SpecialFeatureConsentStore::shared().vendorState(1, 755));
  EXPECT_TRUE(PendingConsentStore::shared().specialFeatureConsent(1, 755));
  const auto document = details->document();
  EXPECT_THAT(document, HasSubstr("Special Feature\u00A0"));
  EXPECT_THAT(document, HasSubstr("Info\u2011only Feature\u00A0"));
  EXPECT_THAT(document, HasSubstr("Max Device Storage"));
  EXPECT_THAT(document, HasSubstr("href=\"https://policies.google.com/privacy\""));
  tap("quillet://disclosure");  // no usable address: the screen opens and says there is no data
  const auto disclosure =
      std::dynamic_pointer_cast<DeviceStorageDisclosureViewController>(host_->topScreen());
  ASSERT_NE(disclosure, nullptr);
  EXPECT_FALSE(disclosure->isLoading());
  EXPECT_THAT(disclosure->document(), HasSubstr("No Data"));
  tap("quillet://close");

  // The details follow changes made elsewhere, and say when a notification names no vendor.
  testing::LogCapture log;
  VendorConsentStore::shared().setConsent(755, false);
  EXPECT_FALSE(details->mainSwitch.isOn());
  SpecialFeatureConsentStore::shared().setVendor(1, 755, false);
  EXPECT_FALSE(details->sfToggles.at(1).isOn());
  NotificationCenter::defaultCenter().post(NotificationNames::vendorConsentChanged, {{"on", true}});
  EXPECT_THAT(log.lines(), Contains("[WARN] [QLT-CMP:VendorDetailsVC] vendorConsentChanged: "
                                    "notification received but could not resolve vendorId"));
}

TEST_F(Screens, AVendorWithoutOfferedLegitimateInterestHasNoSuchSection) {
  const auto second = openSecondLayer(testing::screenVendorList());
  tap("quillet://segment/1");
  tap("quillet://vendor-details/1");  // Ten: no legitimate interest at all
  EXPECT_THAT(host_->topScreen()->document(), Not(HasSubstr("Legitimate Interest Consent")));
  tap("quillet://close");
  EXPECT_EQ(host_->topScreen(), second);
  // Google with only purposes 1 and 3 offered: its purposes 2 and 7 are not.
  const auto details = std::make_shared<VendorDetailsViewController>(
      *second->content().rawVendors[2], second->content().gvl, VendorConsentStore::shared(),
      std::set<std::int64_t>{1, 3}, "#007AFF");
  EXPECT_TRUE(details->liPurposeIDs.empty());
  EXPECT_THAT(details->document(), Not(HasSubstr("Legitimate Interest Consent")));
}

TEST_F(Screens, VendorsPageSwitchWritesTheStoreWhichAnnouncesRealChanges) {
  const auto second = openSecondLayer(testing::screenVendorList());
  tap("quillet://segment/1");
  announced_.take();
  tap("quillet://vendor/8");
  tap("quillet://vendor/8");
  EXPECT_THAT(announced_.take(), ElementsAre("qlt.vendorConsentChanged id=8 on=true",
                                             "qlt.vendorConsentChanged id=8 on=false"));
  EXPECT_THAT(second->document(), HasSubstr("data-cell=\"VendorCell\""));
  EXPECT_EQ(host_->follow("quillet://vendor-details/99"), NavigationPolicy::cancel);
  EXPECT_EQ(host_->topScreen(), second);
}

TEST_F(Screens, DisclosureIsDownloadedDecodedAndShown) {
  testing::TestServer server;
  server.reply("dsd.json", {.body = R"({"disclosures": [
      {"identifier": "id<1>", "type": "cookie", "maxAgeSeconds": 172800, "cookieRefresh": true,
       "domains": ["a.example", "b.example"], "purposes": [1, 99]},
      {"identifier": "s", "type": "web", "maxAgeSeconds": 0, "cookieRefresh": false,
       "purposes": []}],
      "domains": [{"domain": "*.example", "use": "ads"}]})"});
  server.reply("bad.json", {.body = R"({"disclosures": [{"identifier": 1}]})"});
  const auto disclosure = [&](const std::string& path) {
    auto screen = std::make_shared<DeviceStorageDisclosureViewController>(
        "Vendor", server.cdnBase() + path,
        Json::parse(R"({"1": {"name": "Store"}})").value().as_object(), "#007AFF");
    host_->present(screen, {});
    EXPECT_THAT(screen->document(), HasSubstr("Loading…"));
    screen->load();
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (screen->isLoading() && std::chrono::steady_clock::now() < deadline)
      main_->runFor(5ms);
    return screen;
  };
  const auto good = disclosure("dsd.json");
  ASSERT_NE(good->table(), nullptr);
  const auto& table = *good->table();
  EXPECT_EQ(table.sections.size(), 2U);
  EXPECT_THAT(table.entryLines(table.disclosure.disclosures->at(0)),
              ElementsAre("id<1>", "Type: cookie", "Max Age: 2 days", "Refresh: yes",
                          "Domains: a.example, b.example", "Purposes: Store, Purpose 99"));
  EXPECT_THAT(table.entryLines(table.disclosure.disclosures->at(1))[2], "Max Age: session");
  const auto document = good->document();
  EXPECT_THAT(document, HasSubstr("Storage Entries"));
  EXPECT_THAT(document, HasSubstr("id&lt;1&gt;"));
  EXPECT_THAT(document, HasSubstr("data-cell=\"domainCell\""));

  // A document that holds nothing, one that does not decode, and one that cannot be had: each
  // says so in its own words, and the log says why.
  server.reply("empty.json", {.body = R"({"disclosures": [], "domains": null})"});
  const std::pair<const char*, const char*> outcomes[] = {
      {"empty.json", "This vendor did not provide any device storage disclosure data."},
      {"bad.json", "could not be read: it does not follow the disclosure format."},
      {"missing.json", "could not be loaded."}};
  for (const auto& [path, text] : outcomes) {
    testing::LogCapture log;
    const auto failed = disclosure(path);
    EXPECT_EQ(failed->table(), nullptr) << path;
    EXPECT_THAT(failed->document(), HasSubstr("No Data</h1><p>")) << path;
    EXPECT_THAT(failed->document(), HasSubstr(text)) << path;
    EXPECT_EQ(log.lines().size(), path == std::string("empty.json") ? 0U : 1U) << path;
  }
  testing::LogCapture log;
  disclosure("bad.json");
  EXPECT_THAT(log.lines(), Contains(HasSubstr("was refused (" + server.cdnBase() +
                                              "bad.json): disclosures[0]: key \"identifier\"")));
}

TEST(ScreenEvent, LinksOfTheLibrarysSchemeNameAnEventAndItsIds) {
  using Ids = std::vector<std::int64_t>;
  const std::pair<const char*, std::optional<std::pair<std::string, Ids>>> rows[] = {
      {"quillet://save", std::pair("save", Ids{})},
      {"QUILLET://purpose-vendor/1/10", std::pair("purpose-vendor", Ids{1, 10})},
      {"quillet://segment/1//", std::pair("segment", Ids{1})},
      {"quillet://segment/1?tab=2/3#x", std::pair("segment", Ids{1})},
      {"quillet://segment#1", std::pair("segment", Ids{})},
      {"quillet://", std::nullopt},
      {"quillet:///", std::nullopt},
      {"quillet://li/x", std::nullopt},
      {"quillet://li/2/", std::pair("li", Ids{2})},
      {"https://example.com/save", std::nullopt},
  };
  for (const auto& [url, expected] : rows) {
    const auto event = ScreenEvent::parse(url);
    EXPECT_EQ(event ? std::optional(std::pair(event->name, event->ids)) : std::nullopt, expected)
        << url;
  }
  EXPECT_EQ(ScreenEvent::link("purpose-vendor", {1, 10}), "quillet://purpose-vendor/1/10");
}

TEST_F(Screens, DocumentsEscapeEveryTextAndLinkOnlyToSafeAddresses) {
  std::string list = testing::screenVendorList("{}", "javascript:alert(1)");
  const std::string hostileName = R"(<img src=x onerror=alert(1)>\"')";
  list.replace(list.find("\"Eight\""), 7, "\"" + hostileName + "\"");
  list.replace(list.find("https://policies.google.com/privacy"), 35, "javascript:alert(2)");
  const auto second = openSecondLayer(list);
  tap("quillet://expand/1");
  std::string all = second->document();
  tap("quillet://segment/1");
  all += second->document();
  tap("quillet://vendor-details/2");
  all += host_->topScreen()->document();
  EXPECT_THAT(all, Not(HasSubstr("<img")));
  EXPECT_THAT(all, Not(HasSubstr("javascript:")));
  EXPECT_THAT(all, HasSubstr("&lt;img src=x onerror=alert(1)&gt;"));
  EXPECT_FALSE(Html::isSafeLink("javascript:alert(1)"));
  EXPECT_FALSE(Html::isSafeLink("https://a.example/\"onclick=x"));
  EXPECT_FALSE(Html::isSafeLink("https://a.example/a b"));
  EXPECT_TRUE(Html::isSafeLink("HTTPS://a.example/p?q=1"));
  EXPECT_TRUE(Html::isSafeLink("mailto:dpo@example.com"));
  // Links the screens do not know are not followed either.
  EXPECT_EQ(host_->follow("quillet://nothing/here"), NavigationPolicy::cancel);
  EXPECT_EQ(host_->follow("quillet://li/x"), NavigationPolicy::cancel);
}

}  // namespace
}  // namespace quillet
