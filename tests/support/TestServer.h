#pragma once

// A real HTTP server on a free port of 127.0.0.1 for the network tests: it serves banner
// configurations per settings id and the vendor list, can misbehave on request, and records
// every request.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

namespace quillet::testing {

/// How the server answers one path.
struct Reply {
  enum class Kind {
    body,          ///< `status` with `body`
    cutOff,        ///< announces `body`'s length, sends half of it, then closes
    huge,          ///< 200 with `size` bytes of JSON-ish filler, streamed
    redirectLoop,  ///< 302 to itself, forever
  };
  Kind kind = Kind::body;
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  std::size_t size = 0;
  /// Waits this long before answering.
  std::chrono::milliseconds delay{0};
};

struct RecordedRequest {
  std::string method;
  std::string path;
  std::string body;
  std::multimap<std::string, std::string> headers;
};

class TestServer {
 public:
  TestServer();
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  int port() const { return port_; }
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string cdnBase() const { return baseUrl() + "/cdn/"; }
  std::string apiBase() const { return baseUrl() + "/api"; }

  /// What GET <cdn>/<path> answers; paths without a reply get 404 and an HTML page.
  void reply(const std::string& cdnPath, Reply reply);
  /// What POSTs (and PUTs) to <api>/<path> answer (default 200 with an empty JSON object).
  void replyToPost(const std::string& apiPath, int status);

  std::vector<RecordedRequest> requests() const;
  /// The requests after the first `seen`, ordered by path and body (requests sent at once arrive
  /// in any order); `seen` becomes the count so far.
  std::vector<RecordedRequest> since(std::size_t& seen) const;
  /// Off: requests are only counted, not kept (long runs whose memory is measured).
  void keepRequests(bool keep);
  std::size_t count(const std::string& path) const;
  /// Waits until `n` requests to `path` (to any path when it is empty) have arrived, or
  /// `timeout`; true when they did.
  bool waitFor(const std::string& path, std::size_t n,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  void record(const httplib::Request& request);

  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::map<std::string, Reply> replies_;
  std::map<std::string, int> postStatus_;
  std::vector<RecordedRequest> requests_;
  std::map<std::string, std::size_t> counts_;
  bool keepRequests_ = true;
};

/// A port on 127.0.0.1 where nothing listens (connections are refused).
int closedPort();

/// A listener on 127.0.0.1 that accepts connections and never answers.
class SilentServer {
 public:
  SilentServer();
  ~SilentServer();
  int port() const { return port_; }

 private:
  int socket_ = -1;
  int port_ = 0;
};

}  // namespace quillet::testing
