#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/Url.h"

#include "support/TestServer.h"

namespace quillet {
namespace {

using ::testing::HasSubstr;
using testing::Reply;

struct Outcome {
  std::optional<Bytes> data;
  std::optional<HttpResponse> response;
  std::optional<HttpError> error;

  std::string body() const { return data ? std::string(data->begin(), data->end()) : "(none)"; }
  std::optional<std::string> header(std::string_view name) const {
    if (!response) return std::nullopt;
    for (const auto& [key, value] : response->headers) {
      if (strcasecmp(key.c_str(), std::string(name).c_str()) == 0) return value;
    }
    return std::nullopt;
  }
};

// Sends and waits for the completion (at most 20 seconds, so that a hang fails instead).
Outcome exchange(HttpClient& client, HttpRequest request) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto future = promise->get_future();
  client.send(std::move(request),
              [promise](std::optional<Bytes> data, std::optional<HttpResponse> response,
                        std::optional<HttpError> error) {
                promise->set_value(Outcome{std::move(data), std::move(response), std::move(error)});
              });
  if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
    ADD_FAILURE() << "no completion within 20 seconds";
    return {};
  }
  return future.get();
}

class CurlHttpClientTest : public ::testing::Test {
 protected:
  testing::TestServer server_;
  CurlHttpClient client_;
};

TEST_F(CurlHttpClientTest, GetsBodiesStatusesAndHeaders) {
  server_.reply("ok.json", Reply{.status = 200, .body = R"({"a":1})"});
  server_.reply("error.json", Reply{.status = 500, .body = R"({"b":2})"});
  const Outcome ok = exchange(client_, {.url = server_.cdnBase() + "ok.json"});
  ASSERT_FALSE(ok.error);
  EXPECT_EQ(ok.response->status, 200);
  EXPECT_EQ(ok.body(), R"({"a":1})");
  EXPECT_EQ(ok.header("content-type"), "application/json");
  // An HTTP error status is a response, not an error.
  const Outcome failed = exchange(client_, {.url = server_.cdnBase() + "error.json"});
  ASSERT_FALSE(failed.error);
  EXPECT_EQ(failed.response->status, 500);
  EXPECT_EQ(failed.body(), R"({"b":2})");
}

TEST_F(CurlHttpClientTest, PostsTheBodyAndHeaders) {
  const Outcome posted = exchange(client_, {.method = "POST",
                                            .url = server_.apiBase() + "/v1/consent",
                                            .headers = {{"Content-Type", "application/json"}},
                                            .body = R"({"x":"é"})"});
  ASSERT_FALSE(posted.error) << posted.error->description;
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].body, R"({"x":"é"})");
  EXPECT_EQ(requests[0].headers.find("Content-Type")->second, "application/json");
}

TEST_F(CurlHttpClientTest, DecodesCompressedResponses) {
  const std::string body = R"({"vendors":")" + std::string(20000, 'v') + R"("})";
  server_.reply("big.json", Reply{.body = body});
  const Outcome outcome = exchange(client_, {.url = server_.cdnBase() + "big.json"});
  ASSERT_FALSE(outcome.error);
  EXPECT_EQ(outcome.body(), body);
  ASSERT_TRUE(outcome.header("content-encoding").has_value());  // the server compressed it
  const std::string encoding = *outcome.header("content-encoding");
  EXPECT_TRUE(encoding == "br" || encoding == "gzip" || encoding == "deflate") << encoding;
}

TEST_F(CurlHttpClientTest, FollowsRedirectsButNotForever) {
  server_.reply("loop", Reply{.kind = Reply::Kind::redirectLoop});
  const Outcome loop = exchange(client_, {.url = server_.cdnBase() + "loop"});
  ASSERT_TRUE(loop.error);
  EXPECT_EQ(loop.error->code, HttpErrorCode::tooManyRedirects);
  EXPECT_EQ(server_.count("/cdn/loop"), 11U);  // the request and ten redirects
  EXPECT_FALSE(loop.data);
}

TEST_F(CurlHttpClientTest, ReportsEveryTransportFaultAsAnErrorWithoutData) {
  const testing::SilentServer silent;
  server_.reply("cut.json", Reply{.kind = Reply::Kind::cutOff, .body = std::string(4000, ' ')});
  server_.reply("huge", Reply{.kind = Reply::Kind::huge, .size = std::size_t{40} * 1024 * 1024});
  const auto local = [](int port) { return "http://127.0.0.1:" + std::to_string(port); };
  const std::pair<HttpRequest, std::optional<HttpErrorCode>> rows[] = {
      {{.url = local(testing::closedPort()) + "/x"}, HttpErrorCode::cannotConnect},
      {{.url = local(silent.port()) + "/x", .timeout = std::chrono::milliseconds(300)},
       HttpErrorCode::timedOut},
      {{.url = server_.cdnBase() + "cut.json"}, HttpErrorCode::connectionLost},
      {{.url = server_.cdnBase() + "huge"}, HttpErrorCode::responseTooLarge},
      {{.url = "http://exa mple.com/"}, HttpErrorCode::badUrl},
      {{.url = "file:///etc/passwd"}, std::nullopt},
      // TLS against a plain HTTP port fails the handshake; it never falls back to plain text.
      {{.url = "https://127.0.0.1:" + std::to_string(server_.port()) + "/cdn/x"},
       HttpErrorCode::secureConnectionFailed},
  };
  for (const auto& [request, code] : rows) {
    SCOPED_TRACE(request.url);
    const auto started = std::chrono::steady_clock::now();
    const Outcome outcome = exchange(client_, request);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(code.value_or(outcome.error->code), outcome.error->code);
    EXPECT_FALSE(outcome.error->description.empty());
    EXPECT_FALSE(outcome.data);
  }
}

