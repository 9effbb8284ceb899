#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

/// The loose readers through which the library reads untyped JSON (configuration documents, the
/// vendor list). Each rule lives here once. Absent, null and wrongly typed values all read as
/// "absent" (std::nullopt or nullptr); nothing throws. Booleans are never numbers and strings are
/// never converted, except where a reader says so.
namespace quillet::Json {

/// The value under `key`, or nullptr when there is none.
const boost::json::value* member(const boost::json::object& object, std::string_view key) noexcept;

/// A number that is exactly an integer in the signed 64-bit range: 3 and 3.0 give 3; 3.5, a
/// number out of range, a boolean or any other kind give absent.
std::optional<std::int64_t> exactInteger(const boost::json::value* value) noexcept;

/// Any number truncated toward zero (3.9 gives 3, -3.9 gives -3); absent for numbers outside the
/// signed 64-bit range and for every other kind, booleans included.
std::optional<std::int64_t> truncatedInteger(const boost::json::value* value) noexcept;

/// An element of a loose id list: a number truncated toward zero, or a boolean counted as 1 or
/// 0 (the platform's JSON model stores booleans as numbers); absent for anything else.
std::optional<std::int64_t> idListElement(const boost::json::value* value) noexcept;

std::optional<bool> boolean(const boost::json::value* value) noexcept;
std::optional<std::string_view> string(const boost::json::value* value) noexcept;
const boost::json::array* array(const boost::json::value* value) noexcept;
const boost::json::object* object(const boost::json::value* value) noexcept;

/// An array whose every element is an exact integer, as a list; absent when the value is not an
/// array or any one element is not an exact integer (all or nothing).
std::optional<std::vector<std::int64_t>> exactIntegerArray(const boost::json::value* value);
/// `exactIntegerArray` appended to `ids`: false, and `ids` as it was, when that is absent.
bool appendExactIntegerArray(const boost::json::value* value, std::vector<std::int64_t>& ids);

/// The exact-integer elements of an array, in order, skipping every other element; none when the
/// value is not an array.
std::vector<std::int64_t> integerMembers(const boost::json::value* value);

/// The JSON text of a document, or absent when the text is not JSON. Never throws.
std::optional<boost::json::value> parse(std::string_view text);

/// As `parse`, for a large document that is read and not changed, such as the vendor list: its
/// values are laid out in blocks that the document owns and frees at once, which takes less
/// memory and time than one heap allocation per value. Values that are copied from it or added to
/// it later take the heap. The result may be read on any thread.
std::optional<boost::json::value> parseDocument(std::string_view text);

/// The storage that `parseDocument` lays a document out in, for readers that build a document
/// of their own. Values built in it must be built on one thread; `seal` it once the document is
/// built, after which the document may be read on any thread and what is added to it or copied
/// from it takes the heap. The storage lives as long as the document's values hold it.
class DocumentStorage {
 public:
  /// `expectedTextBytes` as for `DocumentReader`.
  explicit DocumentStorage(std::size_t expectedTextBytes);
  ~DocumentStorage();
  DocumentStorage(const DocumentStorage&) = delete;
  DocumentStorage& operator=(const DocumentStorage&) = delete;

  const boost::json::storage_ptr& storage() const noexcept { return storage_; }
  void seal();
  /// The bytes of the blocks taken so far, whether values fill them or not.
  std::size_t blockBytes() const noexcept;

 private:
  class Arena;
  Arena* arena_ = nullptr;
  boost::json::storage_ptr storage_;
};

/// `parseDocument` for a text that arrives in pieces, such as a stored document read a page at a
/// time, so that the whole text need never be held at once. Used from one thread at a time.
class DocumentReader {
 public:
  /// `expectedTextBytes`, when known, is the length of the whole text; a large document then
  /// takes its memory in large pages where the system has them, which are faster to fill.
  explicit DocumentReader(std::size_t expectedTextBytes = 0);
  ~DocumentReader();
  DocumentReader(const DocumentReader&) = delete;
  DocumentReader& operator=(const DocumentReader&) = delete;

  /// Reads the next piece; false once the text read so far cannot start a JSON document, after
  /// which pieces are ignored.
  bool read(std::string_view piece);
  /// The document, when the pieces read form exactly one; the reader is spent afterwards.
  std::optional<boost::json::value> finish();
  /// The bytes of the blocks that hold the document, whether its values fill them or not.
  std::size_t blockBytes() const noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Whether a text that arrives in pieces is one JSON document whose value is an object, by the
/// rules of `DocumentReader`, without building the document: a quarter of the time of a parse and
/// no memory beyond the parser's own. Used from one thread at a time.
class ObjectTextCheck {
 public:
  ObjectTextCheck();
  ~ObjectTextCheck();
  ObjectTextCheck(const ObjectTextCheck&) = delete;
  ObjectTextCheck& operator=(const ObjectTextCheck&) = delete;

  /// Reads the next piece; false once the text read so far cannot start a JSON document.
  bool read(std::string_view piece);
  /// True when the pieces read form exactly one document and it is an object; the check is
  /// spent afterwards.
  bool finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// The value as compact JSON text, for log lines.
std::string print(const boost::json::value& value);

/// The kind of `value` as a message names it: "null", "a boolean", "an integer", "a number",
/// "a string", "an array" or "an object".
std::string_view kindName(const boost::json::value& value) noexcept;

}  // namespace quillet::Json
