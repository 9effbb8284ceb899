#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/QltLog.h"

#include "support/RecordingLogSink.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

// Installs a recording sink and restores the process-wide settings afterwards.
class QltLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QltLog::setSink(sink_);
    QltLog::setEnabled(true);
  }
  void TearDown() override {
    QltLog::setEnabled(false);
    QltLog::setTagPrefix("QLT-CMP");
    QltLog::setSink(nullptr);
  }
  std::vector<std::string> lines() const { return sink_->lines(); }

  std::shared_ptr<testing::RecordingLogSink> sink_ = std::make_shared<testing::RecordingLogSink>();
};

// The part of a line after its timestamp.
std::string afterTimestamp(const std::string& line) {
  EXPECT_THAT(line,
              MatchesRegex(R"(\[[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z\] .*)"));
  return line.substr(line.find("] ") + 2);
}

TEST_F(QltLogTest, WritesOneLinePerCallWithLevelLabelAndPrefixedTag) {
  QltLog::v("A", "one");
  QltLog::d("B", "two");
  QltLog::i("C", "three");
  QltLog::w("X", "m");
  QltLog::e("E", "five");
  const auto written = lines();
  ASSERT_EQ(written.size(), 5U);
  EXPECT_EQ(afterTimestamp(written[0]), "[VERBOSE] [QLT-CMP:A] one");
  EXPECT_EQ(afterTimestamp(written[1]), "[DEBUG] [QLT-CMP:B] two");
  EXPECT_EQ(afterTimestamp(written[2]), "[INFO] [QLT-CMP:C] three");
  EXPECT_EQ(afterTimestamp(written[3]), "[WARN] [QLT-CMP:X] m");
  EXPECT_EQ(afterTimestamp(written[4]), "[ERROR] [QLT-CMP:E] five");
}

TEST_F(QltLogTest, AnEmptyPrefixLeavesTheTagWithoutAColon) {
  QltLog::setTagPrefix("");
  QltLog::d("QLTCMPUtils", "x");
  QltLog::setTagPrefix("APP");
  QltLog::d("QLTCMPUtils", "y");
  EXPECT_EQ(QltLog::tagPrefix(), "APP");
  const auto written = lines();
  ASSERT_EQ(written.size(), 2U);
  EXPECT_EQ(afterTimestamp(written[0]), "[DEBUG] [QLTCMPUtils] x");
  EXPECT_EQ(afterTimestamp(written[1]), "[DEBUG] [APP:QLTCMPUtils] y");
}

TEST_F(QltLogTest, AnErrorAddsItsDescriptionAndAtErrorLevelTheCallStack) {
  QltLog::w("X", "m", "timed out");
  QltLog::e("X", "m", "timed out");
  QltLog::e("X", "no error given");
  const auto written = lines();
  ASSERT_EQ(written.size(), 3U);
  EXPECT_EQ(afterTimestamp(written[0]), "[WARN] [QLT-CMP:X] m\ntimed out");
  const std::string& withStack = written[1];
  const auto firstBreak = withStack.find('\n');
  const auto secondBreak = withStack.find('\n', firstBreak + 1);
  ASSERT_NE(secondBreak, std::string::npos);
  EXPECT_EQ(afterTimestamp(withStack.substr(0, secondBreak)), "[ERROR] [QLT-CMP:X] m\ntimed out");
  const std::string stack = withStack.substr(secondBreak + 1);
  EXPECT_THAT(stack, ::testing::StartsWith("0  "));
  EXPECT_GE(std::count(stack.begin(), stack.end(), '\n'), 2);  // several frames, one per line
  EXPECT_EQ(afterTimestamp(written[2]), "[ERROR] [QLT-CMP:X] no error given");
}

TEST_F(QltLogTest, NothingIsWrittenOrBuiltWhileDisabled) {
  QltLog::setEnabled(false);
  bool built = false;
  QltLog::v("T", "m");
  QltLog::e("T", "m", "error");
  QltLog::d("T", [&] {
    built = true;
    return std::string("expensive");
  });
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_FALSE(built);
  QltLog::setEnabled(true);
  QltLog::i("T", [] { return std::string("built now"); });
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_EQ(afterTimestamp(lines()[0]), "[INFO] [QLT-CMP:T] built now");
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
  EXPECT_EQ(qltLogLevelFromRawValue(0), QltLogLevel::verbose);
  EXPECT_EQ(qltLogLevelFromRawValue(3), QltLogLevel::warning);
  EXPECT_EQ(qltLogLevelFromRawValue(4), QltLogLevel::error);
  EXPECT_EQ(qltLogLevelFromRawValue(5), std::nullopt);
  EXPECT_EQ(qltLogLevelFromRawValue(-1), std::nullopt);
  EXPECT_EQ(qltLogLevelLabel(QltLogLevel::warning), "WARN");
  EXPECT_EQ(qltLogLevelLabel(QltLogLevel::verbose), "VERBOSE");
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
