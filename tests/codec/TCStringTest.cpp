#include <array>
#include <random>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/codec/Base64Url.h"
#include "quillet/codec/BitWriter.h"
#include "quillet/codec/InAppValues.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/codec/TCString.h"

#include "TestStrings.h"
#include "support/TestData.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Ids as ascending runs: "1-10,23".
std::string runs(const std::vector<std::int64_t>& ids) {
  std::string out;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    std::size_t end = i;
    while (end + 1 < ids.size() && ids[end + 1] == ids[end] + 1)
      ++end;
    out += (out.empty() ? "" : ",") + std::to_string(ids[i]) +
           (end > i ? "-" + std::to_string(ids[end]) : "");
    i = end;
  }
  return out.empty() ? "-" : out;
}

std::string section(const VendorSection& s) {
  return "max " + std::to_string(s.maxVendorId) + (s.isRangeEncoding ? " ranges " : " bits ") +
         runs(s.ids());
}

// Every field the reader gives, one line per part.
std::string dump(const Result<TCString, TCStringError>& result) {
  if (!result) return "refused: " + result.error().message() + "\n";
  const TCString& tc = *result;
  std::ostringstream out;
  out << "v" << tc.version << " created " << tc.created << " updated " << tc.lastUpdated << " cmp "
      << tc.cmpId << "/" << tc.cmpVersion << " screen " << tc.consentScreen << " "
      << tc.consentLanguage << " gvl " << tc.vendorListVersion << " policy " << tc.policyVersion
      << " ss " << tc.isServiceSpecific << " nst " << tc.useNonStandardTexts << " p1t "
      << tc.purposeOneTreatment << " " << tc.publisherCountryCode << "\n  purposes "
      << runs(tc.purposeConsents.ids()) << " li " << runs(tc.purposeLegitimateInterests.ids())
      << " sf " << runs(tc.specialFeatureOptins.ids()) << "\n  vendors "
      << section(tc.vendorConsents) << "\n  vendor li " << section(tc.vendorLegitimateInterests)
      << "\n";
  for (const auto& r : tc.publisherRestrictions)
    out << "  restriction " << r.purposeId << "/" << r.restrictionType << " "
        << runs(r.vendors.ids()) << "\n";
  if (tc.vendorsDisclosed) out << "  disclosed " << section(*tc.vendorsDisclosed) << "\n";
  if (tc.vendorsAllowed) out << "  allowed " << section(*tc.vendorsAllowed) << "\n";
  if (const auto& p = tc.publisherTC) {
    out << "  publisher " << runs(p->purposesConsent.ids()) << " li "
        << runs(p->purposesLegitimateInterests.ids()) << " custom " << p->numCustomPurposes << " "
        << runs(p->customPurposesConsent.ids()) << " li "
        << runs(p->customPurposesLegitimateInterests.ids()) << "\n";
  }
  for (const auto& warning : tc.warnings)
    out << "  warning " << warning << "\n";
  return out.str();
}

// Every real string, read whole, in testdata/golden/tc-strings.decoded.txt. Field values were
// checked against the sources' own assertions and the IAB reference library.
TEST(TCString, EveryRealStringReadsAsItsGoldenDump) {
  std::string all;
  int valid = 0, invalid = 0;
  for (const auto& sample : testing::sampleStrings()) {
    SCOPED_TRACE("testdata/tc-strings.txt line " + std::to_string(sample.line));
    const auto result = TCString::parse(sample.text);
    const bool mustRead =
        sample.status == "valid" || sample.status == "example" || sample.hasTag("policy-semantics");
    EXPECT_EQ(result.ok(), mustRead);
    valid += sample.status == "valid" && result.ok();
    invalid += sample.status == "invalid" && !result.ok();
    all += "line " + std::to_string(sample.line) + ": " + dump(result);
  }
  EXPECT_EQ(valid, 53);
  EXPECT_EQ(invalid, 23);
  EXPECT_TRUE(testing::matchesGolden("tc-strings.decoded.txt", all));
}

// A core written by the encoder, to which segments can be appended.
std::string encodedCore() {
  return QLTCMPUtils::encodeTCString({.purposeConsents = {1}, .gvlVendorIds = {5}});
}

std::string segment(std::uint64_t type, std::uint64_t maxId) {
  BitWriter writer;
  writer.write(type, 3);
  writer.write(maxId, 16);
  writer.writeBit(false);
  writer.write(0b10001, 5);
  return base64URLEncodedString(writer.data());
}

