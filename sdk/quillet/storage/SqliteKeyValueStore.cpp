#include "quillet/storage/SqliteKeyValueStore.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <map>
#include <variant>

#include <pwd.h>
#include <sqlite3.h>
#include <unistd.h>

#include "quillet/base/QltLog.h"
#include "quillet/storage/StoreValueCodec.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "KeyValueStore";
constexpr int kApplicationId = 0x514C5453;  // "QLTS" in the database header
constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 5000;

// How a value is kept: the kind column says which StoreValue alternative the value column holds.
enum Kind : int { kBool = 0, kInteger = 1, kDouble = 2, kText = 3, kBytes = 4, kDictionary = 5 };

constexpr const char* kCreateSchema = R"sql(
BEGIN;
CREATE TABLE kv (key TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value);
CREATE TABLE sync (id INTEGER PRIMARY KEY, generation INTEGER NOT NULL);
PRAGMA application_id = 1363956819;
PRAGMA user_version = 1;
COMMIT;
)sql";
static_assert(kApplicationId == 1363956819);

struct DatabaseCloser {
  void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
};
struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
struct BlobCloser {
  void operator()(sqlite3_blob* blob) const noexcept { sqlite3_blob_close(blob); }
};
using Database = std::unique_ptr<sqlite3, DatabaseCloser>;
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;
using Blob = std::unique_ptr<sqlite3_blob, BlobCloser>;

std::string describe(sqlite3* db, int code) {
  return std::string(sqlite3_errstr(code)) +
         (db != nullptr ? std::string(" (") + sqlite3_errmsg(db) + ")" : "");
}

// Where the bytes stored under `key` as a blob are: their row and length; nothing for any other
// value and for none. `place` is the statement that asks. Leaves it reset.
struct BlobPlace {
  sqlite3_int64 row;
  std::size_t size;
};
constexpr const char* kPlaceOfBlob =
    "SELECT rowid, length(value) FROM kv WHERE key = ?1 AND kind = 4 AND typeof(value) = 'blob'";
static_assert(kBytes == 4);  // as written in that statement
std::optional<BlobPlace> placeOfBlob(sqlite3_stmt* place, std::string_view key) {
  std::optional<BlobPlace> found;
  sqlite3_bind_text(place, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  if (sqlite3_step(place) == SQLITE_ROW) {
    found = BlobPlace{sqlite3_column_int64(place, 0),
                      static_cast<std::size_t>(sqlite3_column_int64(place, 1))};
  }
  sqlite3_reset(place);
  sqlite3_clear_bindings(place);
  return found;
}

bool unusableFile(int code) {
  const int primary = code & 0xFF;
  return primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT;
}

// What opening found: a connection ready to use, a file that is not a usable store, or a
// failure that setting the file aside would not cure.
struct Opened {
  Database db;
};
struct Unusable {
  std::string reason;
};
struct Failed {
  std::string error;
};
using OpenOutcome = std::variant<Opened, Unusable, Failed>;

OpenOutcome classify(sqlite3* db, int code, std::string_view doing) {
  if (unusableFile(code)) return Unusable{describe(db, code)};
  return Failed{std::string(doing) + ": " + describe(db, code)};
}

// Runs a statement that returns at most one integer; nothing on error (the code in `code`).
std::optional<std::int64_t> queryInteger(sqlite3* db, const char* sql, int& code) {
  sqlite3_stmt* raw = nullptr;
  code = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  Statement statement(raw);
  if (code != SQLITE_OK) return std::nullopt;
  code = sqlite3_step(statement.get());
  if (code == SQLITE_ROW) {
    code = SQLITE_OK;
    return sqlite3_column_int64(statement.get(), 0);
  }
  if (code == SQLITE_DONE) code = SQLITE_OK;
  return code == SQLITE_OK ? std::optional<std::int64_t>(0) : std::nullopt;
}

OpenOutcome openDatabase(const std::filesystem::path& path) {
  sqlite3* raw = nullptr;
  int code =
      sqlite3_open_v2(path.c_str(), &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  Database db(raw);
  if (code != SQLITE_OK) return classify(db.get(), code, "opening");
  sqlite3_extended_result_codes(db.get(), 1);
  sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);

  // The first read of the file: a file that is not a database fails here.
  const auto tables = queryInteger(db.get(), "SELECT count(*) FROM sqlite_master", code);
  if (!tables) return classify(db.get(), code, "reading the schema");
  const auto applicationId = queryInteger(db.get(), "PRAGMA application_id", code);
  if (!applicationId) return classify(db.get(), code, "reading the application id");
  const auto version = queryInteger(db.get(), "PRAGMA user_version", code);
  if (!version) return classify(db.get(), code, "reading the schema version");

  if (*tables == 0 && *applicationId == 0 && *version == 0) {
    // A new (or empty) file: journal mode first, then the schema.
    if (!queryInteger(db.get(), "PRAGMA journal_mode = WAL", code)) {
      return classify(db.get(), code, "switching to WAL");
    }
    code = sqlite3_exec(db.get(), kCreateSchema, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) {
      sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
      return classify(db.get(), code, "creating the schema");
    }
  } else if (*applicationId != kApplicationId) {
    return Unusable{"not a QuilletSDK store (application id " + std::to_string(*applicationId) +
                    ", " + std::to_string(*tables) + " tables)"};
  } else if (*version > kSchemaVersion) {
    return Unusable{"schema version " + std::to_string(*version) + " is newer than " +
                    std::to_string(kSchemaVersion)};
  } else if (*version < kSchemaVersion) {
    return Unusable{"unknown schema version " + std::to_string(*version)};
  } else if (!queryInteger(db.get(), "PRAGMA journal_mode = WAL", code)) {
    return classify(db.get(), code, "switching to WAL");
  }
  if (!queryInteger(db.get(), "PRAGMA synchronous = NORMAL", code)) {
    return classify(db.get(), code, "setting synchronous");
  }
  return Opened{std::move(db)};
}

std::string utcStamp() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::array<char, 32> text{};
  return std::string(text.data(), std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc));
}

