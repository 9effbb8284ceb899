#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "quillet/base/Bytes.h"
#include "quillet/base/Export.h"

namespace quillet {

/// Standard base64 of the bytes with "+" as "-", "/" as "_", and no "=" padding.
QUILLET_EXPORT std::string base64URLEncodedString(std::span<const std::uint8_t> bytes);

/// The bytes of a base64url text: "-" and "_" are read as "+" and "/", the text is padded with
/// "=" to a multiple of 4 characters and decoded as strict standard base64. Nothing for any
/// character outside the alphabet (white space included), misplaced "=", or a length of one more
/// than a multiple of 4. The empty text gives an empty buffer.
QUILLET_EXPORT std::optional<Bytes> fromBase64Url(std::string_view text);

}  // namespace quillet
