#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/QltLog.h"

#include "support/LogCapture.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

// Installs a recording sink and restores the process-wide settings afterwards.
class QltLogTest : public ::testing::Test {
 protected:
  void TearDown() override { QltLog::setTagPrefix("QLT-CMP"); }
  std::vector<std::string> lines() const { return log_.raw(); }

  testing::LogCapture log_;
};

// The part of a line after its timestamp.
std::string afterTimestamp(const std::string& line) {
  EXPECT_THAT(line,
              MatchesRegex(R"(\[[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z\] .*)"));
  return line.substr(line.find("] ") + 2);
}

// One transcript: each level's label, the tag prefix (none, or another), an error's description,
// nothing written or built while disabled.
TEST_F(QltLogTest, WritesOneLinePerCallWithLevelLabelPrefixedTagAndError) {
  QltLog::v("A", "one");
  QltLog::d("B", "two");
  QltLog::i("C", "three");
  QltLog::w("X", "m", "timed out");
  QltLog::e("E", "five");
  QltLog::setTagPrefix("");
  QltLog::d("QLTCMPUtils", "x");
  QltLog::setTagPrefix("APP");
  QltLog::d("QLTCMPUtils", "y");
  EXPECT_EQ(QltLog::tagPrefix(), "APP");
  QltLog::setEnabled(false);
  bool built = false;
  QltLog::e("T", "m", "error");
  QltLog::d("T", [&] { return (built = true) ? "expensive" : ""; });
  QltLog::setEnabled(true);
  QltLog::i("T", [] { return std::string("built now"); });
  EXPECT_FALSE(built);
  std::string transcript;
  for (const auto& line : lines())
    transcript += afterTimestamp(line) + "\n";
  EXPECT_EQ(transcript,
            "[VERBOSE] [QLT-CMP:A] one\n[DEBUG] [QLT-CMP:B] two\n[INFO] [QLT-CMP:C] three\n"
            "[WARN] [QLT-CMP:X] m\ntimed out\n[ERROR] [QLT-CMP:E] five\n"
            "[DEBUG] [QLTCMPUtils] x\n[DEBUG] [APP:QLTCMPUtils] y\n[INFO] [APP:T] built now\n");

  // At error level, after the description, the call stack: one frame a line.
  QltLog::e("X", "m", "timed out");
  const std::string withStack = lines().back();
  const auto secondBreak = withStack.find('\n', withStack.find('\n') + 1);
  ASSERT_NE(secondBreak, std::string::npos);
  EXPECT_EQ(afterTimestamp(withStack.substr(0, secondBreak)), "[ERROR] [APP:X] m\ntimed out");
  const std::string stack = withStack.substr(secondBreak + 1);
  EXPECT_THAT(stack, ::testing::StartsWith("0  "));
  EXPECT_GE(std::count(stack.begin(), stack.end(), '\n'), 2);
}

TEST_F(QltLogTest, CallsFromManyThreadsEachWriteWholeLines) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const std::string tag = std::string("T").append(std::to_string(t));
      for (int i = 0; i < 100; ++i)
        QltLog::i(tag, std::string("line ").append(std::to_string(i)));
    });
  }
  std::thread toggler([] {
    for (int i = 0; i < 100; ++i)
      QltLog::setTagPrefix(i % 2 ? "P" : "QLT-CMP");
  });
  for (auto& thread : threads)
    thread.join();
  toggler.join();
  const auto written = lines();
  EXPECT_EQ(written.size(), 400U);
  for (const auto& line : written) {
    EXPECT_THAT(afterTimestamp(line),
                MatchesRegex(R"(\[INFO\] \[(P|QLT-CMP):T[0-3]\] line [0-9]+)"));
  }
}

TEST(QltLogLevel, RawValuesAndLabels) {
  const std::pair<int, std::optional<QltLogLevel>> rows[] = {{0, QltLogLevel::verbose},
                                                             {3, QltLogLevel::warning},
                                                             {4, QltLogLevel::error},
                                                             {5, std::nullopt},
                                                             {-1, std::nullopt}};
  for (const auto& [raw, level] : rows)
    EXPECT_EQ(qltLogLevelFromRawValue(raw), level) << raw;
}

TEST(QltLogDefaultSink, WritesToStandardOutput) {
  ::testing::internal::CaptureStdout();
  QltLog::setEnabled(true);
  QltLog::w("X", "to stdout");
  QltLog::setEnabled(false);
  QltLog::w("X", "not written");
  const std::string out = ::testing::internal::GetCapturedStdout();
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.back(), '\n');
  EXPECT_EQ(afterTimestamp(out.substr(0, out.size() - 1)), "[WARN] [QLT-CMP:X] to stdout");
}

}  // namespace
}  // namespace quillet
