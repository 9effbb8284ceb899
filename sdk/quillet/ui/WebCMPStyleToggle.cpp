#include "quillet/ui/WebCMPStyleToggle.h"

#include "quillet/ui/Html.h"

namespace quillet {
namespace {

constexpr int kKnobOn = 25;
constexpr int kKnobOff = 2;
constexpr double kAnimationSeconds = 0.18;
// The system blue at 20 % opacity.
constexpr std::string_view kLockedTrack = "rgba(0,64,221,0.2)";

}  // namespace

void WebCMPStyleToggle::setOn(bool isOn, bool animated) {
  animated_ = animated && isOn != isOn_;
  isOn_ = isOn;
}

void WebCMPStyleToggle::setLocked(bool isLocked) {
  animated_ = false;
  isLocked_ = isLocked;
}

bool WebCMPStyleToggle::tap() {
  if (isLocked_) return false;
  setOn(!isOn_, true);
  if (onValueChanged) onValueChanged(isOn_);
  if (onImpact) onImpact();
  return true;
}

WebCMPStyleToggle::Appearance WebCMPStyleToggle::appearance() const {
  Appearance a;
  a.displayedOn = isLocked_ || isOn_;
  a.knobOffset = a.displayedOn ? kKnobOn : kKnobOff;
  // The platforms' increased-contrast blue, and a grey that reaches 3:1 against a white row.
  a.trackColour = isLocked_ ? std::string(kLockedTrack)
                            : std::string(isOn_ ? Html::kSystemBlue : Html::kSystemGray);
  a.icon = a.displayedOn ? "checkmark" : "xmark";
  a.opacity = isLocked_ ? 0.8 : 1.0;
  a.accessibilityValue = a.displayedOn ? "On" : "Off";
  a.animationSeconds = animated_ ? kAnimationSeconds : 0.0;
  return a;
}

std::string WebCMPStyleToggle::html(std::string_view id, std::string_view link,
                                    std::string_view label) const {
  const Appearance a = appearance();
  std::string out = "<a id=\"";
  out += Html::escape(id);
  out += "\" class=\"qlt-toggle\" role=\"switch\" aria-checked=\"";
  out += a.displayedOn ? "true" : "false";
  out += "\" aria-label=\"";
  out += Html::escape(label);
  out += "\" title=\"";
  out += a.accessibilityValue;
  out += '"';
  if (isLocked_) {
    out += " aria-disabled=\"true\" tabindex=\"0\"";
  } else {
    out += " href=\"";
    out += Html::escape(link);
    out += '"';
  }
  out += " style=\"opacity:";
  out += isLocked_ ? "0.8" : "1";
  out += "\"><span class=\"qlt-track\" style=\"background:";
  out += a.trackColour;
  out += "\"><span class=\"qlt-knob";
  if (a.displayedOn) out += " qlt-on";
  out += "\" data-icon=\"";
  out += a.icon;
  out += '"';
  const std::string to = std::to_string(a.knobOffset) + "px";
  if (a.animationSeconds > 0) {
    const int from = a.displayedOn ? kKnobOff : kKnobOn;
    out += " data-to=\"" + to + "\" style=\"left:" + std::to_string(from) +
           "px;transition:left 0.18s ease 0s\"";
  } else {
    out += " style=\"left:" + to + "\"";
  }
  out += " aria-hidden=\"true\">";
  out += a.displayedOn ? "\u2713" : "\u2715";
  out += "</span></span></a>";
  return out;
}

}  // namespace quillet
