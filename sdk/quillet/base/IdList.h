#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

/// Helpers for lists of purpose, vendor and feature ids.
namespace quillet::IdList {

/// The ids ascending, each once.
inline std::vector<std::int64_t> sortedUnique(std::vector<std::int64_t> ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

/// Whether the ascending `sorted` holds `id`.
inline bool contains(std::span<const std::int64_t> sorted, std::int64_t id) {
  return std::binary_search(sorted.begin(), sorted.end(), id);
}

}  // namespace quillet::IdList
