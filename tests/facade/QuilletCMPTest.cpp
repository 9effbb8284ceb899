#include <atomic>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/Clock.h"
#include "quillet/base/Locale.h"
#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/codec/TCString.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"

#include "SmallVendorList.h"
#include "support/ChildProcess.h"
#include "support/ConsentStores.h"
#include "support/RecordingLogSink.h"
#include "support/RecordingScreenHost.h"
#include "support/TCStringBrief.h"
#include "support/TempDirectory.h"
#include "support/TestData.h"
#include "support/TestServer.h"

namespace quillet {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using testing::Reply;
using ::testing::UnorderedElementsAre;
using namespace std::chrono_literals;
using Signals = std::map<std::string, std::string>;

// A clock the test can set while the library reads it.
class SettableClock final : public Clock {
 public:
  std::chrono::system_clock::time_point now() const noexcept override {
    return std::chrono::system_clock::time_point(std::chrono::milliseconds(millis_.load()));
  }
  void set(std::int64_t millis) { millis_ = millis; }

 private:
  std::atomic<std::int64_t> millis_{1700000000000};
};

// The facade end to end: a loopback server, a SQLite store in a temporary folder, a main queue
// pumped by the test thread, a recording screen host and analytics library.
class QuilletCMPTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig});
    server_.reply("gvl.json", Reply{.body = testing::kSmallVendorList});
    analytics_->registerClass("FIRAnalytics", firebase_);
    Platform::install({.keyValueStore = store_,
                       .httpClient = http_,
                       .endpoints = Endpoints{server_.cdnBase(), server_.apiBase()},
                       .mainQueue = main_,
                       .screenHost = host_,
                       .analytics = analytics_,
                       .clock = clock_,
                       .locale = std::make_shared<FixedLocale>("fr_FR")});
    QLTAPIServer::clearCache();
    testing::emptyConsentStores();
    QltLog::setSink(log_);
    QltLog::setEnabled(true);
  }
  void TearDown() override {
    QltLog::setEnabled(false);
    QltLog::setSink(nullptr);
    Platform::install({});
    QLTAPIServer::clearCache();
  }

  // Pumps the main queue until `done` holds or 20 seconds pass.
  bool pumpUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      main_->runFor(5ms);
    }
    return true;
  }

  // Initialises and waits until the banner is up; `completed` reports the completion.
  void startUntilBanner(std::atomic<int>& completed) {
    facade_->initialize("pub", [&completed] { ++completed; });
    ASSERT_TRUE(pumpUntil([&] { return host_->count() == 1; }));
  }

  std::string stored() const {
    return testing::brief(store_->readString(StorageKeys::tcString).value_or(""));
  }

  std::vector<boost::json::object> consentPosts() const {
    std::vector<boost::json::object> posts;
    for (const auto& request : server_.requests()) {
      if (request.path == "/api/v1/consent")
        posts.push_back(boost::json::parse(request.body).as_object());
    }
    return posts;
  }

  std::vector<std::string> logLines() const {
    std::vector<std::string> lines;
    for (const auto& line : log_->lines())
      lines.push_back(line.substr(line.find("] [") + 2));
    return lines;
  }

  testing::TestServer server_;
  testing::TempDirectory directory_;
  std::shared_ptr<SqliteKeyValueStore> store_ =
      SqliteKeyValueStore::open(directory_ / "store.sqlite").value();
  std::shared_ptr<CurlHttpClient> http_ = std::make_shared<CurlHttpClient>();
  std::shared_ptr<RunLoop> main_ = std::make_shared<RunLoop>();
  std::shared_ptr<testing::RecordingScreenHost> host_ =
      std::make_shared<testing::RecordingScreenHost>();
  std::shared_ptr<AnalyticsRegistry> analytics_ = std::make_shared<AnalyticsRegistry>();
  std::shared_ptr<testing::RecordingAnalytics> firebase_ =
      std::make_shared<testing::RecordingAnalytics>();
  std::shared_ptr<SettableClock> clock_ = std::make_shared<SettableClock>();
  std::shared_ptr<testing::RecordingLogSink> log_ = std::make_shared<testing::RecordingLogSink>();
  std::shared_ptr<QuilletCMP> facade_ = QuilletCMP::create();
};

