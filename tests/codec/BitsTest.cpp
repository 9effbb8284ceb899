#include <functional>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/codec/Base64Url.h"
#include "quillet/codec/BitReader.h"
#include "quillet/codec/BitWriter.h"
#include "quillet/codec/QLTCMPUtils.h"

namespace quillet {
namespace {

using V = std::vector<std::int64_t>;

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
    for (const auto& [value, width] : fields)
      ASSERT_EQ(reader.readUInt(width), value) << "width " << width;
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

// The URL alphabet without padding out; URL or standard characters with optional padding in;
// 4k + 1 characters, white space, padding inside or too much of it, and separators refused.
TEST(Base64Url, EncodesAndDecodes) {
  const std::pair<const char*, std::optional<Bytes>> rows[] = {{"-_8", Bytes{0xFB, 0xFF}},
                                                               {"+/8", Bytes{0xFB, 0xFF}},
                                                               {"+/8=", Bytes{0xFB, 0xFF}},
                                                               {"TQ==", Bytes{'M'}},
                                                               {"TQ=", Bytes{'M'}},
                                                               {"TWFu", Bytes{'M', 'a', 'n'}},
                                                               {"", Bytes{}},
                                                               {"A", std::nullopt},
                                                               {"TWFuA", std::nullopt},
                                                               {"TQ ==", std::nullopt},
                                                               {"TQ\n", std::nullopt},
                                                               {"T=Q=", std::nullopt},
                                                               {"T===", std::nullopt},
                                                               {"TWFu.TWFu", std::nullopt},
                                                               {"====", std::nullopt}};
  for (const auto& [text, bytes] : rows)
    EXPECT_EQ(fromBase64Url(text), bytes) << text;
  std::mt19937 random(7);
  for (std::size_t length = 0; length < 64; ++length) {
    Bytes bytes(length);
    for (auto& byte : bytes)
      byte = static_cast<std::uint8_t>(random());
    const std::string text = base64URLEncodedString(bytes);
    EXPECT_EQ(text.find_first_of("+/="), std::string::npos);
    EXPECT_EQ(text.size(), (length * 4 + 2) / 3);
    EXPECT_EQ(fromBase64Url(text), bytes) << text;
  }
  EXPECT_EQ(base64URLEncodedString(Bytes{0xFB, 0xFF}), "-_8");
}

TEST(ListHelpers, CsvTextsAndPurposeSets) {
  EXPECT_EQ(QLTCMPUtils::csvString(V{3, 1, 2}), "3,1,2");
  EXPECT_EQ(QLTCMPUtils::csvString(V{-4}), "-4");
  EXPECT_EQ(QLTCMPUtils::csvString(V{}), "");
  const std::pair<const char*, V> rows[] = {{" 1, 2,,x, 3 ", {1, 2, 3}},
                                            {"5,5,-2,+7", {5, 5, -2, 7}},
                                            {"\t9\n,1 2,3.0,0x4,-,+", {9}},
                                            {"99999999999999999999,1", {1}},
                                            {"", {}},
                                            {"7,0,-3,7,12", {7, 0, -3, 7, 12}}};
  for (const auto& [text, ids] : rows)
    EXPECT_EQ(QLTCMPUtils::parseCSV(text), ids) << text;
  EXPECT_TRUE(QLTCMPUtils::allPurposesGiven(V{1, 2}, V{}));
  EXPECT_TRUE(QLTCMPUtils::allPurposesGiven(V{3, 1, 2}, V{2, 2, 1}));
  EXPECT_FALSE(QLTCMPUtils::allPurposesGiven(V{1, 2}, V{1, 4}));
  EXPECT_FALSE(QLTCMPUtils::allPurposesGiven(V{}, V{1}));
}

}  // namespace
}  // namespace quillet