// Moves the file and its WAL and shared-memory companions to "<path>.unusable-<UTC time>", with a
// counter when that name is taken. Returns the new path, or nothing when renaming failed.
std::optional<std::filesystem::path> setAside(const std::filesystem::path& path) {
  const std::string base = path.string() + ".unusable-" + utcStamp();
  std::filesystem::path aside = base;
  std::error_code error;
  for (int n = 1; std::filesystem::exists(aside, error); ++n) {
    aside = base + "-" + std::to_string(n);
  }
  std::filesystem::rename(path, aside, error);
  if (error) return std::nullopt;
  for (const char* suffix : {"-wal", "-shm"}) {
    const std::filesystem::path companion = path.string() + suffix;
    if (std::filesystem::exists(companion, error)) {
      std::filesystem::rename(companion, aside.string() + suffix, error);
    }
  }
  return aside;
}

}  // namespace

struct SqliteKeyValueStore::Connection {
  Database db;  // declared first: closed after the statements are finalised
  Statement select;
  Statement placeOfBlob;
  Statement upsert;
  Statement erase;
  Statement touch;
  Statement dataVersion;
  // Revisions: each of this connection's writes takes the next number for its key; a change by
  // another connection, seen as a new data version, takes the next number for every key.
  std::uint64_t writes = 0;
  std::uint64_t foreignChange = 0;
  std::optional<std::int64_t> seenDataVersion;
  std::map<std::string, std::uint64_t, std::less<>> written;

  void wrote(std::string_view key) { written.insert_or_assign(std::string(key), ++writes); }
};

std::filesystem::path SqliteKeyValueStore::defaultPath() {
  // The library only reads the environment; the host must not change it while it runs.
  // NOLINTNEXTLINE(concurrency-mt-unsafe)
  if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && data[0] == '/') {
    return std::filesystem::path(data) / "quillet" / "store.sqlite";
  }
  std::filesystem::path home;
  // NOLINTNEXTLINE(concurrency-mt-unsafe)
  if (const char* value = std::getenv("HOME"); value != nullptr && value[0] != '\0') {
    home = value;
  } else if (const passwd* entry = getpwuid(getuid());  // NOLINT(concurrency-mt-unsafe)
             entry != nullptr && entry->pw_dir != nullptr) {
    home = entry->pw_dir;
  } else {
    home = std::filesystem::temp_directory_path();
  }
  return home / ".local" / "share" / "quillet" / "store.sqlite";
}

