#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
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
      : state_(std::make_shared<State>(std::move(items))) {}

  /// A list of `size` items that `make` makes when one of them is first read, on the thread that
  /// reads first; readers on other threads wait for it. `size()` and `empty()` make nothing.
  /// `make` must give `size` items; it is released once it has run.
  static SharedList deferred(std::size_t size, std::function<std::vector<T>()> make) {
    SharedList list;
    list.state_ = std::make_shared<State>(size, std::move(make));
    return list;
  }

  operator const std::vector<T>&() const {  // NOLINT(google-explicit-constructor)
    return get();
  }
  const std::vector<T>& get() const { return state_ ? state_->items() : none(); }

  auto begin() const { return get().begin(); }
  auto end() const { return get().end(); }
  std::size_t size() const noexcept { return state_ ? state_->size : 0; }
  bool empty() const noexcept { return size() == 0; }
  const T& operator[](std::size_t index) const { return get()[index]; }

 private:
  class State {
   public:
    explicit State(std::vector<T> items)
        : size(items.size()), items_(std::move(items)), made_(true) {}
    State(std::size_t count, std::function<std::vector<T>()> make)
        : size(count), make_(std::move(make)) {}

    const std::vector<T>& items() {
      if (!made_.load(std::memory_order_acquire)) {
        std::lock_guard lock(mutex_);
        if (!made_.load(std::memory_order_relaxed)) {
          items_ = make_();
          make_ = nullptr;
          made_.store(true, std::memory_order_release);
        }
      }
      return items_;
    }

    const std::size_t size;

   private:
    std::mutex mutex_;
    std::function<std::vector<T>()> make_;
    std::vector<T> items_;
    std::atomic<bool> made_{false};
  };

  static const std::vector<T>& none() noexcept {
    static const std::vector<T> empty;
    return empty;
  }

  std::shared_ptr<State> state_;
};

}  // namespace quillet
