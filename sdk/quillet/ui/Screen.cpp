#include "quillet/ui/Screen.h"

#include <charconv>

#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/ui/Html.h"
#include "quillet/ui/ScreenHost.h"

namespace quillet {
namespace {

constexpr std::string_view kScheme = "quillet://";

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
  }
  return true;
}

}  // namespace

std::optional<ScreenEvent> ScreenEvent::parse(std::string_view url) {
  if (!startsWithNoCase(url, kScheme)) return std::nullopt;
  std::string_view rest = url.substr(kScheme.size());
  if (const auto end = rest.find_first_of("?#"); end != std::string_view::npos) {
    rest = rest.substr(0, end);
  }
  while (!rest.empty() && rest.back() == '/')
    rest.remove_suffix(1);
  ScreenEvent event;
  const auto slash = rest.find('/');
  event.name = std::string(rest.substr(0, slash));
  if (event.name.empty()) return std::nullopt;
  rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
  while (!rest.empty()) {
    const auto next = rest.find('/');
    const std::string_view part = rest.substr(0, next);
    std::int64_t id = 0;
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), id);
    if (error != std::errc{} || end != part.data() + part.size() || part.empty()) {
      return std::nullopt;
    }
    event.ids.push_back(id);
    rest = next == std::string_view::npos ? std::string_view{} : rest.substr(next + 1);
  }
  return event;
}

std::string ScreenEvent::link(std::string_view name, std::initializer_list<std::int64_t> ids) {
  std::string out(kScheme);
  out += name;
  for (const auto id : ids) {
    out += '/';
    out += std::to_string(id);
  }
  return out;
}

std::optional<std::int64_t> ScreenEvent::id(std::size_t index) const {
  if (index >= ids.size()) return std::nullopt;
  return ids[index];
}

void runOnMainThread(std::function<void()> task) {
  const auto queue = Platform::current().mainQueue;
  if (queue->isMainThread()) {
    task();
  } else {
    queue->post(std::move(task));
  }
}

Screen::~Screen() = default;

std::vector<NativeControl> Screen::controls() const {
  return {};
}

NavigationPolicy Screen::decidePolicy(const Navigation& navigation) {
  if (!navigation.isLinkActivation || navigation.url.empty()) return NavigationPolicy::allow;
  if (const auto event = ScreenEvent::parse(navigation.url)) {
    handleEvent(*event);
    return NavigationPolicy::cancel;
  }
  if (startsWithNoCase(navigation.url, kScheme)) return NavigationPolicy::cancel;
  if (Html::isSafeLink(navigation.url)) {
    openExternally(navigation.url);
    return NavigationPolicy::cancel;
  }
  return NavigationPolicy::allow;
}

void Screen::perform(std::string_view /*action*/) {}
void Screen::didDismiss() {}
void Screen::handleEvent(const ScreenEvent& /*event*/) {}

void Screen::setHidden(bool hidden) {
  if (hidden_ == hidden) return;
  hidden_ = hidden;
  changed();
}

void Screen::present(std::shared_ptr<Screen> screen, Presentation presentation,
                     std::function<void()> completion) {
  if (const auto h = host()) h->present(std::move(screen), presentation, std::move(completion));
}

void Screen::dismiss(const Screen& screen, bool animated, std::function<void()> completion) {
  if (const auto h = host()) {
    h->dismiss(screen, animated, std::move(completion));
  } else if (completion) {
    completion();
  }
}

void Screen::changed() {
  if (const auto h = host()) h->screenChanged(*this);
}

void Screen::openExternally(const std::string& url) {
  if (const auto h = host()) h->openUrl(url);
}

void Screen::playImpact() {
  if (const auto h = host()) h->playImpact();
}

}  // namespace quillet
