#include <array>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <limits>
#include <numeric>
#include <random>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sqlite3.h>
#include <unistd.h>

#include "quillet/base/Platform.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"
#include "quillet/storage/StoreValueCodec.h"

#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/TestData.h"

namespace quillet {
namespace {

using ::testing::HasSubstr;

std::string shown(const StoreValue& value) {
  return std::visit(
      [](const auto& v) -> std::string {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool>) return v ? "true" : "false";
        if constexpr (std::is_same_v<T, std::int64_t>) return "int " + std::to_string(v);
        if constexpr (std::is_same_v<T, double>) {
          std::array<char, 32> text{};
          std::snprintf(text.data(), text.size(), "double %.15g", v);
          return text.data();
        }
        if constexpr (std::is_same_v<T, std::string>) return "\"" + v + "\"";
        if constexpr (std::is_same_v<T, Bytes>) {
          std::string out = "bytes";
          for (const auto byte : v)
            out += " " + std::to_string(byte);
          return out;
        }
        if constexpr (std::is_same_v<T, StoreValue::Dictionary>) {
          std::string out = "{";
          for (const auto& [key, inner] : v)
            out += (out.size() > 1 ? ", " : "") + key + ": " + shown(inner);
          return out + "}";
        }
      },
      value.variant());
}

// A key's value, then what each typed reader gives for it: bool, integer, string, bytes,
// dictionary.
std::string reads(const KeyValueStore& store, const std::string& key) {
  const auto value = store.get(key);
  const auto bytes = store.readBytes(key);
  const auto dictionary = store.readDictionary(key);
  return key + " = " + (value ? shown(*value) : "(none)") + ": " +
         (store.readBool(key) ? "true " : "false ") + std::to_string(store.readInteger(key)) + " " +
         store.readString(key).value_or("(none)") + " " + (bytes ? shown(*bytes) : "(none)") + " " +
         (dictionary ? shown(*dictionary) : "(none)") + "\n";
}

// Both stores behave the same behind the interface, and the SQLite one keeps it all in its file.
class Stores : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    reopen();
    Platform::install({.keyValueStore = store_});
  }
  void TearDown() override { Platform::install({}); }

  // The SQLite store closed and opened again; the memory store as it is.
  void reopen() {
    if (GetParam() == "memory") {
      if (!store_) store_ = std::make_shared<MemoryKeyValueStore>();
      return;
    }
    store_.reset();
    auto opened = SqliteKeyValueStore::open(directory_ / "store.sqlite");
    ASSERT_TRUE(opened) << opened.error();
    store_ = std::move(opened).value();
    Platform::install({.keyValueStore = store_});
  }

  testing::TempDirectory directory_;
  std::shared_ptr<KeyValueStore> store_;
};

// Every kind of value, read back after a reopen by every typed reader, in
// testdata/golden/store-typed-reads.txt.
TEST_P(Stores, EveryValueAndEveryTypedReadIsItsGoldenLine) {
  const std::pair<const char*, StoreValue> values[] = {
      {"true", true},
      {"false", false},
      {"two", 2},
      {"zero", 0},
      {"integer", std::int64_t{-9007199254740993}},
      {"fraction", 2.9},
      {"negative", -2.9},
      {"huge", 1e300},
      {"lowest", -9223372036854775808.0},
      {"yes", "yes"},
      {"TRUE", "TRUE"},
      {"one", "1"},
      {"digits", "-42"},
      {"words", "12 monkeys"},
      {"text", "Grüße\n"},
      {"bytes", Bytes{0, 0xFF, 0}},
      {"empty bytes", Bytes{}},
      {"dictionary",
       StoreValue::Dictionary{{"1", StoreValue::Dictionary{{"755", true}, {"8", false}}},
                              {"2", StoreValue::Dictionary{}},
                              {"bytes", Bytes{1, 2}},
                              {"number", 1.25}}}};
  for (const auto& [key, value] : values)
    store_->set(key, value);
  store_->set("text", 7);  // a key changes kind with its value
  store_->set("gone", 1);
  store_->remove("gone");
  store_->remove("never set");
  EXPECT_TRUE(store_->synchronize());
  reopen();
  std::string all;
  for (const auto& [key, value] : values)
    all += reads(*store_, key);
  EXPECT_TRUE(testing::matchesGolden("store-typed-reads.txt", all + reads(*store_, "gone")));
}

