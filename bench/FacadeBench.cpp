// The facade's hot paths with the real 987-vendor list: a consent action from decision to
// resynchronised stores, and start-up from a cached vendor list to the screen host being asked
// to present the banner. Logging is off; the store is SQLite in a temporary folder unless a
// benchmark says memory; the server is on loopback.

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <benchmark/benchmark.h>
#include <httplib.h>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/base/Clock.h"
#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/ui/ScreenHost.h"
#include "quillet/webhost/StartAccepting.h"

#include "BenchData.h"

namespace {

using namespace quillet;

const std::string kConfig = R"({"vendorListVersion": 106, "publisherCC": "DE"})";

// A clock that moves on a tenth of a second at every reading, so that no two strings are equal
// and every action is posted.
class SteppingClock final : public Clock {
 public:
  std::chrono::system_clock::time_point now() const noexcept override {
    return std::chrono::system_clock::time_point(std::chrono::milliseconds(next_ += 100));
  }

 private:
  mutable std::atomic<std::int64_t> next_{1700000000000};
};

// Counts the banners it is asked to present, and stops the main run loop at each, so that a start
// is timed to the banner rather than to the end of a time slice of the loop.
class CountingHost final : public ScreenHost {
 public:
  CountingHost(bool available, std::shared_ptr<RunLoop> main)
      : available_(available), main_(std::move(main)) {}
  bool canPresent() const override { return available_; }
  void openUrl(const std::string&) override {}
  std::atomic<int> banners{0};

 protected:
  // Renders what a web view would load, so that start-up includes the banner's document.
  void update(const Update& update) override {
    if (update.kind != Update::Kind::presented) return;
    benchmark::DoNotOptimize(update.screen->document());
    benchmark::DoNotOptimize(update.screen->controls());
    ++banners;
    main_->stop();
  }

