#include <sstream>

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include "quillet/base/Version.h"

#include "support/ChildProcess.h"
#include "support/TestData.h"

namespace quillet {
namespace {

using Outcome = testing::ChildProcess::Result;

// Runs the quillet command with `args`, feeding `input` on standard input.
Outcome quillet(std::vector<std::string> args, const std::string& input = "") {
  args.insert(args.begin(), QUILLET_CLI_PATH);
  return testing::runProcess(args, input);
}

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
  EXPECT_TRUE(testing::matchesGolden("decode-real-strings.err", run.err));
}

// Decoding on several threads writes what one thread writes, in the same order, over an input of
// many batches with the unreadable strings, blank lines and line ends of every kind among them.
TEST(DecodeCommand, SeveralThreadsWriteWhatOneWrites) {
  std::istringstream samples(testing::testdataText("tc-strings.txt"));
  std::string strings, line;
  for (int i = 0; std::getline(samples, line); ++i)
    strings += line.substr(0, line.find('\t')) + (i % 3 == 0   ? "\r\n"
                                                  : i % 5 == 0 ? " \n\n"
                                                               : "\n");
  std::string input;
  while (input.size() < std::size_t{600} * 1024)
    input += strings;
  input += "  bad-encoded!!!string";  // no line end at the end
  const Outcome one = quillet({"decode"}, input);
  const Outcome several = quillet({"decode", "--threads", "3"}, input);
  EXPECT_EQ(one.status, 1);
  EXPECT_EQ(several.status, one.status);
  EXPECT_GT(one.out.size(), std::size_t{4} << 20);
  EXPECT_TRUE(several.out == one.out);  // not printed: megabytes
  EXPECT_EQ(several.err, one.err);
}

// With both streams in one, a message stands between the lines of the strings around it.
TEST(DecodeCommand, MessagesStandAmongTheLinesInInputOrder) {
  const std::string valid = "COtybn4PA_zT4KjACBENAPCIAEBAAECAAIAAAAAAAAAA";
  const std::string line = quillet({"decode", valid}).out;
  const std::string message = quillet({"decode", "bad!"}).err;
  for (const char* threads : {"1", "2"}) {
    const Outcome run = testing::runProcess(
        {"/bin/sh", "-c", "\"$0\" decode --threads \"$1\" 2>&1", QUILLET_CLI_PATH, threads},
        valid + "\nbad!\n" + valid + "\n");
    EXPECT_EQ(run.out, line + message + line) << threads << " threads";
  }
}

// Each case of testdata/cli-cases.txt: the exit status and both outputs, against
// testdata/golden/cli-cases.txt. A pretty-printed object is the compact one indented.
TEST(Command, EveryCaseGivesItsGoldenOutput) {
  std::string all;
  for (const auto& [title, body] : testing::cases("cli-cases.txt")) {
    std::vector<std::string> args;
    std::istringstream words(title.substr(0, title.find(": ")));
    for (std::string word; words >> word;) {
      if (word.starts_with("TESTDATA/")) word = std::string(QUILLET_TESTDATA_DIR) + word.substr(8);
      args.push_back(word);
    }
    const bool both = args.size() == 2 && args[0] == "encode" && args[1] == "--strict";
    for (const bool strict : both ? std::vector{false, true} : std::vector{true}) {
      auto run = quillet(strict ? args : std::vector<std::string>{"encode"}, body);
      if (args.size() > 1 && args[1] == "--pretty") {
        args.erase(args.begin() + 1);
        EXPECT_EQ(boost::json::parse(run.out), boost::json::parse(quillet(args).out)) << title;
      }
      if (args == std::vector<std::string>{"--version"}) {
        EXPECT_EQ(run.out, std::string("quillet ") + kVersion + "\n");
        run.out = "(the version)\n";
      }
      all += "== " + (strict ? title : "encode: " + title.substr(title.find(": ") + 2)) +
             "\nstatus " + std::to_string(run.status) + "\n" + run.out + run.err;
    }
  }
  EXPECT_TRUE(testing::matchesGolden("cli-cases.txt", all));
}

}  // namespace
}  // namespace quillet
