#include <random>

#include <gtest/gtest.h>

#include "quillet/codec/BitReader.h"
#include "quillet/codec/BitWriter.h"

namespace quillet {
namespace {

TEST(BitWriter, KeepsOnlyTheLowBitsOfANumberMostSignificantFirst) {
  BitWriter writer;
  writer.write(5, 2);  // 101: the high bit is dropped, leaving 0 then 1
  EXPECT_EQ(writer.count(), 2);
  EXPECT_EQ(writer.data(), (Bytes{0x40}));
}

TEST(BitWriter, PacksPartialBytesWithZeroLowBits) {
  BitWriter six;
  six.write(0b000011, 6);
  EXPECT_EQ(six.data(), (Bytes{0x0C}));

  BitWriter nine;
  nine.writeBit(true);
  nine.write(0, 8);
  EXPECT_EQ(nine.count(), 9);
  EXPECT_EQ(nine.data(), (Bytes{0x80, 0x00}));

  EXPECT_TRUE(BitWriter().data().empty());
}

TEST(BitWriter, ZeroFillsWidthsAbove64AndAppendsNothingForWidth0) {
  BitWriter writer;
  writer.write(~std::uint64_t{0}, 0);
  EXPECT_EQ(writer.count(), 0);
  writer.write(~std::uint64_t{0}, 68);  // four zero bits, then 64 ones
  EXPECT_EQ(writer.count(), 68);
  EXPECT_EQ(writer.data(), (Bytes{0x0F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0}));
}

TEST(BitWriter, WritesBitArraysAndNumberArraysInOrder) {
  BitWriter writer;
  writer.writeBits({true, false, true});
  const std::vector<std::uint64_t> numbers{1, 2, 3};
  writer.write(numbers, 3);  // 001 010 011
  EXPECT_EQ(writer.count(), 12);
  EXPECT_EQ(writer.data(), (Bytes{0b10100101, 0b00110000}));
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

TEST(BitReader, FailedReadsLeaveThePositionWhereItWas) {
  const Bytes bytes{0b10110011};
  BitReader reader(bytes);
  EXPECT_EQ(reader.readUInt(3), 0b101U);
  EXPECT_EQ(reader.remainingBits(), 5);
  EXPECT_EQ(reader.readUInt(6), std::nullopt);
  EXPECT_EQ(reader.readBits(6), std::nullopt);
  EXPECT_EQ(reader.remainingBits(), 5);
  EXPECT_EQ(reader.readBits(2), (std::vector<bool>{true, false}));
  EXPECT_EQ(reader.readUInt(3), 0b011U);
  EXPECT_EQ(reader.readBit(), std::nullopt);
  EXPECT_EQ(reader.readUInt(0), 0U);
  EXPECT_EQ(reader.readBits(0), std::vector<bool>{});
}

TEST(BitReader, SkipStopsAtTheEnd) {
  const Bytes bytes{0xFF, 0x00};
  BitReader reader(bytes);
  reader.skip(3);
  EXPECT_EQ(reader.remainingBits(), 13);
  reader.skip(1000);
  EXPECT_EQ(reader.remainingBits(), 0);
  EXPECT_EQ(reader.readBit(), std::nullopt);
}

TEST(BitReader, KeepsTheLast64BitsOfAWiderRead) {
  Bytes bytes(9, 0);
  bytes[0] = 0xAB;  // shifted out
  bytes[8] = 0x01;
  BitReader reader(bytes);
  EXPECT_EQ(reader.readUInt(72), 1U);
  EXPECT_EQ(reader.remainingBits(), 0);
}

TEST(BitReader, ReadsBitsMostSignificantFirstFromEachByte) {
  const Bytes bytes{0x80, 0x01};
  BitReader reader(bytes);
  EXPECT_EQ(reader.readBit(), true);
  reader.skip(14);
  EXPECT_EQ(reader.readBit(), true);
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
