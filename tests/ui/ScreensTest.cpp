// What every button, switch and observer of the consent screens writes, announces and hands on.

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/Text.h"
#include "quillet/state/ConsentCommit.h"
#include "quillet/state/NotificationCenter.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/ui/DeviceStorageDisclosureViewController.h"
#include "quillet/ui/Html.h"
#include "quillet/ui/PurposeTabViewController.h"
#include "quillet/ui/VendorDetailsViewController.h"
#include "quillet/ui/WebCMPStyleToggle.h"

#include "support/ConsentWalk.h"
#include "support/LogCapture.h"
#include "support/TestData.h"
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

// Narrates walks through the screens: each step's name, then everything it changed that a user,
// the facade or an observer can see, compared whole with a golden file per walk.
class Screens : public testing::ScreenFixture {
 protected:
  // Presents a banner and opens its second layer, as a tap on customise does.
  std::shared_ptr<SecondLayerViewController> openSecondLayer(const std::string& vendorList) {
    banner_ = std::make_shared<CMPBannerViewController>(
        content({.showCustomizeButton = true}, vendorList),
        [this](ConsentAction action) { completions_.push_back(action); });
    banner_->onFinished = [this] { ++finished_; };
    host_->present(banner_, {});
    step("customise", [&] { banner_->onCustomize(); });
    auto second = std::dynamic_pointer_cast<SecondLayerViewController>(host_->topScreen());
    EXPECT_NE(second, nullptr);
    return second;
  }

  void step(const std::string& name, const std::function<void()>& action) {
    walk_.step(name, action);
  }

  // Follows one of the library's links in the top screen.
  void tap(const std::string& link) {
    step("tap " + link, [&] { EXPECT_EQ(host_->follow(link), NavigationPolicy::cancel) << link; });
  }

  // A walk is compared whole with testdata/golden/screens/<test>.txt.
  void TearDown() override {
    const std::string test = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    if (!walk_.transcript.empty()) {
      EXPECT_TRUE(testing::matchesGolden("screens/" + test + ".txt", walk_.transcript));
    }
    ScreenFixture::TearDown();
  }

  // What the screens show and hand on.
  testing::ConsentWalk::Values observe() const {
    std::string shown;
    for (const auto& screen : host_->screens())
      shown +=
          (shown.empty() ? "" : " > ") + screen->title() + (screen->isHidden() ? " (hidden)" : "");
    std::string switches;
    if (const auto top = host_->topScreen()) {
      // Each switch as its id, then + when on: the id is the last one before its aria-checked.
      const auto document = top->document();
      for (auto at = document.find("aria-checked=\""); at != std::string::npos;
           at = document.find("aria-checked=\"", at + 1)) {
        const auto id = document.rfind(" id=\"", at) + 5;
        switches += " " + document.substr(id, document.find('"', id) - id) +
                    (document.compare(at + 14, 4, "true") == 0 ? "+" : "-");
      }
    }
    const auto updates = host_->updates();
    return {{"screens", shown},
            {"handed", text(actions_)},
            {"completed", text(completions_) + " finished " + std::to_string(finished_)},
            {"switches", switches},
            {"updates", std::to_string(updates.size()) +
                            (updates.empty() ? "" : ", last: " + updates.back())}};
  }

  static std::string text(const std::vector<ConsentAction>& actions) {
    std::string out;
    for (const auto& a : actions) {
      using enum ConsentAction::Kind;
      out += a.kind() == acceptAll   ? "acceptAll "
             : a.kind() == rejectAll ? "rejectAll "
                                     : "customize(" + Text::printedList(a.purposes()) + " " +
                                           Text::printedList(a.vendors()) + ") ";
    }
    return out;
  }

  std::shared_ptr<CMPBannerViewController> banner_;
  int finished_ = 0;
  testing::ConsentWalk walk_{[this] { return observe(); }};
};

// A screen's document from its body on: the head is the same for every screen.
std::string body(const std::string& document) {
  return document.substr(std::min(document.find("<body"), document.size()));
}

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
    const auto banner = makeBanner({.showRejectButton = true});
    banner->onFinished = [&] { step("banner finished", [&] { ++finished_; }); };
    step(accept ? "banner, feature 1 off for 755" : "banner, feature 1 on for 755", [&] {
      SpecialFeatureConsentStore::shared().setVendor(1, 755, !accept);
      host_->present(banner, {});
    });
    step(accept ? "accept all" : "reject all",
         [&] { banner->perform(accept ? "onAcceptAll" : "onRejectAll"); });
    step("accept all again", [&] { banner->perform("onAcceptAll"); });
  }
  EXPECT_TRUE(ConsentStorage::store()->readDictionary(StorageKeys::specialFeatureVendorStates));
}

