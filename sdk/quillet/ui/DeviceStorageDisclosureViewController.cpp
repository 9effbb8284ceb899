#include "quillet/ui/DeviceStorageDisclosureViewController.h"

#include "quillet/core/MainQueue.h"
#include "quillet/core/Platform.h"
#include "quillet/model/Json.h"
#include "quillet/network/HttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/network/Url.h"
#include "quillet/ui/Html.h"

namespace quillet {
namespace {

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
    show(std::nullopt);
    return;
  }
  HttpRequest request;
  request.url = url_;
  request.timeout = kDownloadTimeout;
  const auto client = QLTAPIServer::httpClient();
  if (!client) {
    show(std::nullopt);
    return;
  }
  client->send(
      std::move(request),
      [self = weak_from_this()](std::optional<Bytes> data, std::optional<HttpResponse> response,
                                const std::optional<HttpError>& error) {
        std::optional<std::string> text;
        if (!error && data && response && response->status >= 200 && response->status < 300) {
          text.emplace(data->begin(), data->end());
        }
        Platform::current().mainQueue->post([self, text = std::move(text)]() mutable {
          if (const auto screen = self.lock()) {
            static_cast<DeviceStorageDisclosureViewController&>(*screen).show(std::move(text));
          }
        });
      });
}

void DeviceStorageDisclosureViewController::show(std::optional<std::string> text) {
  loading_ = false;
  table_.reset();
  if (text) {
    auto decoded = DeviceStorageDisclosure::decode(*text);
    if (decoded && hasData(*decoded)) {
      table_.emplace(std::move(decoded).value(), purposesDict_);
    }
  }
  changed();
}

void DeviceStorageDisclosureViewController::handleEvent(const ScreenEvent& event) {
  if (event.name == "close") dismiss(*this, true);
}

std::string DeviceStorageDisclosureViewController::document() const {
  std::string out = Html::documentStart(title(), accent_, "");
  out += Html::backHeader(ScreenEvent::link("close"), title(), vendorName_) + "<main>";
  if (loading_) {
    out +=
        "<div class=\"qlt-empty\" role=\"status\" aria-live=\"polite\" aria-busy=\"true\">"
        "Loading…</div>";
  } else if (table_) {
    out += table_->html();
  } else {
    out +=
        "<div class=\"qlt-empty\" role=\"status\"><h1>No Data</h1><p>This vendor did not "
        "provide any device storage disclosure data.</p></div>";
  }
  out += "</main>";
  out += Html::documentEnd();
  return out;
}

}  // namespace quillet