 private:
  bool available_;
  std::shared_ptr<RunLoop> main_;
};

// A loopback server, a SQLite store and an installed platform for one benchmark.
class Setup {
 public:
  // With `inMemory`, a store without a disk, so that the difference to SQLite is the commit.
  explicit Setup(bool screens, bool inMemory = false)
      : host(std::make_shared<CountingHost>(screens, main)) {
    gvl_ = bench::testdataText("gvl-v3-106.json");
    server_.set_tcp_nodelay(true);
    server_.set_keep_alive_timeout(1);  // the server waits this long for a kept connection at stop
    server_.Get("/cdn/pub/banner_config.json",
                [this](const httplib::Request&, httplib::Response& r) {
                  std::this_thread::sleep_for(configDelay.load());
                  r.set_content(kConfig, "application/octet-stream");
                });
    server_.Get("/cdn/gvl.json", [this](const httplib::Request&, httplib::Response& r) {
      r.set_content(gvl_, "application/octet-stream");
    });
    server_.Post(R"(/api/.*)", [](const httplib::Request&, httplib::Response& r) {
      r.set_content("{}", "application/json");
    });
    const int port = server_.bind_to_any_port("127.0.0.1");
    thread_ = startAccepting(server_);
    std::string pattern =
        (std::filesystem::temp_directory_path() / "quillet-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    directory_ = pattern;
    if (inMemory) {
      store = std::make_shared<MemoryKeyValueStore>();
    } else {
      store = SqliteKeyValueStore::open(directory_ / "store.sqlite").value();
    }
    const std::string base = "http://127.0.0.1:" + std::to_string(port);
    Platform::install({.keyValueStore = store,
                       .endpoints = Endpoints{base + "/cdn/", base + "/api"},
                       .mainQueue = main,
                       .screenHost = host,
                       .clock = std::make_shared<SteppingClock>()});
  }
  ~Setup() {
    Platform::install({});
    QLTAPIServer::clearCache();
    server_.stop();
    thread_.join();
    std::filesystem::remove_all(directory_);
  }

  // Initialises `facade` and pumps the main queue until `done` holds; the loop returns early when
  // the host presents a screen.
  void start(QuilletCMP& facade, const std::function<bool()>& done) {
    const auto called = std::chrono::steady_clock::now();
    facade.initialize("pub");
    initializeReturned += std::chrono::steady_clock::now() - called;
    while (!done())
      main->runFor(std::chrono::milliseconds(1));
  }

  std::shared_ptr<RunLoop> main = std::make_shared<RunLoop>();
  std::shared_ptr<CountingHost> host;
  /// How long the server takes to answer for the configuration.
  std::atomic<std::chrono::milliseconds> configDelay{std::chrono::milliseconds(0)};
  std::shared_ptr<KeyValueStore> store;
  /// How long the caller's thread spent in `initialize`, over all starts.
  std::chrono::duration<double, std::milli> initializeReturned{0};

 private:
  std::string gvl_;
  httplib::Server server_;
  std::thread thread_;
  std::filesystem::path directory_;
};

// Argument 1 keeps the store in memory: the SQLite figure less this one is the durable commit.
void HandleAcceptAllRealVendorList(benchmark::State& state) {
  Setup setup(false, state.range(0) == 1);
  auto facade = QuilletCMP::create();
  setup.start(*facade, [&] { return facade->isConfigLoaded(); });
  state.counters["vendors"] = static_cast<double>(facade->vendors().size());
  for (auto _ : state)
    facade->acceptAllSelections();
}
BENCHMARK(HandleAcceptAllRealVendorList)
    ->ArgName("inMemory")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// cacheFilledAtLaunch 1: the host filled the in-memory cache at launch
// (`QLTAPIServer::initializeCache()`, untimed), so that the start finds the list parsed; 0: the
// start reads the list from the store itself. configMs: how long the server takes to answer for the
// configuration, as a CDN does over a real network; the time is counted in the start.
void StartUpFromCachedVendorListToBanner(benchmark::State& state) {
  Setup setup(true);
  const bool cacheFilledAtLaunch = state.range(0) == 1;
  setup.configDelay = std::chrono::milliseconds(state.range(1));
  // The vendor list and its version as an earlier run of the app stored them. The first start is
  // the app's first in a new process (`--benchmark_min_time=0` times that one alone).
  const std::string gvl = bench::testdataText("gvl-v3-106.json");
  setup.store->set(StorageKeys::gvlJson, Bytes(gvl.begin(), gvl.end()));
  setup.store->set(StorageKeys::vendorListVersion, std::int64_t{106});
  setup.store->synchronize();
  std::shared_ptr<QuilletCMP> facade;
  for (auto _ : state) {
    state.PauseTiming();
    // The last start's banner and facade go first, so that a start finds the memory of a running
    // app rather than one more banner on top of every earlier one.
    while (const auto top = setup.host->topScreen())
      setup.host->dismiss(*top, false);
    // What the last start still had going after its banner (the session event's post, and for a
    // start from the store the whole list's read on the HTTP thread) ends here rather than in the
    // next timed start. The wait leaves that read to the HTTP thread, as in an app, so that this
    // thread does not take it over in `gvl()`.
    setup.main->runFor(std::chrono::milliseconds(20));
    if (facade) benchmark::DoNotOptimize(facade->gvl());
    facade.reset();
    QLTAPIServer::clearCache();  // as in a new process: the list comes from the store
    if (cacheFilledAtLaunch) QLTAPIServer::initializeCache();
    setup.store->remove(StorageKeys::tcString);
    facade = QuilletCMP::create();
    const int before = setup.host->banners.load();
    state.ResumeTiming();
    setup.start(*facade, [&] { return setup.host->banners.load() > before; });
  }
  // The part of a start the host's thread waits for (the rest runs on the HTTP client's thread).
  state.counters["initializeMs"] =
      benchmark::Counter(setup.initializeReturned.count(), benchmark::Counter::kAvgIterations);
}
BENCHMARK(StartUpFromCachedVendorListToBanner)
    ->ArgNames({"cacheFilledAtLaunch", "configMs"})
    ->ArgsProduct({{0, 1}, {0, 10}})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace
