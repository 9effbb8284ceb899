#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <httplib.h>

namespace quillet {

/// Runs the accept loop of `server`, already bound, on a new thread, and returns that thread once
/// the server accepts. The server drops a stop() that comes before its loop has started, and a
/// join() after it would then wait for ever; once this returns, stop() then join() end the thread.
inline std::thread startAccepting(httplib::Server& server) {
  const auto ended = std::make_shared<std::atomic<bool>>(false);
  std::thread thread([&server, ended] {
    server.listen_after_bind();
    *ended = true;
  });
  while (!server.is_running() && !*ended)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return thread;
}

}  // namespace quillet
