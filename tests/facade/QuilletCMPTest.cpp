// The facade end to end: a loopback server, a SQLite store in a temporary folder, a main queue
// pumped by the test thread, a recording screen host and analytics library. Each test narrates
// its walk into testdata/golden/facade/<test>.txt: each step, then what it changed of the
// screens, the stored consent, the posts, the Consent Mode signals, the consent stores and the
// facade's own log lines.

#include <atomic>
#include <future>
#include <map>
#include <thread>

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include "quillet/base/Clock.h"
#include "quillet/base/Locale.h"
#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/base/Text.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"

#include "facade/FacadeData.h"
#include "support/ChildProcess.h"
#include "support/ConsentWalk.h"
#include "support/RecordingScreenHost.h"
#include "support/TestData.h"
#include "support/TestServer.h"

namespace quillet {
namespace {

using testing::Reply;
using namespace std::chrono_literals;

// A clock the test can set while the library reads it.
class SettableClock final : public Clock {
 public:
  std::chrono::system_clock::time_point now() const noexcept override {
    return std::chrono::system_clock::time_point(std::chrono::milliseconds(millis.load()));
  }
  std::atomic<std::int64_t> millis{1700000000000};
};

std::string ids(const auto& records) {
  std::string out;
  for (const auto& record : records)
    out += (out.empty() ? "" : ",") + std::to_string(record.id());
  return out;
}

class Facade : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig});
    server_.reply("gvl.json", Reply{.body = testing::smallVendorList()});
    analytics_->registerClass("FIRAnalytics", firebase_);
    install(SqliteKeyValueStore::open(directory_ / "store.sqlite").value());
    QLTAPIServer::clearCache();
    testing::emptyConsentStores();
    walk_.emplace([this] { return observe(); }, "QuilletCMP");
  }
  void TearDown() override {
    const std::string test = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    EXPECT_TRUE(testing::matchesGolden("facade/" + test + ".txt", walk_->transcript));
    walk_.reset();
    Platform::install({});
    QLTAPIServer::clearCache();
  }

  void install(std::shared_ptr<KeyValueStore> store) {
    store_ = std::move(store);
    Platform::install({.keyValueStore = store_,
                       .httpClient = std::make_shared<CurlHttpClient>(),
                       .endpoints = Endpoints{server_.cdnBase(), server_.apiBase()},
                       .mainQueue = main_,
                       .screenHost = host_,
                       .analytics = analytics_,
                       .clock = clock_,
                       .locale = std::make_shared<FixedLocale>("fr_FR")});
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

  // Runs `action`, waits for `requests` more requests to reach the server, runs the main queue
  // dry, and narrates what changed.
  void step(const std::string& name, const std::function<void()>& action) { step(name, 0, action); }
  void step(const std::string& name, std::size_t requests, const std::function<void()>& action) {
    walk_->step(name, [&] {
      action();
      EXPECT_TRUE(server_.waitFor("", requests + seen_)) << name;
      main_->runUntilIdle();
    });
  }
  void initialize(std::size_t requests, bool untilBanner = true) {
    step("initialize", requests, [&] {
      facade_->initialize("pub", [this] { complete(); });
      EXPECT_TRUE(pumpUntil([&] { return completed_ > 0 || (untilBanner && host_->count() > 0); }));
    });
  }

  testing::ConsentWalk::Values observe() {
    std::string requests;
    for (const auto& r : server_.since(seen_)) {
      requests += "\n    " + r.path;
      if (r.path != "/api/v1/consent") continue;
      auto post = boost::json::parse(r.body).as_object();
      for (const auto& [key, kept] : {std::pair{"tcString", StorageKeys::tcString},
                                      std::pair{"deviceId", StorageKeys::deviceId}}) {
        if (post.at(key).as_string() == store_->readString(kept).value_or(""))
          post[key] = "(as stored)";
      }
      requests += " " + Json::print(post);
    }
    std::string screen;
    if (const auto presented = host_->presented(); !presented.empty()) {
      const auto& last = presented.back();
      const auto& c = last.content;
      screen =
          std::to_string(presented.size()) + (last.secondLayer ? " second layer" : " banner") +
          (last.thread == std::this_thread::get_id() ? " on the main thread" : " elsewhere") +
          " transition " + std::to_string(static_cast<int>(last.presentation.transition)) +
          (last.presentation.animated ? " animated" : "") + ", selected " +
          Text::printedList(c.config.selectedVendorIds().value_or(std::vector<std::int64_t>{})) +
          ", purposes " + ids(c.purposes) + ", vendors " + ids(c.vendors) + ", entries " +
          std::to_string(c.rawVendors.size());
    }
    const auto signals = firebase_->calls();
    std::string mode = std::to_string(signals.size());
    for (const auto& [key, value] :
         signals.empty() ? std::map<std::string, std::string>{} : signals.back())
      mode += " " + key + "=" + value;
    return {{"requests", std::to_string(seen_) + requests},
            {"presented", screen},
            {"stored", std::to_string(store_->readBool(StorageKeys::consent)) + " " +
                           testing::brief(store_->readString(StorageKeys::tcString).value_or(""))},
            {"consent mode", mode},
            {"completed", std::to_string(completed_) + completion_},
            {"handed to the host", std::to_string(handed_.size())}};
  }

  testing::TestServer server_;
  testing::TempDirectory directory_;
  std::shared_ptr<KeyValueStore> store_;
  std::shared_ptr<RunLoop> main_ = std::make_shared<RunLoop>();
  std::shared_ptr<testing::RecordingScreenHost> host_ =
      std::make_shared<testing::RecordingScreenHost>();
  std::shared_ptr<AnalyticsRegistry> analytics_ = std::make_shared<AnalyticsRegistry>();
  std::shared_ptr<testing::RecordingAnalytics> firebase_ =
      std::make_shared<testing::RecordingAnalytics>();
  std::shared_ptr<SettableClock> clock_ = std::make_shared<SettableClock>();
  std::shared_ptr<QuilletCMP> facade_ = QuilletCMP::create();
  // The completion, and how many Consent Mode updates came before it.
  void complete() {
    completion_ = " after " + std::to_string(firebase_->calls().size()) + " Consent Mode updates";
    ++completed_;
  }
  std::atomic<int> completed_{0};
  std::string completion_;
  std::vector<std::string> handed_;
  std::optional<testing::ConsentWalk> walk_;
  std::size_t seen_ = 0;
};

