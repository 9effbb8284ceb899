#include "quillet/codec/VendorIdSet.h"

#include <algorithm>

namespace quillet {

VendorIdSet VendorIdSet::of(std::span<const std::int64_t> ids) {
  VendorIdSet set;
  for (const std::int64_t id : ids) {
    if (id >= 1 && id <= kMaxId)
      set.add(static_cast<std::uint64_t>(id - 1), static_cast<std::uint64_t>(id - 1));
  }
  return set;
}

void VendorIdSet::cover(std::uint32_t low, std::uint32_t high) {
  if (wordCount_ == 0) firstWord_ = low;
  const std::uint32_t oldFirst = firstWord_;
  const std::uint32_t oldCount = wordCount_;
  const std::uint32_t newFirst = std::min(low, oldFirst);
  std::uint32_t newEnd = std::max(high + 1, oldFirst + oldCount);
  if (high + 1 > oldFirst + oldCount && oldCount > 0) {
    // The first window on the heap takes in 1,024 ids at once: ids mostly come in ascending
    // order, and today's vendor lists stay within that, so a set then grows only once.
    const std::uint32_t least = oldCount <= kInlineWords ? kFirstHeapWords : 2 * oldCount;
    newEnd = std::min(std::max(newEnd, newFirst + least), kWordCount);
  }
  const std::uint32_t newCount = newEnd - newFirst;
  const std::uint32_t shift = oldFirst - newFirst;  // where the held words go
  if (newCount <= kInlineWords) {
    std::copy_backward(local_.begin(), local_.begin() + oldCount,
                       local_.begin() + shift + oldCount);
    std::fill(local_.begin(), local_.begin() + shift, 0);
    std::fill(local_.begin() + shift + oldCount, local_.begin() + newCount, 0);
  } else {
    std::vector<std::uint64_t> grown(newCount, 0);
    const std::uint64_t* held = words();
    std::copy_n(held, oldCount, grown.begin() + shift);
    heap_ = std::move(grown);
  }
  firstWord_ = newFirst;
  wordCount_ = newCount;
}

void VendorIdSet::insert(std::int64_t first, std::int64_t last) {
  first = std::max<std::int64_t>(first, 1);
  last = std::min(last, kMaxId);
  if (first <= last)
    add(static_cast<std::uint64_t>(first - 1), static_cast<std::uint64_t>(last - 1));
}

std::int64_t VendorIdSet::count() const noexcept {
  std::int64_t total = 0;
  const std::uint64_t* w = words();
  for (std::uint32_t i = 0; i < wordCount_; ++i)
    total += std::popcount(w[i]);
  return total;
}

std::int64_t VendorIdSet::last() const noexcept {
  const std::uint64_t* w = words();
  for (std::uint32_t i = wordCount_; i > 0; --i) {
    if (w[i - 1] != 0) {
      return static_cast<std::int64_t>(firstWord_ + i) * 64 - std::countr_zero(w[i - 1]);
    }
  }
  return 0;
}

std::vector<std::int64_t> VendorIdSet::ids() const {
  std::vector<std::int64_t> out;
  out.reserve(static_cast<std::size_t>(count()));
  forEach([&out](std::int64_t id) { out.push_back(id); });
  return out;
}

bool operator==(const VendorIdSet& a, const VendorIdSet& b) noexcept {
  // Word `w` of all 1024 as `set` holds it; words outside its window are empty.
  const auto word = [](const VendorIdSet& set, std::uint32_t w) -> std::uint64_t {
    return w >= set.firstWord_ && w - set.firstWord_ < set.wordCount_
               ? set.words()[w - set.firstWord_]
               : 0;
  };
  const std::uint32_t from = std::min(a.wordCount_ ? a.firstWord_ : b.firstWord_,
                                      b.wordCount_ ? b.firstWord_ : a.firstWord_);
  const std::uint32_t to = std::max(a.firstWord_ + a.wordCount_, b.firstWord_ + b.wordCount_);
  for (std::uint32_t w = from; w < to; ++w) {
    if (word(a, w) != word(b, w)) return false;
  }
  return true;
}

}  // namespace quillet
