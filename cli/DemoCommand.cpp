#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

#include <boost/json.hpp>
#include <httplib.h>
#include <pthread.h>

#include "quillet/codec/TCString.h"
#include "quillet/core/AnalyticsRegistry.h"
#include "quillet/core/MainQueue.h"
#include "quillet/core/Platform.h"
#include "quillet/core/QltLog.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/core/Text.h"
#include "quillet/model/Json.h"
#include "quillet/network/Endpoints.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/webhost/WebScreenHost.h"

#include "Commands.h"

namespace quillet::cli {
namespace {

namespace fs = std::filesystem;

// Lines from several threads (the API's handlers, the main queue) stay whole.
class Printer {
 public:
  explicit Printer(std::ostream& out) : out_(out) {}
  void line(const std::string& text) {
    std::lock_guard lock(mutex_);
    out_ << text << '\n' << std::flush;
  }

 private:
  std::mutex mutex_;
  std::ostream& out_;
};

class PrintingAnalytics final : public ConsentSignalReceiver {
 public:
  explicit PrintingAnalytics(Printer& printer) : printer_(printer) {}
  void setConsent(const std::map<std::string, std::string>& signals) override {
    std::string line = "consent mode:";
    for (const auto& [key, value] : signals)
      line.append(" ").append(key).append("=").append(value);
    printer_.line(line);
  }

 private:
  Printer& printer_;
};

std::optional<std::string> readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string summary(std::string_view tcString) {
  const auto parsed = TCString::parse(tcString);
  if (!parsed) return "decoded: unreadable (" + parsed.error().message() + ")";
  const auto& tc = parsed.value();
  return "decoded: purposes " + Text::printedList(tc.purposeConsents.ids()) +
         ", legitimate interests " + Text::printedList(tc.purposeLegitimateInterests.ids()) +
         ", special features " + Text::printedList(tc.specialFeatureOptins.ids()) + ", vendors " +
         Text::printedList(tc.vendorConsents.ids) + ", vendor legitimate interests " +
         Text::printedList(tc.vendorLegitimateInterests.ids);
}

// The bundled vendor list with each vendor's disclosure address pointing at a bundled disclosure
// document on the embedded CDN, so that the disclosure screen works offline.
std::string localVendorList(const std::string& text, const std::string& cdnBase,
                            const std::vector<std::string>& disclosures) {
  auto parsed = Json::parse(text);
  if (!parsed || !parsed->is_object() || disclosures.empty()) return text;
  auto* vendors = parsed->as_object().if_contains("vendors");
  if (vendors == nullptr || !vendors->is_object()) return text;
  std::size_t next = 0;
  for (auto& vendor : vendors->as_object()) {
    if (auto* entry = vendor.value().if_object()) {
      (*entry)["deviceStorageDisclosureUrl"] =
          cdnBase + "dsd/" + disclosures[next++ % disclosures.size()];
    }
  }
  return boost::json::serialize(*parsed);
}

// The embedded configuration CDN and consent API.
class DemoServer {
 public:
  DemoServer(std::string settingsId, std::string config, const std::string& vendorList,
             const fs::path& data, Printer& printer)
      : settingsId_(std::move(settingsId)), printer_(printer) {
    port_ = server_.bind_to_any_port("127.0.0.1");
    const std::vector<std::string> disclosures = {"dsd-cavai-empty.json", "dsd-tangoo.json",
                                                  "dsd-prebid-probes.json", "dsd-large-mixed.json"};
    vendorList_ = localVendorList(vendorList, cdnBase(), disclosures);
    config_ = std::move(config);
    server_.Get("/cdn/" + settingsId_ + "/banner_config.json",
                [this](const httplib::Request&, httplib::Response& r) {
                  r.set_content(config_, "application/json");
                });
    // Served as bytes so that the server does not compress it: brotli on 700 KB costs seconds
    // per request here, which a real CDN avoids by keeping compressed copies.
    server_.Get("/cdn/gvl.json", [this](const httplib::Request&, httplib::Response& r) {
      r.set_content(vendorList_, "application/octet-stream");
    });
    server_.Get(R"(/cdn/dsd/(dsd-[a-z-]+\.json))",
                [data](const httplib::Request& request, httplib::Response& r) {
                  if (const auto text = readFile(data / request.matches[1].str())) {
                    r.set_content(*text, "application/json");
                  } else {
                    r.status = 404;
                  }
                });
    server_.Post(R"(/api/(.*))", [this](const httplib::Request& request, httplib::Response& r) {
      printer_.line("api received: POST " + request.path + " " + request.body);
      if (request.path == "/api/v1/consent") {
        const auto body = Json::parse(request.body);
        if (body && body->is_object()) {
          const auto tc = Json::string(Json::member(body->as_object(), "tcString"));
          if (tc) {
            printer_.line("stored TC String: " + std::string(*tc));
            printer_.line(summary(*tc));
          }
        }
      }
      r.set_content("{}", "application/json");
    });
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~DemoServer() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
  }
  std::string cdnBase() const { return "http://127.0.0.1:" + std::to_string(port_) + "/cdn/"; }
  std::string apiBase() const { return "http://127.0.0.1:" + std::to_string(port_) + "/api"; }

