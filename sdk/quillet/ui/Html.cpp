#include "quillet/ui/Html.h"

#include <algorithm>
#include <cctype>

namespace quillet::Html {
namespace {

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(), [](char lower, char c) {
           return std::tolower(static_cast<unsigned char>(c)) == lower;
         });
}

bool isHexDigit(char c) {
  return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

// The style sheet of every screen but the banner, whose document is fixed text.
constexpr std::string_view kStyle = R"(
*{box-sizing:border-box}
html{-webkit-text-size-adjust:100%}
body{margin:0;font-family:-apple-system,system-ui,"Segoe UI",Roboto,Arial,sans-serif;font-size:16px;
 line-height:1.45;color:#1c1c1e;background:#f2f2f7}
header{position:sticky;top:0;z-index:2;background:rgba(242,242,247,.96);padding:14px 16px 10px;
 border-bottom:1px solid #d8d8dc}
h1{font-size:20px;margin:0 0 10px;font-weight:700}
h2{font-size:13px;font-weight:600;text-transform:uppercase;letter-spacing:.04em;color:#6c6c70;
 margin:22px 16px 6px}
main{padding:0 0 96px}
.qlt-group{background:#fff;border-radius:12px;margin:0 12px 12px;overflow:hidden}
.qlt-row{display:flex;align-items:center;gap:12px;padding:12px 14px;border-top:1px solid #ececf0}
.qlt-row:first-child{border-top:none}
.qlt-row-text{flex:1;min-width:0}
.qlt-row-title{font-weight:600;overflow-wrap:anywhere}
.qlt-row-note{font-size:14px;color:#48484a;margin-top:2px;overflow-wrap:anywhere}
.qlt-row-label{font-size:12px;color:#6c6c70;text-align:center;min-width:52px}
.qlt-sub{padding:0 14px 12px 28px;background:#fafafc}
.qlt-sub .qlt-row{padding:8px 0;border-top:1px solid #f0f0f3}
.qlt-para{margin:8px 14px;font-size:14.5px;color:#3a3a3c}
a{color:var(--accent)}
a:focus-visible,button:focus-visible,[tabindex]:focus-visible{outline:3px solid var(--accent);
 outline-offset:2px;border-radius:8px}
.qlt-link{color:var(--accent);font-weight:600;text-decoration:underline;font-size:14.5px}
.qlt-button{display:inline-block;padding:12px 10px;border-radius:10px;font-weight:700;
 text-align:center;text-decoration:none;color:#fff;background:var(--accent)}
.qlt-button.qlt-orange{background:var(--system-orange)}
.qlt-button.qlt-plain{background:transparent;color:var(--accent);padding:8px 4px}
.qlt-segments{display:flex;background:#e3e3e8;border-radius:9px;padding:2px}
.qlt-segments a{flex:1;text-align:center;padding:7px 0;border-radius:7px;color:#1c1c1e;
 text-decoration:none;font-weight:600;font-size:14px}
.qlt-segments a[aria-selected="true"]{background:#fff;box-shadow:0 1px 3px rgba(0,0,0,.15)}
footer{position:fixed;bottom:0;left:0;right:0;display:flex;gap:8px;padding:10px 12px 14px;
 background:rgba(242,242,247,.97);border-top:1px solid #d8d8dc}
footer .qlt-button{flex:1;background:#007AFF}
footer .qlt-button.qlt-orange{background:var(--system-orange)}
.qlt-toggle{display:inline-block;flex:none;text-decoration:none;border-radius:16px}
.qlt-track{position:relative;display:block;width:51px;height:28px;border-radius:14px}
.qlt-knob{position:absolute;top:2px;width:24px;height:24px;border-radius:12px;background:#fff;
 box-shadow:0 1px 3px rgba(0,0,0,.3);display:flex;align-items:center;justify-content:center;
 font-size:13px;font-weight:700;color:var(--system-gray)}
.qlt-knob.qlt-on{color:var(--system-blue)}
.qlt-sr{position:absolute;width:1px;height:1px;overflow:hidden;clip:rect(0 0 0 0);white-space:nowrap}
.qlt-empty{padding:40px 24px;text-align:center;color:#48484a}
.qlt-entry{white-space:pre-line;font-size:14px}
)";

// Arrow keys move between focusable controls (a TV remote's D-pad sends them); Enter or OK
// follows the focused link, and so does Space on a link that plays a button, switch or tab.
// Left and right inside a tab list move between the tabs. `qltRendered` runs once the document
// is shown, and again whenever a host puts a newer body in place: it focuses the control named by
// the body's data-focus without jumping the scroll (unless the host passes false: the document is
// not the one in front), and slides a knob rendered mid-move to its place, so that a switch that
// was just tapped animates.
constexpr std::string_view kScript = R"(<script>
(function(){
  function focusables(){
    return Array.prototype.filter.call(
      document.querySelectorAll('a[href],button,[tabindex="0"]'),
      function(e){ return e.offsetParent !== null || e === document.activeElement; });
  }
  document.addEventListener('keydown', function(ev){
    var k = ev.key, active = document.activeElement;
    if(k===' ' && active && active.matches('a[href][role="button"],a[href][role="switch"],a[href][role="tab"]')){
      ev.preventDefault(); active.click(); return;
    }
    if(k!=='ArrowDown'&&k!=='ArrowUp'&&k!=='ArrowLeft'&&k!=='ArrowRight') return;
    var list = focusables(); if(!list.length) return;
    var at = list.indexOf(active);
    var tabs = active && active.closest('[role="tablist"]');
    var step = (k==='ArrowDown'||k==='ArrowRight') ? 1 : -1;
    if(tabs && (k==='ArrowLeft'||k==='ArrowRight')){
      var t = Array.prototype.slice.call(tabs.querySelectorAll('[role="tab"]'));
      var i = t.indexOf(active) + step;
      if(i>=0 && i<t.length) t[i].focus();
      ev.preventDefault(); return;
    }
    var next = at < 0 ? 0 : Math.min(list.length-1, Math.max(0, at+step));
    list[next].focus(); list[next].scrollIntoView({block:'nearest'});
    ev.preventDefault();
  });
  window.qltRendered = function(takeFocus){
    var focus = document.body.getAttribute('data-focus');
    var el = takeFocus !== false && focus && document.getElementById(focus);
    if(el && el !== document.activeElement){
      el.focus({preventScroll:true}); el.scrollIntoView({block:'nearest'});
    }
    var moving = document.querySelectorAll('.qlt-knob[data-to]');
    if(moving.length) requestAnimationFrame(function(){ requestAnimationFrame(function(){
      Array.prototype.forEach.call(moving, function(k){ k.style.left = k.getAttribute('data-to'); });
    }); });
  };
  window.qltRendered();
})();
</script>)";

}  // namespace

std::string escape(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool isSafeLink(std::string_view url) {
  const bool schemeOk = startsWithNoCase(url, "http://") || startsWithNoCase(url, "https://") ||
                        startsWithNoCase(url, "mailto:");
  if (!schemeOk) return false;
  return std::none_of(url.begin(), url.end(), [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return u <= 0x20 || u == 0x7F || c == '"' || c == '\'' || c == '<' || c == '>' || c == '`' ||
           c == '\\';
  });
}

bool isInertCssValue(std::string_view text) {
  constexpr std::string_view kAllowed = " \t#(),.%+-";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           kAllowed.find(c) != std::string_view::npos;
  });
}

RgbColour readRgbColour(std::string_view text) {
  const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && isSpace(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back()))
    text.remove_suffix(1);
  if (text.starts_with('#')) text.remove_prefix(1);
  std::uint64_t value = 0;
  std::size_t digits = 0;
  for (; digits < text.size() && isHexDigit(text[digits]); ++digits) {
    const auto c = static_cast<unsigned char>(text[digits]);
    const auto digit = std::isdigit(c) != 0 ? c - '0' : std::tolower(c) - 'a' + 10;
    value = (value << 4U) | static_cast<std::uint64_t>(digit);
  }
  constexpr std::string_view kHex = "0123456789ABCDEF";
  RgbColour colour{"#", digits == 6 && text.size() == 6};
  for (const unsigned shift : {20U, 16U, 12U, 8U, 4U, 0U})
    colour.hex += kHex[(value >> shift) & 0xFU];
  return colour;
}

std::string documentStart(std::string_view title, std::string_view accent,
                          std::string_view focusId) {
  std::string out;
  out.reserve(kStyle.size() + 512);
  out += "<!DOCTYPE html>\n<html lang=\"en\"><head>\n<meta charset=\"utf-8\">\n";
  out += "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">\n<title>";
  out += escape(title);
  out += "</title>\n<style>";
  out += kStyle;
  out += ":root{--accent:";
  out += accent;
  out += ";--system-blue:";
  out += kSystemBlue;
  out += ";--system-orange:";
  out += kSystemOrange;
  out += ";--system-gray:";
  out += kSystemGray;
  out += "}\n</style>\n</head><body";
  if (!focusId.empty()) {
    out += " data-focus=\"";
    out += escape(focusId);
    out += '"';
  }
  out += ">\n";
  return out;
}

std::string documentEnd() {
  std::string out(kScript);
  out += "\n</body></html>";
  return out;
}

std::string accentColour(const std::optional<std::string>& brandColour) {
  return brandColour ? readRgbColour(*brandColour).hex : std::string(kSystemBlue);
}

std::string backHeader(std::string_view backLink, std::string_view title,
                       std::string_view subtitle) {
  std::string out =
      "<header><a id=\"close\" class=\"qlt-button qlt-plain\" role=\"button\" href=\"";
  out += escape(backLink);
  out += "\">‹ Back</a><h1>";
  out += escape(title);
  out += "</h1>";
  if (!subtitle.empty()) {
    out += "<div class=\"qlt-row-note\">";
    out += escape(subtitle);
    out += "</div>";
  }
  out += "</header>";
  return out;
}

std::string eventButton(std::string_view id, std::string_view link, std::string_view label,
                        std::string_view extraClass) {
  std::string out = "<a id=\"";
  out += escape(id);
  out += "\" role=\"button\" class=\"qlt-button";
  if (!extraClass.empty()) {
    out += ' ';
    out += extraClass;
  }
  out += "\" href=\"";
  out += escape(link);
  out += "\">";
  out += escape(label);
  out += "</a>";
  return out;
}

}  // namespace quillet::Html