TEST(TCString, RefusalsNameTheSegmentFieldAndBit) {
  const std::string core = encodedCore();
  // segment/field@bit, and a part of the reason.
  const std::vector<std::array<std::string, 3>> rows = {
      {"", "core/Version@0", "ends"},
      {"bad-encoded!!!string", "core/text@66", "'!'"},
      {core + "." + segment(5, 5), "segment 2/SegmentType@0", "unknown segment type 5"},
      {core + "." + segment(1, 5) + "." + segment(1, 5), "disclosed vendors/SegmentType@0",
       "twice"},
      {core + ".", "segment 2/@0", "empty segment"},
      {core + ".." + segment(1, 5), "segment 2/@0", "empty segment"},
      {core + "===", "core/padding@276", ""},
      {core + " ", "core/text@276", ""},
      {core + "." + segment(2, 30), "allowed vendors/AllowedVendors.BitField@20", ""},
  };
  for (const auto& [text, where, reason] : rows) {
    SCOPED_TRACE(text);
    const auto result = TCString::parse(text);
    ASSERT_FALSE(result.ok());
    const auto& error = result.error();
    EXPECT_EQ(error.segment + "/" + error.field + "@" + std::to_string(error.bitOffset), where);
    EXPECT_THAT(error.reason, HasSubstr(reason));
  }
  // Every byte but the separator, early in the text (where blocks of characters are decoded
  // together) and in its last characters: only base64url characters read, and the error names
  // the first other one.
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  for (int byte = 0; byte < 256; ++byte) {
    if (byte == '.') continue;  // it ends the segment
    for (const std::size_t at : {std::size_t{20}, core.size() - 2}) {
      std::string text = core;
      text[at] = static_cast<char>(byte);
      const bool valid = alphabet.find(static_cast<char>(byte)) != std::string::npos;
      const auto result = TCString::parse(text);
      ASSERT_EQ(result.ok() || result.error().field != "text", valid) << byte << " at " << at;
      if (!valid) {
        ASSERT_EQ(result.error().bitOffset, static_cast<std::int64_t>(at) * 6);
      }
    }
  }
  const auto tc = TCString::parse(core + "." + segment(2, 5) + "==." + segment(1, 5));
  ASSERT_TRUE(tc);
  EXPECT_THAT(tc->vendorsAllowed->ids(), ElementsAre(1, 5));
  EXPECT_THAT(tc->vendorsDisclosed->ids(), ElementsAre(1, 5));
  // A language letter past Z reads as "?", with a warning.
  BitWriter language;
  language.write(2, 6);
  language.write(0, 36 + 36 + 12 + 12 + 6);
  language.write(26, 6);
  language.write(0, 6 + 12 + 6 + 1 + 1 + 12 + 24 + 24 + 1 + 12 + 17 + 17 + 12);
  const auto unlettered = TCString::parse(base64URLEncodedString(language.data()));
  ASSERT_TRUE(unlettered);
  EXPECT_EQ(unlettered->consentLanguage, "?A");
  EXPECT_THAT(unlettered->warnings,
              ElementsAre("ConsentLanguage letter value 26 is not a letter A to Z"));
  // Segment type 0 names the core; a second one is ignored with a warning.
  EXPECT_THAT(TCString::parse(core + ".AA==")->warnings, ElementsAre(HasSubstr("segment type 0")));
  // Restrictions on purpose 0 or of the undefined type 3 are read, with a warning each.
  BitWriter restricted;
  restricted.write(2, 6);
  restricted.write(0, 36 + 36 + 12 + 12 + 6 + 12 + 12 + 6 + 1 + 1 + 12 + 24 + 24 + 1 + 12);
  restricted.write(0, 17 * 2);
  restricted.write(3, 12);
  for (const auto& [purpose, type] : {std::pair{0, 1}, {2, 3}, {1, 2}}) {
    restricted.write(purpose, 6);
    restricted.write(type, 2);
    restricted.write(1, 12);
    restricted.write(0, 1);
    restricted.write(7, 16);
  }
  const auto odd = TCString::parse(base64URLEncodedString(restricted.data()));
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->publisherRestrictions.size(), 3U);
  EXPECT_THAT(odd->warnings,
              ElementsAre("PubRestrictions: a restriction names purpose 0, which is not a purpose",
                          "PubRestrictions: purpose 2 has restriction type 3, which is undefined"));
}

