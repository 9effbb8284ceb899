#pragma once

// A value built once in static storage and never destroyed, for process-wide objects that
// threads may still read while the process exits.

#include <new>
#include <utility>

namespace quillet {

/// Holds a `T` that is never destroyed. Use as a function-local static; `get()` is safe from
/// any thread once the static is initialised.
template <class T>
class NeverDestroyed {
 public:
  template <class... Args>
  explicit NeverDestroyed(Args&&... args) noexcept(noexcept(T(std::forward<Args>(args)...))) {
    ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
  }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;
  ~NeverDestroyed() = default;

  const T& get() const noexcept { return *std::launder(reinterpret_cast<const T*>(storage_)); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace quillet
