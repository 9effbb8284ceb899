#include "quillet/base/Clock.h"

#include <new>

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
  // Built in static storage and never destroyed: threads still read it while the process exits.
  alignas(SystemClock) static unsigned char storage[sizeof(SystemClock)];
  static const SystemClock* const clock = ::new (static_cast<void*>(storage)) SystemClock();
  return *clock;
}

}  // namespace quillet
