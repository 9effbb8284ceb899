#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "quillet/base/Export.h"

namespace quillet {

/// The host's main (user interface) thread as a queue of tasks.
class QUILLET_EXPORT MainQueue {
 public:
  virtual ~MainQueue() = default;
  /// Runs `task` later on the main thread, after the tasks posted before it. Callable from any
  /// thread, and from inside a task.
  virtual void post(std::function<void()> task) = 0;
  virtual bool isMainThread() const = 0;
};

/// A main queue that the host pumps: the thread that creates it is the main thread, and tasks
/// run only inside `runUntilIdle`, `runFor` or `run`, called on that thread.
class QUILLET_EXPORT RunLoop final : public MainQueue {
 public:
  RunLoop();

  void post(std::function<void()> task) override;
  bool isMainThread() const override { return std::this_thread::get_id() == owner_; }

  /// Runs tasks until none is queued (tasks posted meanwhile run too). Returns how many ran.
  std::size_t runUntilIdle();
  /// Runs tasks as they come for `duration`, or until `stop` is called.
  void runFor(std::chrono::milliseconds duration);
  /// Runs tasks as they come until `stop` is called (from any thread or from a task).
  void run();
  void stop();

 private:
  bool runOne(std::unique_lock<std::mutex>& lock);

  const std::thread::id owner_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> tasks_;
  bool stopping_ = false;
};

}  // namespace quillet
