#include "quillet/base/Clock.h"

#include "quillet/base/NeverDestroyed.h"

namespace quillet {
namespace {

class SystemClock final : public Clock {
 public:
  std::chrono::system_clock::time_point now() const noexcept override {
    return std::chrono::system_clock::now();
  }
};

}  // namespace

const Clock& systemClock() noexcept {
  static const NeverDestroyed<SystemClock> clock;  // read by threads at exit too
  return clock.get();
}

}  // namespace quillet
