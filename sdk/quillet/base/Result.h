#pragma once

#include <string>
#include <utility>
#include <variant>

#include "quillet/base/Fatal.h"

namespace quillet {

/// Wraps an error so that a Result can be built from it even when the value and error types
/// are the same.
template <class E>
struct Failure {
  E error;
};

template <class E>
Failure(E) -> Failure<E>;

/// Either a value or the reason there is none. Reading the side that is not there is a
/// programming fault and stops the process.
template <class T, class E = std::string>
class Result {
 public:
  Result(const T& value) : state_(std::in_place_index<0>, value) {}  // NOLINT: implicit on purpose
  Result(T&& value) : state_(std::in_place_index<0>, std::move(value)) {}  // NOLINT: implicit
  /// A value built in place from `args`.
  template <class... Args>
  explicit Result(std::in_place_t, Args&&... args)
      : state_(std::in_place_index<0>, std::forward<Args>(args)...) {}
  template <class F>
  Result(Failure<F> failure)
      : state_(std::in_place_index<1>, E(std::move(failure.error))) {}  // NOLINT

  bool ok() const noexcept { return state_.index() == 0; }
  explicit operator bool() const noexcept { return ok(); }

  const T& value() const& {
    if (!ok()) fatalError("Result::value() read on a failed result");
    return std::get<0>(state_);
  }
  T& value() & {
    if (!ok()) fatalError("Result::value() read on a failed result");
    return std::get<0>(state_);
  }
  T&& value() && {
    if (!ok()) fatalError("Result::value() read on a failed result");
    return std::get<0>(std::move(state_));
  }
  const T& operator*() const& { return value(); }
  const T* operator->() const { return &value(); }

  const E& error() const& {
    if (ok()) fatalError("Result::error() read on a successful result");
    return std::get<1>(state_);
  }

 private:
  std::variant<T, E> state_;
};

}  // namespace quillet
