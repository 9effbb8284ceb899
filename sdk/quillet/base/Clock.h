#pragma once

#include <chrono>

#include "quillet/base/Export.h"

namespace quillet {

/// A source of wall-clock time. Implementations are safe to call from any thread.
class QUILLET_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  virtual std::chrono::system_clock::time_point now() const noexcept = 0;
};

/// The system's wall clock (one process-wide instance).
QUILLET_EXPORT const Clock& systemClock() noexcept;

/// A clock that always reads the same instant: reproducible output and tests.
class QUILLET_EXPORT FixedClock final : public Clock {
 public:
  explicit FixedClock(std::chrono::system_clock::time_point instant) noexcept : instant_(instant) {}
  std::chrono::system_clock::time_point now() const noexcept override { return instant_; }

 private:
  std::chrono::system_clock::time_point instant_;
};

}  // namespace quillet