TEST_P(Stores, ManyThreadsReadAndWriteAtOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      const std::string own = "thread" + std::to_string(t);
      for (int i = 0; i < 200; ++i) {
        store_->set(own, i);
        store_->set("shared", StoreValue::Dictionary{{own, i}});
        if (store_->readInteger(own) != i) ADD_FAILURE() << own << " lost write " << i;
        (void)store_->readDictionary("shared");
        if (i % 50 == 0) store_->synchronize();
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  for (int t = 0; t < 4; ++t)
    EXPECT_EQ(store_->readInteger("thread" + std::to_string(t)), 199);
  EXPECT_EQ(store_->readDictionary("shared")->size(), 1U);
}

// What the consent keys read as after each step, and how often it asked the store to persist,
// in testdata/golden/consent-storage.txt.
TEST_P(Stores, ConsentStorageWalk) {
  const auto gvl = testing::jsonObject(testing::testdataText("gvl-v3-106.json"));
  std::string all;
  const auto step = [&](const std::string& name, const std::function<void()>& action) {
    const auto counted = std::make_shared<testing::CountingStore>(store_);
    Platform::install({.keyValueStore = counted});
    action();
    reopen();
    const auto loaded = ConsentStorage::loadGVL();
    all += name + ", persisted " + std::to_string(counted->synchronized) + "\n  consent " +
           std::to_string(ConsentStorage::getConsent()) + " string " +
           ConsentStorage::getTCString().value_or("(none)") + " list " +
           (!loaded          ? "(none)"
            : *loaded == gvl ? "the saved list"
                             : Json::print(*loaded)) +
           " versions " + std::to_string(ConsentStorage::getConfigVersion()) + " " +
           std::to_string(ConsentStorage::getVendorListVersion()) + "\n  " +
           reads(*store_, std::string(StorageKeys::deviceId)) + "  " +
           reads(*store_, std::string(StorageKeys::specialFeatureMasterStates));
  };
  step("no consent, a string", [] { ConsentStorage::saveConsent(false, "CQ-old"); });
  step("consent without a string", [] { ConsentStorage::saveConsent(true, std::nullopt); });
  step("values of the wrong kind", [&] {
    store_->set(StorageKeys::tcString, 5);
    store_->set(StorageKeys::consent, "YES");
  });
  step("the real vendor list", [&] { ConsentStorage::saveGVL(gvl); });
  step("a list JSON cannot represent", [] {
    ConsentStorage::saveGVL(
        boost::json::object{{"vendorListVersion", std::numeric_limits<double>::infinity()}});
  });
  step("bytes that are not JSON", [&] { store_->set(StorageKeys::gvlJson, Bytes{'{', 'x'}); });
  step("JSON that is not an object", [&] { store_->set(StorageKeys::gvlJson, Bytes{'[', ']'}); });
  step("text, not bytes", [&] { store_->set(StorageKeys::gvlJson, "{}"); });
  step("everything", [&] {
    ConsentStorage::saveConsent(true, "CQ");
    ConsentStorage::saveGVL(
        boost::json::object{{"vendorListVersion", 106}, {"stacks", boost::json::object{{"1", 2}}}});
    ConsentStorage::setConfigVersion(7);
    ConsentStorage::setVendorListVersion(106);
    store_->set(StorageKeys::deviceId, "8E3B6C5E-0000-4000-8000-000000000000");
    store_->set(StorageKeys::specialFeatureMasterStates, StoreValue::Dictionary{{"1", true}});
  });
  step("reset: the device and the special features stay", [] { ConsentStorage::resetConsent(); });
  EXPECT_TRUE(testing::matchesGolden("consent-storage.txt", all));
}

// The stored list is read again only when its bytes may have changed since it was last found, or
// when the store is another one.
TEST_P(Stores, TheStoredListIsReadAgainOnlyAfterItMayHaveChanged) {
  auto counted = std::make_shared<testing::CountingStore>(store_);
  const auto act = [&](std::string_view step) {
    const auto bytes = [](std::string_view text) { return Bytes(text.begin(), text.end()); };
    if (step.starts_with("store ") || step.starts_with("load ")) {
      store_->set(StorageKeys::gvlJson, bytes(step.substr(step.find(' ') + 1)));
    }
    if (step == "another key") store_->set(StorageKeys::consent, true);
    if (step == "remove") store_->remove(StorageKeys::gvlJson);
    if (step == "reopen") reopen(), counted = std::make_shared<testing::CountingStore>(store_);
    if (step == "another connection stores []") {
      SqliteKeyValueStore::open(directory_ / "store.sqlite")
          .value()
          ->set(StorageKeys::gvlJson, bytes("[]"));
    }
    Platform::install({.keyValueStore = counted});
    EXPECT_TRUE(!step.starts_with("load ") || ConsentStorage::loadGVL());
  };
  // A step, then whether a list is found, and whether that read the stored bytes.
  const std::tuple<std::string, bool, bool> rows[] = {
      {"", false, true},
      {"store {}", true, true},
      {"", true, false},
      {"another key", true, false},
      {"store []", false, true},
      {"", false, true},
      {"load {\"a\":1}", true, false},
      {"remove", false, true},
      {"store {}", true, true},
      {"reopen", true, true},
      {"another connection stores []", false, true}};
  for (const auto& [step, found, read] : rows) {
    SCOPED_TRACE(step);
    if (step.starts_with("another connection") && GetParam() == "memory") break;
    act(step);
    counted->piecewiseReads = 0;
    EXPECT_EQ(ConsentStorage::hasGVL(), found);
    EXPECT_EQ(counted->piecewiseReads > 0, read);
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Stores, ::testing::Values("memory", "sqlite"),
                         [](const auto& info) { return info.param; });

// The binary form of values takes exactly one whole value, nested at most 64 deep: every shorter
// prefix, any trailing byte and deeper nesting are refused.
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
  Bytes two = storeValueCodec::encode(true);  // a flag is 0 or 1
  two.back() = 2;
  EXPECT_EQ(storeValueCodec::decode(two), std::nullopt);
  // Dictionaries nested 64 deep are read; one more level is refused.
  StoreValue nested = true;
  for (int depth = 1; depth <= 65; ++depth) {
    nested = StoreValue::Dictionary{{"k", nested}};
    if (depth < 64) continue;
    EXPECT_EQ(storeValueCodec::decode(storeValueCodec::encode(nested)),
              depth == 64 ? std::optional(nested) : std::nullopt)
        << depth;
  }
}

std::string integrityCheck(const std::filesystem::path& path) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  std::string result;
  sqlite3_exec(
      db, "PRAGMA integrity_check",
      [](void* out, int, char** values, char**) {
        static_cast<std::string*>(out)->append(values[0] != nullptr ? values[0] : "");
        return 0;
      },
      &result, nullptr);
  sqlite3_close(db);
  return result;
}

