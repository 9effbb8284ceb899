#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace quillet::testing {

/// Sets an environment variable for the life of the object, then restores what was there.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::string& value) : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) saved_ = old;
    setenv(name_.c_str(), value.c_str(), 1);
  }
  ~ScopedEnvironment() {
    if (saved_) {
      setenv(name_.c_str(), saved_->c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  void set(const std::string& value) { setenv(name_.c_str(), value.c_str(), 1); }

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

}  // namespace quillet::testing