// The banner on a first run (the completion waits for the decision), each decision stored, posted
// once per new string or event, mirrored into Consent Mode and the stores; then stored consent
// suppresses the banner, forcing it opens the stored choices, and a new process shows nothing.
TEST_F(Facade, AFirstRunAndTheDecisionsAfterIt) {
  initialize(3);
  step("accept all on the banner", 1, [&] { host_->decide(ConsentAction::acceptAll()); });
  step("accept all again: the same string", [&] { facade_->acceptAllSelections(); });
  step("five seconds later", 1, [&] {
    clock_->millis += 5000;
    facade_->acceptAllSelections();
  });
  step("the stores rewritten for ids and a vendor list of the host's own", [&] {
    const auto list = testing::jsonObject(
        R"({"vendors": {"755": {"legIntPurposes": [7]}}, "specialFeatures": {"1": {}}})");
    facade_->syncStoresFromStoredTCString({1, 7}, {8, 755, 900}, list);
  });
  step("reject all", 1, [&] { facade_->rejectAllSelections(); });
  step("show the banner", [&] { facade_->showBanner(false); });
  step("forced, with the stores as in a new process", [&] {
    VendorConsentStore::shared().replaceStates({});
    SpecialFeatureConsentStore::shared().replaceVendorStates({});
    facade_->showBanner(true);
    EXPECT_TRUE(pumpUntil([&] { return host_->count() == 2; }));
  });
  step("accept all on the second layer", 1, [&] { host_->decide(ConsentAction::acceptAll()); });
  step("a new process on the same store", 2, [&] {
    install(SqliteKeyValueStore::open(directory_ / "store.sqlite").value());
    QLTAPIServer::clearCache();
    testing::emptyConsentStores();
    facade_ = QuilletCMP::create();
    facade_->initialize("pub", [this] { complete(); });
    EXPECT_TRUE(pumpUntil([&] { return completed_ == 2; }));
  });
}

// Reject all stores no consent but discloses every vendor; on request a string also carries the
// disclosed vendors segment; custom selections keep configured purposes and selected vendors;
// the host's handler is told each stored string.
TEST_F(Facade, RejectAllThenCustomSelections) {
  host_->answer = ConsentAction::rejectAll();
  facade_->setConsentStoredHandler([this](const std::string& text) { handed_.push_back(text); });
  initialize(4);
  step("feature 2 on for 755, then custom selections with the disclosed vendors", 1, [&] {
    SpecialFeatureConsentStore::shared().setVendor(2, 755, true);
    facade_->setAppendsDisclosedVendorsSegment(true);
    facade_->applyCustomSelections({7, 99, 1}, {755, 900, 8});
  });
  EXPECT_EQ(handed_.back(), store_->readString(StorageKeys::tcString));
}

