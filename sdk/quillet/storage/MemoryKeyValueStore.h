#pragma once

#include <map>
#include <shared_mutex>
#include <string>

#include "quillet/base/Export.h"
#include "quillet/storage/KeyValueStore.h"

namespace quillet {

/// A key-value store in memory: for tests and for hosts that keep nothing on disk. Nothing
/// outlives the object; `synchronize` has nothing to do and returns true.
class QUILLET_EXPORT MemoryKeyValueStore final : public KeyValueStore {
 public:
  std::optional<StoreValue> get(std::string_view key) const override;
  void set(std::string_view key, StoreValue value) override;
  void remove(std::string_view key) override;
  bool synchronize() override { return true; }
  std::optional<std::uint64_t> revision(std::string_view key) const override;

 private:
  mutable std::shared_mutex mutex_;
  std::map<std::string, StoreValue, std::less<>> values_;
  std::map<std::string, std::uint64_t, std::less<>> revisions_;  // 0 for a key never written
  std::uint64_t writes_ = 0;
};

}  // namespace quillet
