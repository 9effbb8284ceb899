#include <chrono>
#include <csignal>
#include <fstream>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "quillet/storage/SqliteKeyValueStore.h"

#include "support/ChildProcess.h"
#include "support/RecordingLogSink.h"
#include "support/ScopedEnvironment.h"
#include "support/TempDirectory.h"

namespace quillet {
namespace {

using ::testing::HasSubstr;

// The store tool in a child process.
std::unique_ptr<testing::ChildProcess> storeTool(std::vector<std::string> args) {
  args.insert(args.begin(), QUILLET_STORE_TOOL);
  return std::make_unique<testing::ChildProcess>(std::move(args));
}

std::shared_ptr<SqliteKeyValueStore> openStore(const std::filesystem::path& path) {
  auto opened = SqliteKeyValueStore::open(path);
  EXPECT_TRUE(opened) << opened.error();
  return opened ? std::move(opened).value() : nullptr;
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

void execute(const std::filesystem::path& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

std::vector<std::filesystem::path> setAsideFiles(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> found;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().filename().string().find(".unusable-") != std::string::npos &&
        entry.path().filename().string().find("-wal") == std::string::npos &&
        entry.path().filename().string().find("-shm") == std::string::npos) {
      found.push_back(entry.path());
    }
  }
  return found;
}

TEST(SqliteKeyValueStore, ValuesSurviveARestartOfTheProcess) {
  const testing::TempDirectory directory;
  const auto path = directory / "nested" / "dirs" / "store.sqlite";
  ASSERT_EQ(storeTool({"write", path.string()})->finish().status, 0);

  const auto store = openStore(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->get("bool"), StoreValue(true));
  EXPECT_EQ(store->get("integer"), StoreValue(-42));
  EXPECT_EQ(store->get("double"), StoreValue(2.5));
  EXPECT_EQ(store->get("text"), StoreValue("Grüße"));
  EXPECT_EQ(store->get("bytes"), StoreValue(Bytes{0, 1, 255}));
  EXPECT_EQ(store->readDictionary("dictionary"),
            (StoreValue::Dictionary{{"1", StoreValue::Dictionary{{"755", true}}}}));

  // And the other way round, while this process keeps the store open.
  store->set("text", "from the test");
  const auto reader = storeTool({"get", path.string(), "text"})->finish();
  EXPECT_EQ(reader.out, "from the test\n");
  EXPECT_EQ(reader.status, 0);
}

TEST(SqliteKeyValueStore, AKillAtAnyMomentLosesNoSynchronisedWriteAndNeverCorrupts) {
  const testing::TempDirectory directory;
  const auto path = directory / "store.sqlite";
  std::mt19937 random(20261122);
  for (int round = 0; round < 200; ++round) {
    const auto hammer = storeTool({"hammer", path.string(), std::to_string(round)});
    // Kill at a random moment after a random number of synchronised writes, so that the test
    // does not depend on how fast this machine's disk is.
    ASSERT_TRUE(hammer->awaitLines(random() % 4)) << "round " << round;
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    hammer->kill();
    const auto ended = hammer->finish();
    const std::string& output = ended.out;
    EXPECT_EQ(ended.status, 128 + SIGKILL);

    // Every number printed was synchronised before it was printed.
    std::int64_t lastPrinted = 0;
    std::size_t start = 0;
    for (std::size_t end; (end = output.find('\n', start)) != std::string::npos; start = end + 1) {
      lastPrinted = std::stoll(output.substr(start, end - start));
    }
    if (!std::filesystem::exists(path)) {  // killed before it created the store
      ASSERT_EQ(lastPrinted, 0);
      continue;
    }
    ASSERT_EQ(integrityCheck(path), "ok") << "round " << round;
    const auto store = openStore(path);
    ASSERT_TRUE(store);
    const std::int64_t base = round * std::int64_t{1000000};
    for (std::int64_t i = 1; i <= lastPrinted; ++i) {
      ASSERT_EQ(store->readInteger("k" + std::to_string(i)), base + i) << "round " << round;
    }
    if (lastPrinted > 0) {
      EXPECT_GE(store->readInteger("last"), base + lastPrinted);
    }
  }
}

class StoreRecovery : public ::testing::Test {
 protected:
  // Opens the store at `path_`, which must start fresh after setting the old file aside.
  void expectSetAside(const std::string& reason) {
    const auto store = openStore(path_);
    ASSERT_TRUE(store);
    EXPECT_EQ(store->get("anything"), std::nullopt);
    store->set("fresh", true);
    EXPECT_TRUE(store->readBool("fresh"));
    ASSERT_EQ(setAsideFiles(directory_.path()).size(), 1U);
    ASSERT_EQ(log_.raw().size(), 1U);
    EXPECT_THAT(log_.raw()[0], HasSubstr("[ERROR] [QLT-CMP:KeyValueStore] The store at "));
    EXPECT_THAT(log_.raw()[0], HasSubstr(reason));
    EXPECT_THAT(log_.raw()[0], HasSubstr(setAsideFiles(directory_.path())[0].string()));
  }

