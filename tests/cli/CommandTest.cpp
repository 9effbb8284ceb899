#include <fstream>
#include <sstream>
#include <tuple>

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/Version.h"

#include "support/ChildProcess.h"
#include "support/TestData.h"

namespace quillet {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Outcome = testing::ChildProcess::Result;

// Runs the quillet command with `args`, feeding `input` on standard input.
Outcome quillet(std::vector<std::string> args, const std::string& input = "") {
  args.insert(args.begin(), QUILLET_CLI_PATH);
  return testing::runProcess(args, input);
}

std::vector<boost::json::object> jsonLines(const std::string& text) {
  std::vector<boost::json::object> objects;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    boost::system::error_code error;
    auto value = boost::json::parse(line, error);
    EXPECT_FALSE(error) << line;
    if (!error && value.is_object()) objects.push_back(std::move(value.get_object()));
  }
  return objects;
}

constexpr const char* kAllSegments =
    "COrEAV4OrXx94ACABBENAHCIAD-AAAAAAACAAxAAAAgAIAwgAgAAAAEAgQAAAAAEAYQAQAAAACAAAABAAA."
    "IBAgAAAgAIAwgAgAAAAEAAAACA.QAagAQAgAIAwgA.cAAAAAAAITg=";
constexpr const char* kCoreOnly = "COtybn4PA_zT4KjACBENAPCIAEBAAECAAIAAAAAAAAAA";

// Every real string on standard input, one JSON object a line for each that reads, in
// testdata/golden/decode-real-strings.jsonl; the unreadable ones are named at the end.
TEST(DecodeCommand, WritesTheGoldenLinesForEveryRealStringAndNamesTheUnreadable) {
  std::istringstream samples(testing::testdataText("tc-strings.txt"));
  std::string input, line;
  while (std::getline(samples, line))
    input += line.substr(0, line.find('\t')) + "\n";
  const Outcome run = quillet({"decode"}, input + "\n  bad-encoded!!!string  \r\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(testing::matchesGolden("decode-real-strings.jsonl", run.out));
  EXPECT_EQ(jsonLines(run.out).size(), 67U);
  EXPECT_THAT(run.err, HasSubstr("\"bad-encoded!!!string\": core segment, field text at bit 66"));
  EXPECT_THAT(run.err, HasSubstr("\"CA==\""));
}

TEST(DecodeCommand, PrettyPrintsTheSameObject) {
  const Outcome compact = quillet({"decode", kAllSegments});
  const Outcome pretty = quillet({"decode", "--pretty", kAllSegments});
  ASSERT_EQ(pretty.status, 0);
  EXPECT_GT(std::count(pretty.out.begin(), pretty.out.end(), '\n'), 20);
  EXPECT_THAT(pretty.out, HasSubstr("\n  \"cmpId\": 2,\n"));
  EXPECT_EQ(boost::json::parse(pretty.out), boost::json::parse(compact.out));
  // Publisher restrictions: an array of objects, one per line.
  const char* restricted = "COvzTO5OvzTO5BRAAAENAPCoALIAADgAAAAAAewAwABAAlAB6ABBFADBQAQA9hAAAcAA";
  const Outcome objects = quillet({"decode", "--pretty", restricted});
  EXPECT_EQ(boost::json::parse(objects.out),
            boost::json::parse(quillet({"decode", restricted}).out));
  EXPECT_THAT(objects.out, HasSubstr("\"publisherRestrictions\": [\n    {"));
}

TEST(DecodeCommand, StrictTurnsWarningsIntoErrors) {
  const std::string policy = "COvwooAOvwooAB7ABCENAPEYAIAAACAAAIqIAAoAAoAA.QAAo.IAAo";
  const Outcome lenient = quillet({"decode", policy});
  ASSERT_EQ(lenient.status, 0);
  EXPECT_THAT(lenient.out, HasSubstr("purpose 3 is signalled under legitimate interest"));
  const Outcome strict = quillet({"decode", "--strict", policy, kCoreOnly});
  EXPECT_EQ(strict.status, 1);
  EXPECT_EQ(jsonLines(strict.out).size(), 1U);
  EXPECT_THAT(strict.err, HasSubstr("purpose 3"));
}

TEST(EncodeCommand, WritesTheStringItsMembersDescribe) {
  const std::string input = R"({
    "purposeConsents": [1, 2, 3], "purposeLegitimateInterests": [2, 7],
    "specialFeatureOptins": [1], "vendorConsents": [4, 8], "vendorLegitimateInterests": [8],
    "gvlVendorIds": [2, 4, 8, 10], "cmpId": 300, "cmpVersion": 2, "consentScreen": 1,
    "consentLanguage": "fr", "vendorListVersion": 106, "policyVersion": 5,
    "isServiceSpecific": true, "useNonStandardStacks": true, "purposeOneTreatment": false,
    "publisherCC": "de", "created": 17000000003, "disclosedVendors": [2, 10]})";
  // Each member lands in its own field: decoded, the string gives the input back.
  const Outcome run = quillet({"encode"}, input);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "CP1R2oDP1R2oDEsACBFRBqF4AOAAAEIAAAYgAFBEAAoAgAA.QAFEBA\n");

  // Same input from a file, without the vendor segment; fixed `created` makes it repeatable.
  const std::string path = ::testing::TempDir() + "quillet-encode-input.json";
  std::ofstream(path) << R"({"gvlVendorIds": [3], "created": 5})";
  const Outcome fromFile = quillet({"encode", "--input", path});
  const Outcome again = quillet({"encode"}, R"({"created": 5, "gvlVendorIds": [1, 3]})");
  ASSERT_EQ(fromFile.status, 0) << fromFile.err;
  EXPECT_EQ(fromFile.out, again.out);
  // Defaults: CMP 471, publisher country US.
  EXPECT_EQ(fromFile.out, "CAAAAAFAAAAAFHXABAENABBAAAAAAAAAACiQABgAAYAAAA\n");
}

