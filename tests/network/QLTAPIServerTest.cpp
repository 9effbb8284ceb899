#include <future>
#include <regex>

#include <gtest/gtest.h>

#include "quillet/base/Clock.h"
#include "quillet/base/Platform.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/network/QLTAPIServerStart.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"

#include "support/LogCapture.h"
#include "support/TestData.h"
#include "support/TestServer.h"

namespace quillet {
namespace {

using testing::Reply;
using namespace std::chrono_literals;

// Each test gets its own server, store, client and log, installed as the library's, and narrates
// its walk into testdata/golden/api/<test>.txt: each step's name and outcome, then the requests
// the server saw, the log lines, and the vendor list stored and held in memory when they changed.
class QLTAPIServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    useEndpoints(server_.cdnBase(), server_.apiBase());
    QLTAPIServer::clearCache();
  }
  void TearDown() override {
    Platform::install({});
    QLTAPIServer::clearCache();
    const std::string test = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    EXPECT_TRUE(testing::matchesGolden("api/" + test + ".txt", transcript_));
  }

  void useEndpoints(std::string cdn, std::string api) {
    Platform::install({.keyValueStore = store_,
                       .httpClient = std::make_shared<CurlHttpClient>(),
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

  static std::string text(const QLTAPIServer::VendorList& gvl) {
    return gvl ? Json::print(*gvl) : "none";
  }
  static std::string text(const std::optional<BrandingConfig>& config) {
    return config ? "version " + std::to_string(config->vendorListVersion().value_or(-1)) + " " +
                        config->publisherCC().value_or("")
                  : "none";
  }

  // Calls `start` with a completion that records a text, and gives the text, waiting at most 20
  // seconds so that a hang fails instead.
  using Done = std::function<void(std::string)>;
  static std::string completed(const std::function<void(Done)>& start) {
    auto done = std::make_shared<std::promise<std::string>>();
    start([done](std::string text) { done->set_value(std::move(text)); });
    auto future = done->get_future();
    return future.wait_for(20s) == std::future_status::ready ? future.get() : "no completion";
  }
  std::string fetch(const std::string& id) {
    return completed([&](const Done& done) {
      QLTAPIServer::fetchBannerConfigAndMaybeGVL(id, [done](auto config, auto gvl) {
        done("config " + text(config) + ", list " + text(gvl));
      });
    });
  }
  std::string fetchGVL() {
    return completed([](const Done& done) {
      QLTAPIServer::fetchGVL([done](auto gvl) { done("list " + text(gvl)); });
    });
  }
  std::string fetchConfig(const std::string& id) {
    return completed([&](const Done& done) {
      QLTAPIServer::fetchBrandingConfig(id, [done](auto config) {
        done("config " + text(config) + ", cached " + text(QLTAPIServer::cachedConfig()));
      });
    });
  }

  // Runs `action` (which gives its outcome) and narrates what it caused; `requests` and `lines`
  // are how many requests and log lines to wait for first.
  void step(const std::string& name, const std::function<std::string()>& action,
            std::size_t requests = 0, std::size_t lines = 0) {
    transcript_ += name + ": " + action() + "\n";
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while ((server_.requests().size() < seen_ + requests || log_.lines().size() < lines) &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(5ms);
    for (const auto& r : server_.since(seen_)) {
      const auto type = r.headers.find("Content-Type");
      transcript_ += "  " + r.method + " " + r.path + " " + r.body +
                     (type != r.headers.end() && r.method == "POST" ? " " + type->second : "") +
                     "\n";
    }
    for (const auto& line : log_.lines())
      transcript_ +=
          "  log " +
          std::regex_replace(line, std::regex("port [0-9]+ after [0-9]+"), "port P after N") + "\n";
    log_.clear();
    const auto stored = store_->readBytes(StorageKeys::gvlJson);
    const std::string lists =
        "stored " + std::to_string(store_->readInteger(StorageKeys::vendorListVersion)) + " " +
        (stored ? std::string(stored->begin(), stored->end()) : "none") + ", in memory " +
        text(QLTAPIServer::cachedGVL()) + ", device " +
        store_->readString(StorageKeys::deviceId).value_or("none") + ", persisted " +
        std::to_string(store_->synchronized);
    if (std::exchange(lists_, lists) != lists) transcript_ += "  " + lists + "\n";
  }

  testing::TestServer server_;
  std::shared_ptr<testing::CountingStore> store_ =
      std::make_shared<testing::CountingStore>(std::make_shared<MemoryKeyValueStore>());
  std::shared_ptr<FixedClock> clock_ = std::make_shared<FixedClock>(
      std::chrono::system_clock::time_point(std::chrono::microseconds(2500400)));
  testing::LogCapture log_;
  int uuids_ = 0;
  std::string transcript_;
  std::size_t seen_ = 0;
  std::string lists_;
};

// The stored list is used while its version equals the configuration's; any other case downloads
// the list, uses its "gvl" member when it has one, and stores it.
TEST_F(QLTAPIServerTest, TheListIsDownloadedAndStoredUnlessTheStoredVersionMatches) {
  serveConfig("pub", 5);
  serveGVL(R"({"vendorListVersion": 99})");
  storeGVL(5, R"({"vendorListVersion": 5})");
  step("equal versions", [&] { return fetch("pub"); });
  struct Row {
    int local, remote;
    std::string stored, served;
  };
  for (const auto& [local, remote, stored, served] :
       {Row{5, 6, R"({"v": 5})", R"({"v": 6})"}, Row{6, 5, R"({"v": 6})", R"({"v": 5})"},
        Row{5, 5, "[1, 2]", R"({"fresh": true})"},
        Row{0, 7, "", R"({"meta": 1, "gvl": {"v": 7, "vendors": {}}})"}}) {
    QLTAPIServer::clearCache();
    serveConfig("pub", remote);
    serveGVL(served);
    if (!stored.empty()) storeGVL(local, stored);
    step("stored " + std::to_string(local) + " " + stored + ", served " + std::to_string(remote),
         [&] { return fetch("pub"); });
  }
}

// A failed download falls back to the list in memory, then the stored one, then none; a bare
// fetchGVL stores nothing.
TEST_F(QLTAPIServerTest, FailedDownloadsFallBack) {
  serveConfig("pub", 9);  // no gvl.json: the server answers 404 with an HTML page
  step("nothing anywhere", [&] { return fetch("pub"); });
  storeGVL(3, R"({"from": "store"})");
  step("a stored list", [&] { return fetch("pub"); });
  serveGVL(R"({"from": "memory"})");
  step("fetchGVL", [&] { return fetchGVL(); });
  server_.reply("gvl.json",
                Reply{.status = 500, .body = "<html>oops</html>", .contentType = "text/html"});
  step("a server error", [&] { return fetch("pub"); });
  serveConfig("pub", 2);
  storeGVL(1, R"({"kept": true})");
  QLTAPIServer::clearCache();
  for (const Reply& reply :
       {Reply{.kind = Reply::Kind::cutOff, .body = R"({"vendors": {"1": {"name": "A"}}})"},
        Reply{.kind = Reply::Kind::huge, .size = 40 << 20},
        Reply{.kind = Reply::Kind::redirectLoop}, Reply{.body = ""}}) {
    server_.reply("gvl.json", reply);
    step("a faulty list of kind " + std::to_string(static_cast<int>(reply.kind)),
         [&] { return fetch("pub"); });
  }
  serveConfig("pub", 4, 500);
  step("a configuration served with an error status", [&] { return fetch("pub"); });
  const std::string dead = "http://127.0.0.1:" + std::to_string(testing::closedPort());
  useEndpoints(dead + "/cdn/", dead + "/api");
  step("a refused connection", [&] { return fetch("pub"); });
  step("a refused connection", [&] { return fetchGVL(); });
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
  for (const char* id : {"html", "empty", "array", "cut", "huge", "missing", "a b", "line\nbreak"})
    step(id, [&] { return fetch(id); });
  // fetchBrandingConfig keeps the last good configuration; only an unusable id logs an error.
  serveConfig("pub", 3);
  step("good", [&] { return fetchConfig("pub"); });
  step("missing", [&] { return fetchConfig("missing"); });
  step("bad id", [&] { return fetchConfig("bad id"); });
  step("cleared", [&] {
    QLTAPIServer::clearCache();
    return fetchConfig("loop");
  });
}

// With a list in memory, a fetch at the stored version still needs a stored list that is an
// object, and then completes with the one in memory.
TEST_F(QLTAPIServerTest, InitializeCacheLoadsTheStoredListOnce) {
  const auto load = [] {
    QLTAPIServer::initializeCache();
    return "memory " + text(QLTAPIServer::cachedGVL());
  };
  storeGVL(1, R"({"first": 1})");
  step("first", load);
  storeGVL(1, R"({"second": 2})");
  step("second: already loaded", load);
  serveConfig("pub", 1);
  serveGVL(R"({"served": 1})");
  step("a fetch at the stored version", [&] { return fetch("pub"); });
  storeGVL(1, "[1]");
  step("a fetch when the stored list is no object", [&] { return fetch("pub"); });
  QLTAPIServer::clearCache();
  storeGVL(1, "not json");
  step("not JSON", load);
}

// A start begins to read the stored list while its configuration downloads; a list stored in the
// meantime is the one it completes with.
TEST_F(QLTAPIServerTest, AStartTakesTheListStoredWhenItsConfigurationArrives) {
  storeGVL(1, R"({"stored": "before the start"})");
  server_.reply("pub/banner_config.json",
                Reply{.body = R"({"vendorListVersion": 1})", .delay = 300ms});
  step("a list stored while the configuration downloads", [&] {
    return completed([&](const Done& done) {
      QLTAPIServer::fetchBannerConfigAndMaybeStartGVL("pub", [done](auto config, auto list) {
        done("config " + text(config) + ", list " + text(list.list));
      });
      std::this_thread::sleep_for(100ms);
      storeGVL(1, R"({"stored": "during the start"})");
    });
  });
}

// Posts carry their members and one device id unless the caller gives one; analytics logs its
// outcome, consent logs nothing, and an address that is no URL sends nothing.
TEST_F(QLTAPIServerTest, PostsCarryTheirMembersAndLogTheirOutcome) {
  const auto post = [](std::optional<std::string> device, const char* type) {
    return [device, type] {
      QLTAPIServer::postConsent("CQ-string", "pub", type, device);
      QLTAPIServer::postAnalyticsSessionEvent("pub", device);
      return "sent";
    };
  };
  step("made device id", post(std::nullopt, "accepted"), 2, 1);
  step("device id", [] { return QLTAPIServer::deviceId(); });
  store_->remove(StorageKeys::deviceId);
  step("caller's device id", post("caller", "rejected"), 2, 1);
  server_.replyToPost("v1/analytics/events", 500);
  server_.replyToPost("v1/consent", 500);
  step("server errors", post("id", "customized"), 2, 1);
  const std::string dead = "http://127.0.0.1:" + std::to_string(testing::closedPort());
  useEndpoints(dead + "/cdn/", dead + "/api");
  step("refused", post("id", "accepted"), 0, 1);
  useEndpoints(server_.cdnBase(), "not a url");
  step("no URL", post("id", "accepted"));
  EXPECT_EQ(uuids_, 1);
}

TEST(QLTAPIServer, TwoCombinedFetchesAtOnceEachGetTheirOwnConfiguration) {
  testing::TestServer server;
  Platform::install({.keyValueStore = std::make_shared<MemoryKeyValueStore>(),
                     .endpoints = Endpoints{server.cdnBase(), server.apiBase()}});
  server.reply("one/banner_config.json", Reply{.body = R"({"vendorListVersion": 1})"});
  server.reply("two/banner_config.json", Reply{.body = R"({"vendorListVersion": 2})"});
  server.reply("gvl.json", Reply{.body = R"({"vendors": {}})"});
  const auto fetch = [](const char* id) {
    auto done = std::make_shared<std::promise<std::int64_t>>();
    QLTAPIServer::fetchBannerConfigAndMaybeGVL(
        id, [done](std::optional<BrandingConfig> config, QLTAPIServer::VendorList gvl) {
          done->set_value(config && gvl ? config->vendorListVersion().value_or(0) : -1);
        });
    return done->get_future();
  };
  auto one = fetch("one");
  auto two = fetch("two");
  EXPECT_EQ(one.get(), 1);
  EXPECT_EQ(two.get(), 2);
  Platform::install({});
  QLTAPIServer::clearCache();
}

}  // namespace
}  // namespace quillet
