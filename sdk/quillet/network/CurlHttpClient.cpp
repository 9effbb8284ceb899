#include "quillet/network/CurlHttpClient.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>
#include <memory>

#include <curl/curl.h>

#include "quillet/base/Fatal.h"

namespace quillet {
namespace {

constexpr long kConnectionsPerHost = 8;
constexpr long kIdleConnectionsKept = 16;

void initialiseCurlOnce() {
  static const bool initialised = [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("libcurl failed to start");
    return true;
  }();
  (void)initialised;
}

struct EasyCleanup {
  void operator()(CURL* easy) const noexcept { curl_easy_cleanup(easy); }
};
struct HeaderListCleanup {
  void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  return std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  });
}

HttpError errorFor(CURLcode code, const char* detail, bool tooLarge, std::size_t limit) {
  const std::string text = detail[0] != '\0' ? std::string(detail) : curl_easy_strerror(code);
  if (tooLarge) {
    return {HttpErrorCode::responseTooLarge,
            "The response is larger than " + std::to_string(limit) + " bytes"};
  }
  switch (code) {
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return {HttpErrorCode::badUrl, text};
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return {HttpErrorCode::cannotFindHost, text};
    case CURLE_COULDNT_CONNECT:
      return {HttpErrorCode::cannotConnect, text};
    case CURLE_OPERATION_TIMEDOUT:
      return {HttpErrorCode::timedOut, text};
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
      return {HttpErrorCode::connectionLost, text};
    case CURLE_TOO_MANY_REDIRECTS:
      return {HttpErrorCode::tooManyRedirects, text};
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CACERT_BADFILE:
      return {HttpErrorCode::secureConnectionFailed, text};
    default:
      return {HttpErrorCode::other, text};
  }
}

}  // namespace

// One request on its way: the easy handle and everything it points into.
struct CurlHttpClient::Transfer {
  std::unique_ptr<CURL, EasyCleanup> easy;
  std::unique_ptr<curl_slist, HeaderListCleanup> headers;
  HttpRequest request;
  HttpCompletion completion;
  Bytes data;
  HttpHeaders responseHeaders;
  std::size_t limit = 0;
  bool tooLarge = false;
  char errorText[CURL_ERROR_SIZE] = {};

  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* self) {
    auto* transfer = static_cast<Transfer*>(self);
    const std::size_t length = size * count;
    if (transfer->data.size() + length > transfer->limit) {
      transfer->tooLarge = true;
      return 0;  // aborts the transfer
    }
    transfer->data.insert(transfer->data.end(), bytes, bytes + length);
    return length;
  }

  static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* self) {
    auto* transfer = static_cast<Transfer*>(self);
    const std::size_t length = size * count;
    std::string_view line(bytes, length);
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
      line.remove_suffix(1);
    if (line.starts_with("HTTP/")) {
      transfer->responseHeaders.clear();  // a new response of a redirect chain
      return length;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return length;
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
      value.remove_prefix(1);
    const std::string_view name = line.substr(0, colon);
    if (startsWithIgnoringCase(name, "content-length") && name.size() == 14) {
      std::size_t expected = 0;
      std::from_chars(value.data(), value.data() + value.size(), expected);
      transfer->data.reserve(std::min(expected, transfer->limit));
    }
    transfer->responseHeaders.emplace_back(name, value);
    return length;
  }
};

CurlHttpClient::CurlHttpClient() : CurlHttpClient(Options{}) {}

CurlHttpClient::CurlHttpClient(Options options) : options_(options) {
  initialiseCurlOnce();
  multi_ = curl_multi_init();
  if (multi_ == nullptr) fatalError("libcurl could not create a multi handle");
  // A burst of requests to one host (a run of consent posts) waits for a free connection instead
  // of opening one socket per request, and the idle connections kept for reuse stay few.
  curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, kConnectionsPerHost);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, kIdleConnectionsKept);
  worker_ = std::thread([this] { run(); });
}

