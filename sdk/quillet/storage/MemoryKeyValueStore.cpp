#include "quillet/storage/MemoryKeyValueStore.h"

#include <mutex>

namespace quillet {

std::optional<StoreValue> MemoryKeyValueStore::get(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  return found->second;
}

void MemoryKeyValueStore::set(std::string_view key, StoreValue value) {
  std::unique_lock lock(mutex_);
  values_.insert_or_assign(std::string(key), std::move(value));
  revisions_.insert_or_assign(std::string(key), ++writes_);
}

void MemoryKeyValueStore::remove(std::string_view key) {
  std::unique_lock lock(mutex_);
  const auto found = values_.find(key);
  if (found != values_.end()) values_.erase(found);
  revisions_.insert_or_assign(std::string(key), ++writes_);
}

std::optional<std::uint64_t> MemoryKeyValueStore::revision(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const auto found = revisions_.find(key);
  return found == revisions_.end() ? 0 : found->second;
}

}  // namespace quillet