TEST_F(QuilletCMPTest, AFirstRunShowsTheBannerAndCompletesAfterTheDecision) {
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  EXPECT_TRUE(server_.waitFor("/api/v1/analytics/events", 1));
  EXPECT_EQ(server_.count("/api/v1/analytics/events"), 1U);
  EXPECT_EQ(server_.count("/cdn/pub/banner_config.json"), 1U);
  EXPECT_EQ(completed.load(), 0);  // not before the user decides

  const auto banner = host_->presented()[0];
  EXPECT_FALSE(banner.secondLayer);
  EXPECT_EQ(banner.thread, std::this_thread::get_id());  // on the main queue
  EXPECT_EQ(banner.presentation.transition, Transition::crossDissolve);
  EXPECT_TRUE(banner.presentation.animated);
  EXPECT_THAT(banner.content.config.selectedVendorIds().value(), ElementsAre(8, 10, 755));
  std::vector<std::int64_t> offered;
  for (const auto& purpose : banner.content.purposes)
    offered.push_back(purpose.id());
  EXPECT_THAT(offered, ElementsAre(1, 2, 3, 7, 10));  // 11 is declared by no selected vendor
  ASSERT_EQ(banner.content.vendors.size(), 3U);
  ASSERT_EQ(banner.content.rawVendors.size(), 3U);
  EXPECT_EQ(banner.content.rawVendors[2]->at("name"), "Google");
  // Legitimate interest starts switched on for what the vendors declare (an empty list too).
  EXPECT_EQ(
      PendingConsentStore::shared().liPurposeConsent(),
      (NestedConsentFlags{{8, {{7, true}}}, {10, {}}, {755, {{2, true}, {7, true}, {10, true}}}}));

  host_->decide(ConsentAction::acceptAll());
  EXPECT_EQ(completed.load(), 1);
  EXPECT_TRUE(store_->readBool(StorageKeys::consent));
  // The locale's language, the configuration's country, what the vendors declare.
  EXPECT_EQ(stored(),
            "FR DE 471/1 0 100 12 4 17000000000 17000000000 [1,2,3,4] [2,7,10] [1,2] [8,10,755] "
            "900 [8,755] [8,10,755]");

  ASSERT_TRUE(server_.waitFor("/api/v1/consent", 1));
  const auto posts = consentPosts();
  ASSERT_EQ(posts.size(), 1U);
  EXPECT_EQ(posts[0].at("eventType"), "accepted");
  EXPECT_EQ(posts[0].at("settingsId"), "pub");
  EXPECT_EQ(posts[0].at("tcString").as_string(), store_->readString(StorageKeys::tcString).value());
  EXPECT_EQ(posts[0].at("deviceId").as_string(), store_->readString(StorageKeys::deviceId).value());

  ASSERT_EQ(firebase_->calls().size(), 1U);
  EXPECT_EQ(firebase_->calls()[0], (Signals{{"ad_storage", "granted"},
                                            {"analytics_storage", "denied"},
                                            {"ad_user_data", "granted"},
                                            {"ad_personalization", "granted"}}));
  EXPECT_EQ(VendorConsentStore::shared().states(),
            (ConsentFlags{{8, true}, {10, true}, {755, true}}));
  EXPECT_EQ(PurposeConsentStore::shared().states(),
            (ConsentFlags{{1, true}, {2, true}, {3, true}, {7, false}, {10, false}}));
  const auto lines = logLines();
  EXPECT_THAT(lines, Contains("[INFO] [QLT-CMP:QuilletCMP] Initializing with settingsId «pub»"));
  EXPECT_THAT(lines, Contains("[INFO] [QLT-CMP:QuilletCMP] Saved consent = YES\n" +
                              store_->readString(StorageKeys::tcString).value()));
  EXPECT_THAT(lines, Contains("[INFO] [QLT-CMP:QuilletCMP] [GoogleConsentMode] DEBUG: "
                              "purposeConsents in AcceptAll = [1, 2, 3, 4]"));
}

