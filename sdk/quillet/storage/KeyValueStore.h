#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "quillet/base/Export.h"
#include "quillet/storage/StoreValue.h"

namespace quillet {

/// The application's persistent key-value store (the platform's user defaults). Implementations
/// are safe to use from several threads at once; a write is visible to every reader as soon as
/// `set` or `remove` returns.
class QUILLET_EXPORT KeyValueStore {
 public:
  virtual ~KeyValueStore() = default;

  /// The value under `key`, or nothing.
  virtual std::optional<StoreValue> get(std::string_view key) const = 0;
  virtual void set(std::string_view key, StoreValue value) = 0;
  virtual void remove(std::string_view key) = 0;
  /// Returns once every earlier write is durable (survives a crash of the process and of the
  /// machine). False when that could not be done; the error is logged.
  virtual bool synchronize() = 0;

  /// Hands the bytes stored under `key` to `sink` in order, a piece at a time, so that a large
  /// value need not be held whole; `sink` returns false to stop. True when there were bytes under
  /// `key` and every piece was handed on. Pieces are valid during the call that gets them. The
  /// default reads the bytes whole and hands them on as one piece.
  virtual bool readBytesInPieces(
      std::string_view key, const std::function<bool(std::span<const std::uint8_t>)>& sink) const;

  /// The number of bytes stored under `key` when the store can tell without reading them, else
  /// nothing; a hint for sizing, which a later read need not match. The default tells nothing.
  virtual std::optional<std::size_t> byteCount(std::string_view key) const;

  /// A number that is the same for two calls only when the value under `key` did not change in
  /// between, whoever wrote it; nothing when the store cannot tell. Lets a reader skip reading a
  /// large value again. Ask before reading the value: a write racing the read then shows as a
  /// change at the next call. The default tells nothing.
  virtual std::optional<std::uint64_t> revision(std::string_view key) const;

  // Typed readers with the platform store's conversions.

  /// True for a stored true, a non-zero number, or the text "true", "YES" or "1" in any case.
  bool readBool(std::string_view key) const;
  /// A stored integer; a floating-point number truncated toward zero (0 out of range); a boolean
  /// as 0 or 1; a text that is a whole decimal number; else 0.
  std::int64_t readInteger(std::string_view key) const;
  /// A stored text, or a number's decimal form; else nothing.
  std::optional<std::string> readString(std::string_view key) const;
  /// Stored bytes only.
  std::optional<Bytes> readBytes(std::string_view key) const;
  /// A stored dictionary only.
  std::optional<StoreValue::Dictionary> readDictionary(std::string_view key) const;
};

}  // namespace quillet
