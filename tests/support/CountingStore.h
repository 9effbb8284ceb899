#pragma once

#include <memory>

#include "quillet/storage/KeyValueStore.h"

namespace quillet::testing {

/// Another store, with the requests to persist counted.
class CountingStore final : public KeyValueStore {
 public:
  explicit CountingStore(std::shared_ptr<KeyValueStore> inner) : inner_(std::move(inner)) {}
  std::optional<StoreValue> get(std::string_view key) const override { return inner_->get(key); }
  void set(std::string_view key, StoreValue value) override { inner_->set(key, std::move(value)); }
  void remove(std::string_view key) override { inner_->remove(key); }
  bool synchronize() override { return ++synchronized, inner_->synchronize(); }

  int synchronized = 0;

 private:
  std::shared_ptr<KeyValueStore> inner_;
};

}  // namespace quillet::testing
