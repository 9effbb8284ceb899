#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "quillet/base/IdList.h"
#include "quillet/base/Text.h"

namespace quillet {
namespace {

// Prefixes count grapheme clusters: "e" and a combining acute are one character, an ASCII letter
// is not split from a mark after it, a flag is two regional indicators, a family is joined by
// ZWJs. Upper-casing uses the full mapping, the same in every locale (no Turkish dotted capital).
// Ill-formed UTF-8 becomes the replacement character.
TEST(Text, PrefixesAndUpperCasing) {
  const std::tuple<const char*, int, const char*> prefixes[] = {
      {"english", 2, "en"},
      {"e", 2, "e"},
      {"", 2, ""},
      {"ab", 0, ""},
      {"e\xCC\x81nx", 2, "e\xCC\x81n"},
      {"ab\xCC\x81x", 2, "ab\xCC\x81"},
      {"\r\nab", 2, "\r\na"},
      {"🇫🇷x", 1, "🇫🇷"},
      {"👨‍👩‍👧z!", 2, "👨‍👩‍👧z"},
      {"日本語", 2, "日本"},
      {"\xC3x", 1, "\xEF\xBF\xBD"}};
  for (const auto& [text, count, prefix] : prefixes)
    EXPECT_EQ(Text::prefixCharacters(text, count), prefix) << text;
  const std::pair<const char*, const char*> upper[] = {
      {"fr", "FR"}, {"ß", "SS"}, {"straße", "STRASSE"}, {"ǆ", "Ǆ"},
      {"ŉ", "ʼN"},  {"i", "I"},  {"éa1-", "ÉA1-"},      {"a\xFF", "A\xEF\xBF\xBD"}};
  for (const auto& [text, uppercased] : upper)
    EXPECT_EQ(Text::uppercased(text), uppercased) << text;
}

TEST(Text, EachThreadHasItsOwnBreakIterator) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&wrong] {
      for (int i = 0; i < 500; ++i)
        wrong += Text::prefixCharacters("é\xCC\x81ß!", 2) != "é\xCC\x81ß";
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

// The cursor answers as a search does for ascending runs of queries, repeats, and queries that go
// back, over lists with gaps, negative ids and none at all.
TEST(IdList, CursorAnswersAsASearchInAnyQueryOrder) {
  std::mt19937 random(7);
  for (const std::vector<std::int64_t>& list :
       {std::vector<std::int64_t>{}, {-4, 0, 2, 3, 9, 10, 40}, {5}}) {
    IdList::Cursor cursor(list);
    std::int64_t id = -6;
    for (int query = 0; query < 400; ++query) {
      id += static_cast<std::int64_t>(random() % 5) - 1;  // mostly up, some repeats, some back
      if (id > 45) id -= 50;
      ASSERT_EQ(cursor.contains(id), IdList::contains(list, id)) << list.size() << " " << id;
    }
  }
}

}  // namespace
}  // namespace quillet