TEST(SqliteKeyValueStore, AKillAtAnyMomentLosesNoSynchronisedWriteAndNeverCorrupts) {
  const testing::TempDirectory directory;
  const auto path = directory / "store.sqlite";
  std::mt19937 random(20261122);
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    testing::ChildProcess hammer({QUILLET_STORE_TOOL, path.string(), std::to_string(round)});
    // Killed at a random moment after a random number of synchronised writes, so that the test
    // does not depend on how fast this machine's disk is.
    ASSERT_TRUE(hammer.awaitLines(random() % 4));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    hammer.kill();
    const auto ended = hammer.finish();
    EXPECT_EQ(ended.status, 128 + SIGKILL);
    // Every number printed was synchronised before it was printed.
    std::int64_t printed = 0;
    std::istringstream lines(ended.out);
    for (std::string line; std::getline(lines, line);)
      printed = std::stoll(line);
    if (!std::filesystem::exists(path)) {  // killed before it created the store
      ASSERT_EQ(printed, 0);
      continue;
    }
    ASSERT_EQ(integrityCheck(path), "ok");
    const auto store = SqliteKeyValueStore::open(path).value();
    const std::int64_t base = round * std::int64_t{1000000};
    for (std::int64_t i = 1; i <= printed; ++i)
      ASSERT_EQ(store->readInteger("k" + std::to_string(i)), base + i);
    EXPECT_GE(store->readInteger("last"), printed > 0 ? base + printed : 0);
  }
}

