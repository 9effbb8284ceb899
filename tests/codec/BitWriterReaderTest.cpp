#include <functional>
#include <random>

#include <gtest/gtest.h>

#include "quillet/codec/BitReader.h"
#include "quillet/codec/BitWriter.h"

namespace quillet {
namespace {

TEST(BitWriter, PacksTheLowBitsMostSignificantFirstWithZeroPadding) {
  const auto written = [](const std::function<void(BitWriter&)>& write) {
    BitWriter writer;
    write(writer);
    return std::pair(writer.count(), writer.data());
  };
  const std::vector<std::uint64_t> numbers{1, 2, 3};
  const std::pair<std::function<void(BitWriter&)>, std::pair<std::int64_t, Bytes>> rows[] = {
      {[](BitWriter&) {}, {0, {}}},
      {[](BitWriter& w) { w.write(5, 2); }, {2, {0x40}}},  // 101: the high bit is dropped
      {[](BitWriter& w) { w.write(0b000011, 6); }, {6, {0x0C}}},
      {[](BitWriter& w) { w.writeBit(true), w.write(0, 8); }, {9, {0x80, 0x00}}},
      {[](BitWriter& w) { w.write(~std::uint64_t{0}, 0); }, {0, {}}},
      // Widths above 64 are zero-filled in front.
      {[](BitWriter& w) { w.write(~std::uint64_t{0}, 68); },
       {68, {0x0F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0}}},
      {[&](BitWriter& w) {
         w.writeBits({true, false, true}), w.write(numbers, 3);
       },
       {12, {0b10100101, 0b00110000}}},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i)
    EXPECT_EQ(written(rows[i].first), rows[i].second) << "row " << i;
}

TEST(BitWriterReader, RandomFieldsRoundTripAtEveryAlignment) {
  std::mt19937_64 random(20261122);
  for (int round = 0; round < 200; ++round) {
    BitWriter writer;
    std::vector<std::pair<std::uint64_t, int>> fields;
    for (int f = 0; f < 40; ++f) {
      const int width = static_cast<int>(random() % 65);
      const std::uint64_t value =
          width == 64 ? random() : random() & ((std::uint64_t{1} << width) - 1);
      writer.write(value, width);
      fields.emplace_back(value, width);
    }
    const Bytes bytes = writer.data();
    ASSERT_EQ(static_cast<std::int64_t>(bytes.size()), (writer.count() + 7) / 8);
    BitReader reader(bytes);
    for (const auto& [value, width] : fields) {
      ASSERT_EQ(reader.readUInt(width), value) << "width " << width;
    }
    EXPECT_LT(reader.remainingBits(), 8);
  }
}

TEST(BitReader, FailedReadsAndSkipsStopAtTheEndAndLeaveThePosition) {
  const Bytes bytes{0b10110011, 0x01};
  BitReader reader(bytes);
  EXPECT_EQ(reader.readUInt(3), 0b101U);
  EXPECT_EQ(reader.readUInt(14), std::nullopt);
  EXPECT_EQ(reader.readBits(14), std::nullopt);
  EXPECT_EQ(reader.remainingBits(), 13);
  EXPECT_EQ(reader.readBits(2), (std::vector<bool>{true, false}));
  EXPECT_EQ(reader.readUInt(3), 0b011U);
  EXPECT_EQ(reader.readUInt(0), 0U);
  EXPECT_EQ(reader.readBits(0), std::vector<bool>{});
  reader.skip(7);
  EXPECT_EQ(reader.readBit(), true);
  EXPECT_EQ(reader.readBit(), std::nullopt);
  reader = BitReader(bytes);
  reader.skip(1000);
  EXPECT_EQ(reader.remainingBits(), 0);
  // A read wider than 64 bits keeps the last 64.
  Bytes nine(9, 0);
  nine[0] = 0xAB;
  nine[8] = 0x01;
  EXPECT_EQ(BitReader(nine).readUInt(72), 1U);
}

using BitCodecDeathTest = ::testing::Test;

TEST_F(BitCodecDeathTest, NegativeCountsStopTheProcess) {
  EXPECT_DEATH(BitWriter().write(1, -1), "negative bit count");
  const Bytes bytes{0xFF};
  EXPECT_DEATH(BitReader(bytes).readUInt(-1), "negative bit count");
  EXPECT_DEATH(BitReader(bytes).readBits(-2), "negative bit count");
  EXPECT_DEATH(BitReader(bytes).skip(-1), "before the start");
  EXPECT_DEATH(
      {
        BitReader reader(bytes);
        reader.skip(4);
        reader.skip(std::numeric_limits<std::int64_t>::max());
      },
      "overflow");
}

}  // namespace
}  // namespace quillet
