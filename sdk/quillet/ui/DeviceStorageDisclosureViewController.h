#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/model/DeviceStorageDisclosure.h"
#include "quillet/ui/Screen.h"

namespace quillet {

/// The table of a vendor's device storage disclosure: a "Storage Entries" section and a
/// "Domains" section, or "No Data" when the vendor gave nothing.
class DeviceStorageDisclosureTableViewController {
 public:
  enum class Section { entries, domains };

  DeviceStorageDisclosureTableViewController(DeviceStorageDisclosure disclosure,
                                             boost::json::object purposesDict);

  /// The table's part of the disclosure screen's document.
  std::string html() const;
  /// The lines of one storage entry row ("entryCell"): the identifier, then "Type: ",
  /// "Max Age: ", "Refresh: ", "Domains: " and "Purposes: " lines.
  std::vector<std::string> entryLines(const DeviceStorageDisclosure::Entry& entry) const;
  /// A maximum age as a reader takes it: "session" for 0 or less, seconds below a day, else days.
  static std::string maxAge(std::int64_t seconds);

  const DeviceStorageDisclosure disclosure;
  const boost::json::object purposesDict;
  std::vector<Section> sections;
};

/// "Device Storage Disclosure": shows that the document is loading, then its table; "No Data"
/// with the defined text when the vendor's document holds nothing; and, under "No Data" too, that
/// the document could not be read (it does not decode) or loaded (no address, or the download
/// failed), with the reason in the log.
class DeviceStorageDisclosureViewController final : public Screen {
 public:
  DeviceStorageDisclosureViewController(std::string vendorName, std::string url,
                                        boost::json::object purposesDict, std::string accent);

  std::string title() const override;
  std::string_view kind() const noexcept override { return "disclosure"; }
  std::string document() const override;

  /// Downloads the document through the platform's HTTP client and shows the outcome; the
  /// screen is kept alive by nothing but its host, so a closed screen ignores a late answer.
  void load();
  /// Shows a downloaded document.
  void show(std::string_view text);
  /// Shows that no document could be had; `reason` goes to the log.
  void showUnavailable(std::string_view reason);

  bool isLoading() const noexcept { return state_ == State::loading; }
  const DeviceStorageDisclosureTableViewController* table() const noexcept {
    return table_ ? &*table_ : nullptr;
  }

 protected:
  void handleEvent(const ScreenEvent& event) override;

 private:
  std::string vendorName_;
  std::string url_;
  boost::json::object purposesDict_;
  std::string accent_;
  enum class State { loading, table, noData, unreadable, unavailable };
  State state_ = State::loading;
  std::optional<DeviceStorageDisclosureTableViewController> table_;
};

}  // namespace quillet
