#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/codec/Base64Url.h"
#include "quillet/codec/BitWriter.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/codec/TCString.h"

#include "TestStrings.h"

namespace quillet {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::sampleStrings;

TCString parsed(std::string_view text) {
  auto result = TCString::parse(text);
  EXPECT_TRUE(result.ok()) << text << ": " << (result ? "" : result.error().message());
  return result ? std::move(result).value() : TCString{};
}

TCStringError refused(std::string_view text) {
  const auto result = TCString::parse(text);
  EXPECT_FALSE(result.ok()) << text << " was read";
  return result ? TCStringError{} : result.error();
}

// Expected values below come from the sources' own assertions or from the IAB reference library.
TEST(TCString, ReadsACoreSegmentWithPublisherRestrictions) {
  const TCString tc = parsed("COwAdDhOwAdDhN4ABAENAPCgAAQAAv___wAAAFP_AAp_4AI6ACACAA");
  EXPECT_EQ(tc.version, 2);
  EXPECT_EQ(tc.created, 15837810913U);  // 2020-03-09T19:11:31.300Z
  EXPECT_EQ(tc.consentLanguage, "EN");
  EXPECT_EQ(tc.publisherCountryCode, "AA");
  EXPECT_THAT(tc.purposeConsents.ids(), ElementsAre(6, 23));
  EXPECT_EQ(tc.purposeLegitimateInterests.count(), 24);
  EXPECT_EQ(tc.vendorConsents.maxVendorId, 10);
  EXPECT_THAT(tc.vendorConsents.ids, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
  ASSERT_EQ(tc.publisherRestrictions.size(), 1U);
  EXPECT_EQ(tc.publisherRestrictions[0],
            (PublisherRestriction{.purposeId = 7, .restrictionType = 1, .vendors = {32}}));
  EXPECT_THAT(tc.warnings, IsEmpty());
}

TEST(TCString, ReadsRangeEncodedVendorsAndRestrictions) {
  const TCString tc =
      parsed("COvzTO5OvzTO5BRAAAENAPCoALIAADgAAAAAAewAwABAAlAB6ABBFADBQAQA9hAAAcAA");
  EXPECT_THAT(tc.purposeConsents.ids(), ElementsAre(1, 3, 4, 7));
  EXPECT_THAT(tc.purposeLegitimateInterests.ids(), ElementsAre(3, 4, 5));
  EXPECT_THAT(tc.specialFeatureOptins.ids(), ElementsAre(1));
  EXPECT_TRUE(tc.vendorConsents.isRangeEncoding);
  EXPECT_EQ(tc.vendorConsents.maxVendorId, 61);
  EXPECT_THAT(tc.vendorConsents.ids, ElementsAre(2, 37, 61));
  EXPECT_TRUE(tc.vendorConsents.contains(37));
  EXPECT_FALSE(tc.vendorConsents.contains(38));
  EXPECT_THAT(tc.vendorLegitimateInterests.ids, ElementsAre(2, 6, 8));
  // Restrictions without vendors are kept as the string states them.
  EXPECT_THAT(
      tc.publisherRestrictions,
      ElementsAre(PublisherRestriction{.purposeId = 1, .restrictionType = 1, .vendors = {123}},
                  PublisherRestriction{.purposeId = 2, .restrictionType = 0, .vendors = {}},
                  PublisherRestriction{.purposeId = 3, .restrictionType = 2, .vendors = {}}));
}

TEST(TCString, ReadsEveryOptionalSegmentWithPadding) {
  const TCString tc = parsed(
      "COrEAV4OrXx94ACABBENAHCIAD-AAAAAAACAAxAAAAgAIAwgAgAAAAEAgQAAAAAEAYQAQAAAACAAAABAAA."
      "IBAgAAAgAIAwgAgAAAAEAAAACA.QAagAQAgAIAwgA.cAAAAAAAITg=");
  EXPECT_EQ(tc.cmpId, 2);
  EXPECT_EQ(tc.vendorListVersion, 7);
  EXPECT_EQ(tc.publisherCountryCode, "AQ");
  EXPECT_THAT(tc.vendorConsents.ids, ElementsAre(23, 37, 47, 48, 53, 65, 98));
  ASSERT_TRUE(tc.vendorsDisclosed.has_value());
  EXPECT_THAT(tc.vendorsDisclosed->ids, ElementsAre(23, 37, 47, 48, 53, 65, 98, 129));
  ASSERT_TRUE(tc.vendorsAllowed.has_value());
  EXPECT_THAT(tc.vendorsAllowed->ids, ElementsAre(12, 23, 37, 47, 48, 53));
  ASSERT_TRUE(tc.publisherTC.has_value());
  EXPECT_THAT(tc.publisherTC->purposesConsent.ids(), ElementsAre(1));
  EXPECT_THAT(tc.publisherTC->purposesLegitimateInterests.ids(), ElementsAre(24));
  EXPECT_EQ(tc.publisherTC->numCustomPurposes, 2);
  EXPECT_THAT(tc.publisherTC->customPurposesConsent.ids(), ElementsAre(2));
  EXPECT_THAT(tc.publisherTC->customPurposesLegitimateInterests.ids(), ElementsAre(1, 2));
}

TEST(TCString, EveryValidSampleIsReadAndEveryStructurallyInvalidOneRefused) {
  int valid = 0, invalid = 0;
  for (const auto& sample : sampleStrings()) {
    SCOPED_TRACE("testdata/tc-strings.txt line " + std::to_string(sample.line));
    const auto result = TCString::parse(sample.text);
    if (sample.status == "valid" || sample.status == "example") {
      ASSERT_TRUE(result.ok()) << result.error().message();
      EXPECT_EQ(result->version, 2);
      valid += sample.status == "valid";
    } else if (sample.hasTag("policy-semantics")) {
      ASSERT_TRUE(result.ok()) << result.error().message();
      EXPECT_THAT(result->warnings, Contains(HasSubstr("legitimate interest")));
    } else {
      // invalid, v1-not-v2, and the two that end before NumPubRestrictions
      ASSERT_FALSE(result.ok());
      EXPECT_FALSE(result.error().message().empty());
      invalid += sample.status == "invalid";
    }
  }
  EXPECT_EQ(valid, 53);
  EXPECT_EQ(invalid, 23);
}

TEST(TCString, ErrorsNameTheFieldAndBitOffset) {
  auto error = refused("");
  EXPECT_EQ(error.segment, "core");
  EXPECT_EQ(error.field, "Version");
  EXPECT_EQ(error.bitOffset, 0);

  error = refused("CONciguONcjGKADACHENAOCIAC0ta__AACiQAA");
  EXPECT_EQ(error.field, "VendorConsents.MaxVendorId");
  EXPECT_EQ(error.bitOffset, 213);
  EXPECT_EQ(error.message(),
            "core segment, field VendorConsents.MaxVendorId at bit 213: the string ends (16 bits "
            "needed, 15 left)");

  error = refused("BOhwdphOxFC7tAHABBFRC--AAAAuhr_7");
  EXPECT_EQ(error.field, "Version");
  EXPECT_THAT(error.reason, HasSubstr("version 1"));

  error = refused("bad-encoded!!!string");
  EXPECT_EQ(error.bitOffset, 11 * 6);
  EXPECT_THAT(error.reason, HasSubstr("'!'"));

  error = refused("CONciguONcjGKADACHENAOCIAC0ta__AACiQABwAoABAACA");
  EXPECT_EQ(error.field, "VendorConsents.EndVendorId");
  EXPECT_THAT(error.reason, HasSubstr("2-1"));

  error = refused("CONciguONcjGKADACHENAOCIAC0ta__AACiQABwAgAAAAA");
  EXPECT_EQ(error.field, "VendorConsents.StartOrOnlyVendorId");
  EXPECT_EQ(error.bitOffset, 243);
}

// A core written by the encoder, to which segments can be appended.
std::string encodedCore() {
  const QLTCMPUtils::TCStringInput input{.purposeConsents = {1}, .gvlVendorIds = {5}};
  return QLTCMPUtils::encodeTCString(input);
}

std::string segment(std::uint64_t type, std::uint64_t maxId) {
  BitWriter writer;
  writer.write(type, 3);
  writer.write(maxId, 16);
  writer.writeBit(false);
  writer.write(0b10001, 5);
  return base64URLEncodedString(writer.data());
}

TEST(TCString, RefusesUnknownRepeatedEmptyAndMalformedSegments) {
  const std::string core = encodedCore();
  ASSERT_TRUE(TCString::parse(core));

  auto error = refused(core + "." + segment(5, 5));
  EXPECT_EQ(error.segment, "segment 2");
  EXPECT_EQ(error.field, "SegmentType");
  EXPECT_THAT(error.reason, HasSubstr("unknown segment type 5"));

  error = refused(core + "." + segment(1, 5) + "." + segment(1, 5));
  EXPECT_EQ(error.segment, "disclosed vendors");
  EXPECT_THAT(error.reason, HasSubstr("twice"));

  EXPECT_EQ(refused(core + ".").reason, "empty segment");
  EXPECT_EQ(refused(core + ".." + segment(1, 5)).reason, "empty segment");
  EXPECT_EQ(refused(core + "===").field, "padding");
  EXPECT_EQ(refused(core + " ").field, "text");
  EXPECT_EQ(refused(core + "." + segment(2, 30)).field, "AllowedVendors.BitField");

  const TCString tc = parsed(core + "." + segment(2, 5) + "==." + segment(1, 5));
  EXPECT_THAT(tc.vendorsAllowed->ids, ElementsAre(1, 5));
  EXPECT_THAT(tc.vendorsDisclosed->ids, ElementsAre(1, 5));

  // Segment type 0 names the core; a second one is ignored with a warning.
  const TCString typeZero = parsed(core + ".AA==");
  EXPECT_THAT(typeZero.warnings, ElementsAre(HasSubstr("segment type 0")));
}

TEST(TCString, RangeEntriesInAnyOrderGiveAscendingIdsOnce) {
  BitWriter writer;
  writer.write(1, 3);  // disclosed vendors
  writer.write(40, 16);
  writer.writeBit(true);
  writer.write(3, 12);
  writer.writeBit(true);
  writer.write(30, 16);
  writer.write(32, 16);
  writer.writeBit(false);
  writer.write(4, 16);
  writer.writeBit(true);
  writer.write(31, 16);
  writer.write(33, 16);
  const TCString tc = parsed(encodedCore() + "." + base64URLEncodedString(writer.data()));
  EXPECT_THAT(tc.vendorsDisclosed->ids, ElementsAre(4, 30, 31, 32, 33));
  EXPECT_TRUE(tc.vendorsDisclosed->isRangeEncoding);
}

TEST(TCString, OverlappingRangesKeepEachVendorOnce) {
  BitWriter writer;
  writer.write(2, 6);
  writer.write(0, 36 + 36 + 12 + 12 + 6 + 12 + 12 + 6 + 1 + 1 + 12 + 24 + 24 + 1 + 12);
  writer.write(0, 17 * 2);  // two empty vendor bit fields
  // One restriction whose 300 entries all cover vendors 1 to 65535: 19.6 million ids if expanded.
  writer.write(1, 12);
  writer.write(1, 6);
  writer.write(0, 2);
  writer.write(300, 12);
  for (int entry = 0; entry < 300; ++entry) {
    writer.writeBit(true);
    writer.write(1, 16);
    writer.write(65535, 16);
  }
  const TCString tc = parsed(base64URLEncodedString(writer.data()));
  ASSERT_EQ(tc.publisherRestrictions.size(), 1U);
  EXPECT_EQ(tc.publisherRestrictions[0].vendors.size(), 65535U);
  EXPECT_EQ(tc.publisherRestrictions[0].vendors.back(), 65535);
}

TEST(TCString, WarnsAboutLegitimateInterestForPurposesThreeToSixFromPolicyVersionFour) {
  QLTCMPUtils::TCStringInput input{.purposeLegitimateInterests = {2, 3, 6, 7}, .gvlVendorIds = {1}};
  input.policyVersion = 3;
  EXPECT_THAT(parsed(QLTCMPUtils::encodeTCString(input)).warnings, IsEmpty());
  input.policyVersion = 4;
  const TCString tc = parsed(QLTCMPUtils::encodeTCString(input));
  EXPECT_THAT(tc.warnings, ElementsAre(HasSubstr("purpose 3"), HasSubstr("purpose 6")));
}

TEST(TCString, ReadsEveryFieldTheEncoderWrites) {
  std::mt19937 random(5);
  for (int round = 0; round < 50; ++round) {
    QLTCMPUtils::TCStringInput input;
    for (int id = 1; id <= 24; ++id) {
      if (random() % 2) input.purposeConsents.push_back(id);
      if (random() % 3 == 0) input.purposeLegitimateInterests.push_back(id);
      if (id <= 12 && random() % 2) input.specialFeatureOptins.push_back(id);
    }
    const auto maxId = static_cast<std::int64_t>(1 + random() % 1200);
    input.gvlVendorIds = {maxId};
    for (std::int64_t id = 1; id <= maxId; ++id) {
      if (random() % 4 == 0) input.vendorConsents.push_back(id);
      if (random() % 9 == 0) input.vendorLegitimateInterests.push_back(id);
    }
    input.cmpId = static_cast<std::int64_t>(random() % 4096);
    input.cmpVersion = static_cast<std::int64_t>(random() % 4096);
    input.consentScreen = static_cast<std::int64_t>(random() % 64);
    input.consentLanguage = std::string{static_cast<char>('a' + random() % 26), 'z'};
    input.vendorListVersion = static_cast<std::int64_t>(random() % 4096);
    input.policyVersion = static_cast<std::int64_t>(random() % 4);
    input.isServiceSpecific = random() % 2;
    input.useNonStandardStacks = random() % 2;
    input.purposeOneTreatment = random() % 2;
    input.publisherCC = "GB";
    std::vector<std::int64_t> disclosed;
    for (std::int64_t id = 1; id <= maxId; ++id) {
      if (random() % 5 == 0) disclosed.push_back(id);
    }
    const std::uint64_t created = random() % (std::uint64_t{1} << 36);
    const FixedClock clock(std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<std::int64_t, std::deci>(created))));

    const TCString tc =
        parsed(QLTCMPUtils::encodeTCString(input, clock) + "." +
               QLTCMPUtils::encodeDisclosedVendorsSegment(disclosed, input.gvlVendorIds));
    EXPECT_EQ(tc.created, created);
    EXPECT_EQ(tc.lastUpdated, created);
    EXPECT_EQ(tc.cmpId, input.cmpId);
    EXPECT_EQ(tc.cmpVersion, input.cmpVersion);
    EXPECT_EQ(tc.consentScreen, input.consentScreen);
    const std::string language{static_cast<char>(input.consentLanguage[0] - 'a' + 'A'), 'Z'};
    EXPECT_EQ(tc.consentLanguage, language);
    EXPECT_EQ(tc.vendorListVersion, input.vendorListVersion);
    EXPECT_EQ(tc.policyVersion, input.policyVersion);
    EXPECT_EQ(tc.isServiceSpecific, input.isServiceSpecific);
    EXPECT_EQ(tc.useNonStandardTexts, input.useNonStandardStacks);
    EXPECT_EQ(tc.purposeOneTreatment, input.purposeOneTreatment);
    EXPECT_EQ(tc.publisherCountryCode, "GB");
    EXPECT_EQ(tc.purposeConsents.ids(), input.purposeConsents);
    EXPECT_EQ(tc.purposeLegitimateInterests.ids(), input.purposeLegitimateInterests);
    EXPECT_EQ(tc.specialFeatureOptins.ids(), input.specialFeatureOptins);
    EXPECT_EQ(tc.vendorConsents.maxVendorId, maxId);
    EXPECT_EQ(tc.vendorConsents.ids, input.vendorConsents);
    EXPECT_EQ(tc.vendorLegitimateInterests.maxVendorId, maxId);
    EXPECT_EQ(tc.vendorLegitimateInterests.ids, input.vendorLegitimateInterests);
    EXPECT_THAT(tc.publisherRestrictions, IsEmpty());
    // The encoder's vendor segment carries type 2, so it reads as allowed vendors.
    EXPECT_FALSE(tc.vendorsDisclosed.has_value());
    ASSERT_TRUE(tc.vendorsAllowed.has_value());
    EXPECT_EQ(tc.vendorsAllowed->ids, disclosed);
  }
}

