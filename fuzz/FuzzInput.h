#pragma once

// Helpers shared by the fuzz targets: splitting one input into parts, and reading small numbers
// off the front of an input to drive operation sequences.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quillet::fuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// The input cut at every occurrence of `separator`, always `count` parts (missing ones empty;
/// the last one keeps any further separators).
inline std::vector<std::string_view> split(std::string_view input, std::string_view separator,
                                           std::size_t count) {
  std::vector<std::string_view> parts;
  while (parts.size() + 1 < count) {
    const auto at = input.find(separator);
    if (at == std::string_view::npos) break;
    parts.push_back(input.substr(0, at));
    input.remove_prefix(at + separator.size());
  }
  parts.push_back(input);
  parts.resize(count);
  return parts;
}

/// Reads bytes off the front of an input; zeros once it is used up.
class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool empty() const noexcept { return bytes_.empty(); }
  std::uint8_t byte() {
    if (bytes_.empty()) return 0;
    const std::uint8_t b = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return b;
  }
  std::int64_t integer() {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
      v = (v << 8) | byte();
    return static_cast<std::int64_t>(v);
  }
  /// Up to `most` bytes, the length taken from the input.
  std::string_view bytes(std::size_t most) {
    const std::size_t n = std::min<std::size_t>({byte(), most, bytes_.size()});
    const std::string_view out(reinterpret_cast<const char*>(bytes_.data()), n);
    bytes_ = bytes_.subspan(n);
    return out;
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

/// Stops with a message when an invariant does not hold: the fuzzer records the input.
[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
  std::abort();
}

}  // namespace quillet::fuzz
