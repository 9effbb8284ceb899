#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/// Building blocks of the screens' documents. Every text that comes from the vendor list, the
/// configuration or a disclosure document goes through `escape`; only links that pass
/// `isSafeLink` are ever written as clickable addresses. All functions are pure.
namespace quillet::Html {

/// Text for HTML content and double- or single-quoted attribute values: & < > " ' escaped.
std::string escape(std::string_view text);

/// Whether `url` may be written as a link the user can follow: an absolute http, https or mailto
/// address (scheme in any case) with no white space, control character, quote or angle bracket.
bool isSafeLink(std::string_view url);

/// Whether `text` can stand as a CSS value inside a style element or a double-quoted style
/// attribute without ending either: not empty, and only letters, digits, spaces, tabs, number
/// signs, parentheses, commas, full stops, percent, plus and minus signs. It says nothing about
/// whether a browser takes it as a colour.
bool isInertCssValue(std::string_view text);

/// A colour text read as hexadecimal RGB, alpha 1, the way the native controls read it.
struct RgbColour {
  std::string hex;     ///< "#RRGGBB", upper case
  bool exact = false;  ///< the text was exactly six hex digits (after the trimming)
};
/// Surrounding white space and one leading "#" are removed; the hex digits up to the first other
/// character make the number (none reads as 0, black); its low 24 bits are the colour.
RgbColour readRgbColour(std::string_view text);

/// The system colours of the library's own screens: the platforms' increased-contrast variants,
/// so that white text on the blue and orange fills and red text on white reach 4.5:1, and the
/// off track of a switch reaches 3:1 against a white row.
inline constexpr std::string_view kSystemBlue = "#0040DD";    // white on it 7.6:1
inline constexpr std::string_view kSystemOrange = "#C93400";  // white on it 5.3:1
inline constexpr std::string_view kSystemRed = "#D70015";     // on white 5.4:1
inline constexpr std::string_view kSystemGray = "#8E8E93";    // on white 3.3:1

/// The start of one of the library's own screen documents, up to and including "<body ...>":
/// shared style sheet with `accent` as the brand colour (a "#RRGGBB" text), and the element whose
/// id is `focusId` (when not empty) focused once the document has loaded.
std::string documentStart(std::string_view title, std::string_view accent,
                          std::string_view focusId);
/// The end of such a document: the keyboard and remote-control script, "</body></html>".
std::string documentEnd();

/// The accent colour of the screens: `brandColour` read by `readRgbColour` when present, else the
/// system blue.
std::string accentColour(const std::optional<std::string>& brandColour);

/// The sticky header of a screen pushed over another: a "‹ Back" button that carries `backLink`,
/// the escaped `title`, and an escaped `subtitle` line when there is one.
std::string backHeader(std::string_view backLink, std::string_view title,
                       std::string_view subtitle = {});

/// A link that carries an event of the library's own scheme, as a focusable button.
std::string eventButton(std::string_view id, std::string_view link, std::string_view label,
                        std::string_view extraClass = {});

/// "Special Feature", "Info‑only Feature": texts with a non-breaking hyphen or space are written
/// through these constants so that the bytes stay exact.
inline constexpr std::string_view kNonBreakingHyphen = "\u2011";
inline constexpr std::string_view kNoBreakSpace = "\u00A0";

}  // namespace quillet::Html