Result<std::shared_ptr<SqliteKeyValueStore>> SqliteKeyValueStore::open(
    const std::filesystem::path& path) {
  std::error_code error;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
  if (error) {
    return Failure{"cannot create " + path.parent_path().string() + ": " + error.message()};
  }
  for (int attempt = 0;; ++attempt) {
    OpenOutcome outcome = openDatabase(path);
    if (auto* failed = std::get_if<Failed>(&outcome)) {
      return Failure{"cannot open the store at " + path.string() + ": " + failed->error};
    }
    if (auto* unusable = std::get_if<Unusable>(&outcome)) {
      // The connection that found the file unusable is already closed.
      const std::string reason = unusable->reason;
      const auto aside = attempt == 0 ? setAside(path) : std::nullopt;
      if (!aside) {
        return Failure{"the store at " + path.string() + " is not usable (" + reason +
                       ") and could not be set aside"};
      }
      QltLog::e(kTag, [&] {
        return "The store at " + path.string() + " is not usable (" + reason + "); moved it to " +
               aside->string() + " and started a fresh store";
      });
      continue;
    }
    auto connection = std::make_unique<Connection>();
    connection->db = std::move(std::get<Opened>(outcome).db);
    sqlite3* db = connection->db.get();
    const auto prepare = [db](const char* sql, Statement& statement) {
      sqlite3_stmt* raw = nullptr;
      const int code = sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &raw, nullptr);
      statement.reset(raw);
      return code;
    };
    for (const auto& [sql, statement] :
         {std::pair<const char*, Statement*>{"SELECT kind, value FROM kv WHERE key = ?1",
                                             &connection->select},
          {kPlaceOfBlob, &connection->placeOfBlob},
          {"INSERT INTO kv (key, kind, value) VALUES (?1, ?2, ?3) ON CONFLICT (key) DO UPDATE "
           "SET kind = excluded.kind, value = excluded.value",
           &connection->upsert},
          {"DELETE FROM kv WHERE key = ?1", &connection->erase},
          {"INSERT INTO sync (id, generation) VALUES (1, 1) ON CONFLICT (id) DO UPDATE SET "
           "generation = generation + 1",
           &connection->touch},
          {"PRAGMA data_version", &connection->dataVersion}}) {
      if (const int code = prepare(sql, *statement); code != SQLITE_OK) {
        return Failure{"cannot prepare the store at " + path.string() + ": " + describe(db, code)};
      }
    }
    return std::shared_ptr<SqliteKeyValueStore>(
        new SqliteKeyValueStore(path, std::move(connection)));
  }
}

SqliteKeyValueStore::SqliteKeyValueStore(std::filesystem::path path,
                                         std::unique_ptr<Connection> connection)
    : path_(std::move(path)), connection_(std::move(connection)) {}

SqliteKeyValueStore::~SqliteKeyValueStore() = default;