TEST_F(Screens, CustomizeNeedsPurposesAndVendors) {
  const auto empty = makeBanner({.selectedVendorIds = std::vector<std::int64_t>{999}});
  host_->present(empty, {});
  empty->perform("onCustomize");  // no vendors selected: nothing opens
  EXPECT_EQ(host_->screens().size(), 1U);
  EXPECT_FALSE(empty->isHidden());
}

// Save closes both layers and hands on what is switched on; the banner's own completion is for its
// own buttons. A segment that does not exist and a link to nothing are ignored.
TEST_F(Screens, SaveHandsTheSwitchedOnListsToTheHandler) {
  openSecondLayer(testing::screenVendorList());
  tap("quillet://save");
  openSecondLayer(testing::screenVendorList());
  for (const char* link :
       {"quillet://nothing", "quillet://purpose-consent/3", "quillet://segment/1",
        "quillet://vendor/755", "quillet://vendor/8", "quillet://vendor/8",
        "quillet://vendor-details/99", "quillet://segment/7", "quillet://save"})
    tap(link);
}

// Accept all tells the delegate, reject all does not, and a delegate gone before the closing ends
// is not told; without "specialFeatures" in the list accept all leaves special features alone.
TEST_F(Screens, AcceptAllTellsTheDelegateAndRejectAllDoesNot) {
  struct Delegate : SecondLayerDelegate {
    explicit Delegate(std::string& out) : out(out) {}
    void didAcceptAll() override { out += "  delegate: accept all\n"; }
    void didSaveSelections(const std::vector<std::int64_t>&,
                           const std::vector<std::int64_t>&) override {
      out += "  delegate: save\n";
    }
    std::string& out;
  };
  auto delegate = std::make_shared<Delegate>(walk_.transcript);
  const auto present = [&](const std::string& list) {
    auto second = std::make_shared<SecondLayerViewController>(content({}, list));
    second->delegate = delegate;
    host_->present(second, {});
  };
  for (const std::string link : {"accept-all", "reject-all", "save"}) {
    step("second layer", [&] { present(testing::screenVendorList()); });
    if (link == "save") delegate.reset();
    tap("quillet://" + link);
  }
  std::string list = testing::screenVendorList();
  list.replace(list.find("\"specialFeatures\": {"), 20, "\"noSpecialFeatures\": {");
  step("second layer without special features", [&] { present(list); });
  tap("quillet://accept-all");
}

// On the tab a purpose switch leaves the vendors alone; on the details every consent vendor
// follows in both stores. The layer below shows them anew once, and Save agrees with the tab.
TEST_F(Screens, PurposeSwitchesOnTheTabAndOnTheDetailsDifferAsIntended) {
  step("vendors on, purpose 1 on", [] {
    for (const auto vendor : {8, 10, 755})
      ConsentCommit::switchVendor(vendor, true);
    PendingConsentStore::shared().setPurposeConsent(1, true);
  });
  openSecondLayer(testing::screenVendorList());
  for (const char* link : {"quillet://purpose-consent/1", "quillet://read-more/1",
                           "quillet://master-consent", "quillet://master-consent"})
    tap(link);
  step("main queue", [&] { main_->runUntilIdle(); });
  for (const char* link : {"quillet://close", "quillet://read-more/1", "quillet://master-consent",
                           "quillet://close", "quillet://segment/1", "quillet://save"})
    tap(link);
  EXPECT_GT(host_->impacts.load(), 0);
}

// A special feature master off also switches off its vendors; the tab follows a master or a
// legitimate interest changed elsewhere, and shows itself anew only for those it shows.
TEST_F(Screens, LegitimateInterestAndSpecialFeatureSwitchesOnThePurposesTab) {
  const auto second = openSecondLayer(testing::screenVendorList());
  for (const char* link : {"quillet://purpose-li/7", "quillet://expand/7",
                           "quillet://purpose-vendor-li/7/755", "quillet://purpose-vendor/1/10"})
    tap(link);
  step("feature 1 on for 755", [&] {
    SpecialFeatureConsentStore::shared().setVendor(1, 755, true);
    second->purposeVC().reload();
  });
  tap("quillet://sf-master/1");
  auto& center = NotificationCenter::defaultCenter();
  step("master 2 on elsewhere", [] { SpecialFeatureConsentStore::shared().setMaster(2, true); });
  EXPECT_THAT(second->document(), HasSubstr("Special Features (Master)"));
  step("purpose 7 legitimate interest off elsewhere", [&] {
    center.post(NotificationNames::purposeLegitimateInterestChanged,
                {{"purposeId", std::int64_t{7}}, {"on", false}});
  });
  step("masters 2 and 9 announced again", [&] {
    for (const std::int64_t feature : {2, 9})
      center.post(NotificationNames::specialFeatureMasterChanged,
                  {{"featureId", feature}, {"on", true}});
    main_->runUntilIdle();
  });
}

