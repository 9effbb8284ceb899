#include "quillet/codec/Base64Url.h"

#include <array>

#include "quillet/codec/Base64Alphabet.h"

namespace quillet {

std::string base64URLEncodedString(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() * 4 + 2) / 3);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group = (std::uint32_t{bytes[i]} << 16) |
                                (std::uint32_t{bytes[i + 1]} << 8) | std::uint32_t{bytes[i + 2]};
    out.push_back(base64url::kAlphabet[(group >> 18) & 63U]);
    out.push_back(base64url::kAlphabet[(group >> 12) & 63U]);
    out.push_back(base64url::kAlphabet[(group >> 6) & 63U]);
    out.push_back(base64url::kAlphabet[group & 63U]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t group = std::uint32_t{bytes[i]} << 16;
    if (rest == 2) group |= std::uint32_t{bytes[i + 1]} << 8;
    out.push_back(base64url::kAlphabet[(group >> 18) & 63U]);
    out.push_back(base64url::kAlphabet[(group >> 12) & 63U]);
    if (rest == 2) out.push_back(base64url::kAlphabet[(group >> 6) & 63U]);
  }
  return out;
}

std::optional<Bytes> fromBase64Url(std::string_view text) {
  // Padding to a multiple of 4 as the decoder does: a length of 4k + 1 gets three "=" and can
  // never decode; 4k + 2 and 4k + 3 get two and one.
  const std::size_t padding = (4 - text.size() % 4) % 4;
  if (padding == 3) return std::nullopt;
  // "=" may stand only at the very end, and at most two of them in all.
  std::size_t given = 0;
  while (given < text.size() && text[text.size() - 1 - given] == '=')
    ++given;
  if (given + padding > 2) return std::nullopt;
  const std::string_view body = text.substr(0, text.size() - given);

  Bytes out;
  out.reserve(body.size() * 3 / 4);
  std::uint32_t accumulator = 0;
  int bits = 0;
  for (const char c : body) {
    const std::uint8_t value = base64url::kValues[static_cast<unsigned char>(c)];
    if (value == base64url::kInvalid) return std::nullopt;
    accumulator = (accumulator << 6) | value;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>(accumulator >> bits));
      accumulator &= (1U << bits) - 1U;
    }
  }
  return out;
}

}  // namespace quillet
