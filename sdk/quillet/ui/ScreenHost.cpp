#include "quillet/ui/ScreenHost.h"

#include <algorithm>

namespace quillet {

ScreenHost::~ScreenHost() = default;

void ScreenHost::playImpact() {}

void ScreenHost::present(std::shared_ptr<Screen> screen, Presentation presentation,
                         std::function<void()> completion) {
  if (!screen) return;
  {
    std::lock_guard lock(mutex_);
    screen->presenter_ = stack_.empty() ? std::weak_ptr<Screen>{} : stack_.back().screen;
    screen->host_ = weak_from_this();
    stack_.push_back(Entry{screen, presentation});
  }
  update(Update{Update::Kind::presented, std::move(screen), presentation});
  // Kept here: the completion may belong to a screen that the drawing side lets go of.
  const std::function<void()> done = std::move(completion);
  if (done) done();
}

void ScreenHost::dismiss(const Screen& screen, bool animated, std::function<void()> completion) {
  // Kept here: the completion may belong to a screen that this dismisses.
  const std::function<void()> done = std::move(completion);
  std::vector<Entry> removed;
  {
    std::lock_guard lock(mutex_);
    const auto found = std::find_if(stack_.begin(), stack_.end(),
                                    [&](const Entry& e) { return e.screen.get() == &screen; });
    removed.assign(std::make_move_iterator(found), std::make_move_iterator(stack_.end()));
    stack_.erase(found, stack_.end());
  }
  std::reverse(removed.begin(), removed.end());  // the top screen goes first
  for (const Entry& entry : removed) {
    entry.screen->host_.reset();
    update(Update{Update::Kind::dismissed, entry.screen,
                  Presentation{entry.presentation.style, entry.presentation.transition, animated}});
  }
  for (const Entry& entry : removed) {
    entry.screen->didDismiss();
    if (entry.screen->onDismissed) entry.screen->onDismissed();
  }
  if (done) done();
}

void ScreenHost::screenChanged(const Screen& screen) {
  std::shared_ptr<Screen> found;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : stack_) {
      if (entry.screen.get() == &screen) found = entry.screen;
    }
  }
  if (found) update(Update{Update::Kind::changed, found, {}});
}

std::shared_ptr<Screen> ScreenHost::topScreen() const {
  std::lock_guard lock(mutex_);
  return stack_.empty() ? nullptr : stack_.back().screen;
}

std::vector<std::shared_ptr<Screen>> ScreenHost::screens() const {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<Screen>> out;
  for (const auto& entry : stack_)
    out.push_back(entry.screen);
  return out;
}

std::vector<Presentation> ScreenHost::presentations() const {
  std::lock_guard lock(mutex_);
  std::vector<Presentation> out;
  for (const auto& entry : stack_)
    out.push_back(entry.presentation);
  return out;
}

}  // namespace quillet