TEST(TCString, RangesInAnyOrderOrOverlappingGiveAscendingIdsOnce) {
  BitWriter writer;
  writer.write(1, 3);  // disclosed vendors
  writer.write(200, 16);
  writer.writeBit(true);
  writer.write(4, 12);
  for (const auto& [isRange, from, to] :
       {std::tuple{1, 30, 32}, {0, 4, 0}, {1, 31, 33}, {1, 60, 130}}) {
    writer.writeBit(isRange);
    writer.write(from, 16);
    if (isRange) writer.write(to, 16);
  }
  const auto tc = TCString::parse(encodedCore() + "." + base64URLEncodedString(writer.data()));
  ASSERT_TRUE(tc);
  EXPECT_EQ(runs(tc->vendorsDisclosed->ids()), "4,30-33,60-130");
  EXPECT_TRUE(tc->vendorsDisclosed->isRangeEncoding);
  EXPECT_TRUE(tc->vendorsDisclosed->contains(33));
  EXPECT_FALSE(tc->vendorsDisclosed->contains(34));
  // The encoder's disclosed vendors: ids in any order, repeated or out of range, as ranges.
  const std::string disclosed =
      QLTCMPUtils::encodeDisclosedVendors(std::vector<std::int64_t>{900, 3, 5, 4, 3, 0, 70000});
  EXPECT_EQ(disclosed,
            QLTCMPUtils::encodeDisclosedVendors(std::vector<std::int64_t>{3, 4, 5, 900}));
  const auto read = TCString::parse(encodedCore() + "." + disclosed);
  ASSERT_TRUE(read);
  EXPECT_EQ(section(*read->vendorsDisclosed), "max 900 ranges 3-5,900");

  // One restriction whose 300 entries all cover vendors 1 to 65000: 19.5 million ids if expanded.
  BitWriter core;
  core.write(2, 6);
  core.write(0, 36 + 36 + 12 + 12 + 6 + 12 + 12 + 6 + 1 + 1 + 12 + 24 + 24 + 1 + 12);
  core.write(0, 17 * 2);  // two empty vendor bit fields
  core.write(1, 12);
  core.write(1, 6);
  core.write(0, 2);
  core.write(300, 12);
  for (int entry = 0; entry < 300; ++entry) {
    core.writeBit(true);
    core.write(1, 16);
    core.write(65000, 16);
  }
  const auto restricted = TCString::parse(base64URLEncodedString(core.data()));
  ASSERT_TRUE(restricted);
  ASSERT_EQ(restricted->publisherRestrictions.size(), 1U);
  EXPECT_EQ(restricted->publisherRestrictions[0].vendors.count(), 65000);
}

TEST(TCString, WarnsAboutLegitimateInterestForPurposesThreeToSixFromPolicyVersionFour) {
  QLTCMPUtils::TCStringInput input{.purposeLegitimateInterests = {2, 3, 6, 7}, .gvlVendorIds = {1}};
  input.policyVersion = 3;
  EXPECT_THAT(TCString::parse(QLTCMPUtils::encodeTCString(input))->warnings, IsEmpty());
  input.policyVersion = 4;
  EXPECT_THAT(TCString::parse(QLTCMPUtils::encodeTCString(input))->warnings,
              ElementsAre(HasSubstr("purpose 3"), HasSubstr("purpose 6")));
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
    std::vector<std::int64_t> disclosed;
    for (std::int64_t id = 1; id <= maxId; ++id) {
      if (random() % 4 == 0) input.vendorConsents.push_back(id);
      if (random() % 9 == 0) input.vendorLegitimateInterests.push_back(id);
      if (random() % 5 == 0) disclosed.push_back(id);
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
    const std::uint64_t created = random() % (std::uint64_t{1} << 36);
    const FixedClock clock(std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<std::int64_t, std::deci>(created))));

    const auto tc =
        TCString::parse(QLTCMPUtils::encodeTCString(input, clock) + "." +
                        QLTCMPUtils::encodeDisclosedVendorsSegment(disclosed, input.gvlVendorIds));
    ASSERT_TRUE(tc);
    const std::string language{static_cast<char>(input.consentLanguage[0] - 'a' + 'A'), 'Z'};
    EXPECT_EQ(std::tie(tc->created, tc->lastUpdated, tc->consentLanguage, tc->publisherCountryCode),
              std::tie(created, created, language, input.publisherCC));
    EXPECT_EQ((std::vector<std::int64_t>{tc->cmpId, tc->cmpVersion, tc->consentScreen,
                                         tc->vendorListVersion, tc->policyVersion}),
              (std::vector<std::int64_t>{input.cmpId, input.cmpVersion, input.consentScreen,
                                         input.vendorListVersion, input.policyVersion}));
    EXPECT_EQ((std::vector<bool>{tc->isServiceSpecific, tc->useNonStandardTexts,
                                 tc->purposeOneTreatment}),
              (std::vector<bool>{input.isServiceSpecific, input.useNonStandardStacks,
                                 input.purposeOneTreatment}));
    EXPECT_EQ(tc->purposeConsents.ids(), input.purposeConsents);
    EXPECT_EQ(tc->purposeLegitimateInterests.ids(), input.purposeLegitimateInterests);
    EXPECT_EQ(tc->specialFeatureOptins.ids(), input.specialFeatureOptins);
    EXPECT_EQ(tc->vendorConsents,
              (VendorSection{maxId, false, VendorIdSet::of(input.vendorConsents)}));
    EXPECT_EQ(tc->vendorLegitimateInterests,
              (VendorSection{maxId, false, VendorIdSet::of(input.vendorLegitimateInterests)}));
    EXPECT_THAT(tc->publisherRestrictions, IsEmpty());
    // The encoder's vendor segment carries type 2, so it reads as allowed vendors.
    EXPECT_FALSE(tc->vendorsDisclosed.has_value());
    EXPECT_EQ(tc->vendorsAllowed->ids(), disclosed);
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