std::optional<StoreValue> SqliteKeyValueStore::get(std::string_view key) const {
  std::optional<StoreValue> value;
  std::string problem;
  {
    std::lock_guard lock(mutex_);
    sqlite3_stmt* select = connection_->select.get();
    sqlite3_bind_text(select, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    const int code = sqlite3_step(select);
    if (code == SQLITE_ROW) {
      const int kind = sqlite3_column_int(select, 0);
      const int type = sqlite3_column_type(select, 1);
      const auto* blob = static_cast<const std::uint8_t*>(sqlite3_column_blob(select, 1));
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(select, 1));
      switch (kind) {
        case kBool:
          if (type == SQLITE_INTEGER) value.emplace(sqlite3_column_int64(select, 1) != 0);
          break;
        case kInteger:
          if (type == SQLITE_INTEGER) value.emplace(sqlite3_column_int64(select, 1));
          break;
        case kDouble:
          if (type == SQLITE_FLOAT || type == SQLITE_INTEGER) {
            value.emplace(sqlite3_column_double(select, 1));
          } else if (type == SQLITE_BLOB && size == 8) {
            std::array<std::uint8_t, 8> bits{};
            std::copy(blob, blob + 8, bits.begin());
            value.emplace(std::bit_cast<double>(bits));
          }
          break;
        case kText:
          if (type == SQLITE_TEXT) {
            value.emplace(std::string(reinterpret_cast<const char*>(sqlite3_column_text(select, 1)),
                                      static_cast<std::size_t>(sqlite3_column_bytes(select, 1))));
          }
          break;
        case kBytes:
          if (type == SQLITE_BLOB || type == SQLITE_NULL) {
            value.emplace(Bytes(blob, blob + size));
          }
          break;
        case kDictionary:
          if (type == SQLITE_BLOB) value = storeValueCodec::decode({blob, size});
          break;
        default:
          break;
      }
      if (!value) problem = "the value under \"" + std::string(key) + "\" is damaged";
    } else if (code != SQLITE_DONE) {
      problem = "reading \"" + std::string(key) + "\": " + describe(connection_->db.get(), code);
    }
    sqlite3_reset(select);
    sqlite3_clear_bindings(select);
  }
  if (!problem.empty()) QltLog::e(kTag, problem);
  return value;
}

