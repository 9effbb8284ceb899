#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <span>
#include <vector>

/// Helpers for lists of purpose, vendor and feature ids.
namespace quillet::IdList {

/// The ids ascending, each once.
inline std::vector<std::int64_t> sortedUnique(std::vector<std::int64_t> ids) {
  // Lists mostly arrive in order (a vendor list's ids do): a pass instead of a sort.
  if (!std::is_sorted(ids.begin(), ids.end())) std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

/// Gathers ids that repeat over a few values, such as the purposes or special features that
/// vendors declare: ids from 0 to 63 are noted in a mask, any others listed.
class Gatherer {
 public:
  void add(std::int64_t id) {
    if (id >= 0 && id < 64) {
      small_ |= std::uint64_t{1} << id;
    } else {
      others_.push_back(id);
    }
  }

  /// What was added, ascending, each once.
  std::vector<std::int64_t> sorted() && {
    for (std::uint64_t rest = small_; rest != 0; rest &= rest - 1)
      others_.push_back(std::countr_zero(rest));
    return sortedUnique(std::move(others_));
  }

 private:
  std::uint64_t small_ = 0;
  std::vector<std::int64_t> others_;
};

/// Whether the ascending `sorted` holds `id`.
inline bool contains(std::span<const std::int64_t> sorted, std::int64_t id) {
  return std::binary_search(sorted.begin(), sorted.end(), id);
}

/// `contains` for a run of queries over one ascending list: while the queries ascend, each one
/// starts where the last stopped, so a run over n ids costs one pass rather than n searches. A
/// query below the last starts again from the front. The list must outlive the cursor.
class Cursor {
 public:
  explicit Cursor(std::span<const std::int64_t> sorted) noexcept : sorted_(sorted) {}

  bool contains(std::int64_t id) noexcept {
    if (at_ > 0 && sorted_[at_ - 1] >= id) at_ = 0;
    while (at_ < sorted_.size() && sorted_[at_] < id)
      ++at_;
    return at_ < sorted_.size() && sorted_[at_] == id;
  }

 private:
  std::span<const std::int64_t> sorted_;
  std::size_t at_ = 0;  // every entry before it is below the last query
};

}  // namespace quillet::IdList
