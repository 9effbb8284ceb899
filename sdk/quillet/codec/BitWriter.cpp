#include "quillet/codec/BitWriter.h"

#include <algorithm>

#include "quillet/base/Fatal.h"

namespace quillet {

void BitWriter::writeBit(bool bit) {
  write(bit ? 1U : 0U, 1);
}

void BitWriter::writeBits(const std::vector<bool>& bits) {
  for (const bool bit : bits)
    writeBit(bit);
}

void BitWriter::appendZeros(std::int64_t bitCount) {
  count_ += bitCount;
  bytes_.resize(static_cast<std::size_t>((count_ + 7) / 8), 0);
}

void BitWriter::write(std::uint64_t number, int bitCount) {
  if (bitCount < 0) fatalError("BitWriter::write: negative bit count");
  if (bitCount > 64) {
    appendZeros(bitCount - 64);
    bitCount = 64;
  }
  while (bitCount > 0) {
    const int used = static_cast<int>(count_ % 8);
    if (used == 0) bytes_.push_back(0);
    const int room = 8 - used;
    const int take = std::min(room, bitCount);
    // The next `take` bits are the top bits of the `bitCount` low bits still to be written.
    const auto chunk =
        static_cast<std::uint8_t>((number >> (bitCount - take)) & ((1U << take) - 1U));
    bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | (chunk << (room - take)));
    bitCount -= take;
    count_ += take;
  }
}

void BitWriter::write(std::span<const std::uint64_t> numbers, int bitCount) {
  for (const std::uint64_t number : numbers)
    write(number, bitCount);
}

}  // namespace quillet
