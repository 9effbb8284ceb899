#include "quillet/base/MainQueue.h"

#include "quillet/base/Fatal.h"

namespace quillet {

RunLoop::RunLoop() : owner_(std::this_thread::get_id()) {}

void RunLoop::post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  changed_.notify_all();
}

bool RunLoop::runOne(std::unique_lock<std::mutex>& lock) {
  if (tasks_.empty()) return false;
  auto task = std::move(tasks_.front());
  tasks_.pop_front();
  lock.unlock();
  task();
  lock.lock();
  return true;
}

std::size_t RunLoop::runUntilIdle() {
  if (!isMainThread()) fatalError("RunLoop::runUntilIdle called off the main thread");
  std::unique_lock lock(mutex_);
  std::size_t ran = 0;
  while (runOne(lock))
    ++ran;
  return ran;
}

void RunLoop::runFor(std::chrono::milliseconds duration) {
  if (!isMainThread()) fatalError("RunLoop::runFor called off the main thread");
  const auto deadline = std::chrono::steady_clock::now() + duration;
  std::unique_lock lock(mutex_);
  stopping_ = false;
  while (!stopping_) {
    if (runOne(lock)) continue;
    if (changed_.wait_until(lock, deadline) == std::cv_status::timeout && tasks_.empty()) break;
  }
}

void RunLoop::run() {
  if (!isMainThread()) fatalError("RunLoop::run called off the main thread");
  std::unique_lock lock(mutex_);
  stopping_ = false;
  while (!stopping_) {
    if (runOne(lock)) continue;
    changed_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
  }
}

void RunLoop::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
}

}  // namespace quillet
