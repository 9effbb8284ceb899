
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/QltLog.h"
#include "quillet/codec/Base64Url.h"
#include "quillet/codec/BitReader.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/codec/TCString.h"

#include "support/RecordingLogSink.h"

namespace quillet {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const FixedClock kClock(std::chrono::system_clock::time_point(1700000000s + 390ms));
constexpr std::uint64_t kDeciseconds = 17000000003;

BitReader readerOf(const std::string& text) {
  const auto bytes = fromBase64Url(text);
  EXPECT_TRUE(bytes.has_value()) << text;
  return BitReader(bytes.value_or(Bytes{}));
}

std::uint64_t field(BitReader& reader, int width) {
  return reader.readUInt(width).value();
}

std::vector<std::int64_t> bitField(BitReader& reader, std::int64_t length) {
  std::vector<std::int64_t> ids;
  for (std::int64_t i = 1; i <= length; ++i) {
    if (reader.readBit().value()) ids.push_back(i);
  }
  return ids;
}

QLTCMPUtils::TCStringInput emptyChoices() {
  QLTCMPUtils::TCStringInput input;
  input.gvlVendorIds = {10};
  return input;
}

TEST(Encoder, WritesTheCoreLayoutFieldByField) {
  const QLTCMPUtils::TCStringInput input{
      .purposeConsents = {1, 3, 24},
      .purposeLegitimateInterests = {2},
      .specialFeatureOptins = {1, 12},
      .vendorConsents = {1, 7},
      .vendorLegitimateInterests = {10},
      .gvlVendorIds = {3, 10, 7},
      .cmpId = 300,
      .cmpVersion = 7,
      .consentScreen = 5,
      .consentLanguage = "de",
      .vendorListVersion = 106,
      .policyVersion = 5,
      .isServiceSpecific = true,
      .useNonStandardStacks = false,
      .purposeOneTreatment = true,
      .publisherCC = "FR",
  };
  BitReader r = readerOf(QLTCMPUtils::encodeTCString(input, kClock));
  EXPECT_EQ(field(r, 6), 2U);
  EXPECT_EQ(field(r, 36), kDeciseconds);
  EXPECT_EQ(field(r, 36), kDeciseconds);
  EXPECT_EQ(field(r, 12), 300U);
  EXPECT_EQ(field(r, 12), 7U);
  EXPECT_EQ(field(r, 6), 5U);
  EXPECT_EQ(field(r, 6), 3U);  // D
  EXPECT_EQ(field(r, 6), 4U);  // E
  EXPECT_EQ(field(r, 12), 106U);
  EXPECT_EQ(field(r, 6), 5U);
  EXPECT_EQ(field(r, 1), 1U);
  EXPECT_EQ(field(r, 1), 0U);
  EXPECT_THAT(bitField(r, 12), ElementsAre(1, 12));
  EXPECT_THAT(bitField(r, 24), ElementsAre(1, 3, 24));
  EXPECT_THAT(bitField(r, 24), ElementsAre(2));
  EXPECT_EQ(field(r, 1), 1U);
  EXPECT_EQ(field(r, 6), 5U);   // F
  EXPECT_EQ(field(r, 6), 17U);  // R
  EXPECT_EQ(field(r, 16), 10U);
  EXPECT_EQ(field(r, 1), 0U);
  EXPECT_THAT(bitField(r, 10), ElementsAre(1, 7));
  EXPECT_EQ(field(r, 16), 10U);
  EXPECT_EQ(field(r, 1), 0U);
  EXPECT_THAT(bitField(r, 10), ElementsAre(10));
  EXPECT_EQ(field(r, 12), 0U);
  EXPECT_LT(r.remainingBits(), 8);
}

TEST(Encoder, EmptyChoicesMake279BitsIn47Characters) {
  const std::string text = QLTCMPUtils::encodeTCString(emptyChoices(), kClock);
  EXPECT_EQ(text.size(), 47U);
  EXPECT_EQ(text.find_first_of("=+/."), std::string::npos);
  EXPECT_EQ(readerOf(text).remainingBits(), 35 * 8);
}

TEST(Encoder, ShortOverloadUsesTheDefaults) {
  const std::vector<std::int64_t> purposes{1, 2}, vendors{5}, gvl{1, 5, 9};
  const auto parsed = TCString::parse(QLTCMPUtils::encodeTCString(purposes, vendors, gvl, kClock));
  ASSERT_TRUE(parsed) << parsed.error().message();
  const TCString& tc = *parsed;
  EXPECT_EQ(tc.cmpId, 471);
  EXPECT_EQ(tc.cmpVersion, 1);
  EXPECT_EQ(tc.consentScreen, 0);
  EXPECT_EQ(tc.consentLanguage, "EN");
  EXPECT_EQ(tc.vendorListVersion, 1);
  EXPECT_EQ(tc.policyVersion, 1);
  EXPECT_FALSE(tc.isServiceSpecific);
  EXPECT_FALSE(tc.useNonStandardTexts);
  EXPECT_FALSE(tc.purposeOneTreatment);
  EXPECT_EQ(tc.publisherCountryCode, "US");
  EXPECT_THAT(tc.purposeConsents.ids(), ElementsAre(1, 2));
  EXPECT_THAT(tc.purposeLegitimateInterests.ids(), IsEmpty());
  EXPECT_THAT(tc.specialFeatureOptins.ids(), IsEmpty());
  EXPECT_THAT(tc.vendorConsents.ids, ElementsAre(5));
  EXPECT_EQ(tc.vendorConsents.maxVendorId, 9);
  EXPECT_THAT(tc.vendorLegitimateInterests.ids, IsEmpty());
  EXPECT_EQ(tc.created, kDeciseconds);
}

TEST(Encoder, ReadsTheClockOnceAndIsRepeatableWithinOneTenthOfASecond) {
  const FixedClock early(std::chrono::system_clock::time_point(1700000000s + 300ms));
  const FixedClock late(std::chrono::system_clock::time_point(1700000000s + 399ms));
  EXPECT_EQ(QLTCMPUtils::encodeTCString(emptyChoices(), early),
            QLTCMPUtils::encodeTCString(emptyChoices(), late));
  const auto parsed = TCString::parse(QLTCMPUtils::encodeTCString(emptyChoices()));
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->created, parsed->lastUpdated);
  const FixedClock before1970(std::chrono::system_clock::time_point(-5s));
  EXPECT_EQ(TCString::parse(QLTCMPUtils::encodeTCString(emptyChoices(), before1970))->created, 0U);
}

