#include <random>
#include <set>
#include <sstream>

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/codec/Base64Url.h"
#include "quillet/codec/BitReader.h"
#include "quillet/codec/BitWriter.h"
#include "quillet/codec/InAppValues.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/codec/TCString.h"

#include "support/LogCapture.h"
#include "support/TestData.h"

namespace quillet {
namespace {

using namespace std::chrono_literals;
using Input = QLTCMPUtils::TCStringInput;
using Ids = std::vector<std::int64_t>;

const FixedClock kClock(std::chrono::system_clock::time_point(1700000000s + 390ms));
// The encoder's core for purpose 1 and a list whose largest vendor id is 5, at kClock.
const std::string kCore = "CP1R2oDP1R2oDHXABAENABBAAIAAAAAAACiQACgAAKAAAA";

// Ids as ascending runs: "1-10,23".
std::string runs(const Ids& ids) {
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

// A string from a case's segment lines (see testdata/codec-cases.txt).
std::string built(const std::string& body) {
  std::vector<std::string> segments;
  std::istringstream lines(body);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("+")) {
      for (auto at = line.find("\\s"); at != std::string::npos; at = line.find("\\s"))
        line.replace(at, 2, " ");
      segments.back() += line.substr(1);
    } else if (line.starts_with("=")) {
      segments.push_back(line.substr(1));
    } else {
      BitWriter writer;
      std::istringstream fields(line);
      for (std::string field; fields >> field;) {
        const auto colon = field.find(':');
        const bool binary = field.compare(colon + 1, 2, "0b") == 0;
        writer.write(std::stoull(field.substr(colon + (binary ? 3 : 1)), nullptr, binary ? 2 : 0),
                     std::stoi(field.substr(0, colon)));
      }
      segments.push_back(base64URLEncodedString(writer.data()));
    }
  }
  std::string text;
  for (const auto& segment : segments)
    text += (&segment == segments.data() ? "" : ".") + segment;
  return text;
}

// Each case of testdata/codec-cases.txt against testdata/golden/codec-cases.txt.
TEST(Codec, EveryCaseGivesItsGoldenResult) {
  std::string all;
  for (const auto& [title, body] : testing::cases("codec-cases.txt")) {
    all += "== " + title + "\n";
    if (title.starts_with("decode")) {
      const std::string text = built(body);
      const bool can = QLTCMPUtils::canDecodeTCString(text);
      const auto d = can ? QLTCMPUtils::decodeTCString(text) : std::nullopt;
      all += "can decode " + std::to_string(can) + ": " +
             (d ? "v" + std::to_string(d->version) + " purposes " + runs(d->purposeConsents) +
                      " li " + runs(d->purposeLegitimateInterests) + " sf " +
                      runs(d->specialFeatureOptins) + " vendors " + runs(d->vendorConsents) +
                      " vendor li " + runs(d->vendorLegitimateInterests)
                : "none") +
             "\n";
    } else {
      const auto list = boost::json::parse(body);
      Ids ids;
      for (const auto& id : list.as_array())
        ids.push_back(id.to_number<std::int64_t>());
      const std::string segment = QLTCMPUtils::encodeDisclosedVendors(ids);
      const auto tc = TCString::parse(kCore + "." + segment);
      all += segment + ": " + (tc->vendorsDisclosed->isRangeEncoding ? "ranges " : "bits ") +
             runs(tc->vendorsDisclosed->ids()) + " of " +
             std::to_string(tc->vendorsDisclosed->maxVendorId) + "\n";
    }
  }
  EXPECT_TRUE(testing::matchesGolden("codec-cases.txt", all));
  // The encoder logs the list sizes at debug level; the vendor segment logs nothing.
  const testing::LogCapture log;
  const Ids twelve{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  (void)QLTCMPUtils::encodeTCString(
      {.purposeConsents = {1, 2, 3}, .vendorConsents = twelve, .gvlVendorIds = {12}}, kClock);
  (void)QLTCMPUtils::encodeDisclosedVendorsSegment(twelve, twelve);
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{
                "[DEBUG] [QLT-CMP:QLTCMPUtils] [TC-ENC] pc=3  pli=0  vc=12  vli=0  sfo=0"});
}

// Every byte but the separator and padding, early in the text (where blocks of characters are
// decoded together), in its last characters and after it: only base64url characters read, and the
// error names the first other one.
TEST(TCString, OnlyBase64UrlCharactersRead) {
  const std::string core = kCore;
  EXPECT_EQ(TCString::parse("").error().message(),
            "core segment, field Version at bit 0: the string ends (6 bits needed, 0 left)");
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  for (int byte = 0; byte < 256; ++byte) {
    if (byte == '.' || byte == '=') continue;  // they end the segment
    for (const std::size_t at : {std::size_t{20}, core.size() - 2, core.size()}) {
      std::string text = core;
      text.resize(std::max(text.size(), at + 1));
      text[at] = static_cast<char>(byte);
      const bool valid = alphabet.find(static_cast<char>(byte)) != std::string::npos;
      const auto result = TCString::parse(text);
      ASSERT_EQ(result.ok() || result.error().field != "text", valid) << byte << " at " << at;
      if (!valid) {
        ASSERT_EQ(result.error().bitOffset, static_cast<std::int64_t>(at) * 6);
      }
    }
  }
  // One restriction whose 300 entries all cover vendors 1 to 65000: 19.5 million ids if expanded.
  BitWriter writer;
  writer.write(2, 6);
  writer.write(0, 207 + 34);  // the fields up to two empty vendor bit fields
  writer.write(1, 12);
  writer.write(1, 6);
  writer.write(0, 2);
  writer.write(300, 12);
  for (int entry = 0; entry < 300; ++entry) {
    writer.writeBit(true);
    writer.write(1, 16);
    writer.write(65000, 16);
  }
  const auto restricted = TCString::parse(base64URLEncodedString(writer.data()));
  ASSERT_TRUE(restricted);
  EXPECT_EQ(restricted->publisherRestrictions.at(0).vendors.count(), 65000);
}

TEST(IdMask, KeepsIdsOneToN) {
  const IdMask<12> mask(0b1000'0000'0101 | (std::uint64_t{1} << 12));
  EXPECT_THAT(mask.ids(), ::testing::ElementsAre(1, 3, 12));
  EXPECT_EQ((std::vector<bool>{mask.contains(12), mask.contains(13), mask.contains(0)}),
            (std::vector<bool>{true, false, false}));
  EXPECT_EQ(mask.count(), 3);
  EXPECT_EQ(IdMask<64>(~std::uint64_t{0}).ids().back(), 64);
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
    const Ids ids(expected.begin(), expected.end());
    ASSERT_EQ(set.ids(), ids);
    EXPECT_EQ(set.count(), static_cast<std::int64_t>(ids.size()));
    EXPECT_EQ(set.last(), ids.empty() ? 0 : ids.back());
    EXPECT_EQ(set.empty(), ids.empty());
    for (const std::int64_t probe : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{65536},
                                     base - 1, base, base + 64, base + 700}) {
      EXPECT_EQ(set.contains(probe), expected.count(probe) == 1) << probe;
    }
    EXPECT_EQ(VendorIdSet::of(ids), set);
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
  EXPECT_EQ(VendorIdSet::of(Ids{0, 5, 70000, -3}).ids(), Ids{5});
  VendorIdSet top = VendorIdSet::of(Ids{65535});
  top.insert(65400, 65400);
  EXPECT_EQ(top.ids(), (Ids{65400, 65535}));
}

