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
using Input = QLTCMPUtils::TCStringInput;

const FixedClock kClock(std::chrono::system_clock::time_point(1700000000s + 390ms));

Input choices(Input input) {
  if (input.gvlVendorIds.empty()) input.gvlVendorIds = {10};
  return input;
}

Input language(const std::string& code) {
  Input input = choices({});
  input.consentLanguage = code;
  return input;
}

// Whole strings, each written once field by field and read back by the IAB reference library.
TEST(Encoder, WritesEachInputAsItsKnownString) {
  const std::pair<const char*, Input> rows[] = {
      {"every field",
       {.purposeConsents = {1, 3, 24},
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
        .publisherCC = "FR"}},
      {"empty choices: 279 bits in 47 characters", choices({})},
      {"lower-case en", language("en")},
      {"language e: one field", language("e")},
      {"no language: every later field moves up", language("")},
      {"ß upper-cases to SS", language("ß")},
      {"ßa: three fields", language("ßa")},
      {"éx: the bytes C3 89 of É, less 65, low six bits", language("éx")},
      {"e with a combining accent is one character, x is cut", language("e\xCC\x81nx")},
      {"vendor sections span one to the largest list id; 54 is below it",
       {.vendorConsents = {2, 90, 0, -4, 2},
        .vendorLegitimateInterests = {55, 54, 56},
        .gvlVendorIds = {1, 2, 55}}},
      {"ids outside the fixed sections are ignored",
       {.purposeConsents = {0, 25, 24, -1}, .specialFeatureOptins = {0, 13}, .gvlVendorIds = {4}}},
  };
  const std::vector<std::string> expected = {
      "CP1R2oDP1R2oDEsAHFDEBqFoAaAAAUAAAIqIAFIIAAoAIAA",
      "CP1R2oDP1R2oDHXABAENABBAAAAAAAAAACiQAFAAAAoAAAA",
      "CP1R2oDP1R2oDHXABAENABBAAAAAAAAAACiQAFAAAAoAAAA",
      "CP1R2oDP1R2oDHXABAEABBAAAAAAAAAACiQAFAAAAoAAAAA",
      "CP1R2oDP1R2oDHXABAABBAAAAAAAAAACiQAFAAAAoAAAAA",
      "CP1R2oDP1R2oDHXABASSABBAAAAAAAAAACiQAFAAAAoAAAA",
      "CP1R2oDP1R2oDHXABASSAABBAAAAAAAAAACiQAFAAAAoAAAA",
      "CP1R2oDP1R2oDHXABACIXABBAAAAAAAAAACiQAFAAAAoAAAA",
      "CP1R2oDP1R2oDHXABAELANABBAAAAAAAAAACiQAFAAAAoAAAAA",
      "CP1R2oDP1R2oDHXABAENABBAAAAAAAAAACiQAbkAAAAAAAAAAbgAAAAAAAAYAAA",
      "CP1R2oDP1R2oDHXABAENABBAAAAAAQAAACiQACAAAQAAAA",
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].first);
    EXPECT_EQ(QLTCMPUtils::encodeTCString(rows[i].second, kClock), expected.at(i));
  }
  // Only the first two characters of a code count, in upper case.
  EXPECT_EQ(QLTCMPUtils::encodeTCString(language("fra"), kClock),
            QLTCMPUtils::encodeTCString(language("FR"), kClock));
  // The short form takes the defaults: CMP 471 version 1, English, list and policy version 1, US.
  const std::vector<std::int64_t> purposes{1, 2}, vendors{5}, gvl{1, 5, 9};
  EXPECT_EQ(QLTCMPUtils::encodeTCString(purposes, vendors, gvl, kClock),
            "CP1R2oDP1R2oDHXABAENABBAAMAAAAAAACiQAEggABIAAAA");
  const std::vector<std::int64_t> allowed{1, 3, 40}, listed{2, 9, 3};
  EXPECT_EQ(QLTCMPUtils::encodeDisclosedVendorsSegment(allowed, listed), "QAEqAA");
}