TEST_F(QuilletCMPTest, RejectAllStoresNoConsentButDisclosesEveryVendor) {
  host_->answer = ConsentAction::rejectAll();
  std::vector<std::string> handed;  // to the host, to rewrite its in-app values
  facade_->setConsentStoredHandler([&handed](const std::string& text) { handed.push_back(text); });
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  EXPECT_EQ(completed.load(), 1);
  EXPECT_EQ(handed, std::vector{store_->readString(StorageKeys::tcString).value()});
  EXPECT_FALSE(store_->readBool(StorageKeys::consent));
  EXPECT_EQ(stored(),
            "FR DE 471/1 0 100 12 4 17000000000 17000000000 [] [] [] [] 900 [] [8,10,755]");
  ASSERT_TRUE(server_.waitFor("/api/v1/consent", 1));
  EXPECT_EQ(consentPosts()[0].at("eventType"), "rejected");
  EXPECT_THAT(logLines(),
              Contains(::testing::StartsWith("[INFO] [QLT-CMP:QuilletCMP] Saved consent = NO\n")));
  EXPECT_EQ(firebase_->calls().back().at("ad_storage"), "denied");
}

TEST_F(QuilletCMPTest, OnRequestStringsAlsoDiscloseEveryVendorOfTheList) {
  facade_->setAppendsDisclosedVendorsSegment(true);
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  facade_->applyCustomSelections({1}, {8});
  const auto tc = TCString::parse(store_->readString(StorageKeys::tcString).value());
  ASSERT_TRUE(tc);
  ASSERT_TRUE(tc->vendorsDisclosed);
  EXPECT_EQ(tc->vendorsDisclosed->ids(), (std::vector<std::int64_t>{8, 10, 755}));
  EXPECT_EQ(tc->vendorConsents.ids(), std::vector<std::int64_t>{8});
}

TEST_F(QuilletCMPTest, CustomSelectionsKeepOnlyConfiguredPurposesAndSelectedVendors) {
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  SpecialFeatureConsentStore::shared().setVendor(2, 755, true);  // the user opts in on screen
  facade_->applyCustomSelections({7, 99, 1}, {755, 900, 8});
  EXPECT_EQ(stored(),
            "FR DE 471/1 0 100 12 4 17000000000 17000000000 [1,7] [2,7,10] [2] [8,755] 900 [8,755] "
            "[8,10,755]");
  ASSERT_TRUE(server_.waitFor("/api/v1/consent", 1));
  EXPECT_EQ(consentPosts()[0].at("eventType"), "customized");
  EXPECT_EQ(firebase_->calls().back().at("analytics_storage"), "granted");
  // The stores were brought back in line with the stored string.
  EXPECT_EQ(SpecialFeatureConsentStore::shared().masterStates(),
            (ConsentFlags{{1, false}, {2, true}}));
  EXPECT_TRUE(SpecialFeatureConsentStore::shared().vendorState(2, 755));
}

TEST_F(QuilletCMPTest, RepeatsOfTheSameStringAndEventAreNotPostedTwice) {
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  facade_->acceptAllSelections();
  facade_->acceptAllSelections();  // same clock reading, same string
  EXPECT_THAT(logLines(), Contains("[INFO] [QLT-CMP:QuilletCMP] Skipping duplicate consent event "
                                   "(TCString/eventType unchanged)"));
  clock_->set(1700000000000 + 5000);
  facade_->acceptAllSelections();  // the same event with a new string
  facade_->rejectAllSelections();
  ASSERT_TRUE(server_.waitFor("/api/v1/consent", 3));
  std::this_thread::sleep_for(100ms);
  std::vector<std::string> events;
  for (const auto& post : consentPosts())
    events.emplace_back(post.at("eventType").as_string());
  // Posts are sent concurrently, so they may arrive in any order.
  EXPECT_THAT(events, UnorderedElementsAre("accepted", "rejected", "accepted"));
}

TEST_F(QuilletCMPTest, NothingHappensBeforeTheConfigurationIsLoaded) {
  facade_->acceptAllSelections();
  EXPECT_FALSE(store_->get(StorageKeys::tcString).has_value());
  EXPECT_EQ(facade_->makeTCStringRejectAll(), std::nullopt);  // no settings id yet
  facade_->showBanner(false);
  main_->runUntilIdle();
  EXPECT_EQ(host_->count(), 0U);
}

