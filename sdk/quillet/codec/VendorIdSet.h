#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <span>
#include <vector>

#include "quillet/base/Export.h"

namespace quillet {

namespace detail {
struct VendorIdSetAccess;
}

/// A set of vendor ids from 1 to 65535, held the way a TC String holds a bit field: one bit per
/// id, from the lowest to the highest id held in steps of 64. Membership is one look-up; the
/// ascending list is built only when `ids()` is asked for. A plain value: a set whose ids lie
/// within 256 of each other lives inside the object and copies without allocating. Safe to share
/// read-only.
class QUILLET_EXPORT VendorIdSet {
 public:
  static constexpr std::int64_t kMaxId = 65535;

  VendorIdSet() noexcept = default;
  VendorIdSet(const VendorIdSet&) = default;
  VendorIdSet& operator=(const VendorIdSet&) = default;
  VendorIdSet(VendorIdSet&& other) noexcept
      : local_(other.local_),
        heap_(std::move(other.heap_)),
        firstWord_(other.firstWord_),
        wordCount_(other.wordCount_) {
    other.wordCount_ = 0;
  }
  VendorIdSet& operator=(VendorIdSet&& other) noexcept {
    if (this != &other) {
      local_ = other.local_;
      heap_ = std::move(other.heap_);
      firstWord_ = other.firstWord_;
      wordCount_ = other.wordCount_;
      other.wordCount_ = 0;
    }
    return *this;
  }
  ~VendorIdSet() = default;

  /// The set of `ids`, in any order, repeats allowed; ids outside 1...kMaxId are left out.
  static VendorIdSet of(std::span<const std::int64_t> ids);

  /// Adds `first`...`last` (both included), clipped to 1...kMaxId.
  void insert(std::int64_t first, std::int64_t last);

  bool contains(std::int64_t id) const noexcept {
    const auto bit = static_cast<std::uint64_t>(id - 1);
    const std::uint64_t word = bit / 64 - firstWord_;  // wraps round below the first word
    return word < wordCount_ && ((words()[word] << (bit % 64)) >> 63) != 0;
  }
  /// How many ids the set holds.
  std::int64_t count() const noexcept;
  bool empty() const noexcept { return last() == 0; }
  /// The highest id held, or 0 for an empty set.
  std::int64_t last() const noexcept;
  /// The ids, ascending.
  std::vector<std::int64_t> ids() const;

  /// Calls `visit(id)` for every id, ascending.
  template <class Visit>
  void forEach(Visit&& visit) const {
    const std::uint64_t* w = words();
    for (std::uint32_t i = 0; i < wordCount_; ++i) {
      const auto base = static_cast<std::int64_t>(firstWord_ + i) * 64 + 1;
      for (std::uint64_t rest = w[i]; rest != 0;) {
        const int lead = std::countl_zero(rest);
        visit(base + lead);
        rest ^= (std::uint64_t{1} << 63) >> lead;
      }
    }
  }

  /// Equal when both hold the same ids.
  friend QUILLET_EXPORT bool operator==(const VendorIdSet& a, const VendorIdSet& b) noexcept;

 private:
  friend struct detail::VendorIdSetAccess;
  static constexpr std::uint32_t kInlineWords = 4;
  static constexpr std::uint32_t kFirstHeapWords = 16;
  static constexpr std::uint32_t kWordCount = (kMaxId + 63) / 64;  // words for every id

  // Word i holds ids 64 (firstWord_ + i) + 1, in its highest bit, to 64 (firstWord_ + i) + 64.
  const std::uint64_t* words() const noexcept {
    return wordCount_ > kInlineWords ? heap_.data() : local_.data();
  }
  std::uint64_t* words() noexcept {
    return wordCount_ > kInlineWords ? heap_.data() : local_.data();
  }
  // Widens the window to take in words `low` to `high` (of all 1024), keeping what is held; new
  // words are zero. Growing upwards, at least doubles the window.
  void cover(std::uint32_t low, std::uint32_t high);
  // Empties the set, keeping its memory.
  void clear() noexcept {
    heap_.clear();
    wordCount_ = 0;
  }
  // The bits of ids from + 1 to to + 1 in their word (from <= to, both in one word).
  static std::uint64_t wordBits(std::uint64_t from, std::uint64_t to) noexcept {
    constexpr std::uint64_t kAll = ~std::uint64_t{0};
    return (kAll >> (from % 64)) & (kAll << (63 - to % 64));
  }
  // Sets the bits of ids from + 1 to to + 1 (from <= to) in a window starting at word 0.
  static void fill(std::uint64_t* words, std::uint64_t from, std::uint64_t to) noexcept {
    constexpr std::uint64_t kAll = ~std::uint64_t{0};
    if (from / 64 == to / 64) {
      words[from / 64] |= wordBits(from, to);
      return;
    }
    const std::uint64_t head = kAll >> (from % 64);     // from `from` to the end of its word
    const std::uint64_t tail = kAll << (63 - to % 64);  // from the start of its word to `to`
    words[from / 64] |= head;
    for (std::uint64_t w = from / 64 + 1; w < to / 64; ++w)
      words[w] = kAll;
    words[to / 64] |= tail;
  }
  // Makes the window take in words `low` to `high` (low <= high < kWordCount).
  void reach(std::uint32_t low, std::uint32_t high) {
    if (wordCount_ == 0 && high < low + kInlineWords && low + kInlineWords <= kWordCount) {
      // The first ids: the inline words, from theirs on.
      local_.fill(0);
      firstWord_ = low;
      wordCount_ = kInlineWords;
    } else if (low < firstWord_ || high >= firstWord_ + wordCount_) [[unlikely]] {
      cover(low, high);
    }
  }
  // Adds ids from + 1 to to + 1 (from <= to, both below 65535).
  void add(std::uint64_t from, std::uint64_t to) {
    reach(static_cast<std::uint32_t>(from / 64), static_cast<std::uint32_t>(to / 64));
    const std::uint64_t offset = std::uint64_t{firstWord_} * 64;
    fill(words(), from - offset, to - offset);
  }
  // Adds the ids of `bits` in word `word` (below kWordCount).
  void addWord(std::uint32_t word, std::uint64_t bits) {
    reach(word, word);
    words()[word - firstWord_] |= bits;
  }

  // Words past wordCount_ hold no meaning; cover() zeroes them as it takes them.
  std::array<std::uint64_t, kInlineWords> local_{};
  std::vector<std::uint64_t> heap_;  // used alone once more than kInlineWords are needed
  std::uint32_t firstWord_ = 0;
  std::uint32_t wordCount_ = 0;
};

}  // namespace quillet
