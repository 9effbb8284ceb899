#include <thread>

#include <gtest/gtest.h>

#include "quillet/base/Text.h"

namespace quillet {
namespace {

TEST(Text, PrefixCountsGraphemeClusters) {
  EXPECT_EQ(Text::prefixCharacters("english", 2), "en");
  EXPECT_EQ(Text::prefixCharacters("e", 2), "e");
  EXPECT_EQ(Text::prefixCharacters("", 2), "");
  EXPECT_EQ(Text::prefixCharacters("ab", 0), "");
  // "e" + combining acute is one character, even though the first two bytes are ASCII-free.
  EXPECT_EQ(Text::prefixCharacters("e\xCC\x81nx", 2), "e\xCC\x81n");
  // An ASCII letter followed by a combining mark must not be split from it.
  EXPECT_EQ(Text::prefixCharacters("ab\xCC\x81x", 2), "ab\xCC\x81");
  EXPECT_EQ(Text::prefixCharacters("\r\nab", 2), "\r\na");
  // A flag is two regional indicators; a family emoji is joined by ZWJs.
  EXPECT_EQ(Text::prefixCharacters("🇫🇷x", 1), "🇫🇷");
  EXPECT_EQ(Text::prefixCharacters("👨‍👩‍👧z!", 2), "👨‍👩‍👧z");
  EXPECT_EQ(Text::prefixCharacters("日本語", 2), "日本");
}

TEST(Text, UpperCasingUsesTheFullMapping) {
  EXPECT_EQ(Text::uppercased("fr"), "FR");
  EXPECT_EQ(Text::uppercased("ß"), "SS");
  EXPECT_EQ(Text::uppercased("straße"), "STRASSE");
  EXPECT_EQ(Text::uppercased("ǆ"), "Ǆ");
  EXPECT_EQ(Text::uppercased("ŉ"), "ʼN");
  EXPECT_EQ(Text::uppercased("i"), "I");  // no Turkish dotted capital: locale-independent
  EXPECT_EQ(Text::uppercased("éa1-"), "ÉA1-");
}

TEST(Text, IllFormedUtf8BecomesTheReplacementCharacter) {
  EXPECT_EQ(Text::uppercased("a\xFF"), "A\xEF\xBF\xBD");
  EXPECT_EQ(Text::prefixCharacters("\xC3x", 1), "\xEF\xBF\xBD");
}

TEST(Text, EachThreadHasItsOwnBreakIterator) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&wrong] {
      for (int i = 0; i < 500; ++i) {
        if (Text::prefixCharacters("é\xCC\x81ß!", 2) != "é\xCC\x81ß") ++wrong;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace quillet