CurlHttpClient::~CurlHttpClient() {
  if (std::this_thread::get_id() == worker_.get_id()) {
    fatalError("a CurlHttpClient was destroyed from one of its own completions");
  }
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  curl_multi_wakeup(static_cast<CURLM*>(multi_));
  worker_.join();
  curl_multi_cleanup(static_cast<CURLM*>(multi_));
}

void CurlHttpClient::send(HttpRequest request, HttpCompletion completion) {
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(Queued{std::move(request), std::move(completion)});
  }
  curl_multi_wakeup(static_cast<CURLM*>(multi_));
}

void CurlHttpClient::run() {
  auto* multi = static_cast<CURLM*>(multi_);
  std::map<CURL*, std::unique_ptr<Transfer>> active;
  const auto fail = [](HttpCompletion& completion, HttpError error) {
    if (completion) completion(std::nullopt, std::nullopt, std::move(error));
  };

  for (;;) {
    std::deque<Queued> arrived;
    bool stopping = false;
    {
      std::lock_guard lock(mutex_);
      arrived.swap(queue_);
      stopping = stopping_;
    }
    if (stopping) {
      for (auto& queued : arrived)
        fail(queued.completion, {HttpErrorCode::cancelled, "cancelled"});
      for (auto& [easy, transfer] : active) {
        curl_multi_remove_handle(multi, easy);
        fail(transfer->completion, {HttpErrorCode::cancelled, "cancelled"});
      }
      return;
    }

    for (auto& queued : arrived) {
      auto transfer = std::make_unique<Transfer>();
      transfer->request = std::move(queued.request);
      transfer->completion = std::move(queued.completion);
      transfer->limit = options_.maxResponseBytes;
      transfer->easy.reset(curl_easy_init());
      CURL* easy = transfer->easy.get();
      if (easy == nullptr) {
        fail(transfer->completion, {HttpErrorCode::other, "libcurl could not create a handle"});
        continue;
      }
      const HttpRequest& request = transfer->request;
      const long timeoutMs = static_cast<long>(std::max<std::int64_t>(1, request.timeout.count()));
      const long connectMs =
          std::min(timeoutMs, static_cast<long>(options_.connectTimeout.count()));
      curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
      curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
      curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
      curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
      curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
      curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");  // every encoding libcurl decodes
      curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeoutMs);
      curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, connectMs);
      curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
      curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
      curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
      curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorText);
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
      curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
      curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
      if (request.method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
      } else if (request.method != "GET") {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        if (!request.body.empty()) {
          curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
          curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                           static_cast<curl_off_t>(request.body.size()));
        }
      }
      curl_slist* headers = nullptr;
      for (const auto& [name, value] : request.headers) {
        std::string line = name;
        line.append(": ").append(value);
        headers = curl_slist_append(headers, line.c_str());
      }
      transfer->headers.reset(headers);
      curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
      if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
        fail(transfer->completion, {HttpErrorCode::other, "libcurl could not start the request"});
        continue;
      }
      active.emplace(easy, std::move(transfer));
    }

    int running = 0;
    curl_multi_perform(multi, &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      const auto found = active.find(message->easy_handle);
      if (found == active.end()) continue;
      std::unique_ptr<Transfer> transfer = std::move(found->second);
      active.erase(found);
      curl_multi_remove_handle(multi, transfer->easy.get());
      const CURLcode result = message->data.result;
      if (result == CURLE_OK) {
        long status = 0;
        curl_easy_getinfo(transfer->easy.get(), CURLINFO_RESPONSE_CODE, &status);
        if (transfer->completion) {
          transfer->completion(
              std::move(transfer->data),
              HttpResponse{static_cast<int>(status), std::move(transfer->responseHeaders)},
              std::nullopt);
        }
      } else {
        fail(transfer->completion,
             errorFor(result, transfer->errorText, transfer->tooLarge, transfer->limit));
      }
    }
    curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
}

}  // namespace quillet