// The clock is read once, to the tenth of a second; the short form takes the defaults; numbers
// wider than their field keep their low bits; only the first two characters of a language count.
TEST(Encoder, ClockShortFormWideValuesAndLanguageCodes) {
  const Input none{.gvlVendorIds = {10}};
  const FixedClock early(std::chrono::system_clock::time_point(1700000000s + 300ms));
  const FixedClock late(std::chrono::system_clock::time_point(1700000000s + 399ms));
  EXPECT_EQ(QLTCMPUtils::encodeTCString(none, early), QLTCMPUtils::encodeTCString(none, late));
  const FixedClock before1970(std::chrono::system_clock::time_point(-5s));
  EXPECT_EQ(TCString::parse(QLTCMPUtils::encodeTCString(none, before1970))->created, 0U);
  const Ids purposes{1, 2}, vendors{5}, gvl{1, 5, 9};
  EXPECT_EQ(
      QLTCMPUtils::encodeTCString(purposes, vendors, gvl, kClock),
      QLTCMPUtils::encodeTCString(
          {.purposeConsents = purposes, .vendorConsents = vendors, .gvlVendorIds = gvl}, kClock));
  const Ids allowed{1, 3, 40}, listed{2, 9, 3};
  EXPECT_EQ(QLTCMPUtils::encodeDisclosedVendorsSegment(allowed, listed), "QAEqAA");

  Input wide{.vendorConsents = {65539}, .gvlVendorIds = {65536 + 3}};
  wide.cmpId = 4096 + 5;
  wide.policyVersion = 64 + 4;
  const auto bytes = fromBase64Url(QLTCMPUtils::encodeTCString(wide, kClock));
  BitReader r(bytes.value());
  r.skip(6 + 36 + 36);
  EXPECT_EQ(r.readUInt(12), 5U);
  r.skip(12 + 6 + 12 + 12);
  EXPECT_EQ(r.readUInt(6), 4U);
  r.skip(1 + 1 + 12 + 24 + 24 + 1 + 12);
  EXPECT_EQ(r.readUInt(16), 3U);  // MaxVendorId keeps 3; the bit field still spans 65539 bits
  r.skip(1 + 65538);
  EXPECT_EQ(r.readUInt(1), 1U);

  for (const char* code : {"en", "", "ß", "de-DE"})
    EXPECT_TRUE(QLTCMPUtils::isEncodableCode(code)) << code;
  for (const char* code : {"e1", " e", "-"})
    EXPECT_FALSE(QLTCMPUtils::isEncodableCode(code)) << code;
}

