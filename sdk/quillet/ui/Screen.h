#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/base/Export.h"

namespace quillet {

class ScreenHost;

/// A navigation the document's web view is about to make.
struct QUILLET_EXPORT Navigation {
  std::string url;  ///< absolute; may be empty
  /// True for a link the user activated; false for the initial load and for scripts.
  bool isLinkActivation = true;
};

enum class NavigationPolicy { allow, cancel };

enum class PresentationStyle {
  fullScreen,  ///< covers the whole window
  sheet,       ///< a card over the screen below it (details, disclosure)
};

enum class Transition { coverVertical, crossDissolve };

struct QUILLET_EXPORT Presentation {
  PresentationStyle style = PresentationStyle::fullScreen;
  Transition transition = Transition::coverVertical;
  bool animated = true;
};

/// A control the host draws natively beside the document (the banner's logo and buttons).
struct QUILLET_EXPORT NativeControl {
  enum class Kind { image, filledButton, destructiveButton, plainButton };
  Kind kind = Kind::filledButton;
  std::string action;    ///< what `Screen::perform` takes when it is tapped
  std::string title;     ///< buttons
  std::string colour;    ///< "#RRGGBB": the fill of a filled button, the title of a plain one
  std::string imageUrl;  ///< images

  bool operator==(const NativeControl&) const = default;
};

/// An event of the library's own scheme: "quillet://<name>/<id>/<id>...".
struct QUILLET_EXPORT ScreenEvent {
  std::string name;
  std::vector<std::int64_t> ids;

  /// Absent for other schemes and for malformed ids.
  static std::optional<ScreenEvent> parse(std::string_view url);
  /// The link that carries `name` and `ids`.
  static std::string link(std::string_view name, std::initializer_list<std::int64_t> ids = {});
  std::optional<std::int64_t> id(std::size_t index) const;
};

/// Runs `task` now when called on the platform's main thread, else posts it there. Observers of
/// the consent stores use it: notifications arrive on whichever thread changed a store.
QUILLET_EXPORT void runOnMainThread(std::function<void()> task);

/// A consent screen: a controller that owns its state and handlers and renders an HTML document
/// that a host shows in a web view. Events come back through `decidePolicy` (links, including
/// the library's own scheme) and `perform` (native controls). A screen is created, used and
/// destroyed on the main thread; it asks its host to show it again after its state changes.
class QUILLET_EXPORT Screen : public std::enable_shared_from_this<Screen> {
 public:
  virtual ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  virtual std::string title() const = 0;
  /// What kind of screen this is, for hosts that present kinds differently: "banner",
  /// "secondLayer", "purposeDetails", "vendorDetails", "disclosure"; "screen" by default.
  virtual std::string_view kind() const noexcept { return "screen"; }
  /// The whole HTML document for the current state.
  virtual std::string document() const = 0;
  /// Native controls for the host to draw, in order; none by default.
  virtual std::vector<NativeControl> controls() const;
  /// The navigation delegate's answer. By default: what is not a link activation, and a link
  /// without URL, is allowed; a link of the library's scheme is handled as an event and
  /// cancelled; http, https and mailto links are opened by the host and cancelled; anything else
  /// is allowed.
  virtual NavigationPolicy decidePolicy(const Navigation& navigation);
  /// A native control's action; unknown actions are ignored.
  virtual void perform(std::string_view action);
  /// The host took this screen off; by default nothing.
  virtual void didDismiss();
  /// Runs after `didDismiss`, for whoever opened this screen.
  std::function<void()> onDismissed;

  /// A hidden screen stays in the host's stack but is not drawn.
  bool isHidden() const noexcept { return hidden_; }
  void setHidden(bool hidden);
  /// The screen that presented this one; none for a screen the host presented.
  std::shared_ptr<Screen> presentingScreen() const { return presenter_.lock(); }
  /// The host showing this screen; none before it is presented and after it is dismissed.
  std::shared_ptr<ScreenHost> host() const { return host_.lock(); }

 protected:
  Screen() = default;

  /// Handles an event of the library's scheme; by default nothing.
  virtual void handleEvent(const ScreenEvent& event);

  /// Presents `screen` over this one through this screen's host; `completion` runs once it is
  /// shown. Nothing happens without a host.
  void present(std::shared_ptr<Screen> screen, Presentation presentation,
               std::function<void()> completion = {});
  /// Takes `screen` and everything above it off the host; `completion` runs afterwards, also
  /// when there is no host.
  void dismiss(const Screen& screen, bool animated, std::function<void()> completion = {});
  /// Asks the host to show the current document again.
  void changed();
  void openExternally(const std::string& url);
  void playImpact();

  /// The id of the control that raised the last event, focused again when the document is
  /// shown anew so that keyboard users keep their place.
  std::string focusId_;

 private:
  friend class ScreenHost;
  std::weak_ptr<ScreenHost> host_;
  std::weak_ptr<Screen> presenter_;
  bool hidden_ = false;
};

}  // namespace quillet
