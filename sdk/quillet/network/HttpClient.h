#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "quillet/base/Bytes.h"
#include "quillet/base/Export.h"

namespace quillet {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct QUILLET_EXPORT HttpRequest {
  std::string method = "GET";
  std::string url;
  HttpHeaders headers;
  std::string body;
  /// The whole exchange, connection included, must finish within this time.
  std::chrono::milliseconds timeout = std::chrono::seconds(60);
};

/// The final response of an exchange (after redirects).
struct QUILLET_EXPORT HttpResponse {
  int status = 0;
  HttpHeaders headers;  ///< names as the server wrote them
};

enum class HttpErrorCode {
  badUrl,
  cannotFindHost,
  cannotConnect,
  timedOut,
  connectionLost,
  tooManyRedirects,
  responseTooLarge,
  secureConnectionFailed,
  cancelled,
  other,
};

struct QUILLET_EXPORT HttpError {
  HttpErrorCode code = HttpErrorCode::other;
  std::string description;  ///< readable, for log lines
};

/// Called once per request. On success `data` (possibly empty) and `response` are present and
/// `error` is not; on failure `error` is present and the others are not.
using HttpCompletion =
    std::function<void(std::optional<Bytes> data, std::optional<HttpResponse> response,
                       std::optional<HttpError> error)>;

/// Sends HTTP requests asynchronously. `send` returns at once; the completion runs later on the
/// client's own background thread, never inside `send`. Implementations are safe to call from
/// any thread, and from inside a completion. There are no retries.
class QUILLET_EXPORT HttpClient {
 public:
  virtual ~HttpClient() = default;
  virtual void send(HttpRequest request, HttpCompletion completion) = 0;
};

}  // namespace quillet
