#include "quillet/webhost/WebScreenHost.h"

#include <charconv>
#include <chrono>
#include <future>
#include <thread>

#include <boost/json.hpp>
#include <httplib.h>
#include <sys/socket.h>

#include "quillet/base/MainQueue.h"
#include "quillet/webhost/HostPage.h"
#include "quillet/webhost/StartAccepting.h"
#include "quillet/webhost/TcfApiScript.h"

namespace quillet {
namespace {

using namespace std::chrono_literals;

constexpr auto kKeepAlive = 15s;

std::string_view kindOf(NativeControl::Kind kind) {
  switch (kind) {
    case NativeControl::Kind::image:
      return "image";
    case NativeControl::Kind::filledButton:
      return "filledButton";
    case NativeControl::Kind::destructiveButton:
      return "destructiveButton";
    case NativeControl::Kind::plainButton:
      return "plainButton";
  }
  return "plainButton";
}

// The number a route matched, or -1 when it does not fit.
std::int64_t idOf(const httplib::Request& request) {
  std::int64_t id = -1;
  const auto& text = request.matches[1];
  const auto [end, error] = std::from_chars(&*text.first, &*text.first + text.length(), id);
  return error == std::errc{} ? id : -1;
}

// The JSON object of a request body, or an empty one.
boost::json::object bodyOf(const httplib::Request& request) {
  boost::system::error_code error;
  boost::json::value parsed = boost::json::parse(request.body, error);
  if (!error && parsed.is_object()) return std::move(parsed.as_object());
  return {};
}

// A text member of a request body; empty when missing or of another kind.
std::string textMember(const boost::json::object& body, std::string_view key) {
  const auto* found = body.if_contains(key);
  const auto* text = found != nullptr ? found->if_string() : nullptr;
  return text != nullptr ? std::string(*text) : std::string();
}

void sendJson(httplib::Response& response, const boost::json::value& value) {
  response.set_header("Cache-Control", "no-store");
  response.set_content(boost::json::serialize(value), "application/json");
}

}  // namespace

std::shared_ptr<WebScreenHost> WebScreenHost::start(std::shared_ptr<MainQueue> mainQueue,
                                                    const std::string& address, int port) {
  constexpr int kLastPort = 65535;
  if (port < 0 || port > kLastPort) return nullptr;
  auto host = std::make_shared<WebScreenHost>(Private{}, std::move(mainQueue));
  host->address_ = address;
  host->route();
  host->port_ = port == 0 ? host->server_->bind_to_any_port(address)
                          : (host->server_->bind_to_port(address, port) ? port : -1);
  if (host->port_ <= 0) return nullptr;
  host->thread_ = startAccepting(*host->server_);
  return host;
}

WebScreenHost::WebScreenHost(Private, std::shared_ptr<MainQueue> mainQueue)
    : mainQueue_(std::move(mainQueue)), server_(std::make_unique<httplib::Server>()) {
  // Event streams hold a thread each while a tab is open.
  server_->new_task_queue = [] { return new httplib::ThreadPool(32); };
  // Address reuse only: with the server's default port sharing, a second host on a port in use
  // would bind too and take half of its connections.
  server_->set_socket_options([](int socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
}

void WebScreenHost::addPageAction(std::string title, std::function<void()> action) {
  actions_.emplace_back(std::move(title), std::move(action));
  tcfChanged();  // any change of the page is announced the same way
}

void WebScreenHost::serveTcfApi(std::function<std::string()> state) {
  tcfState_ = std::move(state);
  tcfChanged();
}

void WebScreenHost::tcfChanged() {
  {
    std::lock_guard lock(mutex_);
    ++version_;
  }
  changed_.notify_all();
}

WebScreenHost::~WebScreenHost() {
  stop();
}

std::string WebScreenHost::url() const {
  return "http://" + address_ + ":" + std::to_string(port_) + "/";
}

void WebScreenHost::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

void WebScreenHost::openUrl(const std::string& url) {
  {
    std::lock_guard lock(mutex_);
    ++version_;
    opened_.emplace_back(version_, url);
  }
  changed_.notify_all();
}

void WebScreenHost::update(const Update& update) {
  // Runs on the main queue, which is also where `ids_` is read.
  if (update.kind == Update::Kind::presented) {
    ids_[update.screen.get()] = {nextId_++, 1};
    if (onPresented) onPresented(*update.screen);
  } else if (update.kind == Update::Kind::dismissed) {
    ids_.erase(update.screen.get());
  } else if (const auto found = ids_.find(update.screen.get()); found != ids_.end()) {
    ++found->second.second;
  }
  {
    std::lock_guard lock(mutex_);
    ++version_;
  }
  changed_.notify_all();
}

bool WebScreenHost::onMain(const std::function<void()>& task) {
  auto done = std::make_shared<std::promise<void>>();
  auto future = done->get_future();
  mainQueue_->post([task, done] {
    task();
    done->set_value();
  });
  while (future.wait_for(100ms) != std::future_status::ready) {
    std::lock_guard lock(mutex_);
    if (stopping_) return false;
  }
  return true;
}

std::shared_ptr<Screen> WebScreenHost::screenById(std::int64_t id) {
  for (const auto& screen : screens()) {
    const auto found = ids_.find(screen.get());
    if (found != ids_.end() && found->second.first == id) return screen;
  }
  return nullptr;
}

std::string WebScreenHost::stateJson() {
  boost::json::array list;
  const auto all = screens();
  const auto styles = presentations();
  for (std::size_t i = 0; i < all.size(); ++i) {
    const auto& screen = all[i];
    const auto id = ids_.find(screen.get());
    if (id == ids_.end()) continue;
    boost::json::array controls;
    for (const auto& control : screen->controls()) {
      controls.push_back({{"kind", kindOf(control.kind)},
                          {"action", control.action},
                          {"title", control.title},
                          {"colour", control.colour},
                          {"imageUrl", control.imageUrl}});
    }
    list.push_back(
        {{"id", id->second.first},
         {"docVersion", id->second.second},
         {"kind", std::string(screen->kind())},
         {"title", screen->title()},
         {"hidden", screen->isHidden()},
         {"style", styles[i].style == PresentationStyle::sheet ? "sheet" : "fullScreen"},
         {"transition",
          styles[i].transition == Transition::crossDissolve ? "crossDissolve" : "coverVertical"},
         {"animated", styles[i].animated},
         {"controls", std::move(controls)}});
  }
  boost::json::array opened;
  std::uint64_t openedUpTo = 0;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [seq, url] : opened_)
      opened.push_back({{"seq", seq}, {"url", url}});
    openedUpTo = opened_.empty() ? 0 : opened_.back().first;
  }
  boost::json::array actions;
  for (std::size_t i = 0; i < actions_.size(); ++i)
    actions.push_back({{"id", i}, {"title", actions_[i].first}});
  return boost::json::serialize(boost::json::object{{"screens", std::move(list)},
                                                    {"opened", std::move(opened)},
                                                    {"openedUpTo", openedUpTo},
                                                    {"actions", std::move(actions)},
                                                    {"adSlot", static_cast<bool>(tcfState_)}});
}

void WebScreenHost::route() {
  server_->Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_header("Cache-Control", "no-store");
    response.set_content(std::string(webhost::kHostPage), "text/html; charset=utf-8");
  });
  server_->Get("/tcfapi.js", [](const httplib::Request&, httplib::Response& response) {
    response.set_header("Cache-Control", "no-store");
    response.set_content(std::string(webhost::kTcfApiScript), "text/javascript; charset=utf-8");
  });
  server_->Get("/ad-slot", [](const httplib::Request&, httplib::Response& response) {
    response.set_header("Cache-Control", "no-store");
    response.set_content(std::string(webhost::kAdSlotPage), "text/html; charset=utf-8");
  });
  server_->Get("/tcfapi/state", [this](const httplib::Request&, httplib::Response& response) {
    std::optional<std::string> state;
    onMain([&] {
      if (tcfState_) state = tcfState_();
    });
    if (!state) {
      response.status = 404;
      return;
    }
    response.set_header("Cache-Control", "no-store");
    response.set_content(*state, "application/json");
  });
  server_->Get("/state", [this](const httplib::Request&, httplib::Response& response) {
    std::string state;
    if (!onMain([&] { state = stateJson(); })) return;
    response.set_header("Cache-Control", "no-store");
    response.set_content(state, "application/json");
  });
  server_->Get(R"(/screen/(\d+)/document)",
               [this](const httplib::Request& request, httplib::Response& response) {
                 const auto id = idOf(request);
                 std::optional<std::string> document;
                 onMain([&] {
                   if (const auto screen = screenById(id)) document = screen->document();
                 });
                 if (!document) {
                   response.status = 404;
                   return;
                 }
                 // The host page takes the document's taps from its first moment on.
                 constexpr std::string_view kHead = "<head>";
                 constexpr std::string_view kStarted =
                     "<script>parent.quilletFrameStarted && "
                     "parent.quilletFrameStarted(window)</script>";
                 const auto head = document->find(kHead);
                 document->insert(head == std::string::npos ? 0 : head + kHead.size(), kStarted);
                 response.set_header("Cache-Control", "no-store");
                 response.set_content(*document, "text/html; charset=utf-8");
               });
  server_->Post(R"(/screen/(\d+)/policy)", [this](const httplib::Request& request,
                                                  httplib::Response& response) {
    const auto id = idOf(request);
    const auto body = bodyOf(request);
    Navigation navigation;
    navigation.url = textMember(body, "url");
    const auto* activation = body.if_contains("linkActivation");
    navigation.isLinkActivation =
        activation == nullptr || !activation->is_bool() || activation->get_bool();
    std::string policy = "cancel";
    onMain([&] {
      if (const auto screen = screenById(id)) {
        policy = screen->decidePolicy(navigation) == NavigationPolicy::allow ? "allow" : "cancel";
      }
    });
    sendJson(response, boost::json::object{{"policy", policy}});
  });
  server_->Post(R"(/screen/(\d+)/perform)",
                [this](const httplib::Request& request, httplib::Response& response) {
                  const auto id = idOf(request);
                  const std::string action = textMember(bodyOf(request), "action");
                  onMain([&] {
                    if (const auto screen = screenById(id)) screen->perform(action);
                  });
                  sendJson(response, boost::json::object{});
                });
  server_->Post(R"(/action/(\d+))",
                [this](const httplib::Request& request, httplib::Response& response) {
                  const auto id = idOf(request);
                  onMain([&] {
                    // The page under a screen takes no input; a stale page's press is ignored too.
                    if (id >= 0 && static_cast<std::size_t>(id) < actions_.size() && !topScreen()) {
                      actions_[static_cast<std::size_t>(id)].second();
                    }
                  });
                  sendJson(response, boost::json::object{});
                });
  server_->Get("/events", [this](const httplib::Request&, httplib::Response& response) {
    response.set_header("Cache-Control", "no-store");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, seen = std::uint64_t{0}](std::size_t, httplib::DataSink& sink) mutable {
          std::unique_lock lock(mutex_);
          changed_.wait_for(lock, kKeepAlive, [&] { return stopping_ || version_ != seen; });
          if (stopping_) return false;
          if (version_ == seen) {
            lock.unlock();
            return sink.write(": keep-alive\n\n", 15);
          }
          seen = version_;
          const std::string event = "data: " + std::to_string(seen) + "\n\n";
          lock.unlock();
          return sink.write(event.data(), event.size());
        });
  });
}

}  // namespace quillet
