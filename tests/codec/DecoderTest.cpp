#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/codec/Base64Url.h"
#include "quillet/codec/BitWriter.h"
#include "quillet/codec/QLTCMPUtils.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::int64_t> randomIds(std::mt19937& random, std::int64_t below, int count) {
  std::vector<std::int64_t> ids;
  for (int i = 0; i < count; ++i)
    ids.push_back(static_cast<std::int64_t>(random() % below));
  return ids;
}

std::vector<std::int64_t> expectedIds(std::vector<std::int64_t> ids, std::int64_t maxId) {
  std::erase_if(ids, [&](std::int64_t id) { return id < 1 || id > maxId; });
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

TEST(Decoder, ReadsBackWhatTheEncoderWrote) {
  std::mt19937 random(42);
  for (int round = 0; round < 100; ++round) {
    QLTCMPUtils::TCStringInput input;
    input.purposeConsents = randomIds(random, 30, 8);
    input.purposeLegitimateInterests = randomIds(random, 30, 8);
    input.specialFeatureOptins = randomIds(random, 15, 5);
    input.gvlVendorIds = {1 + static_cast<std::int64_t>(random() % 1500), 3};
    input.vendorConsents = randomIds(random, 1600, 200);
    input.vendorLegitimateInterests = randomIds(random, 1600, 50);
    input.consentLanguage = "fr";
    input.publisherCC = "DE";
    const std::int64_t maxId = std::max<std::int64_t>(input.gvlVendorIds[0], 3);

    const auto decoded = QLTCMPUtils::decodeTCString(QLTCMPUtils::encodeTCString(input));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->version, 2U);
    EXPECT_EQ(decoded->purposeConsents, expectedIds(input.purposeConsents, 24));
    EXPECT_EQ(decoded->purposeLegitimateInterests,
              expectedIds(input.purposeLegitimateInterests, 24));
    EXPECT_EQ(decoded->specialFeatureOptins, expectedIds(input.specialFeatureOptins, 12));
    EXPECT_EQ(decoded->vendorConsents, expectedIds(input.vendorConsents, maxId));
    EXPECT_EQ(decoded->vendorLegitimateInterests,
              expectedIds(input.vendorLegitimateInterests, maxId));
  }
}

// A core segment with standard widths up to the vendor sections, which the caller writes.
BitWriter coreUpToVendors(std::uint64_t version = 2) {
  BitWriter writer;
  writer.write(version, 6);
  writer.write(0, 36 + 36 + 62);
  writer.write(0b100000000001, 12);              // special features 1 and 12
  writer.write(0b010000000000000000000001, 24);  // purposes 2 and 24
  writer.write(0, 24);
  writer.write(0, 13);
  return writer;
}

TEST(Decoder, ReadsRangeSectionsAsBitFieldsAndAcceptsAnyVersion) {
  BitWriter writer = coreUpToVendors(7);
  writer.write(8, 16);                                     // MaxVendorId
  writer.writeBit(true);                                   // IsRangeEncoding, ignored
  writer.write(0b0000'0000'0001'0000'0000'0000'0011, 28);  // range entries, read as bits
  const auto decoded = QLTCMPUtils::decodeTCString(base64URLEncodedString(writer.data()));
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(decoded->version, 7U);
  EXPECT_THAT(decoded->specialFeatureOptins, ElementsAre(1, 12));
  EXPECT_THAT(decoded->purposeConsents, ElementsAre(2, 24));
  // The first 8 bits after IsRangeEncoding are the consent "bit field": 00000000.
  EXPECT_THAT(decoded->vendorConsents, IsEmpty());
}

TEST(Decoder, UsesTheConsentSectionsMaxVendorIdForLegitimateInterests) {
  BitWriter writer = coreUpToVendors();
  writer.write(4, 16);
  writer.writeBit(false);
  writer.write(0b1001, 4);
  writer.write(2, 16);  // the legitimate-interest section claims 2 vendors ...
  writer.writeBit(false);
  writer.write(0b0011, 4);  // ... but four bits are read
  writer.write(0, 12);
  const auto decoded = QLTCMPUtils::decodeTCString(base64URLEncodedString(writer.data()));
  ASSERT_TRUE(decoded.has_value());
  EXPECT_THAT(decoded->vendorConsents, ElementsAre(1, 4));
  EXPECT_THAT(decoded->vendorLegitimateInterests, ElementsAre(3, 4));
}

TEST(Decoder, MissingBitsAfterTheVendorCountYieldNoIds) {
  BitWriter writer = coreUpToVendors();
  writer.write(700, 16);
  writer.writeBit(false);
  writer.write(0b11, 2);  // the string ends in the middle of the consent bit field
  const auto decoded = QLTCMPUtils::decodeTCString(base64URLEncodedString(writer.data()));
  ASSERT_TRUE(decoded.has_value());
  EXPECT_THAT(decoded->vendorConsents, ElementsAre(1, 2));  // the padding bits are 0
  EXPECT_THAT(decoded->vendorLegitimateInterests, IsEmpty());
}

TEST(Decoder, RefusesTextThatIsNotASingleBase64UrlSegment) {
  EXPECT_EQ(QLTCMPUtils::decodeTCString(""), std::nullopt);
  const std::string core = QLTCMPUtils::encodeTCString(
      std::vector<std::int64_t>{1}, std::vector<std::int64_t>{1}, std::vector<std::int64_t>{1});
  EXPECT_TRUE(QLTCMPUtils::decodeTCString(core).has_value());
  EXPECT_EQ(QLTCMPUtils::decodeTCString(core + ".IAAA"), std::nullopt);
  EXPECT_EQ(QLTCMPUtils::decodeTCString(core + " "), std::nullopt);
}

using DecoderDeathTest = ::testing::Test;

TEST_F(DecoderDeathTest, StopsWhenThereIsNoVendorSection) {
  // One byte: Version reads, every later read fails quietly, MaxVendorId reads as 0.
  EXPECT_DEATH((void)QLTCMPUtils::decodeTCString("CA"), "MaxVendorId 0");
  BitWriter writer = coreUpToVendors();
  writer.write(0, 16);
  writer.write(0, 13);
  EXPECT_DEATH((void)QLTCMPUtils::decodeTCString(base64URLEncodedString(writer.data())),
               "MaxVendorId 0");
}

}  // namespace
}  // namespace quillet
