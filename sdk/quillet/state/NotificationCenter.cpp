#include "quillet/state/NotificationCenter.h"

#include <algorithm>
#include <atomic>

namespace quillet {

struct NotificationCenter::Token::Registration {
  std::string name;
  Observer observer;
  std::atomic<bool> active{true};
  std::weak_ptr<NotificationCenter*> center;
};

std::optional<std::int64_t> Notification::integer(std::string_view key) const {
  const auto found = userInfo.find(key);
  if (found == userInfo.end()) return std::nullopt;
  if (const auto* value = std::get_if<std::int64_t>(&found->second)) return *value;
  return std::nullopt;
}

std::optional<bool> Notification::boolean(std::string_view key) const {
  const auto found = userInfo.find(key);
  if (found == userInfo.end()) return std::nullopt;
  if (const auto* value = std::get_if<bool>(&found->second)) return *value;
  return std::nullopt;
}

NotificationCenter::Token::Token(std::weak_ptr<NotificationCenter*> center,
                                 std::shared_ptr<Registration> registration)
    : registration_(std::move(registration)) {
  registration_->center = std::move(center);
}

NotificationCenter::Token& NotificationCenter::Token::operator=(Token&& other) noexcept {
  if (this != &other) {
    reset();
    registration_ = std::move(other.registration_);
  }
  return *this;
}

NotificationCenter::Token::~Token() {
  reset();
}

void NotificationCenter::Token::reset() {
  if (!registration_) return;
  registration_->active.store(false);
  if (const auto center = registration_->center.lock()) (*center)->remove(registration_);
  registration_.reset();
}

NotificationCenter::NotificationCenter() : self_(std::make_shared<NotificationCenter*>(this)) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* const center = new NotificationCenter();  // outlives every token
  return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name, Observer observer) {
  auto registration = std::make_shared<Token::Registration>();
  registration->name = name;
  registration->observer = std::move(observer);
  {
    std::lock_guard lock(mutex_);
    observers_[std::move(name)].push_back(registration);
    registrations_.fetch_add(1, std::memory_order_relaxed);
  }
  return Token(self_, std::move(registration));
}

void NotificationCenter::remove(const std::shared_ptr<Token::Registration>& registration) {
  std::lock_guard lock(mutex_);
  const auto found = observers_.find(registration->name);
  if (found == observers_.end()) return;
  auto& list = found->second;
  const auto removed = std::remove(list.begin(), list.end(), registration);
  registrations_.fetch_sub(static_cast<std::size_t>(list.end() - removed),
                           std::memory_order_relaxed);
  list.erase(removed, list.end());
  if (list.empty()) observers_.erase(found);
}

bool NotificationCenter::observed(std::string_view name) {
  if (registrations_.load(std::memory_order_relaxed) == 0) return false;
  std::lock_guard lock(mutex_);
  return observers_.find(name) != observers_.end();
}

void NotificationCenter::post(std::string_view name, NotificationPayload userInfo) {
  std::vector<std::shared_ptr<Token::Registration>> targets;
  {
    std::lock_guard lock(mutex_);
    const auto found = observers_.find(name);
    if (found == observers_.end()) return;
    targets = found->second;
  }
  const Notification notification{std::string(name), std::move(userInfo)};
  for (const auto& target : targets) {
    if (target->active.load()) target->observer(notification);
  }
}

}  // namespace quillet