// Nothing before a configuration; a start-up without a vendor list completes with nothing shown
// and fetches again when the banner is asked for; an empty stored string is no consent; the
// banner asked for from another thread comes on the main queue.
TEST_F(Facade, WithoutAConfigurationNothingHappens) {
  step("decisions before any start-up", [&] {
    facade_->acceptAllSelections();
    EXPECT_EQ(facade_->makeTCStringRejectAll(), std::nullopt);  // no settings id yet
    facade_->showBanner(false);
  });
  server_.reply("gvl.json",
                Reply{.status = 404, .body = "<html></html>", .contentType = "text/html"});
  store_->set(StorageKeys::tcString, "");
  initialize(3, false);
  step("the reject-all string without a vendor list", 2, [&] {
    EXPECT_EQ(facade_->makeTCStringRejectAll(), std::nullopt);
    EXPECT_FALSE(facade_->isConfigLoaded());
  });
  server_.reply("gvl.json", Reply{.body = R"({"vendors": {"65536": {"name": "V"}}})"});
  step("the reject-all string for a list whose vendor ids no string can name", 2, [&] {
    EXPECT_EQ(facade_->makeTCStringRejectAll(), std::nullopt);
    EXPECT_FALSE(facade_->isConfigLoaded());
    store_->remove(StorageKeys::gvlJson);
    QLTAPIServer::clearCache();
  });
  std::string list = testing::smallVendorList();  // with the largest id a string can name
  list.replace(list.find("\"vendors\": {"), 12, R"("vendors": {"65535": {"name": "W"},)");
  server_.reply("gvl.json", Reply{.body = list});
  step("show the banner once a list can be had, one with vendor 65535", 2, [&] {
    facade_->showBanner(false);
    EXPECT_TRUE(pumpUntil([&] { return host_->count() == 1; }));
  });
  step("show it from another thread", [&] {
    std::thread([this] { facade_->showBanner(false); }).join();
    EXPECT_EQ(host_->count(), 1U);  // nothing until the main queue runs
  });
}

TEST_F(Facade, RejectAllStringWaitsForTheFetchAndStoresNothing) {
  server_.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig, .delay = 300ms});
  host_->available = false;  // no screens: initialise only loads
  const std::string& list = testing::smallVendorList();
  store_->set(StorageKeys::gvlJson, Bytes(list.begin(), list.end()));
  store_->set(StorageKeys::vendorListVersion, 12);
  step("initialize with an id that is not served", 2, [&] {
    facade_->initialize("other-id-first", [this] { complete(); });
    EXPECT_TRUE(pumpUntil([&] { return completed_ == 1; }));
  });
  step("the reject-all string while the slow fetch runs", 3, [&] {
    facade_->initialize("pub", nullptr);
    const auto started = std::chrono::steady_clock::now();
    walk_->transcript +=
        "  " + testing::brief(facade_->makeTCStringRejectAll().value_or("")) + "\n";
    EXPECT_GE(std::chrono::steady_clock::now() - started, 250ms);
  });
}

TEST_F(Facade, AFacadeReleasedDuringItsFetchStillCompletes) {
  server_.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig, .delay = 200ms});
  step("initialize, then release the facade", 3, [&] {
    facade_->initialize("pub", [this] { complete(); });
    facade_.reset();
    EXPECT_TRUE(pumpUntil([&] { return completed_ == 1; }));
  });
}

