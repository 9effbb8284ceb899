#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace quillet {

/// A list that is never changed once made, so that its copies share it: copying one costs a
/// reference count, not its elements. Reads as a `const std::vector<T>&`; a default list is
/// empty. Safe to read and copy from several threads at once.
template <class T>
class SharedList {
 public:
  SharedList() = default;
  // Implicit on purpose: a list stands wherever a vector of its elements is given or read.
  SharedList(std::vector<T> items)  // NOLINT(google-explicit-constructor)
      : items_(std::make_shared<const std::vector<T>>(std::move(items))) {}

  operator const std::vector<T>&() const noexcept {  // NOLINT(google-explicit-constructor)
    return get();
  }
  const std::vector<T>& get() const noexcept { return items_ ? *items_ : none(); }

  auto begin() const noexcept { return get().begin(); }
  auto end() const noexcept { return get().end(); }
  std::size_t size() const noexcept { return get().size(); }
  bool empty() const noexcept { return get().empty(); }
  const T& operator[](std::size_t index) const noexcept { return get()[index]; }

 private:
  static const std::vector<T>& none() noexcept {
    static const std::vector<T> empty;
    return empty;
  }

  std::shared_ptr<const std::vector<T>> items_;
};

}  // namespace quillet