TEST(EncodeCommand, RefusesWhatWouldStopTheEncoderAndNamesWhatItWouldDropOrClip) {
  // Rows that only warn are encoded with a warning, and refused under --strict; the others are
  // refused either way.
  const std::string list = R"({"gvlVendorIds": [10, 3], )";
  const std::vector<std::tuple<std::string, std::string, bool>> cases{
      {R"({"purposeConsents": [1]})", "gvlVendorIds", false},
      {R"({"gvlVendorIds": []})", "gvlVendorIds", false},
      {R"({"gvlVendorIds": [0, -4]})", "positive", false},
      {list + R"("cmpId": -1})", "cmpId", false},
      {list + R"("policyVersion": 1.5})", "policyVersion", false},
      {list + R"("consentLanguage": "e1"})", "consentLanguage", false},
      {list + R"("publisherCC": 7})", "publisherCC", false},
      {list + R"("vendorConsents": [1, "2"]})", "vendorConsents", false},
      {list + R"("isServiceSpecific": "yes"})", "isServiceSpecific", false},
      {list + R"("created": 68719476736})", "created", false},
      {list + R"("purposeConsent": [1]})", "unknown member", false},
      {list, "not JSON", false},
      {R"([1, 2])", "one JSON object", false},
      {list + R"("vendorConsents": [11, 0]})",
       "vendorConsents holds 11, 0, outside 1 to 10: not written", true},
      {list + R"("vendorLegitimateInterests": [5]})",
       "vendorLegitimateInterests holds 5, not in gvlVendorIds: written all the same", true},
      {list + R"("disclosedVendors": [5]})", "disclosedVendors holds 5, not in gvlVendorIds", true},
      {list + R"("purposeConsents": [25]})", "purposeConsents holds 25, outside 1 to 24", true},
      {list + R"("specialFeatureOptins": [13]})", "specialFeatureOptins holds 13, outside 1 to 12",
       true},
      {list + R"("cmpId": 5000})", "cmpId 5000 does not fit in 12 bits: 904 is written", true},
      {list + R"("policyVersion": 64})", "policyVersion 64 does not fit in 6 bits: 0 is", true},
      {list + R"("vendorListVersion": 4097})", "vendorListVersion 4097 does not fit in 12 bits: 1",
       true},
      {list + R"("consentLanguage": "eng"})",
       R"(consentLanguage "eng" is not two letters A to Z: "EN" is written)", true},
      {list + R"("consentLanguage": "[a"})",
       R"(consentLanguage "[a" is not two letters A to Z: "[A" is written, which no reader takes)",
       true},
      {list + R"("publisherCC": "d"})",
       R"(publisherCC "d" is not two letters A to Z: every field after it moves out of place)",
       true},
  };
  for (const auto& [input, expected, warnsOnly] : cases) {
    for (const bool strict : {false, true}) {
      const bool encoded = warnsOnly && !strict;
      const Outcome run = quillet(strict ? std::vector<std::string>{"encode", "--strict"}
                                         : std::vector<std::string>{"encode"},
                                  input);
      EXPECT_EQ(run.status, encoded ? 0 : 1) << input;
      EXPECT_EQ(run.out.empty(), !encoded) << input;
      EXPECT_THAT(run.err, HasSubstr((encoded ? "quillet encode: warning: " : "") + expected))
          << input;
    }
  }
  // The edges of every range pass.
  EXPECT_THAT(
      quillet({"encode", "--strict"},
              R"({"gvlVendorIds": [1, 3], "vendorConsents": [1, 3], "purposeConsents": [1, 24],
                          "specialFeatureOptins": [12], "cmpId": 4095, "consentLanguage": "az",
                          "publisherCC": "ZA"})")
          .err,
      IsEmpty());
  for (const auto& [path, expected] :
       {std::pair{"/nonexistent/input.json", "cannot open"}, std::pair{"/tmp", "it is a folder"}}) {
    const Outcome run = quillet({"encode", "--input", path});
    EXPECT_EQ(run.status, 1) << path;
    EXPECT_THAT(run.err, HasSubstr(expected)) << path;
  }
}

TEST(Command, UsageErrorsHelpAndVersion) {
  EXPECT_EQ(quillet({}).status, 2);
  const Outcome unknown = quillet({"transcode"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.err, HasSubstr("unknown command \"transcode\""));
  EXPECT_EQ(quillet({"decode", "--bogus"}).status, 2);
  EXPECT_EQ(quillet({"encode", "--input"}).status, 2);
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"--help"}, {"decode", "--help"}, {"encode", "--help"}}) {
    const Outcome help = quillet(args);
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr("Usage"));
  }
  const Outcome version = quillet({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.out, HasSubstr(kVersion));
}

}  // namespace
}  // namespace quillet
