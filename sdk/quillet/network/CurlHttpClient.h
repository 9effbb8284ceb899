#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>

#include "quillet/base/Export.h"
#include "quillet/network/HttpClient.h"

namespace quillet {

/// The default HttpClient: libcurl's multi interface on one worker thread, any number of
/// requests in flight at once over at most 8 connections per host (further requests wait for
/// one; their time-out runs while they wait). TLS peers are verified; at most 10 redirects are
/// followed; gzip, deflate and (where libcurl has it) brotli responses are decoded; only http and
/// https are spoken. A response body larger than the limit is cut off and reported as an error.
///
/// Destroying the client cancels what is in flight (each completion then runs with a
/// `cancelled` error) and joins the worker. A completion must not destroy its own client.
class QUILLET_EXPORT CurlHttpClient final : public HttpClient {
 public:
  struct Options {
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(15);
    std::size_t maxResponseBytes = std::size_t{32} * 1024 * 1024;
  };

  CurlHttpClient();
  explicit CurlHttpClient(Options options);
  ~CurlHttpClient() override;
  CurlHttpClient(const CurlHttpClient&) = delete;
  CurlHttpClient& operator=(const CurlHttpClient&) = delete;

  void send(HttpRequest request, HttpCompletion completion) override;

 private:
  struct Transfer;
  struct Queued {
    HttpRequest request;
    HttpCompletion completion;
  };

  void run();

  const Options options_;
  void* multi_;  // CURLM*
  std::mutex mutex_;
  std::deque<Queued> queue_;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace quillet
