#include <functional>
#include <limits>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StoreValueCodec.h"

#include "support/TempDirectory.h"
#include "support/TestData.h"

namespace quillet {
namespace {

// Both stores must behave the same behind the interface.
class KeyValueStores : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "memory") {
      store_ = std::make_shared<MemoryKeyValueStore>();
    } else {
      auto opened = SqliteKeyValueStore::open(directory_ / "store.sqlite");
      ASSERT_TRUE(opened) << opened.error();
      store_ = std::move(opened).value();
    }
  }
  KeyValueStore& store() { return *store_; }

  testing::TempDirectory directory_;
  std::shared_ptr<KeyValueStore> store_;
};

TEST_P(KeyValueStores, KeepsEveryKindOfValueAndRemovesKeys) {
  const StoreValue::Dictionary nested{{"1", StoreValue::Dictionary{{"755", true}, {"8", false}}},
                                      {"2", StoreValue::Dictionary{}},
                                      {"text", "x"},
                                      {"bytes", Bytes{1, 2}},
                                      {"number", 1.25}};
  store().set("bool", false);
  store().set("integer", std::int64_t{-9007199254740993});
  store().set("double", -0.5);
  store().set("text", "Grüße\n");
  store().set("bytes", Bytes{0, 0xFF, 0});
  store().set("empty bytes", Bytes{});
  store().set("dictionary", nested);
  EXPECT_EQ(store().get("bool"), StoreValue(false));
  EXPECT_EQ(store().get("integer"), StoreValue(std::int64_t{-9007199254740993}));
  EXPECT_EQ(store().get("double"), StoreValue(-0.5));
  EXPECT_EQ(store().get("text"), StoreValue("Grüße\n"));
  EXPECT_EQ(store().get("bytes"), StoreValue(Bytes{0, 0xFF, 0}));
  EXPECT_EQ(store().get("empty bytes"), StoreValue(Bytes{}));
  EXPECT_EQ(store().readDictionary("dictionary"), nested);
  store().set("text", 7);  // a key changes kind with its value
  EXPECT_EQ(store().get("text"), StoreValue(7));
  store().remove("text");
  store().remove("never set");
  EXPECT_EQ(store().get("text"), std::nullopt);
  EXPECT_TRUE(store().synchronize());
}

// Each typed reader on each kind of value, one line per value in
// testdata/golden/store-typed-reads.txt: bool, integer, string, bytes, dictionary.
TEST_P(KeyValueStores, TypedReadersFollowThePlatformConversions) {
  const std::pair<const char*, StoreValue> values[] = {{"true", true},
                                                       {"two", 2},
                                                       {"zero", 0},
                                                       {"fraction", 2.9},
                                                       {"negative", -2.9},
                                                       {"huge", 1e300},
                                                       {"lowest", -9223372036854775808.0},
                                                       {"yes", "yes"},
                                                       {"TRUE", "TRUE"},
                                                       {"one", "1"},
                                                       {"digits", "-42"},
                                                       {"words", "12 monkeys"},
                                                       {"bytes", Bytes{1}},
                                                       {"dictionary", StoreValue::Dictionary{}}};
  std::string all;
  for (const auto& [key, value] : values)
    store().set(key, value);
  for (const auto& key : {"true", "two", "zero", "fraction", "negative", "huge", "lowest", "yes",
                          "TRUE", "one", "digits", "words", "bytes", "dictionary", "missing"}) {
    const auto bytes = store().readBytes(key);
    const auto dictionary = store().readDictionary(key);
    all += std::string(key) + ": " + (store().readBool(key) ? "true " : "false ") +
           std::to_string(store().readInteger(key)) + " " +
           store().readString(key).value_or("(none)") + " " +
           (bytes ? std::to_string(bytes->size()) + " bytes" : "(none)") + " " +
           (dictionary ? std::to_string(dictionary->size()) + " entries" : "(none)") + "\n";
  }
  EXPECT_TRUE(testing::matchesGolden("store-typed-reads.txt", all));
}

TEST_P(KeyValueStores, ManyThreadsReadAndWriteAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const std::string own = "thread" + std::to_string(t);
      for (int i = 0; i < kRounds; ++i) {
        store().set(own, i);
        store().set("shared", StoreValue::Dictionary{{own, i}});
        if (store().readInteger(own) != i) ADD_FAILURE() << own << " lost write " << i;
        (void)store().readDictionary("shared");
        if (i % 50 == 0) store().synchronize();
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(store().readInteger("thread" + std::to_string(t)), kRounds - 1);
  }
  EXPECT_EQ(store().readDictionary("shared")->size(), 1U);
}

// The binary form of values takes exactly one whole value: every shorter prefix and any trailing
// byte are refused.
TEST(StoreValueCodec, DecodesOnlyWholeValues) {
  const StoreValue value = StoreValue::Dictionary{
      {"1", StoreValue::Dictionary{{"755", true}}}, {"text", "Grüße"}, {"bytes", Bytes{1, 2, 3}}};
  Bytes bytes = storeValueCodec::encode(value);
  EXPECT_EQ(storeValueCodec::decode(bytes), value);
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    const Bytes prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_EQ(storeValueCodec::decode(prefix), std::nullopt) << length;  // no read past its end
  }
  bytes.push_back(0);
  EXPECT_EQ(storeValueCodec::decode(bytes), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Stores, KeyValueStores, ::testing::Values("memory", "sqlite"),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace quillet
