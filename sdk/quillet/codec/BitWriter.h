#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "quillet/base/Bytes.h"
#include "quillet/base/Export.h"

namespace quillet {

/// Appends big-endian bit fields and packs them into bytes, first bit as the most significant
/// bit of the first byte. Bits are only ever appended. Not safe for concurrent use.
class QUILLET_EXPORT BitWriter {
 public:
  BitWriter() = default;

  void writeBit(bool bit);
  /// Appends all bits in order.
  void writeBits(const std::vector<bool>& bits);
  /// Appends the low `bitCount` bits of `number`, most significant first. Higher bits of the
  /// number are dropped (never clamped); widths above 64 are zero-filled at the front; a width
  /// of 0 appends nothing. A negative width is a programming fault and stops the process.
  void write(std::uint64_t number, int bitCount);
  /// `write(number, bitCount)` for each element in order, all with the same width.
  void write(std::span<const std::uint64_t> numbers, int bitCount);

  /// The bits packed into bytes; a final partial byte has its low-order bits 0. Empty for an
  /// empty writer. The writer is unchanged.
  Bytes data() const { return bytes_; }
  /// Bits written so far.
  std::int64_t count() const noexcept { return count_; }

 private:
  void appendZeros(std::int64_t bitCount);

  Bytes bytes_;  // packed; the bits past count_ in the last byte are always 0
  std::int64_t count_ = 0;
};

}  // namespace quillet
