#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>

#include <boost/json.hpp>
#include <httplib.h>
#include <pthread.h>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/base/Endpoints.h"
#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/codec/TCString.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/core/TcfApi.h"
#include "quillet/model/Json.h"
#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/HttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/webhost/StartAccepting.h"
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
         Text::printedList(tc.vendorConsents.ids()) + ", vendor legitimate interests " +
         Text::printedList(tc.vendorLegitimateInterests.ids());
}

// What the page's __tcfapi reads: the stored string as TCData (null when it cannot be read, with
// the CMP's status "error"), and the ping. `eventStatus` is empty until the first screen or the
// end of start-up.
std::string tcfState(QuilletCMP& facade, const std::string& eventStatus) {
  const QLTCMPUtils::TCStringInput defaults;
  PingContext ping{.cmpLoaded = facade.isConfigLoaded(),
                   .cmpStatus = "loaded",
                   .displayStatus = eventStatus == "cmpuishown" ? "visible" : "hidden",
                   .cmpId = defaults.cmpId,
                   .cmpVersion = defaults.cmpVersion};
  if (const auto gvl = facade.gvl()) {
    ping.gvlVersion = Json::exactInteger(gvl->if_contains("vendorListVersion"));
    ping.tcfPolicyVersion = Json::exactInteger(gvl->if_contains("tcfPolicyVersion"));
  }
  return tcfApiState(ConsentStorage::getTCString().value_or(""), eventStatus, ping);
}

// The bundled disclosure documents, one per vendor in turn, so that the disclosure screen works
// offline.
const std::vector<std::string> kDisclosures = {"dsd-cavai-empty.json", "dsd-tangoo.json",
                                               "dsd-prebid-probes.json", "dsd-large-mixed.json"};

// Sends each download of a vendor's disclosure address to a bundled document on the embedded
// CDN. The vendor list itself is served and cached as it is: its addresses stay true from one
// run to the next, while the CDN's port changes with every run.
class DisclosureRedirect final : public HttpClient {
 public:
  DisclosureRedirect(std::shared_ptr<HttpClient> client, const std::string& vendorList,
                     const std::string& cdnBase)
      : client_(std::move(client)), cdnBase_(cdnBase) {
    const auto parsed = Json::parse(vendorList);
    const auto* vendors = parsed && parsed->is_object()
                              ? Json::object(Json::member(parsed->as_object(), "vendors"))
                              : nullptr;
    if (vendors == nullptr) return;
    std::size_t next = 0;
    for (const auto& vendor : *vendors) {
      const auto* entry = vendor.value().if_object();
      const auto url =
          entry ? Json::string(Json::member(*entry, "deviceStorageDisclosureUrl")) : std::nullopt;
      if (url && !targets_.contains(std::string(*url))) {
        targets_.emplace(*url, cdnBase + "dsd/" + kDisclosures[next++ % kDisclosures.size()]);
      }
    }
  }
  void send(HttpRequest request, HttpCompletion completion) override {
    if (const auto found = targets_.find(request.url); found != targets_.end()) {
      request.url = found->second;
    } else if (std::smatch old; std::regex_match(request.url, old, kEarlierRun)) {
      // A list cached by an earlier version of the demo holds that run's CDN address.
      request.url = cdnBase_ + "dsd/" + old[1].str();
    }
    client_->send(std::move(request), std::move(completion));
  }

 private:
  inline static const std::regex kEarlierRun{
      R"(http://127\.0\.0\.1:\d+/cdn/dsd/(dsd-[a-z-]+\.json))"};
  std::shared_ptr<HttpClient> client_;
  std::string cdnBase_;
  std::map<std::string, std::string, std::less<>> targets_;
};

// The library's log in the demo's output: warnings and errors always (a refused disclosure
// document, a configuration that cannot be used), every line with --log.
class DemoLog final : public LogSink {
 public:
  DemoLog(Printer& printer, bool everything) : printer_(printer), everything_(everything) {}
  void write(std::string_view line) noexcept override {
    if (everything_ || line.find("] [WARN] [") != std::string_view::npos ||
        line.find("] [ERROR] [") != std::string_view::npos) {
      printer_.line(std::string(line));
    }
  }