TEST_F(Screens, VendorDetailsKeepTheLegitimateInterestMasterInStepWithoutLoops) {
  step("legitimate interest on for 755's purposes 2 and 7", [] {
    PendingConsentStore::shared().setLiPurposeConsent(755, ConsentFlags{{2, true}, {7, true}});
  });
  openSecondLayer(testing::screenVendorList());
  tap("quillet://segment/1");
  tap("quillet://vendor-details/2");  // Google
  const auto details = std::dynamic_pointer_cast<VendorDetailsViewController>(host_->topScreen());
  ASSERT_NE(details, nullptr);
  EXPECT_THAT(details->liPurposeIDs, ElementsAre(2, 7));
  // The last purpose off switches the master off and leaves the purposes; the master on switches
  // every purpose on.
  for (const char* link : {"quillet://li-fold", "quillet://li/2", "quillet://li/7",
                           "quillet://li-master", "quillet://main-consent", "quillet://sf/1"})
    tap(link);
  EXPECT_FALSE(details->ignoreMasterLISync);
  EXPECT_TRUE(testing::matchesGolden("screens/vendor-details.html", body(details->document())));
  tap("quillet://disclosure");  // no usable address: the screen opens and says there is no data
  EXPECT_THAT(host_->topScreen()->document(), HasSubstr("No Data"));
  tap("quillet://close");
  // The details follow changes made elsewhere, and say when a notification names no vendor.
  step("755 consent off elsewhere", [] { VendorConsentStore::shared().setConsent(755, false); });
  step("feature 1 off for 755 elsewhere",
       [] { SpecialFeatureConsentStore::shared().setVendor(1, 755, false); });
  step("a vendor notification without a vendor", [] {
    NotificationCenter::defaultCenter().post(NotificationNames::vendorConsentChanged,
                                             {{"on", true}});
  });
  tap("quillet://close");
}

TEST_F(Screens, AVendorWithoutOfferedLegitimateInterestHasNoSuchSection) {
  const auto second = openSecondLayer(testing::screenVendorList());
  tap("quillet://segment/1");
  tap("quillet://vendor-details/1");  // Ten: no legitimate interest at all
  EXPECT_THAT(host_->topScreen()->document(), Not(HasSubstr("Legitimate Interest Consent")));
  // Google with only purposes 1 and 3 offered: its purposes 2 and 7 are not.
  const auto details = std::make_shared<VendorDetailsViewController>(
      *second->content().rawVendors[2], second->content().gvl, VendorConsentStore::shared(),
      std::set<std::int64_t>{1, 3}, "#007AFF");
  EXPECT_TRUE(details->liPurposeIDs.empty());
  EXPECT_THAT(details->document(), Not(HasSubstr("Legitimate Interest Consent")));
}

// A disclosure is downloaded, decoded and shown; one that holds nothing, one that does not decode
// and one that cannot be had each say so in their own words, and the log says why.
TEST_F(Screens, DisclosureIsDownloadedDecodedAndShown) {
  testing::TestServer server;
  server.reply("dsd.json", {.body = R"({"disclosures": [
      {"identifier": "id<1>", "type": "cookie", "maxAgeSeconds": 172800, "cookieRefresh": true,
       "domains": ["a.example", "b.example"], "purposes": [1, 99]},
      {"identifier": "s", "type": "web", "maxAgeSeconds": 0, "cookieRefresh": false,
       "purposes": []}],
      "domains": [{"domain": "*.example", "use": "ads"}]})"});
  server.reply("bad.json", {.body = R"({"disclosures": [{"identifier": 1}]})"});
  server.reply("empty.json", {.body = R"({"disclosures": [], "domains": null})"});
  testing::LogCapture log;
  std::string all;
  for (const std::string path : {"dsd.json", "empty.json", "bad.json", "missing.json"}) {
    auto screen = std::make_shared<DeviceStorageDisclosureViewController>(
        "Vendor", server.cdnBase() + path,
        Json::parse(R"({"1": {"name": "Store"}})").value().as_object(), "#007AFF");
    host_->present(screen, {});
    all += "<!-- " + path + " -->\n" + body(screen->document()) + "\n";
    screen->load();
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (screen->isLoading() && std::chrono::steady_clock::now() < deadline)
      main_->runFor(5ms);
    all += body(screen->document()) + "\n";
    for (auto line : log.lines()) {
      if (const auto at = line.find(server.cdnBase()); at != std::string::npos)
        line.erase(at, server.cdnBase().size());
      all += "<!-- " + line + " -->\n";
    }
    log.clear();
    EXPECT_EQ(screen->table() != nullptr, path == "dsd.json");
  }
  EXPECT_TRUE(testing::matchesGolden("screens/disclosures.html", all));
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