TEST_F(QuilletCMPTest, WithoutAVendorListStartUpCompletesWithNothingShown) {
  server_.reply("gvl.json",
                Reply{.status = 404, .body = "<html></html>", .contentType = "text/html"});
  std::atomic<int> completed{0};
  facade_->initialize("pub", [&completed] { ++completed; });
  ASSERT_TRUE(pumpUntil([&] { return completed.load() == 1; }));
  EXPECT_FALSE(facade_->isConfigLoaded());
  EXPECT_EQ(facade_->makeTCStringRejectAll(), std::nullopt);
  main_->runUntilIdle();
  EXPECT_EQ(host_->count(), 0U);
  // Once the list can be had, asking for the banner fetches again and shows it.
  server_.reply("gvl.json", Reply{.body = testing::kSmallVendorList});
  facade_->showBanner(false);
  EXPECT_TRUE(pumpUntil([&] { return host_->count() == 1; }));
}

TEST_F(QuilletCMPTest, RejectAllStringWaitsForTheFetchAndStoresNothing) {
  server_.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig, .delay = 300ms});
  host_->available = false;  // no screens: initialise only loads
  std::atomic<int> completed{0};
  facade_->initialize("other-id-first", [&completed] { ++completed; });  // not served: fails
  ASSERT_TRUE(pumpUntil([&] { return completed.load() == 1; }));
  facade_->initialize("pub", nullptr);  // starts the slow fetch
  const auto started = std::chrono::steady_clock::now();
  const auto rejectAll = facade_->makeTCStringRejectAll();
  EXPECT_GE(std::chrono::steady_clock::now() - started, 250ms);
  EXPECT_EQ(
      testing::brief(rejectAll.value_or("")),
      "EN AA 471/1 0 100 12 4 17000000000 17000000000 [] [] [] [] 900 []");  // no allowed vendors
  EXPECT_FALSE(store_->get(StorageKeys::tcString).has_value());
  EXPECT_EQ(server_.count("/api/v1/consent"), 0U);
}

TEST_F(QuilletCMPTest, AFacadeReleasedDuringItsFetchStillCompletes) {
  server_.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig, .delay = 200ms});
  std::atomic<int> completed{0};
  facade_->initialize("pub", [&completed] { ++completed; });
  facade_.reset();
  EXPECT_TRUE(pumpUntil([&] { return completed.load() == 1; }));
  EXPECT_EQ(host_->count(), 0U);
}

TEST_F(QuilletCMPTest, ShowBannerFromAnotherThreadPresentsOnTheMainQueue) {
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  std::thread([this] { facade_->showBanner(false); }).join();
  EXPECT_EQ(host_->count(), 1U);  // nothing until the main queue runs
  ASSERT_TRUE(pumpUntil([&] { return host_->count() == 2; }));
  EXPECT_EQ(host_->presented()[1].thread, std::this_thread::get_id());
  EXPECT_FALSE(host_->presented()[1].secondLayer);
  EXPECT_EQ(server_.count("/cdn/pub/banner_config.json"), 1U);  // a loaded configuration is kept
}

TEST_F(QuilletCMPTest, StoredConsentSuppressesTheBannerAndForceOpensTheStoredChoices) {
  host_->answer = ConsentAction::acceptAll();
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  host_->answer.reset();
  facade_->showBanner(false);
  main_->runUntilIdle();
  EXPECT_EQ(host_->count(), 1U);
  EXPECT_THAT(logLines(),
              Contains("[INFO] [QLT-CMP:QuilletCMP] banner suppressed – consent already stored"));

  VendorConsentStore::shared().replaceStates({});
  SpecialFeatureConsentStore::shared().replaceVendorStates({});  // as in a new process
  facade_->showBanner(true);
  ASSERT_TRUE(pumpUntil([&] { return host_->count() == 2; }));
  EXPECT_TRUE(host_->presented()[1].secondLayer);
  EXPECT_EQ(VendorConsentStore::shared().states(),
            (ConsentFlags{{8, true}, {10, true}, {755, true}}));
  EXPECT_TRUE(SpecialFeatureConsentStore::shared().vendorState(2, 755));  // as persisted
  // The second layer hands its outcome to the same handler.
  host_->decide(ConsentAction::rejectAll());
  EXPECT_FALSE(store_->readBool(StorageKeys::consent));
}

