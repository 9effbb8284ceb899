#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/// Both operations are pure and safe to call from any thread.
namespace quillet::Text {

/// The first `count` user-perceived characters (Unicode extended grapheme clusters) of a UTF-8
/// text, or the whole text when it has fewer. "e\u0301x" counts as two characters, "\r\n" as one.
/// An ill-formed UTF-8 sequence counts as, and comes back as, U+FFFD.
std::string prefixCharacters(std::string_view utf8, std::size_t count);

/// The full Unicode upper-case mapping of a UTF-8 text, independent of any locale ("ß" becomes
/// "SS", "ǆ" becomes "Ǆ"). An ill-formed UTF-8 sequence becomes U+FFFD.
std::string uppercased(std::string_view utf8);

/// A signed decimal integer written as the whole text, with an optional leading "+" or "-"
/// ("7", "+7", "-7", "007"); absent for anything else: empty text, white space, other
/// characters, or a value outside the signed 64-bit range.
std::optional<std::int64_t> parseInteger(std::string_view text) noexcept;

/// Integers as log lines print lists: "[1, 2, 7]".
std::string printedList(std::span<const std::int64_t> numbers);
/// Texts as log lines print lists: "[\"1\", \"10\", \"2\"]".
std::string printedList(std::span<const std::string_view> texts);

}  // namespace quillet::Text
