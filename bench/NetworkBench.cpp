// The start-up fetch: the banner configuration plus the 763 KB real vendor list from a loopback
// server through QLTAPIServer's combined operation, against a bare libcurl transfer of the same
// bytes followed by a bare Boost.JSON parse.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <benchmark/benchmark.h>
#include <boost/json/parse.hpp>
#include <curl/curl.h>
#include <httplib.h>

#include "quillet/base/Platform.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/webhost/StartAccepting.h"

#include "BenchData.h"

namespace {

using namespace quillet;

const std::string kConfig =
    R"({"vendorListVersion": 106, "publisherCC": "DE", "showRejectButton": true,
        "bannerText": "We and our partners use cookies", "selectedVendorIds": [1, 2, 755]})";

// Serves the configuration and the vendor list on a free loopback port for the whole run. The
// server would compress JSON on the fly (brotli at its slowest setting), which is not what a CDN
// does and would swamp the figures, so the bodies go out as they are.
class Server {
 public:
  Server() : gvl_(bench::testdataText("gvl-v3-106.json")) {
    server_.Get("/cdn/bench/banner_config.json", [](const httplib::Request&, httplib::Response& r) {
      r.set_content(kConfig, "application/octet-stream");
    });
    server_.Get("/cdn/gvl.json", [this](const httplib::Request&, httplib::Response& r) {
      r.set_content(gvl_, "application/octet-stream");
    });
    server_.set_tcp_nodelay(true);
    server_.set_keep_alive_timeout(1);  // the server waits this long for a kept connection at stop
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = startAccepting(server_);
  }
  ~Server() {
    server_.stop();
    thread_.join();
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_) + "/cdn/"; }

 private:
  std::string gvl_;
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

Server& server() {
  static Server instance;
  return instance;
}

void runCombined(benchmark::State& state, const std::shared_ptr<KeyValueStore>& store) {
  auto http = std::make_shared<CurlHttpClient>();
  Platform::install({.keyValueStore = store,
                     .httpClient = http,
                     .endpoints = Endpoints{server().base(), "http://127.0.0.1:1"}});
  for (auto _ : state) {
    store->remove(StorageKeys::vendorListVersion);  // so that every round downloads
    std::promise<bool> done;
    QLTAPIServer::fetchBannerConfigAndMaybeGVL(
        "bench",
        [&done](const std::optional<BrandingConfig>& config, const QLTAPIServer::VendorList& gvl) {
          done.set_value(config.has_value() && gvl != nullptr);
        });
    if (!done.get_future().get()) state.SkipWithError("the combined fetch failed");
  }
  Platform::install({});
}

void CombinedFetchMemoryStore(benchmark::State& state) {
  runCombined(state, std::make_shared<MemoryKeyValueStore>());
}
BENCHMARK(CombinedFetchMemoryStore)->Unit(benchmark::kMillisecond)->UseRealTime();

void CombinedFetchSqliteStore(benchmark::State& state) {
  std::string pattern = (std::filesystem::temp_directory_path() / "quillet-bench-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  runCombined(state,
              SqliteKeyValueStore::open(std::filesystem::path(pattern) / "s.sqlite").value());
  std::filesystem::remove_all(pattern);
}
BENCHMARK(CombinedFetchSqliteStore)->Unit(benchmark::kMillisecond)->UseRealTime();

std::size_t append(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// The same two transfers with a bare libcurl handle (connection reused) and a bare parse each.
void BareCurlAndParse(benchmark::State& state) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &append);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  const std::string config = server().base() + "bench/banner_config.json";
  const std::string gvl = server().base() + "gvl.json";
  for (auto _ : state) {
    for (const std::string* url : {&config, &gvl}) {
      std::string body;
      curl_easy_setopt(easy, CURLOPT_URL, url->c_str());
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
      if (curl_easy_perform(easy) != CURLE_OK) state.SkipWithError("transfer failed");
      boost::system::error_code error;
      benchmark::DoNotOptimize(boost::json::parse(body, error));
    }
  }
  curl_easy_cleanup(easy);
}
BENCHMARK(BareCurlAndParse)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