TEST_F(QuilletCMPTest, AnEmptyStoredStringCountsAsNoConsent) {
  store_->set(StorageKeys::tcString, "");
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  EXPECT_EQ(host_->count(), 1U);
}

TEST_F(QuilletCMPTest, TheMainThreadMayReadTheFacadeWhileAFetchIsApplied) {
  std::atomic<int> completed{0};
  facade_->initialize("pub", [&completed] { ++completed; });
  std::size_t reads = 0;
  while (host_->count() == 0) {
    reads += facade_->vendors().size() + facade_->purposes().size() + (facade_->config() ? 1 : 0);
    main_->runFor(1ms);
  }
  EXPECT_EQ(facade_->vendors().size(), 3U);
  (void)reads;
}

// Runs the facade tool in a separate process on the same store and server.
testing::ChildProcess::Result runTool(std::vector<std::string> args) {
  args.insert(args.begin(), QUILLET_FACADE_TOOL);
  return testing::runProcess(std::move(args));
}

TEST_F(QuilletCMPTest, ASecondProcessWithTheStoredStringShowsNoBanner) {
  const auto first = runTool({(directory_ / "shared.sqlite").string(), "--cdn", server_.cdnBase(),
                              "--api", server_.apiBase(), "--decide", "accept"});
  ASSERT_EQ(first.status, 0) << first.out;
  EXPECT_THAT(first.out, ::testing::HasSubstr("banner presented\n"));
  EXPECT_THAT(first.out, ::testing::HasSubstr("completion\n"));

  const auto second = runTool({(directory_ / "shared.sqlite").string(), "--cdn", server_.cdnBase(),
                               "--api", server_.apiBase(), "--decide", "none"});
  ASSERT_EQ(second.status, 0) << second.out;
  EXPECT_THAT(second.out, Not(::testing::HasSubstr("banner presented")));
  EXPECT_THAT(second.out, ::testing::HasSubstr("TCString already present → C"));
  // Consent Mode was refreshed from the stored string before the completion.
  const auto refreshed = second.out.find("consent mode: ad_personalization=granted");
  const auto completion = second.out.find("completion\n");
  ASSERT_NE(refreshed, std::string::npos) << second.out;
  EXPECT_LT(refreshed, completion);
  EXPECT_EQ(server_.count("/cdn/pub/banner_config.json"), 2U);
  EXPECT_EQ(server_.count("/api/v1/analytics/events"), 2U);
}

// The whole banner document of the configuration and vendor list that the demo ships, pinned in
// testdata/golden/demo-banner.html; QUILLET_UPDATE_GOLDEN=1 rewrites that file instead.
TEST_F(QuilletCMPTest, TheBundledDemoConfigurationShowsItsGoldenBanner) {
  server_.reply("pub/banner_config.json",
                Reply{.body = testing::testdataText("banner_config.json")});
  server_.reply("gvl.json", Reply{.body = testing::testdataText("gvl-v3-106.json")});
  std::atomic<int> completed{0};
  startUntilBanner(completed);
  EXPECT_TRUE(testing::matchesGolden("demo-banner.html", host_->presented()[0].screen->document()));
}

TEST_F(QuilletCMPTest, AVendorNamingALegitimateInterestPurposeTwiceStopsTheStartUp) {
  std::string list = testing::kSmallVendorList;
  list.replace(list.find("\"legIntPurposes\": [7]"), 21, "\"legIntPurposes\": [7, 7]");
  const auto file = directory_ / "twice.json";
  std::ofstream(file) << list;
  const auto run = runTool({(directory_ / "twice.sqlite").string(), "--serve", file.string(),
                            testing::kSmallConfig, "--decide", "none"});
  EXPECT_NE(run.status, 0);
  EXPECT_THAT(run.err, ::testing::HasSubstr("Duplicate values for key: '7'"));
}

TEST_F(QuilletCMPTest, AHostMayExitWhileAFetchAndAPostAreInFlight) {
  // The configuration arrives while the child's last exit handler waits.
  server_.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig, .delay = 1s});
  const auto run = runTool({(directory_ / "exit.sqlite").string(), "--cdn", server_.cdnBase(),
                            "--api", server_.apiBase(), "--exit-in-flight"});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_THAT(run.out, ::testing::HasSubstr("exiting\n"));
}

}  // namespace
}  // namespace quillet