void execute(const std::filesystem::path& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

// Bytes are read whole, or in pieces, from however many pages they span; a row whose value does
// not have its kind's type reads as nothing and is logged, and the read after it is unharmed.
TEST(SqliteKeyValueStore, BytesSpanningPagesAreReadWholeOrInPiecesAndAMismatchedRowIsDamaged) {
  const testing::TempDirectory directory;
  const auto path = directory / "store.sqlite";
  Bytes large(300000);
  std::mt19937 random(7);
  for (auto& byte : large)
    byte = static_cast<std::uint8_t>(random());
  SqliteKeyValueStore::open(path).value()->set("large", large);
  execute(path,
          "INSERT INTO kv (key, kind, value) VALUES ('text', 4, 'x'), ('number', 4, 5), "
          "('empty', 4, zeroblob(0)), ('none', 4, NULL)");
  const auto store = SqliteKeyValueStore::open(path).value();
  const testing::LogCapture log;
  EXPECT_EQ(store->get("text"), std::nullopt);
  EXPECT_EQ(store->get("number"), std::nullopt);
  EXPECT_EQ(store->readBytes("empty"), Bytes{});
  EXPECT_EQ(store->readBytes("none"), Bytes{});
  EXPECT_EQ(store->readBytes("large"), large);
  // Only stored bytes have a size to tell.
  EXPECT_EQ(
      std::tuple(store->byteCount("large"), store->byteCount("empty"), store->byteCount("text")),
      std::tuple(std::optional<std::size_t>(300000), std::optional<std::size_t>(0), std::nullopt));
  // In pieces, in order; the sink can stop the read.
  const auto inPieces = [&](std::string_view key, std::size_t stopAfter) {
    std::vector<Bytes> pieces;
    const bool whole = store->readBytesInPieces(key, [&](std::span<const std::uint8_t> piece) {
      pieces.emplace_back(piece.begin(), piece.end());
      return pieces.size() < stopAfter;
    });
    return std::pair(whole, pieces);
  };
  const auto [whole, pieces] = inPieces("large", 100);
  EXPECT_TRUE(whole);
  EXPECT_GT(pieces.size(), 1U);
  EXPECT_EQ(std::accumulate(pieces.begin(), pieces.end(), Bytes{},
                            [](Bytes all, const Bytes& piece) {
                              all.insert(all.end(), piece.begin(), piece.end());
                              return all;
                            }),
            large);
  EXPECT_EQ(inPieces("large", 2).second.size(), 2U);
  EXPECT_FALSE(inPieces("large", 2).first);
  EXPECT_EQ(inPieces("none", 100), std::pair(true, std::vector<Bytes>{Bytes{}}));
  EXPECT_EQ(inPieces("missing", 100), std::pair(false, std::vector<Bytes>{}));
  EXPECT_FALSE(inPieces("text", 100).first);
  store->remove("number");  // a removal that works logs nothing
  EXPECT_THAT(log.lines(),
              ::testing::ElementsAre(
                  "[ERROR] [QLT-CMP:KeyValueStore] the value under \"text\" is damaged",
                  "[ERROR] [QLT-CMP:KeyValueStore] the value under \"number\" is damaged",
                  "[ERROR] [QLT-CMP:KeyValueStore] the value under \"text\" is damaged"));
  // The store is not locked while a piece is handed on; a write to the key being read ends the
  // read with an error.
  int handed = 0;
  EXPECT_FALSE(store->readBytesInPieces("large", [&](std::span<const std::uint8_t>) {
    store->set("other", ++handed);
    if (handed == 2) store->set("large", Bytes{1});
    return true;
  }));
  EXPECT_EQ(handed, 2);
  EXPECT_EQ(store->readBytes("large"), Bytes{1});
  EXPECT_THAT(log.lines().back(), HasSubstr("reading \"large\": "));
}

// A file that is not a usable store is set aside unchanged, with an error logged, and a new store
// starts in its place; an empty file is a new store.
TEST(SqliteKeyValueStore, AnUnusableFileIsSetAsideAndANewStoreStarts) {
  std::string garbage(8192, '\0');
  std::mt19937 random(3);
  for (char& c : garbage)
    c = static_cast<char>(random());
  sqlite3* held = nullptr;
  const std::pair<std::function<void(const std::filesystem::path&)>, std::string> rows[] = {
      {[&](const auto& path) { std::ofstream(path, std::ios::binary) << garbage; },
       "file is not a database"},
      // Another connection keeps the database's WAL beside it.
      {[&](const auto& path) {
         sqlite3_open(path.c_str(), &held);
         sqlite3_exec(held, "PRAGMA journal_mode=WAL; CREATE TABLE c (n);", nullptr, nullptr,
                      nullptr);
       },
       "not a QuilletSDK store"},
      {[](const auto& path) {
         SqliteKeyValueStore::open(path).value()->set("kept", "by a newer version");
         execute(path, "PRAGMA user_version = 2");
       },
       "schema version 2 is newer than 1"},
      {[](const auto& path) { std::ofstream(path).close(); }, ""},
  };
  for (const auto& [prepare, reason] : rows) {
    SCOPED_TRACE(reason);
    const testing::TempDirectory directory;
    const auto path = directory / "store.sqlite";
    prepare(path);
    const std::string old = testing::fileText(path);
    const testing::LogCapture log;
    const auto store = SqliteKeyValueStore::open(path).value();
    EXPECT_EQ(store->get("kept"), std::nullopt);
    store->set("fresh", true);
    EXPECT_TRUE(store->readBool("fresh"));
    std::vector<std::filesystem::path> aside;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
      const auto name = entry.path().filename().string();
      if (name.find(".unusable-") != std::string::npos && !name.ends_with("-wal") &&
          !name.ends_with("-shm"))
        aside.push_back(entry.path());
    }
    ASSERT_EQ(aside.size(), reason.empty() ? 0U : 1U);
    ASSERT_EQ(log.raw().size(), aside.size());
    if (reason.empty()) continue;
    EXPECT_THAT(log.raw()[0], HasSubstr("[ERROR] [QLT-CMP:KeyValueStore] The store at "));
    EXPECT_THAT(log.raw()[0], HasSubstr(reason));
    EXPECT_THAT(log.raw()[0], HasSubstr(aside[0].string()));
    EXPECT_EQ(testing::fileText(aside[0]), old);
    // The companions go with their file.
    EXPECT_EQ(std::filesystem::exists(aside[0].string() + "-wal"), held != nullptr);
    sqlite3_close(held);
    held = nullptr;
  }
}