 private:
  Printer& printer_;
  bool everything_;
};

// What the banner would make of each configuration key whose value it cannot take as it is:
// every key is read on its own and a wrong kind falls back without a word, so a typing slip
// would otherwise only show as a banner that looks wrong.
std::vector<std::string> configurationWarnings(const boost::json::object& config) {
  enum class Kind { text, boolean, ids, number };
  static const std::map<std::string_view, Kind> kKeys = {{"logoUrl", Kind::text},
                                                         {"brandColor", Kind::text},
                                                         {"privacyUrl", Kind::text},
                                                         {"layout", Kind::text},
                                                         {"bannerText", Kind::text},
                                                         {"showRejectButton", Kind::boolean},
                                                         {"showCustomizeButton", Kind::boolean},
                                                         {"acceptButtonText", Kind::text},
                                                         {"rejectButtonText", Kind::text},
                                                         {"manageButtonText", Kind::text},
                                                         {"customizeLinkId", Kind::text},
                                                         {"selectedVendorIds", Kind::ids},
                                                         {"selectedPurposesIds", Kind::ids},
                                                         {"vendorListVersion", Kind::number},
                                                         {"configVersion", Kind::number},
                                                         {"publisherCC", Kind::text}};
  const auto kindOf = [](const boost::json::value& value) {
    return std::string(Json::kindName(value));
  };
  std::vector<std::string> warnings;
  for (const auto& member : config) {
    const std::string key = "\"" + std::string(member.key()) + "\"";
    const auto& value = member.value();
    const auto found = kKeys.find(member.key());
    if (found == kKeys.end()) {
      warnings.push_back("unknown key " + key + " is ignored");
      continue;
    }
    switch (found->second) {
      case Kind::text:
        if (!value.is_string())
          warnings.push_back(key + " is " + kindOf(value) + ", not a string: ignored");
        break;
      case Kind::boolean:
        if (!value.is_bool()) {
          warnings.push_back(key + " is " + kindOf(value) +
                             ", not true or false: it reads as false");
        }
        break;
      case Kind::number:
        if (!value.is_number()) {
          warnings.push_back(key + " is " + kindOf(value) + ", not a number: ignored");
        } else if (!Json::exactInteger(&value)) {
          warnings.push_back(key + " is not a whole number: it reads as " +
                             std::to_string(Json::truncatedInteger(&value).value_or(0)));
        }
        break;
      case Kind::ids:
        if (!value.is_array()) {
          warnings.push_back(key + " is " + kindOf(value) + ", not an array of ids: ignored");
          break;
        }
        for (std::size_t i = 0; i < value.get_array().size(); ++i) {
          const auto& element = value.get_array()[i];
          if (!element.is_number()) {
            warnings.push_back(key + " element " + std::to_string(i) + " is " + kindOf(element) +
                               ": skipped");
          } else if (!Json::exactInteger(&element)) {
            warnings.push_back(key + " element " + std::to_string(i) +
                               " is not a whole number: it reads as " +
                               std::to_string(Json::truncatedInteger(&element).value_or(0)));
          }
        }
        break;
    }
  }
  return warnings;
}

