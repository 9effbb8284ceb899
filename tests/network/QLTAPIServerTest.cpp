#include <future>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/Clock.h"
#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"

#include "support/RecordingLogSink.h"
#include "support/TestServer.h"

namespace quillet {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using testing::Reply;
using namespace std::chrono_literals;

struct Fetched {
  std::optional<BrandingConfig> config;
  QLTAPIServer::VendorList gvl;
};

// Each test gets its own server, store, client and log, installed as the library's.
class QLTAPIServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    useEndpoints(server_.cdnBase(), server_.apiBase());
    QLTAPIServer::clearCache();
    QltLog::setSink(log_);
    QltLog::setEnabled(true);
  }
  void TearDown() override {
    QltLog::setEnabled(false);
    QltLog::setSink(nullptr);
    Platform::install({});
    QLTAPIServer::clearCache();
  }

  void useEndpoints(std::string cdn, std::string api) {
    Platform::install({.keyValueStore = store_,
                       .httpClient = http_,
                       .endpoints = Endpoints{std::move(cdn), std::move(api)},
                       .clock = clock_,
                       .makeUuid = [this] { return "UUID-" + std::to_string(++uuids_); }});
  }

  // Serves a configuration for `id` whose vendorListVersion is `version`.
  void serveConfig(const std::string& id, int version, int status = 200) {
    server_.reply(id + "/banner_config.json",
                  Reply{.status = status,
                        .body = R"({"vendorListVersion": )" + std::to_string(version) +
                                R"(, "publisherCC": "fr", "selectedVendorIds": [1]})"});
  }
  void serveGVL(const std::string& body) { server_.reply("gvl.json", Reply{.body = body}); }
  void storeGVL(int version, const std::string& json) {
    store_->set(StorageKeys::vendorListVersion, version);
    store_->set(StorageKeys::gvlJson, Bytes(json.begin(), json.end()));
  }

  Fetched fetch(const std::string& id) {
    auto promise = std::make_shared<std::promise<Fetched>>();
    auto future = promise->get_future();
    QLTAPIServer::fetchBannerConfigAndMaybeGVL(
        id, [promise](std::optional<BrandingConfig> config, QLTAPIServer::VendorList gvl) {
          promise->set_value(Fetched{std::move(config), std::move(gvl)});
        });
    if (future.wait_for(20s) != std::future_status::ready) {
      ADD_FAILURE() << "no completion for " << id;
      return {};
    }
    return future.get();
  }

  // The log lines without their timestamps and tags.
  std::vector<std::string> logged() const {
    std::vector<std::string> lines;
    for (const auto& line : log_->lines()) {
      const auto tag = line.find("[QLT-CMP:QLTAPIServer] ");
      const auto level = line.find("] [") + 3;
      if (tag == std::string::npos) continue;
      lines.push_back(line.substr(level, line.find(']', level) - level) + " " +
                      line.substr(tag + 23));
    }
    return lines;
  }

  static boost::json::object object(const std::string& json) {
    return boost::json::parse(json).as_object();
  }
  std::optional<boost::json::object> storedGVL() const {
    const auto bytes = store_->readBytes(StorageKeys::gvlJson);
    if (!bytes) return std::nullopt;
    return boost::json::parse(std::string(bytes->begin(), bytes->end())).as_object();
  }

  testing::TestServer server_;
  std::shared_ptr<MemoryKeyValueStore> store_ = std::make_shared<MemoryKeyValueStore>();
  std::shared_ptr<CurlHttpClient> http_ = std::make_shared<CurlHttpClient>();
  std::shared_ptr<FixedClock> clock_ = std::make_shared<FixedClock>(
      std::chrono::system_clock::time_point(std::chrono::milliseconds(2500)));
  std::shared_ptr<testing::RecordingLogSink> log_ = std::make_shared<testing::RecordingLogSink>();
  int uuids_ = 0;
};

TEST_F(QLTAPIServerTest, EqualVersionsUseTheStoredVendorListWithoutDownloading) {
  serveConfig("pub", 5);
  serveGVL(R"({"vendorListVersion": 99})");
  storeGVL(5, R"({"vendorListVersion": 5})");
  const Fetched fetched = fetch("pub");
  ASSERT_TRUE(fetched.config);
  EXPECT_EQ(fetched.config->publisherCC(), "FR");
  ASSERT_TRUE(fetched.gvl);
  EXPECT_EQ(*fetched.gvl, object(R"({"vendorListVersion": 5})"));
  EXPECT_EQ(server_.count("/cdn/gvl.json"), 0U);
  EXPECT_THAT(logged(), ElementsAre("DEBUG fetchBannerConfigAndMaybeGVL - starting for pub",
                                    "DEBUG config fetched. localVendorListVersion=5, "
                                    "remoteVendorListVersion=5, hasLocalGVL=true",
                                    "DEBUG GVL already cached, will use local",
                                    "DEBUG Using cached GVL: yes"));
}