TEST_F(CurlHttpClientTest, KeepsManyRequestsInFlightAndAcceptsSendsFromCompletions) {
  server_.reply("a.json", Reply{.body = "[1]"});
  const testing::SilentServer silent;
  constexpr int kRequests = 40;
  std::vector<std::future<Outcome>> futures;
  // A request that never finishes must not hold up the others.
  auto stalled = std::async(std::launch::async, [&] {
    return exchange(client_, {.url = "http://127.0.0.1:" + std::to_string(silent.port()) + "/",
                              .timeout = std::chrono::seconds(3)});
  });
  for (int i = 0; i < kRequests; ++i) {
    futures.push_back(std::async(std::launch::async, [&] {
      return exchange(client_, {.url = server_.cdnBase() + "a.json"});
    }));
  }
  for (auto& future : futures)
    EXPECT_EQ(future.get().body(), "[1]");
  EXPECT_EQ(stalled.get().error->code, HttpErrorCode::timedOut);

  auto chained = std::make_shared<std::promise<std::string>>();
  client_.send(
      {.url = server_.cdnBase() + "a.json"},
      [this, chained](std::optional<Bytes>, std::optional<HttpResponse>, std::optional<HttpError>) {
        client_.send({.url = server_.cdnBase() + "a.json"},
                     [chained](std::optional<Bytes> data, std::optional<HttpResponse>,
                               std::optional<HttpError>) {
                       chained->set_value(std::string(data->begin(), data->end()));
                     });
      });
  auto second = chained->get_future();
  ASSERT_EQ(second.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(second.get(), "[1]");
}

TEST(CurlHttpClient, DestroyingTheClientCancelsWhatIsInFlight) {
  const testing::SilentServer silent;
  auto promise = std::make_shared<std::promise<HttpError>>();
  {
    CurlHttpClient client;
    client.send({.url = "http://127.0.0.1:" + std::to_string(silent.port()) + "/"},
                [promise](std::optional<Bytes>, std::optional<HttpResponse>,
                          std::optional<HttpError> error) { promise->set_value(*error); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  auto future = promise->get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  EXPECT_EQ(future.get().code, HttpErrorCode::cancelled);
}

TEST(CurlHttpClient, TakesABodyOfExactlyTheLimitAndNotOneByteMore) {
  testing::TestServer server;
  server.reply("full", Reply{.body = std::string(1000, 'x'), .contentType = "text/plain"});
  server.reply("over", Reply{.body = std::string(1001, 'x'), .contentType = "text/plain"});
  CurlHttpClient client({.maxResponseBytes = 1000});
  EXPECT_EQ(exchange(client, {.url = server.cdnBase() + "full"}).body().size(), 1000U);
  const Outcome over = exchange(client, {.url = server.cdnBase() + "over"});
  ASSERT_TRUE(over.error);
  EXPECT_EQ(over.error->code, HttpErrorCode::responseTooLarge);
}

TEST(CurlHttpClientDeathTest, AClientDestroyedFromItsOwnCompletionStopsTheProcess) {
  EXPECT_DEATH(
      {
        auto client = std::make_shared<CurlHttpClient>();
        auto* last = &client;
        client->send({.url = "http://127.0.0.1:" + std::to_string(testing::closedPort()) + "/"},
                     [last](std::optional<Bytes>, std::optional<HttpResponse>,
                            std::optional<HttpError>) { last->reset(); });
        std::this_thread::sleep_for(std::chrono::seconds(20));
      },
      "destroyed from one of its own completions");
}

TEST(Url, AcceptsOnlyAbsoluteHttpAddresses) {
  EXPECT_TRUE(isValidHttpUrl("https://cdn.example/abc/banner_config.json"));
  EXPECT_TRUE(isValidHttpUrl("http://127.0.0.1:8080/x"));
  EXPECT_FALSE(isValidHttpUrl("https://cdn.example/a b/banner_config.json"));
  EXPECT_FALSE(isValidHttpUrl("https://cdn.example/a\nb"));
  EXPECT_FALSE(isValidHttpUrl("cdn.example/x"));
  EXPECT_FALSE(isValidHttpUrl("ftp://cdn.example/x"));
  EXPECT_FALSE(isValidHttpUrl("https://"));
  EXPECT_FALSE(isValidHttpUrl(""));
}

}  // namespace
}  // namespace quillet