// The in-app values take the host's settings and refuse what the reader refuses; what they hold
// of a string is checked against the reference library with every sample string.
TEST(InAppValues, TakeTheHostsSettingsAndRefuseUnreadableStrings) {
  EXPECT_EQ(inAppValues("CO-broken!", {}).error().field, "text");
  const auto values = inAppValues(encodedCore(), {.gdprApplies = false, .cmpSdkId = 9});
  ASSERT_TRUE(values);
  EXPECT_EQ((*values)[0], (InAppValue{"IABTCF_CmpSdkID", std::int64_t{9}}));
  EXPECT_EQ((*values)[3], (InAppValue{"IABTCF_gdprApplies", std::int64_t{0}}));
  EXPECT_EQ((*values)[13], (InAppValue{"IABTCF_PublisherConsent", std::string()}));
  // Restricted vendors as one digit per vendor id, "_" for the others.
  const auto restricted = inAppValues(
      "COxPe2TOxPe2TALABAENAPCgAAAAAAAAAAAAAFAAAAoAAA4IACACAIABgACAFA4ADACAAIygAGADwAQBIAIAIB0AEAEB"
      "SA"
      "CACAA",
      {});
  ASSERT_TRUE(restricted);
  ASSERT_EQ(restricted->size(), 21U);  // purposes 1, 2, 7 and 10 are restricted
  EXPECT_EQ(restricted->back(),
            (InAppValue{"IABTCF_PublisherRestrictions10", std::string(29, '_') + "000"}));
}

// Ranges added in random order, spread wide or kept close, against a plain set of ids: the
// window of words grows both ways, moves from inline to allocated, and copies and moves keep it.
TEST(VendorIdSet, AgreesWithAPlainSetOfIds) {
  std::mt19937 random(5);
  for (int round = 0; round < 300; ++round) {
    const std::int64_t spread = round % 3 == 0 ? 200 : round % 3 == 1 ? 2000 : 65535;
    const std::int64_t base = static_cast<std::int64_t>(random() % 65535) + 1;
    std::set<std::int64_t> expected;
    VendorIdSet set;
    for (int range = 0, ranges = static_cast<int>(random() % 8); range < ranges; ++range) {
      const std::int64_t first = base + static_cast<std::int64_t>(random() % spread) - spread / 2;
      const std::int64_t last = first + static_cast<std::int64_t>(random() % 100) - 10;
      set.insert(first, last);
      for (std::int64_t id = std::max<std::int64_t>(first, 1);
           id <= std::min(last, VendorIdSet::kMaxId); ++id)
        expected.insert(id);
    }
    SCOPED_TRACE("round " + std::to_string(round));
    const std::vector<std::int64_t> ids(expected.begin(), expected.end());
    ASSERT_EQ(set.ids(), ids);
    EXPECT_EQ(set.count(), static_cast<std::int64_t>(ids.size()));
    EXPECT_EQ(set.last(), ids.empty() ? 0 : ids.back());
    EXPECT_EQ(set.empty(), ids.empty());
    for (const std::int64_t probe : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{65536},
                                     base - 1, base, base + 64, base + 700}) {
      EXPECT_EQ(set.contains(probe), expected.count(probe) == 1) << probe;
    }
    const VendorIdSet built = VendorIdSet::of(ids);
    EXPECT_EQ(built, set);
    VendorIdSet copy = set;
    VendorIdSet moved = std::move(copy);
    EXPECT_EQ(moved, set);
    EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move): a moved-from set is empty
    if (!ids.empty() && ids.back() < VendorIdSet::kMaxId) {
      moved.insert(ids.back() + 1, ids.back() + 1);
      EXPECT_NE(moved, set);
    }
  }
  // Ids outside 1...65535 are left out; the last ids grow the inline words downwards.
  EXPECT_EQ(VendorIdSet::of(std::vector<std::int64_t>{0, 5, 70000, -3}).ids(),
            std::vector<std::int64_t>{5});
  VendorIdSet top = VendorIdSet::of(std::vector<std::int64_t>{65535});
  top.insert(65400, 65400);
  EXPECT_EQ(top.ids(), (std::vector<std::int64_t>{65400, 65535}));
}

}  // namespace
}  // namespace quillet
