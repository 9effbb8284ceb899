#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quillet/ui/ScreenHost.h"

namespace httplib {
class Server;
}

namespace quillet {

class MainQueue;

/// A screen host whose web view is a browser: a loopback HTTP server serves a page that shows
/// the presented screens (each document in an iframe, the native controls drawn around it),
/// asks the screens' navigation delegate before any link in a document is followed, and shows
/// changes as the server announces them (server-sent events). Every tab on the address sees the
/// same screens. Screens are only ever touched on the main queue; requests wait for it.
class WebScreenHost final : public ScreenHost {
 public:
  /// Listens on `address` and `port` (0 for a free port). Absent when the port is outside 0 to
  /// 65535 or cannot be bound, for example because another program listens on it.
  static std::shared_ptr<WebScreenHost> start(std::shared_ptr<MainQueue> mainQueue,
                                              const std::string& address = "127.0.0.1",
                                              int port = 0);
  ~WebScreenHost() override;
  WebScreenHost(const WebScreenHost&) = delete;
  WebScreenHost& operator=(const WebScreenHost&) = delete;

  int port() const noexcept { return port_; }
  /// The page to open, "http://ADDRESS:PORT/".
  std::string url() const;
  /// Stops serving; open event streams end. Called by the destructor.
  void stop();

  /// Called on the main queue with each screen as it is presented (before any browser shows it).
  std::function<void(const Screen&)> onPresented;

  /// Adds a button titled `title` to the page, below the screens, that runs `action` on the main
  /// queue when pressed (a host's own control, such as one that reopens the consent choices).
  /// While a screen is shown, the page under it takes no input.
  void addPageAction(std::string title, std::function<void()> action);

  /// Serves `__tcfapi` for web content: the page loads its script first (/tcfapi.js), and shows
  /// an ad slot (/ad-slot) that reads the consent through postMessage. `state` runs on the main
  /// queue for every page that asks and gives {"ping": PingReturn, "tcData": TCData or null} as
  /// JSON text (see TcfApi.h); call tcfChanged() whenever it would answer differently.
  void serveTcfApi(std::function<std::string()> state);
  /// Tells the pages that the consent state changed.
  void tcfChanged();

  bool canPresent() const override { return true; }
  /// Opened in a new tab of every browser showing the host.
  void openUrl(const std::string& url) override;

 protected:
  void update(const Update& update) override;

 private:
  struct Private {};

 public:
  WebScreenHost(Private, std::shared_ptr<MainQueue> mainQueue);

 private:
  void route();
  // The screens' state as the page reads it; main queue only.
  std::string stateJson();
  std::shared_ptr<Screen> screenById(std::int64_t id);
  // Waits for the main queue to run `task`; false when the host stops first.
  bool onMain(const std::function<void()>& task);

  std::shared_ptr<MainQueue> mainQueue_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::string address_;
  int port_ = 0;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
  std::uint64_t version_ = 1;
  std::int64_t nextId_ = 1;
  // Main queue only: each presented screen's id and document version.
  std::map<const Screen*, std::pair<std::int64_t, std::uint64_t>> ids_;
  std::vector<std::pair<std::uint64_t, std::string>> opened_;  // guarded by mutex_
  // Main queue only.
  std::vector<std::pair<std::string, std::function<void()>>> actions_;
  std::function<std::string()> tcfState_;  // main queue only
};

}  // namespace quillet