// Every other case downloads the list, uses its "gvl" member when it has one, and stores it.
TEST_F(QLTAPIServerTest, OtherwiseTheRemoteListIsDownloadedAndStored) {
  struct Row {
    int local, remote;
    std::string stored, served, used, logs;
  };
  const Row rows[] = {
      {5, 6, R"({"v": 5})", R"({"v": 6})", R"({"v": 6})",
       "DEBUG Will fetch GVL (mustFetchGVL=true)"},
      {6, 5, R"({"v": 6})", R"({"v": 5})", R"({"v": 5})", "DEBUG GVL fetched from CDN"},
      {5, 5, "[1, 2]", R"({"fresh": true})", R"({"fresh": true})",
       "DEBUG config fetched. localVendorListVersion=5, remoteVendorListVersion=5, "
       "hasLocalGVL=false"},
      {0, 7, "", R"({"meta": 1, "gvl": {"v": 7, "vendors": {}}})", R"({"v": 7, "vendors": {}})",
       "DEBUG Found nested GVL root"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.served);
    QLTAPIServer::clearCache();
    serveConfig("pub", row.remote);
    serveGVL(row.served);
    if (!row.stored.empty()) storeGVL(row.local, row.stored);
    const Fetched fetched = fetch("pub");
    ASSERT_TRUE(fetched.gvl);
    EXPECT_EQ(*fetched.gvl, object(row.used));
    EXPECT_EQ(store_->readInteger(StorageKeys::vendorListVersion), row.remote);
    EXPECT_EQ(storedGVL(), *fetched.gvl);
    EXPECT_EQ(QLTAPIServer::cachedGVL(), fetched.gvl);
    EXPECT_THAT(logged(), Contains(row.logs));
  }
  EXPECT_EQ(server_.count("/cdn/gvl.json"), std::size(rows));
  EXPECT_THAT(logged(), Contains("DEBUG fetchGVL - starting network request"));
  EXPECT_THAT(logged(), Contains("DEBUG Parsed GVL JSON successfully"));
}

TEST_F(QLTAPIServerTest, AFailedDownloadFallsBackToMemoryThenStoreThenNothing) {
  serveConfig("pub", 9);  // no gvl.json: the server answers 404 with an HTML page
  const Fetched nothing = fetch("pub");
  ASSERT_TRUE(nothing.config);
  EXPECT_EQ(nothing.gvl, nullptr);
  EXPECT_THAT(logged(), Contains("ERROR Failed to fetch or parse GVL JSON"));
  EXPECT_THAT(logged(), Contains("ERROR GVL fetch failed, using fallback"));
  EXPECT_THAT(logged(), Contains("DEBUG Using cached GVL: no"));
  EXPECT_EQ(store_->readInteger(StorageKeys::vendorListVersion), 0);  // unchanged

  storeGVL(3, R"({"from": "store"})");
  EXPECT_EQ(*fetch("pub").gvl, object(R"({"from": "store"})"));

  serveGVL(R"({"from": "memory"})");
  auto promise = std::make_shared<std::promise<void>>();
  QLTAPIServer::fetchGVL([promise](QLTAPIServer::VendorList) { promise->set_value(); });
  ASSERT_EQ(promise->get_future().wait_for(20s), std::future_status::ready);
  EXPECT_EQ(storedGVL(), object(R"({"from": "store"})"));  // a bare fetchGVL stores nothing
  server_.reply("gvl.json",
                Reply{.status = 500, .body = "<html>oops</html>", .contentType = "text/html"});
  EXPECT_EQ(*fetch("pub").gvl, object(R"({"from": "memory"})"));
}

TEST_F(QLTAPIServerTest, AConfigurationServedWithAnErrorStatusIsStillUsed) {
  serveConfig("pub", 4, 500);
  storeGVL(4, "{}");
  const Fetched fetched = fetch("pub");
  ASSERT_TRUE(fetched.config);
  EXPECT_EQ(fetched.config->vendorListVersion(), 4);
}

