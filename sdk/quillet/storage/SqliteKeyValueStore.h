#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "quillet/base/Export.h"
#include "quillet/base/Result.h"
#include "quillet/storage/KeyValueStore.h"

struct sqlite3;
struct sqlite3_stmt;

namespace quillet {

/// The default key-value store: one SQLite file in WAL mode.
///
/// Writes are committed at once (visible to every reader, here and in other processes, and
/// safe from a crash of the process); `synchronize()` additionally makes every earlier write
/// durable against a crash of the machine. The file is never corrupted by a crash. A file that is
/// not a usable store (not a database, a foreign schema, a newer schema version) is renamed aside
/// with a timestamp suffix, an error is logged, and a fresh store starts in its place. All
/// operations may be called from any thread; they are serialised on one connection.
class QUILLET_EXPORT SqliteKeyValueStore final : public KeyValueStore {
 public:
  /// `$XDG_DATA_HOME/quillet/store.sqlite`, or `~/.local/share/quillet/store.sqlite` when
  /// XDG_DATA_HOME is unset or relative.
  static std::filesystem::path defaultPath();

  /// Opens or creates the store at `path`, creating missing directories. An error only when no
  /// store can be kept at that path at all (no permission, no space, a directory in the way).
  static Result<std::shared_ptr<SqliteKeyValueStore>> open(
      const std::filesystem::path& path = defaultPath());

  ~SqliteKeyValueStore() override;
  SqliteKeyValueStore(const SqliteKeyValueStore&) = delete;
  SqliteKeyValueStore& operator=(const SqliteKeyValueStore&) = delete;

  std::optional<StoreValue> get(std::string_view key) const override;
  void set(std::string_view key, StoreValue value) override;
  void remove(std::string_view key) override;
  bool synchronize() override;
  /// Reads a stored blob a page run at a time, straight from the file's pages; the store is not
  /// locked while `sink` runs.
  bool readBytesInPieces(
      std::string_view key,
      const std::function<bool(std::span<const std::uint8_t>)>& sink) const override;

  std::optional<std::size_t> byteCount(std::string_view key) const override;
  /// Changes with every write to `key` through this object, and for every key after any other
  /// connection (here or in another process) wrote to the file.
  std::optional<std::uint64_t> revision(std::string_view key) const override;

  const std::filesystem::path& path() const noexcept { return path_; }

 private:
  struct Connection;
  SqliteKeyValueStore(std::filesystem::path path, std::unique_ptr<Connection> connection);

  std::filesystem::path path_;
  mutable std::mutex mutex_;
  std::unique_ptr<Connection> connection_;
};

}  // namespace quillet