// Cut short or corrupted, no string may crash the reader; the sanitizer builds make this bite.
TEST(TCString, SurvivesEveryTruncationAndRandomCorruption) {
  std::mt19937 random(11);
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";
  for (const auto& sample : sampleStrings()) {
    for (std::size_t length = 0; length <= sample.text.size(); ++length) {
      (void)TCString::parse(std::string_view(sample.text).substr(0, length));
    }
    for (int round = 0; round < 30; ++round) {
      std::string text = sample.text;
      for (int edit = 0; edit < 3 && !text.empty(); ++edit) {
        text[random() % text.size()] = kAlphabet[random() % (sizeof(kAlphabet) - 1)];
      }
      const auto result = TCString::parse(text);
      if (!result) {
        EXPECT_FALSE(result.error().message().empty());
      }
    }
  }
}

TEST(IdMask, KeepsIdsOneToN) {
  const IdMask<12> mask(0b1000'0000'0101 | (std::uint64_t{1} << 12));
  EXPECT_THAT(mask.ids(), ElementsAre(1, 3, 12));
  EXPECT_TRUE(mask.contains(12));
  EXPECT_FALSE(mask.contains(13));
  EXPECT_FALSE(mask.contains(0));
  EXPECT_EQ(mask.count(), 3);
  EXPECT_THAT(IdMask<64>(~std::uint64_t{0}).ids().back(), 64);
}

}  // namespace
}  // namespace quillet
