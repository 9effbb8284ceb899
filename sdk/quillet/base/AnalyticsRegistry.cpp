#include "quillet/base/AnalyticsRegistry.h"

namespace quillet {

void AnalyticsRegistry::registerClass(std::string name,
                                      std::shared_ptr<ConsentSignalReceiver> receiver) {
  std::lock_guard lock(mutex_);
  classes_.insert_or_assign(std::move(name), std::move(receiver));
}

void AnalyticsRegistry::unregisterClass(std::string_view name) {
  std::lock_guard lock(mutex_);
  const auto found = classes_.find(name);
  if (found != classes_.end()) classes_.erase(found);
}

std::shared_ptr<ConsentSignalReceiver> AnalyticsRegistry::lookUp(std::string_view name) const {
  std::lock_guard lock(mutex_);
  const auto found = classes_.find(name);
  return found != classes_.end() ? found->second : nullptr;
}

}  // namespace quillet
