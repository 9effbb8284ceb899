#include "quillet/ui/DeviceStorageDisclosureViewController.h"

#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/model/Json.h"
#include "quillet/network/HttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/network/Url.h"
#include "quillet/ui/Html.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "DeviceStorageDisclosureVC";
constexpr std::int64_t kDay = 86400;
constexpr auto kDownloadTimeout = std::chrono::seconds(30);

std::string joined(const std::vector<std::string>& parts) {
  std::string out;
  for (const auto& part : parts) {
    if (!out.empty()) out += ", ";
    out += part;
  }
  return out;
}

std::string noData(std::string_view text) {
  return "<div class=\"qlt-empty\" role=\"status\"><h1>No Data</h1><p>" + std::string(text) +
         "</p></div>";
}

bool hasData(const DeviceStorageDisclosure& disclosure) {
  return (disclosure.disclosures && !disclosure.disclosures->empty()) ||
         (disclosure.domains && !disclosure.domains->empty());
}

}  // namespace

DeviceStorageDisclosureTableViewController::DeviceStorageDisclosureTableViewController(
    DeviceStorageDisclosure disclosure, boost::json::object purposesDict)
    : disclosure(std::move(disclosure)), purposesDict(std::move(purposesDict)) {
  if (this->disclosure.disclosures && !this->disclosure.disclosures->empty()) {
    sections.push_back(Section::entries);
  }
  if (this->disclosure.domains && !this->disclosure.domains->empty()) {
    sections.push_back(Section::domains);
  }
}

std::string DeviceStorageDisclosureTableViewController::maxAge(std::int64_t seconds) {
  if (seconds <= 0) return "session";
  if (seconds < kDay) return std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
  const std::int64_t days = seconds / kDay;
  return std::to_string(days) + (days == 1 ? " day" : " days");
}

std::vector<std::string> DeviceStorageDisclosureTableViewController::entryLines(
    const DeviceStorageDisclosure::Entry& entry) const {
  std::vector<std::string> purposes;
  for (const auto id : entry.purposes) {
    const auto* purpose = Json::object(Json::member(purposesDict, std::to_string(id)));
    const auto name = purpose != nullptr ? Json::string(Json::member(*purpose, "name"))
                                         : std::optional<std::string_view>{};
    purposes.push_back(name ? std::string(*name) : "Purpose " + std::to_string(id));
  }
  return {entry.identifier,
          "Type: " + entry.type,
          "Max Age: " + maxAge(entry.maxAgeSeconds),
          std::string("Refresh: ") + (entry.cookieRefresh ? "yes" : "no"),
          "Domains: " + joined(entry.domains),
          "Purposes: " + joined(purposes)};
}

std::string DeviceStorageDisclosureTableViewController::html() const {
  std::string out;
  for (const auto section : sections) {
    if (section == Section::entries) {
      out += "<h2>Storage Entries</h2><div class=\"qlt-group\">";
      for (const auto& entry : *disclosure.disclosures) {
        const auto lines = entryLines(entry);
        out +=
            "<div class=\"qlt-row qlt-entry\" data-cell=\"entryCell\"><div "
            "class=\"qlt-row-text\"><div class=\"qlt-row-title\">" +
            Html::escape(lines[0]) + "</div>";
        for (std::size_t i = 1; i < lines.size(); ++i)
          out += "<div>" + Html::escape(lines[i]) + "</div>";
        out += "</div></div>";
      }
      out += "</div>";
    } else {
      out += "<h2>Domains</h2><div class=\"qlt-group\">";
      for (const auto& domain : *disclosure.domains) {
        out +=
            "<div class=\"qlt-row\" data-cell=\"domainCell\"><div class=\"qlt-row-text\">"
            "<div class=\"qlt-row-title\">" +
            Html::escape(domain.domain) + "</div>";
        if (domain.use)
          out += "<div class=\"qlt-row-note\">" + Html::escape(*domain.use) + "</div>";
        out += "</div></div>";
      }
      out += "</div>";
    }
  }
  return out;
}

