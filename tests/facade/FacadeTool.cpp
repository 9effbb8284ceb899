// Runs the facade in a process of its own, for the tests that need one:
//
//   facade_tool STORE --cdn URL --api URL [--decide accept|reject|none]
//   facade_tool STORE --serve VENDOR_LIST_FILE CONFIG_JSON [--decide ...]
//   facade_tool STORE --cdn URL --api URL --exit-in-flight
//
// It installs a platform on the SQLite store at STORE (with its own loopback server when
// --serve is given), calls initialize("pub"), answers the banner as --decide says, and prints
// what happened, one fact per line: "banner presented", "consent mode: k=v ...",
// "TCString already present → ..." (from the log), "completion", "stored: <TC String>".
// With --exit-in-flight it starts up on the library's default HTTP client, logging, and calls
// std::exit while the first fetch waits on a slow server; its last exit handler waits long
// enough for the answer to arrive after the exit destroyed what it destroys, so that the
// library's threads run on through the process's end.

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include <httplib.h>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/ui/CMPBannerViewController.h"
#include "quillet/ui/ScreenHost.h"

using namespace quillet;

namespace {

class PrintingHost final : public ScreenHost {
 public:
  explicit PrintingHost(std::optional<ConsentAction> answer) : answer_(std::move(answer)) {}
  bool canPresent() const override { return true; }
  void openUrl(const std::string&) override {}

 protected:
  void update(const Update& update) override {
    if (update.kind != Update::Kind::presented) return;
    const auto banner = std::dynamic_pointer_cast<CMPBannerViewController>(topScreen());
    if (!banner) {
      std::printf("second layer presented\n");
      return;
    }
    std::printf("banner presented\n");
    if (answer_) {
      banner->perform(answer_->kind() == ConsentAction::Kind::rejectAll ? "onRejectAll"
                                                                        : "onAcceptAll");
    }
  }

 private:
  std::optional<ConsentAction> answer_;
};

class PrintingAnalytics final : public ConsentSignalReceiver {
 public:
  void setConsent(const std::map<std::string, std::string>& signals) override {
    std::string line = "consent mode:";
    for (const auto& [key, value] : signals)
      line += " " + key + "=" + value;
    std::printf("%s\n", line.c_str());
  }
};

class PrintingLog final : public LogSink {
 public:
  void write(std::string_view line) noexcept override {
    const auto at = line.find("TCString already present");
    if (at != std::string_view::npos) std::printf("%s\n", std::string(line.substr(at)).c_str());
  }
};

// A CurlHttpClient that can wait for its requests, so that the fire-and-forget posts made during
// start-up reach the server before the process ends.
class WaitableHttpClient final : public HttpClient {
 public:
  void send(HttpRequest request, HttpCompletion completion) override {
    {
      const std::lock_guard lock(mutex_);
      ++inFlight_;
    }
    client_.send(std::move(request),
                 [this, completion = std::move(completion)](auto data, auto response, auto error) {
                   if (completion)
                     completion(std::move(data), std::move(response), std::move(error));
                   const std::lock_guard lock(mutex_);
                   --inFlight_;
                   idle_.notify_all();
                 });
  }

  bool waitUntilIdle(std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    return idle_.wait_for(lock, limit, [this] { return inFlight_ == 0; });
  }

 private:
  CurlHttpClient client_;
  std::mutex mutex_;
  std::condition_variable idle_;
  int inFlight_ = 0;
};

std::string fileText(const char* path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream out;
  out << file.rdbuf();
  return out.str();
}

void lingerAtExit() {
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  std::string cdn, api, decide = "accept";
  std::string servedList, servedConfig;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--cdn" && i + 1 < argc)
      cdn = argv[++i];
    else if (arg == "--api" && i + 1 < argc)
      api = argv[++i];
    else if (arg == "--decide" && i + 1 < argc)
      decide = argv[++i];
    else if (arg == "--exit-in-flight")
      decide = "exit";
    else if (arg == "--serve" && i + 2 < argc) {
      servedList = fileText(argv[++i]);
      servedConfig = argv[++i];
    } else {
      return 2;
    }
  }
  httplib::Server server;
  std::thread serving;
  // Registered before the library constructs anything, so that it runs after the library's
  // process-wide instances would have been destroyed.
  if (decide == "exit") std::atexit(lingerAtExit);
  if (!servedList.empty()) {
    server.Get("/cdn/pub/banner_config.json", [&](const httplib::Request&, httplib::Response& r) {
      r.set_content(servedConfig, "application/octet-stream");
    });
    server.Get("/cdn/gvl.json", [&](const httplib::Request&, httplib::Response& r) {
      r.set_content(servedList, "application/octet-stream");
    });
    server.Post(R"(/api/.*)", [](const httplib::Request&, httplib::Response& r) {
      r.set_content("{}", "application/json");
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    serving = std::thread([&] { server.listen_after_bind(); });
    cdn = "http://127.0.0.1:" + std::to_string(port) + "/cdn/";
    api = "http://127.0.0.1:" + std::to_string(port) + "/api";
  }

  auto opened = SqliteKeyValueStore::open(argv[1]);
  if (!opened) {
    std::fprintf(stderr, "%s\n", opened.error().c_str());
    return 1;
  }
  if (decide == "exit") {
    Platform::install(
        {.keyValueStore = std::move(opened).value(), .endpoints = Endpoints{cdn, api}});
    QltLog::setSink(std::make_shared<PrintingLog>());
    QltLog::setEnabled(true);
    QuilletCMP::shared().initialize("pub");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::printf("exiting\n");
    std::fflush(stdout);
    std::exit(0);
  }
  std::optional<ConsentAction> answer;
  if (decide == "accept") answer = ConsentAction::acceptAll();
  if (decide == "reject") answer = ConsentAction::rejectAll();
  auto main = std::make_shared<RunLoop>();
  auto analytics = std::make_shared<AnalyticsRegistry>();
  analytics->registerClass("FIRAnalytics", std::make_shared<PrintingAnalytics>());
  const auto store = std::move(opened).value();
  const auto http = std::make_shared<WaitableHttpClient>();
  Platform::install({.keyValueStore = store,
                     .httpClient = http,
                     .endpoints = Endpoints{cdn, api},
                     .mainQueue = main,
                     .screenHost = std::make_shared<PrintingHost>(answer),
                     .analytics = analytics});
  QltLog::setSink(std::make_shared<PrintingLog>());
  QltLog::setEnabled(true);

  QuilletCMP::shared().initialize("pub", [main] {
    std::printf("completion\n");
    std::fflush(stdout);
    main->stop();
  });
  main->runFor(std::chrono::seconds(20));
  if (!http->waitUntilIdle(std::chrono::seconds(20))) std::printf("requests still in flight\n");
  if (const auto stored = store->readString(StorageKeys::tcString)) {
    std::printf("stored: %s\n", stored->c_str());
  }
  std::fflush(stdout);
  // The library's threads and the server's are never joined: they end with the process.
  std::_Exit(0);
}