TEST(Encoder, ReadsTheClockOnceAndIsRepeatableWithinOneTenthOfASecond) {
  const FixedClock early(std::chrono::system_clock::time_point(1700000000s + 300ms));
  const FixedClock late(std::chrono::system_clock::time_point(1700000000s + 399ms));
  EXPECT_EQ(QLTCMPUtils::encodeTCString(choices({}), early),
            QLTCMPUtils::encodeTCString(choices({}), late));
  const auto parsed = TCString::parse(QLTCMPUtils::encodeTCString(choices({})));
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->created, parsed->lastUpdated);
  const FixedClock before1970(std::chrono::system_clock::time_point(-5s));
  EXPECT_EQ(TCString::parse(QLTCMPUtils::encodeTCString(choices({}), before1970))->created, 0U);
}

TEST(Encoder, ValuesWiderThanTheirFieldKeepTheirLowBits) {
  auto input = choices({.vendorConsents = {65539}, .gvlVendorIds = {65536 + 3}});
  input.cmpId = 4096 + 5;
  input.policyVersion = 64 + 4;
  const auto bytes = fromBase64Url(QLTCMPUtils::encodeTCString(input, kClock));
  ASSERT_TRUE(bytes);
  BitReader r(*bytes);
  r.skip(6 + 36 + 36);
  EXPECT_EQ(r.readUInt(12), 5U);
  r.skip(12 + 6 + 12 + 12);
  EXPECT_EQ(r.readUInt(6), 4U);
  r.skip(1 + 1 + 12 + 24 + 24 + 1 + 12);
  EXPECT_EQ(r.readUInt(16), 3U);  // MaxVendorId keeps 3; the bit field still spans 65539 bits
  r.skip(1 + 65538);
  EXPECT_EQ(r.readUInt(1), 1U);
}

TEST(Encoder, LogsTheListSizesAtDebugLevel) {
  const testing::LogCapture log;
  const Input input{.purposeConsents = {1, 2, 3},
                    .vendorConsents = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
                    .gvlVendorIds = {12},
                    .consentLanguage = "EN"};
  (void)QLTCMPUtils::encodeTCString(input, kClock);
  (void)QLTCMPUtils::encodeDisclosedVendorsSegment(input.vendorConsents, input.gvlVendorIds);
  EXPECT_THAT(log.lines(),  // the vendor segment logs nothing
              ::testing::ElementsAre(
                  "[DEBUG] [QLT-CMP:QLTCMPUtils] [TC-ENC] pc=3  pli=0  vc=12  vli=0  sfo=0"));
}

TEST(Encoder, IsEncodableCodeMatchesTheFatalRule) {
  // Only the first two characters count.
  for (const char* code : {"en", "", "ß", "de-DE"})
    EXPECT_TRUE(QLTCMPUtils::isEncodableCode(code)) << code;
  for (const char* code : {"e1", " e", "-"})
    EXPECT_FALSE(QLTCMPUtils::isEncodableCode(code)) << code;
}

using EncoderDeathTest = ::testing::Test;

TEST_F(EncoderDeathTest, StopsOnBrokenCallerContracts) {
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(language("e1"), kClock), "consentLanguage");
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(choices({.publisherCC = "U "}), kClock),
               "publisherCC");
  for (auto Input::*member : {&Input::cmpId, &Input::cmpVersion, &Input::consentScreen,
                              &Input::vendorListVersion, &Input::policyVersion}) {
    auto input = choices({});
    input.*member = -1;
    EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(input, kClock), "negative");
  }
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(Input{.gvlVendorIds = {0}}, kClock),
               "MaxVendorId 0");
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(Input{}, kClock), "MaxVendorId 0");
  EXPECT_DEATH((void)QLTCMPUtils::encodeTCString(Input{.gvlVendorIds = {-7, -2}}, kClock),
               "negative largest vendor id");
  const std::vector<std::int64_t> none, negative{-3};
  EXPECT_DEATH((void)QLTCMPUtils::encodeDisclosedVendorsSegment(none, none), "MaxVendorId 0");
  EXPECT_DEATH((void)QLTCMPUtils::encodeDisclosedVendorsSegment(none, negative),
               "negative largest vendor id");
}

}  // namespace
}  // namespace quillet