TEST_F(QLTAPIServerTest, UnusableConfigurationsCompleteWithNothing) {
  server_.reply("html/banner_config.json",
                Reply{.status = 503, .body = "<html>down</html>", .contentType = "text/html"});
  server_.reply("empty/banner_config.json", Reply{.body = ""});
  server_.reply("array/banner_config.json", Reply{.body = "[]"});
  server_.reply(
      "cut/banner_config.json",
      Reply{.kind = Reply::Kind::cutOff, .body = R"({"vendorListVersion": 1, "x": "......"})"});
  server_.reply("huge/banner_config.json", Reply{.kind = Reply::Kind::huge, .size = 40 << 20});
  server_.reply("loop/banner_config.json", Reply{.kind = Reply::Kind::redirectLoop});
  for (const char* id :
       {"html", "empty", "array", "cut", "huge", "loop", "missing", "a b", "line\nbreak"}) {
    const Fetched fetched = fetch(id);
    EXPECT_FALSE(fetched.config) << id;
    EXPECT_EQ(fetched.gvl, nullptr) << id;
  }
  const auto lines = logged();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "ERROR fetchBrandingConfig failed"), 9);
  EXPECT_EQ(server_.count("/cdn/gvl.json"), 0U);
}

TEST_F(QLTAPIServerTest, VendorListFaultsFallBackWithoutCrashingOrHanging) {
  serveConfig("pub", 2);
  storeGVL(1, R"({"kept": true})");
  for (const Reply& reply :
       {Reply{.kind = Reply::Kind::cutOff, .body = R"({"vendors": {"1": {"name": "A"}}})"},
        Reply{.kind = Reply::Kind::huge, .size = 40 << 20},
        Reply{.kind = Reply::Kind::redirectLoop}, Reply{.body = ""},
        Reply{.status = 404, .body = "<html>Not Found</html>", .contentType = "text/html"}}) {
    server_.reply("gvl.json", reply);
    const Fetched fetched = fetch("pub");
    ASSERT_TRUE(fetched.config);
    ASSERT_TRUE(fetched.gvl);
    EXPECT_EQ(*fetched.gvl, object(R"({"kept": true})"));
  }
  EXPECT_EQ(store_->readInteger(StorageKeys::vendorListVersion), 1);
  const auto lines = logged();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) {
                            return line.starts_with("ERROR GVL network error: ");
                          }),
            3);  // cut off, too large, redirect loop
}