void SqliteKeyValueStore::set(std::string_view key, StoreValue value) {
  std::string problem;
  {
    std::lock_guard lock(mutex_);
    sqlite3_stmt* upsert = connection_->upsert.get();
    sqlite3_bind_text(upsert, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    Bytes encoded;
    std::array<std::uint8_t, 8> nanBits{};
    std::visit(
        [&](const auto& v) {
          using T = std::decay_t<decltype(v)>;
          if constexpr (std::is_same_v<T, bool>) {
            sqlite3_bind_int(upsert, 2, kBool);
            sqlite3_bind_int(upsert, 3, v ? 1 : 0);
          } else if constexpr (std::is_same_v<T, std::int64_t>) {
            sqlite3_bind_int(upsert, 2, kInteger);
            sqlite3_bind_int64(upsert, 3, v);
          } else if constexpr (std::is_same_v<T, double>) {
            sqlite3_bind_int(upsert, 2, kDouble);
            if (std::isnan(v)) {
              // SQLite stores a NaN as NULL: keep its 8 bytes instead.
              nanBits = std::bit_cast<std::array<std::uint8_t, 8>>(v);
              sqlite3_bind_blob(upsert, 3, nanBits.data(), 8, SQLITE_STATIC);
            } else {
              sqlite3_bind_double(upsert, 3, v);
            }
          } else if constexpr (std::is_same_v<T, std::string>) {
            sqlite3_bind_int(upsert, 2, kText);
            sqlite3_bind_text64(upsert, 3, v.data(), v.size(), SQLITE_STATIC, SQLITE_UTF8);
          } else if constexpr (std::is_same_v<T, Bytes>) {
            sqlite3_bind_int(upsert, 2, kBytes);
            sqlite3_bind_blob64(upsert, 3, v.data(), v.size(), SQLITE_STATIC);
          } else {
            encoded = storeValueCodec::encode(value);
            sqlite3_bind_int(upsert, 2, kDictionary);
            sqlite3_bind_blob64(upsert, 3, encoded.data(), encoded.size(), SQLITE_STATIC);
          }
        },
        value.variant());
    const int code = sqlite3_step(upsert);
    if (code != SQLITE_DONE) {
      problem = "writing \"" + std::string(key) + "\": " + describe(connection_->db.get(), code);
    }
    sqlite3_reset(upsert);
    sqlite3_clear_bindings(upsert);
    connection_->wrote(key);
  }
  if (!problem.empty()) QltLog::e(kTag, problem);
}

void SqliteKeyValueStore::remove(std::string_view key) {
  std::string problem;
  {
    std::lock_guard lock(mutex_);
    sqlite3_stmt* erase = connection_->erase.get();
    sqlite3_bind_text(erase, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    const int code = sqlite3_step(erase);
    if (code != SQLITE_DONE) {
      problem = "removing \"" + std::string(key) + "\": " + describe(connection_->db.get(), code);
    }
    sqlite3_reset(erase);
    sqlite3_clear_bindings(erase);
    connection_->wrote(key);
  }
  if (!problem.empty()) QltLog::e(kTag, problem);
}

bool SqliteKeyValueStore::readBytesInPieces(
    std::string_view key, const std::function<bool(std::span<const std::uint8_t>)>& sink) const {
  constexpr std::size_t kPiece = std::size_t{64} * 1024;
  std::unique_lock lock(mutex_);
  const auto place = placeOfBlob(connection_->placeOfBlob.get(), key);
  if (!place) {
    // Empty, damaged or missing: as every other read sees it.
    lock.unlock();
    return KeyValueStore::readBytesInPieces(key, sink);
  }
  // The store stays usable while a piece is handed on: the lock is let go for the call. A write
  // to this key in between ends the read with an error.
  struct Relock {
    std::unique_lock<std::mutex>& lock;
    ~Relock() { lock.lock(); }
  };
  sqlite3* db = connection_->db.get();
  sqlite3_blob* raw = nullptr;
  int code = sqlite3_blob_open(db, "main", "kv", "value", place->row, 0, &raw);
  Blob blob(raw);
  std::vector<std::uint8_t> piece(std::min(place->size, kPiece));
  bool handed = true;
  for (std::size_t at = 0; code == SQLITE_OK && handed && at < place->size; at += piece.size()) {
    piece.resize(std::min(kPiece, place->size - at));
    code = sqlite3_blob_read(blob.get(), piece.data(), static_cast<int>(piece.size()),
                             static_cast<int>(at));
    if (code != SQLITE_OK) break;
    lock.unlock();
    const Relock relock{lock};
    handed = sink(piece);
  }
  blob.reset();
  if (code == SQLITE_OK) return handed;
  std::string problem = "reading \"" + std::string(key) + "\": " + describe(db, code);
  lock.unlock();
  QltLog::e(kTag, problem);
  return false;
}

std::optional<std::size_t> SqliteKeyValueStore::byteCount(std::string_view key) const {
  std::lock_guard lock(mutex_);
  const auto place = placeOfBlob(connection_->placeOfBlob.get(), key);
  return place ? std::optional(place->size) : std::nullopt;
}

std::optional<std::uint64_t> SqliteKeyValueStore::revision(std::string_view key) const {
  std::lock_guard lock(mutex_);
  Connection& c = *connection_;
  sqlite3_stmt* ask = c.dataVersion.get();
  std::optional<std::int64_t> version;
  if (sqlite3_step(ask) == SQLITE_ROW) version = sqlite3_column_int64(ask, 0);
  sqlite3_reset(ask);
  if (!version) return std::nullopt;
  if (version != c.seenDataVersion) {
    c.seenDataVersion = version;
    c.foreignChange = ++c.writes;
  }
  const auto found = c.written.find(key);
  return std::max(c.foreignChange, found == c.written.end() ? 0 : found->second);
}

bool SqliteKeyValueStore::synchronize() {
  std::string problem;
  {
    std::lock_guard lock(mutex_);
    sqlite3* db = connection_->db.get();
    // A commit under synchronous = FULL syncs the WAL file, and with it every frame that earlier
    // commits under NORMAL appended to it.
    int code = sqlite3_exec(db, "PRAGMA synchronous = FULL", nullptr, nullptr, nullptr);
    if (code == SQLITE_OK) {
      code = sqlite3_step(connection_->touch.get());
      if (code == SQLITE_DONE) code = SQLITE_OK;
      sqlite3_reset(connection_->touch.get());
    }
    const int restore = sqlite3_exec(db, "PRAGMA synchronous = NORMAL", nullptr, nullptr, nullptr);
    if (code == SQLITE_OK) code = restore;
    if (code != SQLITE_OK) problem = "synchronizing: " + describe(db, code);
  }
  if (!problem.empty()) {
    QltLog::e(kTag, problem);
    return false;
  }
  return true;
}

}  // namespace quillet