using CodecDeathTest = ::testing::Test;

TEST_F(CodecDeathTest, StopsOnBrokenCallerContracts) {
  const auto encode = [](Input in) { (void)QLTCMPUtils::encodeTCString(in, kClock); };
  EXPECT_DEATH(encode({.gvlVendorIds = {10}, .consentLanguage = "e1"}), "consentLanguage");
  EXPECT_DEATH(encode({.gvlVendorIds = {10}, .publisherCC = "U "}), "publisherCC");
  for (auto Input::*member : {&Input::cmpId, &Input::cmpVersion, &Input::consentScreen,
                              &Input::vendorListVersion, &Input::policyVersion}) {
    Input in{.gvlVendorIds = {10}};
    in.*member = -1;
    EXPECT_DEATH(encode(in), "negative");
  }
  EXPECT_DEATH(encode({.gvlVendorIds = {0}}), "MaxVendorId 0");
  EXPECT_DEATH(encode({}), "MaxVendorId 0");
  EXPECT_DEATH(encode({.gvlVendorIds = {-7, -2}}), "negative largest vendor id");
  // The largest id taken sets both sections' length: 259 bits and two of 16,777,215.
  constexpr auto kLargest = QLTCMPUtils::kLargestEncodableVendorId;
  EXPECT_EQ(QLTCMPUtils::encodeTCString({.gvlVendorIds = {kLargest}}, kClock).size(), 5592450U);
  EXPECT_DEATH(encode({.gvlVendorIds = {3, kLargest + 1}}), "vendor id 16777216 is above");
  const Ids none, negative{-3};
  EXPECT_DEATH((void)QLTCMPUtils::encodeDisclosedVendorsSegment(none, none), "MaxVendorId 0");
  EXPECT_DEATH((void)QLTCMPUtils::encodeDisclosedVendorsSegment(none, negative),
               "negative largest vendor id");
  // One byte: Version reads, every later read fails quietly, MaxVendorId reads as 0.
  EXPECT_DEATH((void)QLTCMPUtils::decodeTCString("CA"), "MaxVendorId 0");
  EXPECT_DEATH((void)QLTCMPUtils::decodeTCString(built("6:2 134:0 12:0 24:0 24:0 13:0 16:0 13:0")),
               "MaxVendorId 0");
}

}  // namespace
}  // namespace quillet
