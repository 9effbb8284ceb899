#include <functional>
#include <limits>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StoreValueCodec.h"

#include "support/TempDirectory.h"

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

TEST_P(KeyValueStores, TypedReadersFollowThePlatformConversions) {
  store().set("true", true);
  store().set("two", 2);
  store().set("zero", 0);
  store().set("fraction", 2.9);
  store().set("negative fraction", -2.9);
  store().set("huge", 1e300);
  store().set("lowest", -9223372036854775808.0);
  store().set("YES", "yes");
  store().set("True", "TRUE");
  store().set("one", "1");
  store().set("digits", "-42");
  store().set("words", "12 monkeys");
  store().set("bytes", Bytes{1});
  store().set("dictionary", StoreValue::Dictionary{});

  EXPECT_TRUE(store().readBool("true"));
  EXPECT_TRUE(store().readBool("two"));
  EXPECT_FALSE(store().readBool("zero"));
  EXPECT_TRUE(store().readBool("fraction"));
  EXPECT_TRUE(store().readBool("YES"));
  EXPECT_TRUE(store().readBool("True"));
  EXPECT_TRUE(store().readBool("one"));
  EXPECT_FALSE(store().readBool("digits"));
  EXPECT_FALSE(store().readBool("bytes"));
  EXPECT_FALSE(store().readBool("missing"));

  EXPECT_EQ(store().readInteger("two"), 2);
  EXPECT_EQ(store().readInteger("fraction"), 2);
  EXPECT_EQ(store().readInteger("negative fraction"), -2);
  EXPECT_EQ(store().readInteger("huge"), 0);
  EXPECT_EQ(store().readInteger("lowest"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(store().readInteger("true"), 1);
  EXPECT_EQ(store().readInteger("digits"), -42);
  EXPECT_EQ(store().readInteger("words"), 0);
  EXPECT_EQ(store().readInteger("dictionary"), 0);
  EXPECT_EQ(store().readInteger("missing"), 0);

  EXPECT_EQ(store().readString("words"), "12 monkeys");
  EXPECT_EQ(store().readString("two"), "2");
  EXPECT_EQ(store().readString("fraction"), "2.9");
  EXPECT_EQ(store().readString("true"), std::nullopt);
  EXPECT_EQ(store().readString("bytes"), std::nullopt);

  EXPECT_EQ(store().readBytes("bytes"), Bytes{1});
  EXPECT_EQ(store().readBytes("one"), std::nullopt);
  EXPECT_EQ(store().readDictionary("dictionary"), StoreValue::Dictionary{});
  EXPECT_EQ(store().readDictionary("bytes"), std::nullopt);
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
