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
