#include "quillet/model/Json.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include <boost/json/memory_resource.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/stream_parser.hpp>

#include "quillet/model/JsonPieces.h"

namespace quillet::Json {
namespace {

// Doubles in [-2^63, 2^63) convert to int64 without overflow.
constexpr double kInt64Lower = -9223372036854775808.0;
constexpr double kInt64Upper = 9223372036854775808.0;

std::optional<std::int64_t> fromDouble(double number, bool exact) noexcept {
  const double truncated = std::trunc(number);
  if (exact && truncated != number) return std::nullopt;
  if (!(truncated >= kInt64Lower && truncated < kInt64Upper)) return std::nullopt;
  return static_cast<std::int64_t>(truncated);
}

std::optional<std::int64_t> fromNumber(const boost::json::value* value, bool exact) noexcept {
  if (value == nullptr) return std::nullopt;
  switch (value->kind()) {
    case boost::json::kind::int64:
      return value->get_int64();
    case boost::json::kind::uint64:
      if (value->get_uint64() > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
      return static_cast<std::int64_t>(value->get_uint64());
    case boost::json::kind::double_:
      return fromDouble(value->get_double(), exact);
    default:
      return std::nullopt;
  }
}

// Pages of 2 MiB taken from the system as one mapping and marked for transparent huge pages, so
// that filling them costs one page fault each instead of 512. Null where the system gives no such
// pages to a process that asks (ordinary pages from a fresh mapping would cost more than heap
// blocks, which reuse freed memory) or when nothing could be mapped.
constexpr std::size_t kLargePage = std::size_t{2} * 1024 * 1024;

std::byte* mapLargePages(std::size_t bytes) {
#if defined(__linux__)
  static const bool available = [] {
    std::ifstream setting("/sys/kernel/mm/transparent_hugepage/enabled");
    std::string modes;
    std::getline(setting, modes);
    return modes.find("[always]") != std::string::npos ||
           modes.find("[madvise]") != std::string::npos;
  }();
  if (!available) return nullptr;
  // Mapped with one page to spare, then trimmed to start on a page boundary.
  const std::size_t mapped = bytes + kLargePage;
  void* raw = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  auto* const start = static_cast<std::byte*>(raw);
  const auto address = reinterpret_cast<std::uintptr_t>(start);
  const std::size_t head = ((address + kLargePage - 1) & ~(kLargePage - 1)) - address;
  std::byte* const begin = start + head;
  if (head > 0) munmap(start, head);
  munmap(begin + bytes, kLargePage - head);
  madvise(begin, bytes, MADV_HUGEPAGE);
  return begin;
#else
  (void)bytes;
  return nullptr;
#endif
}

// The large pages of the last large document that went, kept for the next: a process that parses
// its vendor list again (a second start, or a start after the cache was filled) then fills pages
// that are already there. The system may take them back meanwhile, under memory pressure.
// Never destroyed: documents may go while the process exits.
struct SpareLargePages {
  std::mutex mutex;
  std::byte* begin = nullptr;
  std::size_t size = 0;
};

SpareLargePages& spareLargePages() {
  static SpareLargePages* const spare = new SpareLargePages();
  return *spare;
}

std::byte* takeLargePages(std::size_t bytes) {
  SpareLargePages& spare = spareLargePages();
  {
    std::lock_guard lock(spare.mutex);
    if (spare.begin != nullptr && spare.size == bytes) return std::exchange(spare.begin, nullptr);
  }
  return mapLargePages(bytes);
}

// Only pages that mapLargePages gave, which exist only where it could map them.
void giveBackLargePages(std::byte* begin, std::size_t bytes) {
#if defined(__linux__)
  madvise(begin, bytes, MADV_FREE);
  SpareLargePages& spare = spareLargePages();
  std::byte* older = begin;
  std::size_t olderSize = bytes;
  {
    std::lock_guard lock(spare.mutex);
    std::swap(spare.begin, older);
    std::swap(spare.size, olderSize);
  }
  if (older != nullptr) munmap(older, olderSize);
#else
  (void)begin;
  (void)bytes;
#endif
}

// One block of a document's storage, which it frees: heap storage, or large pages handed back.
class Block {
 public:
  Block(std::byte* begin, std::size_t size, bool mapped) noexcept
      : begin_(begin), size_(size), mapped_(mapped) {}
  Block(Block&& other) noexcept
      : begin_(std::exchange(other.begin_, nullptr)), size_(other.size_), mapped_(other.mapped_) {}
  Block& operator=(Block&& other) noexcept {
    if (this != &other) {
      release();
      begin_ = std::exchange(other.begin_, nullptr);
      size_ = other.size_;
      mapped_ = other.mapped_;
    }
    return *this;
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { release(); }

  std::byte* begin() const noexcept { return begin_; }
  std::size_t size() const noexcept { return size_; }

 private:
  void release() noexcept {
    if (begin_ == nullptr) return;
    if (mapped_) {
      giveBackLargePages(begin_, size_);
    } else {
      ::operator delete[](begin_);
    }
  }

  std::byte* begin_;
  std::size_t size_;
  bool mapped_;  // by takeLargePages; else from the heap
};

// The storage of one parsed document: a bump allocator over blocks while the parser fills it on
// one thread; once sealed, it hands further allocations to the heap and is safe on any thread.
// Freeing a value that lies in a block does nothing: the blocks go with the last value.
//
// A document takes about 2.9 times its text. When the text's size is known, the whole large pages
// that such a document would fill come first, as one block; the rest goes in heap blocks, which
// reuse memory the process has freed. The estimate errs low, so that large pages are seldom left
// part empty.
}  // namespace

class DocumentStorage::Arena final : public boost::json::memory_resource {
 public:
  static constexpr std::size_t kBlockSize = std::size_t{64} * 1024;

  // `self` is set to this arena: the counted storage that holds it does not give it out.
  Arena(Arena*& self, std::size_t expectedTextBytes) {
    self = this;
    constexpr std::size_t kLargestHint = std::size_t{1} << 30;  // keeps the estimate in range
    const std::size_t estimate = std::min(expectedTextBytes, kLargestHint) / 8 * 23;  // 2.875x
    const std::size_t large = estimate / kLargePage * kLargePage;
    if (large == 0) return;
    if (std::byte* begin = takeLargePages(large)) {
      Block pages(begin, large, true);  // handed back should the insert fail
      blocks_.push_back(std::move(pages));
    }
  }
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;
  ~Arena() override = default;

  std::size_t blockBytes() const noexcept {
    std::size_t total = 0;
    for (const Block& block : blocks_)
      total += block.size();
    return total;
  }

  // Called before the document is handed to another thread; afterwards, nothing is added to the
  // blocks and `owns` reads them sorted.
  void seal() {
    std::sort(blocks_.begin(), blocks_.end(),
              [](const Block& a, const Block& b) { return std::less<>()(a.begin(), b.begin()); });
    sealed_ = true;
  }

 private:
  void* do_allocate(std::size_t bytes, std::size_t alignment) override {
    if (sealed_) return ::operator new(bytes, std::align_val_t(alignment));
    std::size_t at = (used_ + alignment - 1) & ~(alignment - 1);
    if (blocks_.empty() || at + bytes > blocks_.back().size()) {
      // A large value gets a block of its own, so that the current block's room is not lost.
      if (bytes > kBlockSize / 4) return add(bytes, false);
      add(kBlockSize, true);
      at = 0;
    }
    used_ = at + bytes;
    return blocks_.back().begin() + at;
  }

  void do_deallocate(void* pointer, std::size_t /*bytes*/, std::size_t alignment) override {
    if (!owns(static_cast<const std::byte*>(pointer)))
      ::operator delete(pointer, std::align_val_t(alignment));
  }

  bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }

  // A new block; the current one (the last) stays current unless `current`.
  std::byte* add(std::size_t size, bool current) {
    // Block storage is aligned for any fundamental type, which is all that values ask for.
    Block block(static_cast<std::byte*>(::operator new[](size)), size, false);
    std::byte* const begin = block.begin();
    if (current || blocks_.empty()) {
      blocks_.push_back(std::move(block));
      used_ = current ? 0 : size;
    } else {
      blocks_.insert(blocks_.end() - 1, std::move(block));
    }
    return begin;
  }

  bool owns(const std::byte* pointer) const {
    const std::less<> before;
    if (!sealed_) {
      return std::any_of(blocks_.begin(), blocks_.end(), [&](const Block& block) {
        return !before(pointer, block.begin()) && before(pointer, block.begin() + block.size());
      });
    }
    auto next = std::upper_bound(
        blocks_.begin(), blocks_.end(), pointer,
        [&](const std::byte* p, const Block& block) { return before(p, block.begin()); });
    if (next == blocks_.begin()) return false;
    --next;
    return before(pointer, next->begin() + next->size());
  }

  std::vector<Block> blocks_;
  std::size_t used_ = 0;  // bytes taken in the last block
  bool sealed_ = false;
};

namespace {

std::optional<boost::json::value> parseInto(std::string_view text,
                                            boost::json::storage_ptr storage) {
  boost::system::error_code error;
  boost::json::value value = boost::json::parse(text, error, std::move(storage));
  if (error) return std::nullopt;
  return value;
}

}  // namespace

const boost::json::value* member(const boost::json::object& object, std::string_view key) noexcept {
  return object.if_contains(key);
}

std::optional<std::int64_t> exactInteger(const boost::json::value* value) noexcept {
  return fromNumber(value, true);
}

std::optional<std::int64_t> truncatedInteger(const boost::json::value* value) noexcept {
  return fromNumber(value, false);
}

std::optional<std::int64_t> idListElement(const boost::json::value* value) noexcept {
  if (value != nullptr && value->is_bool()) return value->get_bool() ? 1 : 0;
  return fromNumber(value, false);
}

std::optional<bool> boolean(const boost::json::value* value) noexcept {
  if (value == nullptr || !value->is_bool()) return std::nullopt;
  return value->get_bool();
}

std::optional<std::string_view> string(const boost::json::value* value) noexcept {
  if (value == nullptr || !value->is_string()) return std::nullopt;
  const auto& text = value->get_string();
  return std::string_view(text.data(), text.size());
}

const boost::json::array* array(const boost::json::value* value) noexcept {
  return value != nullptr ? value->if_array() : nullptr;
}

const boost::json::object* object(const boost::json::value* value) noexcept {
  return value != nullptr ? value->if_object() : nullptr;
}

std::vector<std::int64_t> integerMembers(const boost::json::value* value) {
  std::vector<std::int64_t> out;
  if (const boost::json::array* elements = array(value)) {
    for (const auto& element : *elements) {
      if (const auto id = exactInteger(&element)) out.push_back(*id);
    }
  }
  return out;
}

std::optional<std::vector<std::int64_t>> exactIntegerArray(const boost::json::value* value) {
  std::vector<std::int64_t> ids;
  if (!appendExactIntegerArray(value, ids)) return std::nullopt;
  return ids;
}

bool appendExactIntegerArray(const boost::json::value* value, std::vector<std::int64_t>& ids) {
  const boost::json::array* elements = array(value);
  if (elements == nullptr) return false;
  const std::size_t before = ids.size();
  if (ids.capacity() - before < elements->size())  // grows as push_back would, at most once
    ids.reserve(std::max(before + elements->size(), 2 * ids.capacity()));
  for (const auto& element : *elements) {
    if (const std::int64_t* const id = element.if_int64()) {  // the usual form, read at once
      ids.push_back(*id);
      continue;
    }
    const auto id = exactInteger(&element);
    if (!id) {
      ids.resize(before);
      return false;
    }
    ids.push_back(*id);
  }
  return true;
}

std::optional<boost::json::value> parse(std::string_view text) {
  return parseInto(text, {});
}

std::optional<boost::json::value> parseDocument(std::string_view text) {
  DocumentReader reader(text.size());
  reader.read(text);
  return reader.finish();
}

DocumentStorage::DocumentStorage(std::size_t expectedTextBytes)
    : storage_(boost::json::make_shared_resource<Arena>(arena_, expectedTextBytes)) {}
DocumentStorage::~DocumentStorage() = default;

void DocumentStorage::seal() {
  arena_->seal();
}

std::size_t DocumentStorage::blockBytes() const noexcept {
  return arena_->blockBytes();
}

struct DocumentReader::State {
  explicit State(std::size_t expectedTextBytes) : storage(expectedTextBytes) {
    parser.reset(storage.storage());
  }