TEST(Encoder, UpperCasesTheFirstTwoCharactersOfCodes) {
  auto input = emptyChoices();
  input.consentLanguage = "FR";
  const std::string upper = QLTCMPUtils::encodeTCString(input, kClock);
  input.consentLanguage = "fr";
  EXPECT_EQ(QLTCMPUtils::encodeTCString(input, kClock), upper);
  input.consentLanguage = "fra";
  EXPECT_EQ(QLTCMPUtils::encodeTCString(input, kClock), upper);
  BitReader r = readerOf(upper);
  r.skip(6 + 36 + 36 + 12 + 12 + 6);
  EXPECT_EQ(field(r, 6), 5U);
  EXPECT_EQ(field(r, 6), 17U);
}

// Bits of the core before ConsentLanguage, and of a default two-letter core in all.
constexpr std::int64_t kBeforeLanguage = 6 + 36 + 36 + 12 + 12 + 6;

// Writes `code` as the consent language and returns the `count` 6-bit fields after the fixed
// fields before it; VendorListVersion right after them must be intact, which pins the count.
std::vector<std::uint64_t> languageFields(const std::string& code, int count) {
  constexpr std::uint64_t kSentinel = 0xA5C;
  auto input = emptyChoices();
  input.consentLanguage = code;
  input.vendorListVersion = static_cast<std::int64_t>(kSentinel);
  BitReader r = readerOf(QLTCMPUtils::encodeTCString(input, kClock));
  r.skip(kBeforeLanguage);
  std::vector<std::uint64_t> fields;
  for (int i = 0; i < count; ++i)
    fields.push_back(field(r, 6));
  EXPECT_EQ(field(r, 12), kSentinel) << "\"" << code << "\" is not " << count << " fields";
  return fields;
}

