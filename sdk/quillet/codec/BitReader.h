#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "quillet/base/Bytes.h"
#include "quillet/base/Export.h"

namespace quillet {

/// Reads big-endian bit fields from bytes, most significant bit of each byte first. Reads past
/// the end fail softly (nothing is returned and the position stays); negative counts are
/// programming faults and stop the process. Not safe for concurrent use.
class QUILLET_EXPORT BitReader {
 public:
  explicit BitReader(std::span<const std::uint8_t> data);

  /// The bit at the position, or nothing at the end.
  std::optional<bool> readBit();
  /// The next `count` bits, or nothing when fewer remain.
  std::optional<std::vector<bool>> readBits(std::int64_t count);
  /// The next `count` bits as an unsigned big-endian number (0 for a count of 0), or nothing
  /// when fewer remain. For counts above 64 only the last 64 bits read are kept.
  std::optional<std::uint64_t> readUInt(std::int64_t count);
  /// Moves the position by `count`, stopping at the end. A move to before the start stops the
  /// process.
  void skip(std::int64_t count);
  /// Bits not yet read.
  std::int64_t remainingBits() const noexcept { return bitCount() - position_; }

 private:
  std::int64_t bitCount() const noexcept { return static_cast<std::int64_t>(bytes_.size()) * 8; }
  bool bitAt(std::int64_t index) const noexcept {
    return ((bytes_[static_cast<std::size_t>(index / 8)] >> (7 - index % 8)) & 1U) != 0;
  }
  bool fits(std::int64_t count) const;

  Bytes bytes_;
  std::int64_t position_ = 0;  // bits consumed; never above bitCount()
};

}  // namespace quillet