TEST(SqliteKeyValueStore, APathThatCannotHoldAStoreIsAnErrorNotACrash) {
  const testing::TempDirectory directory;
  std::filesystem::create_directories(directory / "store.sqlite");  // a folder where the file goes
  const auto opened = SqliteKeyValueStore::open(directory / "store.sqlite");
  ASSERT_FALSE(opened);
  EXPECT_THAT(opened.error(), HasSubstr((directory / "store.sqlite").string()));
  std::ofstream(directory / "plain-file").close();
  EXPECT_FALSE(SqliteKeyValueStore::open(directory / "plain-file" / "store.sqlite"));
}

// The default store is opened on first use under XDG_DATA_HOME (an absolute one), else under
// HOME, else the user's home; installing a platform again opens it anew.
TEST(SqliteKeyValueStore, TheDefaultPathFollowsXdgDataHomeThenHome) {
  const testing::TempDirectory home;
  testing::ScopedEnvironment dataHome("XDG_DATA_HOME", home.path().string());
  EXPECT_EQ(SqliteKeyValueStore::defaultPath(), home / "quillet/store.sqlite");
  Platform::install({});
  ConsentStorage::saveConsent(true, "CQ-default");
  EXPECT_TRUE(std::filesystem::exists(home / "quillet/store.sqlite"));
  Platform::install({});  // a fresh open of the same file
  EXPECT_EQ(ConsentStorage::getTCString(), "CQ-default");
  dataHome.set((home / "moved").string());
  Platform::install({});
  EXPECT_EQ(ConsentStorage::getTCString(), std::nullopt);
  dataHome.set("relative/ignored");
  testing::ScopedEnvironment userHome("HOME", home.path().string());
  EXPECT_EQ(SqliteKeyValueStore::defaultPath(), home / ".local/share/quillet/store.sqlite");
  userHome.set("");
  EXPECT_EQ(SqliteKeyValueStore::defaultPath(), std::filesystem::path(getpwuid(getuid())->pw_dir) /
                                                    ".local/share/quillet/store.sqlite");
  Platform::install({});
}

}  // namespace
}  // namespace quillet
