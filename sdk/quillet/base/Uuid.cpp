#include "quillet/base/Uuid.h"

#include <array>
#include <cerrno>
#include <cstdint>

#include <sys/random.h>

#include "quillet/base/Fatal.h"

namespace quillet {

std::string randomUuid() {
  std::array<std::uint8_t, 16> bytes{};
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      fatalError("the operating system's random source is not available");
    }
    filled += static_cast<std::size_t>(got);
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kHex[bytes[i] >> 4]);
    text.push_back(kHex[bytes[i] & 0x0F]);
  }
  return text;
}

}  // namespace quillet