TEST(Encoder, CodeFieldsFollowTheUtf8BytesOfTheUpperCasedCharacters) {
  EXPECT_THAT(languageFields("en", 2), ElementsAre(4, 13));
  EXPECT_THAT(languageFields("e", 1), ElementsAre(4));
  EXPECT_THAT(languageFields("", 0), IsEmpty());
  // "ß" upper-cases to "SS"; "ßa" to "SSA": three fields.
  EXPECT_THAT(languageFields("ß", 2), ElementsAre(18, 18));
  EXPECT_THAT(languageFields("ßa", 3), ElementsAre(18, 18, 0));
  // "é" is C3 A9, upper-cased "É" is C3 89: (0xC3 - 65) and (0x89 - 65), low 6 bits.
  EXPECT_THAT(languageFields("éx", 3), ElementsAre(2, 8, 23));
  // A base letter with a combining accent is one character: "e\u0301" + "n"; "x" is cut.
  EXPECT_THAT(languageFields("e\xCC\x81nx", 4),
              ElementsAre(4, (0xCC - 65) & 63, (0x81 - 65) & 63, 13));
}

TEST(Encoder, AnEmptyLanguageShiftsEveryLaterField) {
  auto input = emptyChoices();
  input.consentLanguage = "";
  input.vendorListVersion = 0xABC;
  BitReader r = readerOf(QLTCMPUtils::encodeTCString(input, kClock));
  r.skip(kBeforeLanguage);
  EXPECT_EQ(field(r, 12), 0xABCU);  // VendorListVersion where the language would be
}

TEST(Encoder, VendorSectionsSpanOneToTheLargestVendorListId) {
  const QLTCMPUtils::TCStringInput input{.vendorConsents = {2, 900, 0, -4, 2},
                                         .vendorLegitimateInterests = {755, 754, 756},
                                         .gvlVendorIds = {1, 2, 755}};
  const auto parsed = TCString::parse(QLTCMPUtils::encodeTCString(input, kClock));
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->vendorConsents.maxVendorId, 755);
  EXPECT_FALSE(parsed->vendorConsents.isRangeEncoding);
  EXPECT_THAT(parsed->vendorConsents.ids, ElementsAre(2));
  // 754 is not in the vendor list but below its largest id, so it is written.
  EXPECT_THAT(parsed->vendorLegitimateInterests.ids, ElementsAre(754, 755));
  EXPECT_EQ(parsed->vendorLegitimateInterests.maxVendorId, 755);
}

TEST(Encoder, IdsOutsideTheFixedSectionsAreIgnored) {
  const QLTCMPUtils::TCStringInput input{
      .purposeConsents = {0, 25, 24, -1}, .specialFeatureOptins = {0, 13}, .gvlVendorIds = {4}};
  const auto parsed = TCString::parse(QLTCMPUtils::encodeTCString(input, kClock));
  ASSERT_TRUE(parsed);
  EXPECT_TRUE(parsed->specialFeatureOptins.empty());
  EXPECT_THAT(parsed->purposeConsents.ids(), ElementsAre(24));
}

TEST(Encoder, ValuesWiderThanTheirFieldKeepTheirLowBits) {
  auto input = emptyChoices();
  input.cmpId = 4096 + 5;
  input.policyVersion = 64 + 4;
  input.gvlVendorIds = {65536 + 3};  // MaxVendorId keeps 3; the bit field still spans 65539 bits
  input.vendorConsents = {65539};
  BitReader r = readerOf(QLTCMPUtils::encodeTCString(input, kClock));
  r.skip(6 + 36 + 36);
  EXPECT_EQ(field(r, 12), 5U);
  r.skip(12 + 6 + 12 + 12);
  EXPECT_EQ(field(r, 6), 4U);
  r.skip(1 + 1 + 12 + 24 + 24 + 1 + 12);
  EXPECT_EQ(field(r, 16), 3U);
  r.skip(1 + 65538);
  EXPECT_EQ(field(r, 1), 1U);
}

