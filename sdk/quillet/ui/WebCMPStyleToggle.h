#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace quillet {

/// The on/off switch of every consent row: a rounded track with a sliding knob that shows a
/// check mark when on and a cross when off, and that can be locked on. The owner renders it into
/// its document with `html` and forwards taps on it to `tap`. Not thread-safe: the screens use
/// it on the main thread.
class WebCMPStyleToggle {
 public:
  /// How the switch is drawn for its current state.
  struct Appearance {
    bool displayedOn = false;
    int knobOffset = 2;                   ///< CSS pixels from the track's leading edge
    std::string trackColour;              ///< CSS colour
    std::string_view icon;                ///< "checkmark" or "xmark"
    double opacity = 1.0;                 ///< of the whole control
    std::string_view accessibilityValue;  ///< "On" or "Off"
    double animationSeconds = 0.0;        ///< 0.18 when the last change was animated
  };

  WebCMPStyleToggle() = default;
  explicit WebCMPStyleToggle(bool isOn) : isOn_(isOn) {}

  bool isOn() const noexcept { return isOn_; }
  bool isLocked() const noexcept { return isLocked_; }
  /// Changes the state without sending the value-changed event.
  void setOn(bool isOn, bool animated = false);
  void setLocked(bool isLocked);

  /// A user's tap: ignored when locked; otherwise flips the state (animated), sends the
  /// value-changed event with the new state, and asks for the light impact. Returns whether
  /// anything happened.
  bool tap();

  /// Called with the new state after a tap.
  std::function<void(bool)> onValueChanged;
  /// Called for the light impact of a tap.
  std::function<void()> onImpact;

  Appearance appearance() const;

  /// The switch as an element with role "switch", `aria-checked` and `label` for screen readers;
  /// `link` is followed on activation (none when locked, so a locked switch sends nothing).
  /// `label` is escaped. After an animated change the knob is written at its old place and slides
  /// to the new one once the document is shown.
  std::string html(std::string_view id, std::string_view link, std::string_view label) const;

 private:
  bool isOn_ = false;
  bool isLocked_ = false;
  bool animated_ = false;
};

}  // namespace quillet
