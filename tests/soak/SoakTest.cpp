// Long runs: thousands of decisions and start-ups through the facade against a loopback server
// and a SQLite store, with the heap measured before and after.
// Under the address sanitizer the leak checker runs at exit. SOAK_SCALE (a percentage, default
// 100) shortens the runs for a quick look.

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <thread>

#include <gtest/gtest.h>
#include <malloc.h>

#include "quillet/base/Platform.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/SqliteKeyValueStore.h"

#include "facade/FacadeData.h"
#include "support/ConsentWalk.h"
#include "support/TestData.h"
#include "support/TestServer.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace quillet {
namespace {

using namespace std::chrono_literals;
using testing::Reply;

constexpr std::int64_t kMegabyte = 1 << 20;

// Bytes the program has allocated and not freed.
std::int64_t heapInUse() {
#if defined(__SANITIZE_ADDRESS__)
  return static_cast<std::int64_t>(__sanitizer_get_current_allocated_bytes());
#else
  const struct mallinfo2 info = mallinfo2();
  return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
#endif
}

int scaled(int count) {
  const char* scale = std::getenv("SOAK_SCALE");
  const int percent = scale != nullptr ? std::atoi(scale) : 100;
  return std::max(1, count * std::clamp(percent, 1, 100) / 100);
}

class SoakTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.keepRequests(false);
    server_.reply("pub/banner_config.json", Reply{.body = testing::kSmallConfig});
    server_.reply("gvl.json", Reply{.body = testing::smallVendorList()});
    auto opened = SqliteKeyValueStore::open(directory_.path() / "store.sqlite");
    ASSERT_TRUE(opened);
    Platform::install({.keyValueStore = *opened,
                       .httpClient = std::make_shared<CurlHttpClient>(),
                       .endpoints = Endpoints{server_.cdnBase(), server_.apiBase()}});
    QLTAPIServer::clearCache();
    testing::emptyConsentStores();
  }
  void TearDown() override {
    Platform::install({});
    QLTAPIServer::clearCache();
  }

  // A start-up to its completion (no screen host: nothing is shown).
  static void startUp(QuilletCMP& facade) {
    std::promise<void> done;
    facade.initialize("pub", [&done] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(20s), std::future_status::ready);
  }

  // The loopback server runs in this process: once the last request arrived, let the client
  // finish its transfers and the server's idle connections close (keep-alive is 1 s), so that
  // both measurements see the same quiet state.
  static void settle() { std::this_thread::sleep_for(1500ms); }

  // Runs `step` `total` times; the heap is measured after the warm-up rounds (once `quiet` holds
  // for them) and at the end (once it holds for all), and must not have grown by a megabyte.
  void expectFlatHeap(const char* what, int total, int warmUp,
                      const std::function<bool(std::size_t)>& quiet,
                      const std::function<void(int)>& step) {
    std::int64_t before = 0;
    for (int i = 0; i < total; ++i) {
      if (i == warmUp) {
        ASSERT_TRUE(quiet(static_cast<std::size_t>(i)));
        settle();
        before = heapInUse();
      }
      step(i);
    }
    ASSERT_TRUE(quiet(static_cast<std::size_t>(total)));
    settle();
    const std::int64_t after = heapInUse();
    std::printf("%s: heap in use %lld -> %lld bytes\n", what, static_cast<long long>(before),
                static_cast<long long>(after));
    EXPECT_LT(std::abs(after - before), kMegabyte);
  }

  testing::TestServer server_;
  testing::TempDirectory directory_;
};

// Accept all, reject all and a customised choice in turn, every decision stored and posted.
TEST_F(SoakTest, TenThousandDecisionsKeepTheHeapFlatAndPostEveryOne) {
  const auto facade = QuilletCMP::create();
  startUp(*facade);
  ASSERT_TRUE(facade->isConfigLoaded());
  const int total = scaled(10000);
  const auto posted = [this](std::size_t n) { return server_.waitFor("/api/v1/consent", n, 120s); };
  expectFlatHeap("decisions", total, std::min(300, total / 10), posted, [&](int i) {
    // People decide one at a time: every 50 decisions the posts catch up, so that what is
    // measured is the library's state, not a queue of ten thousand posts.
    ASSERT_TRUE(i % 50 != 0 || posted(static_cast<std::size_t>(i)));
    if (i % 3 == 0) return facade->acceptAllSelections();
    if (i % 3 == 1) return facade->rejectAllSelections();
    // A different choice each time: purposes and vendors picked by the bits of i.
    std::vector<std::int64_t> p, v;
    int bit = 0;
    for (const std::int64_t purpose : {1, 2, 3, 7, 10})
      if (((i / 3) >> bit++) & 1) p.push_back(purpose);
    bit = 2;
    for (const std::int64_t vendor : {8, 10, 755})
      if (((i / 3) >> bit++) & 1) v.push_back(vendor);
    facade->applyCustomSelections(std::move(p), std::move(v));
  });
  EXPECT_EQ(server_.count("/api/v1/consent"), static_cast<std::size_t>(total));
}

// Start-ups after the first find the vendor list in the store and fetch only the configuration.
TEST_F(SoakTest, AThousandStartUpsFromTheCachedVendorListKeepTheHeapFlat) {
  startUp(*QuilletCMP::create());
  const int total = scaled(1000);
  const auto sessions = [this](std::size_t n) {
    return server_.waitFor("/api/v1/analytics/events", n + 1);
  };
  expectFlatHeap("start-ups", total, std::min(50, total / 10), sessions, [](int) {
    QLTAPIServer::clearCache();  // a new process would start with nothing in memory
    const auto facade = QuilletCMP::create();
    startUp(*facade);
    ASSERT_TRUE(facade->isConfigLoaded());
  });
  EXPECT_EQ(server_.count("/cdn/gvl.json"), 1U) << "the vendor list was fetched again";
  EXPECT_EQ(server_.count("/cdn/pub/banner_config.json"), static_cast<std::size_t>(total + 1));
}

}  // namespace
}  // namespace quillet