TEST(Encoder, DisclosedVendorsSegmentHasTypeTwoAndABitField) {
  const std::vector<std::int64_t> allowed{1, 3, 40}, gvl{2, 9, 3};
  const std::string segment = QLTCMPUtils::encodeDisclosedVendorsSegment(allowed, gvl);
  BitReader r = readerOf(segment);
  EXPECT_EQ(field(r, 3), 2U);
  EXPECT_EQ(field(r, 16), 9U);
  EXPECT_EQ(field(r, 1), 0U);
  EXPECT_THAT(bitField(r, 9), ElementsAre(1, 3));
  EXPECT_LT(r.remainingBits(), 8);
  EXPECT_EQ(segment.find('.'), std::string::npos);
}

TEST(Encoder, LogsTheListSizesAtDebugLevel) {
  auto sink = std::make_shared<testing::RecordingLogSink>();
  QltLog::setSink(sink);
  QltLog::setEnabled(true);
  const QLTCMPUtils::TCStringInput input{.purposeConsents = {1, 2, 3},
                                         .vendorConsents = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
                                         .gvlVendorIds = {12},
                                         .consentLanguage = "EN"};
  (void)QLTCMPUtils::encodeTCString(input, kClock);
  (void)QLTCMPUtils::encodeDisclosedVendorsSegment(input.vendorConsents, input.gvlVendorIds);
  QltLog::setEnabled(false);
  QltLog::setSink(nullptr);
  ASSERT_EQ(sink->lines().size(), 1U);  // the vendor segment logs nothing
  EXPECT_THAT(sink->lines()[0],
              ::testing::EndsWith(
                  "] [DEBUG] [QLT-CMP:QLTCMPUtils] [TC-ENC] pc=3  pli=0  vc=12  vli=0  sfo=0"));
}

TEST(Encoder, IsEncodableCodeMatchesTheFatalRule) {
  EXPECT_TRUE(QLTCMPUtils::isEncodableCode("en"));
  EXPECT_TRUE(QLTCMPUtils::isEncodableCode(""));
  EXPECT_TRUE(QLTCMPUtils::isEncodableCode("ß"));
  EXPECT_TRUE(QLTCMPUtils::isEncodableCode("de-DE"));  // only the first two characters count
  EXPECT_FALSE(QLTCMPUtils::isEncodableCode("e1"));
  EXPECT_FALSE(QLTCMPUtils::isEncodableCode(" e"));
  EXPECT_FALSE(QLTCMPUtils::isEncodableCode("-"));
}

using EncoderDeathTest = ::testing::Test;

TEST_F(EncoderDeathTest, StopsOnBrokenCallerContracts) {
  auto input = emptyChoices();
  input.consentLanguage = "e1";
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(input, kClock), "consentLanguage");
  input = emptyChoices();
  input.publisherCC = "U ";
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(input, kClock), "publisherCC");
  for (auto QLTCMPUtils::TCStringInput::*member :
       {&QLTCMPUtils::TCStringInput::cmpId, &QLTCMPUtils::TCStringInput::cmpVersion,
        &QLTCMPUtils::TCStringInput::consentScreen, &QLTCMPUtils::TCStringInput::vendorListVersion,
        &QLTCMPUtils::TCStringInput::policyVersion}) {
    input = emptyChoices();
    input.*member = -1;
    EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(input, kClock), "negative");
  }
  input = emptyChoices();
  input.gvlVendorIds = {};
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(input, kClock), "MaxVendorId 0");
  input.gvlVendorIds = {0};
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(input, kClock), "MaxVendorId 0");
  input.gvlVendorIds = {-7, -2};
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(input, kClock), "negative largest vendor id");
  const std::vector<std::int64_t> none;
  const std::vector<std::int64_t> negative{-3};
  EXPECT_DEATH((void)QLTCMPUtils::encodeDisclosedVendorsSegment(none, none), "MaxVendorId 0");
  EXPECT_DEATH((void)QLTCMPUtils::encodeDisclosedVendorsSegment(none, negative),
               "negative largest vendor id");
}

}  // namespace
}  // namespace quillet
