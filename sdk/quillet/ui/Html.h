#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "quillet/core/Export.h"

/// Building blocks of the screens' documents. Every text that comes from the vendor list, the
/// configuration or a disclosure document goes through `escape`; only links that pass
/// `isSafeLink` are ever written as clickable addresses. All functions are pure.
namespace quillet::Html {

/// Text for HTML content and double- or single-quoted attribute values: & < > " ' escaped.
QUILLET_EXPORT std::string escape(std::string_view text);

/// Whether `url` may be written as a link the user can follow: an absolute http, https or mailto
/// address (scheme in any case) with no white space, control character, quote or angle bracket.
QUILLET_EXPORT bool isSafeLink(std::string_view url);

/// Whether `text` is a CSS colour the screens accept from a configuration: "#" with 3, 4, 6 or 8
/// hex digits, a colour name of letters only, or rgb()/rgba()/hsl()/hsla() whose arguments are
/// digits, dots, commas, spaces and "%".
QUILLET_EXPORT bool isCssColour(std::string_view text);

/// The start of one of the library's own screen documents, up to and including "<body ...>":
/// shared style sheet with `accent` as the brand colour (must pass `isCssColour`), and the
/// element whose id is `focusId` (when not empty) focused once the document has loaded.
QUILLET_EXPORT std::string documentStart(std::string_view title, std::string_view accent,
                                         std::string_view focusId);
/// The end of such a document: the keyboard and remote-control script, "</body></html>".
QUILLET_EXPORT std::string documentEnd();

/// The accent colour of the screens: `brandColour` when it passes `isCssColour`, else the system
/// blue.
QUILLET_EXPORT std::string accentColour(const std::optional<std::string>& brandColour);

/// The sticky header of a screen pushed over another: a "‹ Back" button that carries `backLink`,
/// the escaped `title`, and an escaped `subtitle` line when there is one.
QUILLET_EXPORT std::string backHeader(std::string_view backLink, std::string_view title,
                                      std::string_view subtitle = {});

/// A link that carries an event of the library's own scheme, as a focusable button.
QUILLET_EXPORT std::string eventButton(std::string_view id, std::string_view link,
                                       std::string_view label, std::string_view extraClass = {});

/// "Special Feature", "Info‑only Feature": texts with a non-breaking hyphen or space are written
/// through these constants so that the bytes stay exact.
inline constexpr std::string_view kNonBreakingHyphen = "\u2011";
inline constexpr std::string_view kNoBreakSpace = "\u00A0";

}  // namespace quillet::Html
