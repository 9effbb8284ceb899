#include "quillet/ui/PurposesPageViewController.h"

#include "quillet/ui/Html.h"

namespace quillet {

PurposesPageViewController::PurposesPageViewController(
    std::vector<PurposeModel> purposes, BrandingConfig brandingConfig,
    std::map<std::int64_t, WebCMPStyleToggle>& toggles)
    : purposes(std::move(purposes)), brandingConfig(std::move(brandingConfig)), toggles_(toggles) {}

std::string PurposesPageViewController::row(const PurposeModel& purpose,
                                            std::string_view below) const {
  const std::string id = std::to_string(purpose.id());
  const std::string name = Html::escape(purpose.name());
  std::string out = "<div class=\"qlt-cell\" data-cell=\"";
  out += kCellIdentifier;
  out += "\" id=\"purpose-" + id + "\"><div class=\"qlt-row\"><div class=\"qlt-row-text\">";
  out += "<div class=\"qlt-row-title\">" + name + "</div>";
  out += "<a class=\"qlt-link\" id=\"read-more-" + id + "\" href=\"" +
         ScreenEvent::link("read-more", {purpose.id()}) +
         "\" aria-label=\"Tap to read more: " + name + "\">Tap to read more</a></div>";
  out += "<span class=\"qlt-row-label\" aria-hidden=\"true\">Consent</span>";
  const auto toggle = toggles_.find(purpose.id());
  const WebCMPStyleToggle none;
  out += (toggle != toggles_.end() ? toggle->second : none)
             .html("purpose-consent-" + id, ScreenEvent::link("purpose-consent", {purpose.id()}),
                   "Consent: " + purpose.name());
  out += "</div>";
  out += below;
  out += "</div>";
  return out;
}

std::string PurposesPageViewController::html(
    const std::function<std::string(const PurposeModel&)>& below) const {
  std::string out;
  for (const auto& purpose : purposes)
    out += row(purpose, below ? below(purpose) : std::string());
  return out;
}

bool PurposesPageViewController::handle(const ScreenEvent& event) {
  const auto id = event.id(0);
  if (!id) return false;
  if (event.name == "purpose-consent") {
    const auto toggle = toggles_.find(*id);
    if (toggle != toggles_.end() && toggle->second.tap() && switchChanged) {
      switchChanged(*id, toggle->second.isOn());
    }
    return true;
  }
  if (event.name == "read-more") {
    if (readMore) readMore(*id);
    return true;
  }
  return false;
}

}  // namespace quillet
