#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "quillet/base/Export.h"

namespace quillet {

/// An analytics library's consent entry point: `setConsent` with a map of signal names to
/// "granted" or "denied".
class QUILLET_EXPORT ConsentSignalReceiver {
 public:
  virtual ~ConsentSignalReceiver() = default;
  virtual void setConsent(const std::map<std::string, std::string>& signals) = 0;
};

/// Stands in for run-time class lookup: the host registers the analytics library it carries
/// under its class name ("FIRAnalytics"). Empty by default. Safe to use from several threads.
class QUILLET_EXPORT AnalyticsRegistry {
 public:
  void registerClass(std::string name, std::shared_ptr<ConsentSignalReceiver> receiver);
  void unregisterClass(std::string_view name);
  /// The receiver registered under `name`, or null.
  std::shared_ptr<ConsentSignalReceiver> lookUp(std::string_view name) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<ConsentSignalReceiver>, std::less<>> classes_;
};

}  // namespace quillet
