#pragma once

// The base64url alphabet and its reverse table, shared by the byte conversions and the TC String
// reader. Internal to the codec.

#include <array>
#include <cstdint>

namespace quillet::base64url {

inline constexpr char kAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

inline constexpr std::uint8_t kInvalid = 0xFF;

/// Value 0 to 63 of each base64url character ("-" and "_" as well as the standard "+" and "/"
/// decode to 62 and 63); kInvalid for every other byte.
inline constexpr std::array<std::uint8_t, 256> kValues = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(kInvalid);
  for (std::uint8_t i = 0; i < 64; ++i)
    values[static_cast<unsigned char>(kAlphabet[i])] = i;
  values['+'] = 62;
  values['/'] = 63;
  return values;
}();

}  // namespace quillet::base64url