TEST_F(QLTAPIServerTest, ARefusedConnectionFailsEveryOperationQuietly) {
  const std::string dead = "http://127.0.0.1:" + std::to_string(testing::closedPort());
  useEndpoints(dead + "/cdn/", dead + "/api");
  EXPECT_FALSE(fetch("pub").config);
  auto promise = std::make_shared<std::promise<QLTAPIServer::VendorList>>();
  QLTAPIServer::fetchGVL([promise](QLTAPIServer::VendorList gvl) { promise->set_value(gvl); });
  auto future = promise->get_future();
  ASSERT_EQ(future.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(future.get(), nullptr);
  EXPECT_THAT(logged(), Contains(::testing::StartsWith("ERROR GVL network error: ")));
}

TEST_F(QLTAPIServerTest, TwoCombinedFetchesAtOnceEachGetTheirOwnConfiguration) {
  serveConfig("one", 1);
  serveConfig("two", 2);
  serveGVL(R"({"vendors": {}})");
  auto first = std::async(std::launch::async, [&] { return fetch("one"); });
  auto second = std::async(std::launch::async, [&] { return fetch("two"); });
  const Fetched one = first.get();
  const Fetched two = second.get();
  ASSERT_TRUE(one.config && two.config);
  EXPECT_EQ(one.config->vendorListVersion(), 1);
  EXPECT_EQ(two.config->vendorListVersion(), 2);
  EXPECT_TRUE(one.gvl && two.gvl);
}

TEST_F(QLTAPIServerTest, FetchBrandingConfigKeepsTheLastGoodConfiguration) {
  serveConfig("pub", 3);
  auto fetchConfig = [](const std::string& id) {
    auto promise = std::make_shared<std::promise<std::optional<BrandingConfig>>>();
    QLTAPIServer::fetchBrandingConfig(
        id, [promise](std::optional<BrandingConfig> config) { promise->set_value(config); });
    return promise->get_future().get();
  };
  EXPECT_EQ(fetchConfig("pub")->vendorListVersion(), 3);
  EXPECT_EQ(QLTAPIServer::cachedConfig()->vendorListVersion(), 3);
  EXPECT_FALSE(fetchConfig("missing"));
  EXPECT_EQ(QLTAPIServer::cachedConfig()->vendorListVersion(), 3);
  EXPECT_THAT(logged(), Not(Contains("ERROR fetchBrandingConfig failed")));
  EXPECT_FALSE(fetchConfig("bad id"));
  EXPECT_THAT(logged(), Contains("ERROR fetchBrandingConfig failed"));
  QLTAPIServer::clearCache();
  EXPECT_FALSE(QLTAPIServer::cachedConfig());
}

TEST_F(QLTAPIServerTest, InitializeCacheLoadsTheStoredListOnce) {
  storeGVL(1, R"({"first": 1})");
  QLTAPIServer::initializeCache();
  EXPECT_EQ(*QLTAPIServer::cachedGVL(), object(R"({"first": 1})"));
  storeGVL(1, R"({"second": 2})");
  QLTAPIServer::initializeCache();  // already filled: unchanged
  EXPECT_EQ(*QLTAPIServer::cachedGVL(), object(R"({"first": 1})"));
  QLTAPIServer::clearCache();
  storeGVL(1, "not json");
  QLTAPIServer::initializeCache();
  EXPECT_EQ(QLTAPIServer::cachedGVL(), nullptr);
}

TEST_F(QLTAPIServerTest, PostsCarryTheirMembersAndOneDeviceIdUnlessTheCallerGivesOne) {
  *clock_ = FixedClock(std::chrono::system_clock::time_point(std::chrono::microseconds(2500400)));
  QLTAPIServer::postConsent("CQ-string", "pub", "accepted", std::nullopt);
  QLTAPIServer::postAnalyticsSessionEvent("pub", std::nullopt);
  ASSERT_TRUE(server_.waitFor("/api/v1/consent", 1));
  ASSERT_TRUE(server_.waitFor("/api/v1/analytics/events", 1));
  std::map<std::string, testing::RecordedRequest> requests;
  for (const auto& request : server_.requests())
    requests[request.path] = request;
  const auto& consent = requests.at("/api/v1/consent");
  EXPECT_EQ(boost::json::parse(consent.body),
            boost::json::parse(R"({"tcString": "CQ-string", "settingsId": "pub",
                                   "eventType": "accepted", "source": "ios", "deviceId": "UUID-1"})"));
  EXPECT_EQ(consent.headers.find("Content-Type")->second, "application/json");
  EXPECT_EQ(consent.method, "POST");
  // Whole milliseconds from the clock.
  EXPECT_EQ(boost::json::parse(requests.at("/api/v1/analytics/events").body),
            boost::json::parse(R"({"app_id": "pub", "uuid": "UUID-1", "platform": "ios",
                                   "ts": 2500})"));
  EXPECT_EQ(store_->readString(StorageKeys::deviceId), "UUID-1");
  EXPECT_EQ(QLTAPIServer::deviceId(), "UUID-1");

  // A caller's id is sent as it is, and nothing more is made or stored.
  store_->remove(StorageKeys::deviceId);
  QLTAPIServer::postConsent("CQ", "pub", "rejected", "caller-id");
  QLTAPIServer::postAnalyticsSessionEvent("pub", "caller-id");
  ASSERT_TRUE(server_.waitFor("/api/v1/consent", 2));
  ASSERT_TRUE(server_.waitFor("/api/v1/analytics/events", 2));
  const auto all = server_.requests();
  for (auto request = all.begin() + 2; request != all.end(); ++request) {
    const auto body = boost::json::parse(request->body).as_object();
    EXPECT_EQ(body.contains("deviceId") ? body.at("deviceId") : body.at("uuid"), "caller-id");
  }
  EXPECT_EQ(store_->get(StorageKeys::deviceId), std::nullopt);
  EXPECT_EQ(uuids_, 1);
}

TEST_F(QLTAPIServerTest, AnalyticsLogsItsOutcomeAndConsentLogsNothing) {
  server_.replyToPost("v1/analytics/events", 500);
  server_.replyToPost("v1/consent", 500);
  QLTAPIServer::postAnalyticsSessionEvent("pub", "id");
  QLTAPIServer::postConsent("CQ", "pub", "customized", "id");
  ASSERT_TRUE(server_.waitFor("/api/v1/consent", 1));
  ASSERT_TRUE(server_.waitFor("/api/v1/analytics/events", 1));
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (logged().empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_THAT(logged(), ElementsAre("DEBUG postAnalyticsSessionEvent → HTTP 500"));

  const std::string dead = "http://127.0.0.1:" + std::to_string(testing::closedPort());
  useEndpoints(dead + "/cdn/", dead + "/api");
  QLTAPIServer::postConsent("CQ", "pub", "accepted", "id");
  QLTAPIServer::postAnalyticsSessionEvent("pub", "id");
  while (logged().size() < 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(5ms);
  }
  ASSERT_EQ(logged().size(), 2U);
  EXPECT_THAT(logged()[1], ::testing::StartsWith("ERROR postAnalyticsSessionEvent failed: "));

  useEndpoints(server_.cdnBase(), "not a url");
  QLTAPIServer::postConsent("CQ", "pub", "accepted", "id");
  QLTAPIServer::postAnalyticsSessionEvent("pub", "id");
  EXPECT_EQ(logged().size(), 2U);
}

}  // namespace
}  // namespace quillet