DeviceStorageDisclosureViewController::DeviceStorageDisclosureViewController(
    std::string vendorName, std::string url, boost::json::object purposesDict, std::string accent)
    : vendorName_(std::move(vendorName)),
      url_(std::move(url)),
      purposesDict_(std::move(purposesDict)),
      accent_(std::move(accent)) {}

std::string DeviceStorageDisclosureViewController::title() const {
  return "Device Storage Disclosure";
}

void DeviceStorageDisclosureViewController::load() {
  if (!isValidHttpUrl(url_)) {
    showUnavailable("no http or https address: \"" + url_ + "\"");
    return;
  }
  HttpRequest request;
  request.url = url_;
  request.timeout = kDownloadTimeout;
  const auto client = QLTAPIServer::httpClient();
  if (!client) {
    showUnavailable("no HTTP client is installed");
    return;
  }
  client->send(
      std::move(request),
      [self = weak_from_this()](std::optional<Bytes> data, std::optional<HttpResponse> response,
                                const std::optional<HttpError>& error) {
        std::optional<std::string> text;
        std::string failure;
        if (error) {
          failure = error->description;
        } else if (!response || response->status < 200 || response->status >= 300) {
          failure = "HTTP status " + std::to_string(response ? response->status : 0);
        } else {
          text.emplace(data ? std::string(data->begin(), data->end()) : std::string());
        }
        Platform::current().mainQueue->post(
            [self, text = std::move(text), failure = std::move(failure)] {
              const auto screen = self.lock();
              if (!screen) return;
              auto& disclosure = static_cast<DeviceStorageDisclosureViewController&>(*screen);
              if (text) {
                disclosure.show(*text);
              } else {
                disclosure.showUnavailable(failure);
              }
            });
      });
}

void DeviceStorageDisclosureViewController::show(std::string_view text) {
  table_.reset();
  auto decoded = DeviceStorageDisclosure::decode(text);
  if (!decoded) {
    state_ = State::unreadable;
    QltLog::w(kTag, [&] {
      return "the device storage disclosure of " + vendorName_ + " was refused (" + url_ +
             "): " + decoded.error();
    });
  } else if (hasData(*decoded)) {
    state_ = State::table;
    table_.emplace(std::move(decoded).value(), purposesDict_);
  } else {
    state_ = State::noData;
  }
  changed();
}

void DeviceStorageDisclosureViewController::showUnavailable(std::string_view reason) {
  table_.reset();
  state_ = State::unavailable;
  QltLog::w(kTag, [&] {
    return "the device storage disclosure of " + vendorName_ +
           " could not be loaded: " + std::string(reason);
  });
  changed();
}

void DeviceStorageDisclosureViewController::handleEvent(const ScreenEvent& event) {
  if (event.name == "close") dismiss(*this, true);
}

std::string DeviceStorageDisclosureViewController::document() const {
  std::string out = Html::documentStart(title(), accent_, "");
  out += Html::backHeader(ScreenEvent::link("close"), title(), vendorName_) + "<main>";
  switch (state_) {
    case State::loading:
      out +=
          "<div class=\"qlt-empty\" role=\"status\" aria-live=\"polite\" aria-busy=\"true\">"
          "Loading…</div>";
      break;
    case State::table:
      out += table_->html();
      break;
    case State::noData:
      out += noData("This vendor did not provide any device storage disclosure data.");
      break;
    case State::unreadable:
      out += noData(
          "This vendor's device storage disclosure could not be read: it does not follow the "
          "disclosure format.");
      break;
    case State::unavailable:
      out += noData("This vendor's device storage disclosure could not be loaded.");
      break;
  }
  out += "</main>";
  out += Html::documentEnd();
  return out;
}

}  // namespace quillet