  testing::TempDirectory directory_;
  std::filesystem::path path_ = directory_ / "store.sqlite";
  testing::LogCapture log_;
};

TEST_F(StoreRecovery, AGarbageFileIsSetAsideUnchanged) {
  std::string garbage(8192, '\0');
  std::mt19937 random(3);
  for (char& c : garbage)
    c = static_cast<char>(random());
  std::ofstream(path_, std::ios::binary) << garbage;
  expectSetAside("file is not a database");
  std::ifstream aside(setAsideFiles(directory_.path())[0], std::ios::binary);
  const std::string kept((std::istreambuf_iterator<char>(aside)), std::istreambuf_iterator<char>());
  EXPECT_EQ(kept, garbage);
}

TEST_F(StoreRecovery, AForeignDatabaseIsSetAside) {
  execute(path_, "CREATE TABLE contacts (name TEXT); INSERT INTO contacts VALUES ('Ada');");
  expectSetAside("not a QuilletSDK store");
}

TEST_F(StoreRecovery, ANewerSchemaIsSetAsideNotOverwritten) {
  openStore(path_)->set("kept", "by a newer version");
  execute(path_, "PRAGMA user_version = 2");
  expectSetAside("schema version 2 is newer than 1");
  auto aside = SqliteKeyValueStore::open(setAsideFiles(directory_.path())[0]);
  EXPECT_FALSE(aside.ok() && aside.value()->get("kept").has_value());  // still version 2
}

TEST_F(StoreRecovery, AnEmptyFileIsANewStore) {
  std::ofstream(path_).close();
  const auto store = openStore(path_);
  ASSERT_TRUE(store);
  store->set("x", 1);
  EXPECT_TRUE(setAsideFiles(directory_.path()).empty());
  EXPECT_TRUE(log_.raw().empty());
}

TEST_F(StoreRecovery, APathThatCannotHoldAStoreIsAnErrorNotACrash) {
  std::filesystem::create_directories(path_);  // a directory where the file should be
  const auto opened = SqliteKeyValueStore::open(path_);
  ASSERT_FALSE(opened);
  EXPECT_THAT(opened.error(), HasSubstr(path_.string()));
  std::ofstream(directory_ / "plain-file").close();
  EXPECT_FALSE(SqliteKeyValueStore::open(directory_ / "plain-file" / "store.sqlite"));
}

TEST(SqliteKeyValueStore, DefaultPathFollowsXdgDataHome) {
  testing::ScopedEnvironment dataHome("XDG_DATA_HOME", "/data/home");
  EXPECT_EQ(SqliteKeyValueStore::defaultPath(), "/data/home/quillet/store.sqlite");
  dataHome.set("relative/ignored");
  EXPECT_EQ(SqliteKeyValueStore::defaultPath().filename(), "store.sqlite");
  EXPECT_THAT(SqliteKeyValueStore::defaultPath().string(), HasSubstr("/.local/share/quillet/"));
}

}  // namespace
}  // namespace quillet