  DocumentStorage storage;  // kept for the seal, whatever the parse
  boost::json::stream_parser parser;
  bool failed = false;
};

DocumentReader::DocumentReader(std::size_t expectedTextBytes)
    : state_(std::make_unique<State>(expectedTextBytes)) {}
DocumentReader::~DocumentReader() = default;

bool DocumentReader::read(std::string_view piece) {
  if (state_->failed) return false;
  boost::system::error_code error;
  state_->parser.write(piece.data(), piece.size(), error);
  state_->failed = static_cast<bool>(error);
  return !state_->failed;
}

std::optional<boost::json::value> DocumentReader::finish() {
  std::optional<boost::json::value> value;
  if (!state_->failed) {
    boost::system::error_code error;
    state_->parser.finish(error);
    if (!error) value = state_->parser.release();
  }
  state_->failed = true;
  state_->storage.seal();
  return value;
}

std::size_t DocumentReader::blockBytes() const noexcept {
  return state_->storage.blockBytes();
}

namespace {

// The events of a parse with nothing built.
struct TopValueIsObject : DocumentModelHandler {
  std::optional<bool> object;  // whether the first value to begin is an object

  bool begun(bool isObject) {
    if (!object) object = isObject;
    return true;
  }
  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }
  bool on_object_begin(error_code&) { return begun(true); }
  bool on_object_end(std::size_t, error_code&) { return true; }
  bool on_array_begin(error_code&) { return begun(false); }
  bool on_array_end(std::size_t, error_code&) { return true; }
  bool on_key_part(string_view, std::size_t, error_code&) { return true; }
  bool on_key(string_view, std::size_t, error_code&) { return true; }
  bool on_string_part(string_view, std::size_t, error_code&) { return begun(false); }
  bool on_string(string_view, std::size_t, error_code&) { return begun(false); }
  bool on_number_part(string_view, error_code&) { return begun(false); }
  bool on_int64(std::int64_t, string_view, error_code&) { return begun(false); }
  bool on_uint64(std::uint64_t, string_view, error_code&) { return begun(false); }
  bool on_double(double, string_view, error_code&) { return begun(false); }
  bool on_bool(bool, error_code&) { return begun(false); }
  bool on_null(error_code&) { return begun(false); }
  bool on_comment_part(string_view, error_code&) { return true; }
  bool on_comment(string_view, error_code&) { return true; }
};

}  // namespace

struct ObjectTextCheck::State {
  PieceParser<TopValueIsObject> parser;
};

ObjectTextCheck::ObjectTextCheck() : state_(std::make_unique<State>()) {}
ObjectTextCheck::~ObjectTextCheck() = default;

bool ObjectTextCheck::read(std::string_view piece) {
  return state_->parser.read(piece);
}

bool ObjectTextCheck::finish() {
  return state_->parser.finish() && state_->parser.handler().object.value_or(false);
}

std::string print(const boost::json::value& value) {
  return boost::json::serialize(value);
}

std::string_view kindName(const boost::json::value& value) noexcept {
  switch (value.kind()) {
    case boost::json::kind::null:
      return "null";
    case boost::json::kind::bool_:
      return "a boolean";
    case boost::json::kind::int64:
    case boost::json::kind::uint64:
      return "an integer";
    case boost::json::kind::double_:
      return "a number";
    case boost::json::kind::string:
      return "a string";
    case boost::json::kind::array:
      return "an array";
    case boost::json::kind::object:
      return "an object";
  }
  return "a value";
}

}  // namespace quillet::Json