// The whole banner document of the configuration and vendor list that the demo ships, in
// testdata/golden/demo-banner.html; and the strings three decisions on the real list store, in
// testdata/golden/facade-strings.txt, which the interoperability tests read with the IAB's
// reference library.
TEST_F(Facade, TheRealVendorListsBannerAndStrings) {
  const std::string gvl = testing::testdataText("gvl-v3-106.json");
  server_.reply("pub/banner_config.json",
                Reply{.body = testing::testdataText("banner_config.json")});
  server_.reply("gvl.json", Reply{.body = gvl});
  initialize(3);
  EXPECT_TRUE(testing::matchesGolden("demo-banner.html", host_->presented()[0].screen->document()));
  std::string strings;
  // Each configuration, the decision, and how many vendors the facade then shows.
  for (const auto& [config, action, shown] :
       {std::tuple{R"({"vendorListVersion": 106, "publisherCC": "fr"})", ConsentAction::acceptAll(),
                   987U},
        {R"({"vendorListVersion": 106, "selectedVendorIds": [1, 8, 755, 999999]})",
         ConsentAction::acceptAll(), 3U},
        {R"({"vendorListVersion": 106})", ConsentAction::rejectAll(), 987U},
        {R"({"vendorListVersion": 106, "selectedVendorIds": []})", ConsentAction::acceptAll(),
         0U}}) {
    server_.reply("pub/banner_config.json", Reply{.body = config});
    QLTAPIServer::clearCache();
    facade_ = QuilletCMP::create();
    facade_->initialize("pub");
    EXPECT_TRUE(facade_->ensureConfigLoaded());
    EXPECT_EQ(facade_->vendors().size(), shown) << config;
    EXPECT_EQ(facade_->rawVendors().size(), shown) << config;
    EXPECT_EQ(facade_->purposes().empty(), shown == 0) << config;
    facade_->handleConsentAction(action);
    strings +=
        std::string(config) + "\n" + store_->readString(StorageKeys::tcString).value() + "\n";
  }
  EXPECT_TRUE(testing::matchesGolden("facade-strings.txt", strings));

  // A start from the stored list: the banner reads the list's start document; the facade and the
  // second layer that the banner opens have the whole list.
  server_.reply("pub/banner_config.json", Reply{.body = R"({"vendorListVersion": 106})"});
  store_->remove(StorageKeys::tcString);
  QLTAPIServer::clearCache();
  facade_ = QuilletCMP::create();
  const std::size_t shown = host_->count();
  facade_->initialize("pub");
  ASSERT_TRUE(pumpUntil([&] { return host_->count() > shown; }));
  const auto banner = host_->presented().back();
  EXPECT_LT(Json::print(*banner.content.gvl).size(), gvl.size() / 3);
  std::dynamic_pointer_cast<CMPBannerViewController>(banner.screen)->perform("onCustomize");
  main_->runUntilIdle();
  const auto whole = testing::jsonObject(gvl);
  const auto entriesAreWhole = [&](const auto& entries, const std::vector<VendorModel>& vendors) {
    ASSERT_EQ(entries.size(), vendors.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const auto id = std::to_string(vendors[i].id());
      EXPECT_EQ(*entries[i], whole.at("vendors").at(id).as_object()) << id;
    }
  };
  const auto second = host_->presented().back();
  ASSERT_TRUE(second.secondLayer);
  EXPECT_EQ(*second.content.gvl, whole);
  entriesAreWhole(second.content.rawVendors.get(), second.content.vendors.get());
  EXPECT_EQ(*facade_->gvl(), whole);
  entriesAreWhole(facade_->rawVendors(), facade_->vendors());
}

TEST(FacadeThreads, TheMainThreadMayReadTheFacadeWhileAFetchIsApplied) {
  testing::TestServer server;
  server.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig});
  server.reply("gvl.json", Reply{.body = testing::smallVendorList()});
  const auto main = std::make_shared<RunLoop>();
  const auto host = std::make_shared<testing::RecordingScreenHost>();
  Platform::install({.keyValueStore = std::make_shared<MemoryKeyValueStore>(),
                     .endpoints = Endpoints{server.cdnBase(), server.apiBase()},
                     .mainQueue = main,
                     .screenHost = host});
  QLTAPIServer::clearCache();
  const auto facade = QuilletCMP::create();
  facade->initialize("pub");
  for (const auto deadline = std::chrono::steady_clock::now() + 20s;
       host->count() == 0 && std::chrono::steady_clock::now() < deadline;) {
    (void)(facade->vendors().size() + facade->purposes().size() + (facade->config() ? 1 : 0));
    main->runFor(1ms);
  }
  EXPECT_EQ(facade->vendors().size(), 3U);
  Platform::install({});
  QLTAPIServer::clearCache();
}

TEST(FacadeDeathTest, AVendorNamingALegitimateInterestPurposeTwiceStopsTheStartUp) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::string list = testing::smallVendorList();
  list.replace(list.find("\"legIntPurposes\": [7]"), 21, "\"legIntPurposes\": [7, 7]");
  EXPECT_DEATH(
      {
        testing::TestServer server;
        server.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig});
        server.reply("gvl.json", Reply{.body = list});
        const auto main = std::make_shared<RunLoop>();
        Platform::install({.keyValueStore = std::make_shared<MemoryKeyValueStore>(),
                           .endpoints = Endpoints{server.cdnBase(), server.apiBase()},
                           .mainQueue = main,
                           .screenHost = std::make_shared<testing::RecordingScreenHost>()});
        const auto facade = QuilletCMP::create();
        facade->initialize("pub");
        main->runFor(20s);
      },
      "Duplicate values for key: '7'");
}

// A host may exit while a fetch and a post are in flight: the configuration arrives while the
// tool's last exit handler waits.
TEST(FacadeExit, AHostMayExitWhileAFetchAndAPostAreInFlight) {
  testing::TestServer server;
  server.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig, .delay = 1s});
  const testing::TempDirectory directory;
  const auto run = testing::runProcess({QUILLET_FACADE_TOOL, (directory / "exit.sqlite").string(),
                                        server.cdnBase(), server.apiBase()});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_EQ(run.out, "exiting\n");
}

}  // namespace
}  // namespace quillet