// The embedded configuration CDN and consent API.
class DemoServer {
 public:
  DemoServer(std::string settingsId, std::string config, const std::string& vendorList,
             const fs::path& data, Printer& printer)
      : settingsId_(std::move(settingsId)), printer_(printer) {
    port_ = server_.bind_to_any_port("127.0.0.1");
    vendorList_ = vendorList;
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
    thread_ = startAccepting(server_);
  }
  ~DemoServer() {
    server_.stop();
    thread_.join();
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
  if (const auto parsed = Json::parse(*config); !parsed || !parsed->is_object()) {
    err << "quillet demo: warning: " << configPath.string()
        << (parsed ? " is not a JSON object" : " is not JSON")
        << ": no configuration can be loaded, so no banner is shown\n";
  } else {
    for (const auto& warning : configurationWarnings(parsed->as_object()))
      err << "quillet demo: warning: " << configPath.string() << ": " << warning << '\n';
  }
  const fs::path state = options.state.empty() ? defaultState() : fs::path(options.state);
  std::error_code ignored;
  fs::create_directories(state, ignored);
  auto store = SqliteKeyValueStore::open(state / "consent.sqlite");
  if (!store) {
    err << "quillet demo: " << store.error() << '\n';
    return 1;
  }

  Printer printer(out);
  QltLog::setSink(std::make_shared<DemoLog>(printer, options.log));
  QltLog::setEnabled(true);
  DemoServer server(options.settingsId, *config, *vendorList, data, printer);
  const auto mainQueue = std::make_shared<RunLoop>();
  const auto host = WebScreenHost::start(mainQueue, "127.0.0.1", options.port);
  if (!host) {
    err << "quillet demo: cannot listen on 127.0.0.1:" << options.port
        << " (is another program using it?)\n";
    QltLog::setSink(nullptr);
    return 1;
  }
  const auto analytics = std::make_shared<AnalyticsRegistry>();
  analytics->registerClass("FIRAnalytics", std::make_shared<PrintingAnalytics>(printer));
  // Downloads of the vendors' disclosure addresses go to the bundled documents when the embedded
  // CDN serves the vendor list.
  std::shared_ptr<HttpClient> http = std::make_shared<CurlHttpClient>();
  if (options.cdn.empty()) {
    http = std::make_shared<DisclosureRedirect>(std::move(http), *vendorList, server.cdnBase());
  }
  Platform::install({.keyValueStore = std::move(store).value(),
                     .httpClient = std::move(http),
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
  auto& facade = QuilletCMP::shared();
  // The page's __tcfapi, and its ad slot: "cmpuishown" with a screen, "useractioncomplete" after
  // a decision, "tcloaded" when start-up ends with a stored string and no screen.
  std::string eventStatus;  // main queue only
  host->serveTcfApi([&facade, &eventStatus] { return tcfState(facade, eventStatus); });
  const auto setEventStatus = [&eventStatus, host](std::string status) {
    eventStatus = std::move(status);
    host->tcfChanged();
  };
  facade.setConsentStoredHandler([mainQueue, setEventStatus](const std::string&) {
    // Decisions come from the screens, on the main queue: the status changes with the string.
    if (mainQueue->isMainThread()) {
      setEventStatus("useractioncomplete");
    } else {
      mainQueue->post([setEventStatus] { setEventStatus("useractioncomplete"); });
    }
  });
  host->onPresented = [&printer, started, setEventStatus](const Screen& screen) {
    setEventStatus("cmpuishown");
    const auto elapsed =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started);
    std::ostringstream line;
    line.precision(1);
    line << std::fixed << "presented " << screen.title() << " " << elapsed.count()
         << " ms after initialize";
    printer.line(line.str());
  };
  // The host's own way back to the choices, as an app's settings would offer it.
  host->addPageAction("Privacy choices", [&facade] { facade.showBanner(true); });
  facade.initialize(options.settingsId, [&printer, &facade, &eventStatus, setEventStatus, mainQueue,
                                         manage = options.manage] {
    const auto stored = ConsentStorage::store()->readString(StorageKeys::tcString);
    printer.line("start-up done; stored TC String: " + stored.value_or("(none)"));
    // Start-up may end on the network's thread; the status lives on the main queue.
    if (stored) {
      mainQueue->post([&eventStatus, setEventStatus] {
        if (eventStatus.empty()) setEventStatus("tcloaded");
      });
    }
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
  QltLog::setSink(nullptr);
  return 0;
}

int startDemo(const DemoOptions& options, char** /*argv*/) {
  return runDemo(options, std::cout, std::cerr);
}

}  // namespace quillet::cli
