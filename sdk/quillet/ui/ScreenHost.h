#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quillet/base/Export.h"
#include "quillet/ui/Screen.h"

namespace quillet {

/// Shows the library's screens in whatever the host has (a web view, a browser, a test
/// recorder). The base class keeps the stack of presented screens, as a window keeps its chain
/// of presented view controllers; a host draws the top visible screens whenever `update` tells
/// it that something changed. Controllers decide, hosts draw.
///
/// Threads: `canPresent`, `topScreen` and `screens` may be called from any thread; everything
/// else on the main thread. No lock is held while a screen or a subclass is called.
class QUILLET_EXPORT ScreenHost : public std::enable_shared_from_this<ScreenHost> {
 public:
  /// What changed, for the drawing side.
  struct Update {
    enum class Kind { presented, dismissed, changed };
    Kind kind = Kind::changed;
    std::shared_ptr<const Screen> screen;
    Presentation presentation;  ///< presented: how; dismissed: `animated` only
  };

  virtual ~ScreenHost();

  /// Whether there is a window to present on (the top view controller exists).
  virtual bool canPresent() const = 0;
  /// Opens an address outside the library (a browser tab, the system's mail program).
  virtual void openUrl(const std::string& url) = 0;
  /// A light impact, where the device has haptics; nothing by default.
  virtual void playImpact();

  /// Puts `screen` on top of the stack; its presenting screen is the previous top one (none when
  /// the stack was empty: the host's own window presents it). `completion` runs once it is shown.
  void present(std::shared_ptr<Screen> screen, Presentation presentation,
               std::function<void()> completion = {});
  /// Takes `screen` and every screen above it off the stack, top first, telling each; then runs
  /// `completion`. A screen not on the stack only runs `completion`.
  void dismiss(const Screen& screen, bool animated, std::function<void()> completion = {});
  /// Tells the drawing side that `screen` has a new document or visibility.
  void screenChanged(const Screen& screen);

  /// The top screen (hidden or not), or none.
  std::shared_ptr<Screen> topScreen() const;
  /// Every presented screen, bottom first.
  std::vector<std::shared_ptr<Screen>> screens() const;
  /// How each screen of `screens` was presented, in the same order.
  std::vector<Presentation> presentations() const;

 protected:
  ScreenHost() = default;
  /// Draws what changed; called on the main thread after the stack is updated.
  virtual void update(const Update& update) = 0;

 private:
  struct Entry {
    std::shared_ptr<Screen> screen;
    Presentation presentation;
  };
  mutable std::mutex mutex_;
  std::vector<Entry> stack_;
};

}  // namespace quillet
