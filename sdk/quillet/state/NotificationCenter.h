#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quillet {

/// What a notification carries: string keys to integers or booleans.
using NotificationPayload = std::map<std::string, std::variant<std::int64_t, bool>, std::less<>>;

struct Notification {
  std::string name;
  NotificationPayload userInfo;

  /// The integer under `key`, or nothing when it is absent or a boolean.
  std::optional<std::int64_t> integer(std::string_view key) const;
  /// The boolean under `key`, or nothing when it is absent or an integer.
  std::optional<bool> boolean(std::string_view key) const;
};

/// Synchronous publish-subscribe by name. `post` calls every observer of the name on the posting
/// thread before it returns, in the order they were added; no lock is held while an observer
/// runs, so an observer may post, add observers, or drop tokens (its own included) from inside
/// its callback. Safe to use from several threads.
class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;

  /// Keeps an observer registered; dropping (or resetting) it unsubscribes. Once `reset`
  /// returns, no new delivery to the observer starts.
  class Token {
   public:
    Token() = default;
    Token(Token&&) noexcept = default;
    Token& operator=(Token&& other) noexcept;
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;
    ~Token();
    void reset();
    explicit operator bool() const noexcept { return static_cast<bool>(registration_); }

   private:
    friend class NotificationCenter;
    struct Registration;
    Token(std::weak_ptr<NotificationCenter*> center, std::shared_ptr<Registration> registration);
    std::shared_ptr<Registration> registration_;
  };

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// The library's process-wide centre.
  static NotificationCenter& defaultCenter();

  [[nodiscard]] Token addObserver(std::string name, Observer observer);
  void post(std::string_view name, NotificationPayload userInfo = {});
  /// Whether an observer of `name` is registered, so that a caller posting often can skip
  /// building a payload that no one would receive. An observer added meanwhile may miss the post,
  /// as it would have, had it come a moment later.
  bool observed(std::string_view name);

 private:
  void remove(const std::shared_ptr<Token::Registration>& registration);

  std::mutex mutex_;
  std::map<std::string, std::vector<std::shared_ptr<Token::Registration>>, std::less<>> observers_;
  std::atomic<std::size_t> registrations_{0};  // in observers_, so that none costs no lock
  std::shared_ptr<NotificationCenter*> self_;  // tokens hold it weakly to outlive the centre safely
};

}  // namespace quillet