 private:
  std::string settingsId_;
  std::string config_;
  std::string vendorList_;
  Printer& printer_;
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

fs::path defaultState() {
  // Read before any thread starts.
  // NOLINTNEXTLINE(concurrency-mt-unsafe)
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state != '\0') {
    return fs::path(state) / "quillet-demo";
  }
  const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe)
  return fs::path(home != nullptr ? home : ".") / ".local" / "state" / "quillet-demo";
}

}  // namespace

int runDemo(const DemoOptions& options, std::ostream& out, std::ostream& err) {
  // Ctrl-C and termination stop the main queue; every other thread inherits the blocked mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const fs::path data = options.data;
  const fs::path configPath =
      options.config.empty() ? data / "banner_config.json" : fs::path(options.config);
  const fs::path vendorListPath =
      options.gvl.empty() ? data / "gvl-v3-106.json" : fs::path(options.gvl);
  const auto config = readFile(configPath);
  const auto vendorList = readFile(vendorListPath);
  if (!config || !vendorList) {
    err << "quillet demo: cannot read " << (config ? vendorListPath : configPath).string() << '\n';
    return 1;
  }
  const fs::path state = options.state.empty() ? defaultState() : fs::path(options.state);
  std::error_code ignored;
  fs::create_directories(state, ignored);
  auto store = SqliteKeyValueStore::open(state / "consent.sqlite");
  if (!store) {
    err << "quillet demo: " << store.error() << '\n';
    return 1;
  }

  QltLog::setEnabled(options.log);
  Printer printer(out);
  DemoServer server(options.settingsId, *config, *vendorList, data, printer);
  const auto mainQueue = std::make_shared<RunLoop>();
  const auto host = WebScreenHost::start(mainQueue, "127.0.0.1", options.port);
  if (!host) {
    err << "quillet demo: cannot listen on port " << options.port << '\n';
    return 1;
  }
  const auto analytics = std::make_shared<AnalyticsRegistry>();
  analytics->registerClass("FIRAnalytics", std::make_shared<PrintingAnalytics>(printer));
  Platform::install({.keyValueStore = std::move(store).value(),
                     .endpoints = Endpoints{options.cdn.empty() ? server.cdnBase() : options.cdn,
                                            options.api.empty() ? server.apiBase() : options.api},
                     .mainQueue = mainQueue,
                     .screenHost = host,
                     .analytics = analytics});
  if (options.reset) {
    // The decision only: the cached vendor list stays.
    ConsentStorage::saveConsent(false, std::nullopt);
    printer.line("stored consent forgotten");
  }

  printer.line("Open " + host->url() + " in a browser. Ctrl-C stops.");
  printer.line("Embedded CDN " + server.cdnBase() + " and consent API " + server.apiBase());
  const auto started = std::chrono::steady_clock::now();
  host->onPresented = [&printer, started](const Screen& screen) {
    const auto elapsed =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started);
    std::ostringstream line;
    line.precision(1);
    line << std::fixed << "presented " << screen.title() << " " << elapsed.count()
         << " ms after initialize";
    printer.line(line.str());
  };
  auto& facade = QuilletCMP::shared();
  facade.initialize(options.settingsId, [&printer, &facade, manage = options.manage] {
    const auto stored = ConsentStorage::store()->readString(StorageKeys::tcString);
    printer.line("start-up done; stored TC String: " + stored.value_or("(none)"));
    if (manage) facade.showBanner(true);
  });
  mainQueue->post([&printer, started] {
    printer.line("main queue running after " +
                 std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::steady_clock::now() - started)
                                    .count()) +
                 " ms");
  });

  std::thread waiter([&signals, mainQueue] {
    int received = 0;
    sigwait(&signals, &received);
    mainQueue->stop();
  });
  mainQueue->run();
  waiter.join();
  printer.line("stopping");
  host->stop();
  Platform::install({});
  return 0;
}

}  // namespace quillet::cli
