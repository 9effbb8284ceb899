#include "quillet/codec/BitReader.h"

#include "quillet/base/Fatal.h"

namespace quillet {

BitReader::BitReader(std::span<const std::uint8_t> data) : bytes_(data.begin(), data.end()) {}

bool BitReader::fits(std::int64_t count) const {
  if (count < 0) fatalError("BitReader: negative bit count");
  return count <= remainingBits();
}

std::optional<bool> BitReader::readBit() {
  if (position_ >= bitCount()) return std::nullopt;
  return bitAt(position_++);
}

std::optional<std::vector<bool>> BitReader::readBits(std::int64_t count) {
  if (!fits(count)) return std::nullopt;
  std::vector<bool> bits(static_cast<std::size_t>(count));
  for (std::int64_t i = 0; i < count; ++i)
    bits[static_cast<std::size_t>(i)] = bitAt(position_ + i);
  position_ += count;
  return bits;
}

std::optional<std::uint64_t> BitReader::readUInt(std::int64_t count) {
  if (!fits(count)) return std::nullopt;
  // Bits shifted out at the top are lost, so only the last 64 of a wider field matter.
  std::int64_t index = count > 64 ? position_ + count - 64 : position_;
  const std::int64_t end = position_ + count;
  std::uint64_t value = 0;
  while (index < end) {
    const int offset = static_cast<int>(index % 8);
    if (offset == 0 && end - index >= 8) {
      value = (value << 8) | bytes_[static_cast<std::size_t>(index / 8)];
      index += 8;
    } else {
      value = (value << 1) | (bitAt(index) ? 1U : 0U);
      ++index;
    }
  }
  position_ = end;
  return value;
}

void BitReader::skip(std::int64_t count) {
  std::int64_t target = 0;
  if (__builtin_add_overflow(position_, count, &target)) {
    fatalError("BitReader::skip: position overflow");
  }
  if (target < 0) fatalError("BitReader::skip: position before the start");
  position_ = target < bitCount() ? target : bitCount();
}

}  // namespace quillet
