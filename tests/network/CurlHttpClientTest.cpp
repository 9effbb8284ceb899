#include <future>

#include <gtest/gtest.h>

#include "quillet/network/CurlHttpClient.h"
#include "quillet/network/Url.h"

#include "support/TestData.h"
#include "support/TestServer.h"

namespace quillet {
namespace {

using testing::Reply;
using namespace std::chrono_literals;

// Sends and waits for the completion (at most 20 seconds, so that a hang fails instead): the
// status, the named response headers and the body, or the error's code; and whether the
// completion came within five seconds.
std::string exchange(HttpClient& client, HttpRequest request) {
  auto promise = std::make_shared<std::promise<std::string>>();
  const auto started = std::chrono::steady_clock::now();
  client.send(
      std::move(request), [promise](std::optional<Bytes> data, std::optional<HttpResponse> response,
                                    std::optional<HttpError> error) {
        std::string out;
        if (error) {
          static constexpr const char* kCodes[] = {"bad URL",         "cannot find host",
                                                   "cannot connect",  "timed out",
                                                   "connection lost", "too many redirects",
                                                   "too large",       "secure connection failed",
                                                   "cancelled",       "other"};
          out = std::string("error: ") + kCodes[static_cast<int>(error->code)] +
                (error->description.empty() ? " without a description" : "");
        }
        if (response) out += "status " + std::to_string(response->status);
        for (const auto& [name, value] : response ? response->headers : HttpHeaders{}) {
          if (strcasecmp(name.c_str(), "content-type") == 0) out += " type " + value;
          if (strcasecmp(name.c_str(), "content-encoding") == 0) out += " compressed";
        }
        if (data)
          out += " body " +
                 std::string(reinterpret_cast<const char*>(data->data()),
                             std::min<std::size_t>(data->size(), 40)) +
                 " (" + std::to_string(data->size()) + " bytes)";
        promise->set_value(out);
      });
  auto future = promise->get_future();
  if (future.wait_for(20s) != std::future_status::ready) return "no completion";
  return future.get() + (std::chrono::steady_clock::now() - started > 5s ? " (slow)" : "");
}

class CurlHttpClientTest : public ::testing::Test {
 protected:
  std::string local(int port) const { return "http://127.0.0.1:" + std::to_string(port) + "/x"; }

  testing::TestServer server_;
  CurlHttpClient client_;
};

// Bodies, statuses (an error status is a response, not an error), posts, compression, and every
// transport fault as an error without data, in testdata/golden/http-exchanges.txt.
TEST_F(CurlHttpClientTest, EachExchangeGivesItsGoldenOutcome) {
  const testing::SilentServer silent;
  server_.reply("ok.json", Reply{.body = R"({"a":1})"});
  server_.reply("error.json", Reply{.status = 500, .body = R"({"b":2})"});
  server_.reply("big.json", Reply{.body = R"({"vendors":")" + std::string(20000, 'v') + R"("})"});
  server_.reply("loop", Reply{.kind = Reply::Kind::redirectLoop});
  server_.reply("cut.json", Reply{.kind = Reply::Kind::cutOff, .body = std::string(4000, ' ')});
  server_.reply("huge", Reply{.kind = Reply::Kind::huge, .size = std::size_t{40} * 1024 * 1024});
  const std::pair<const char*, HttpRequest> rows[] = {
      {"ok", {.url = server_.cdnBase() + "ok.json"}},
      {"server error", {.url = server_.cdnBase() + "error.json"}},
      {"compressed", {.url = server_.cdnBase() + "big.json"}},
      {"post",
       {.method = "POST",
        .url = server_.apiBase() + "/v1/consent",
        .headers = {{"Content-Type", "application/json"}},
        .body = R"({"x":"é"})"}},
      {"put", {.method = "PUT", .url = server_.apiBase() + "/v1/consent", .body = "{}"}},
      {"redirect loop", {.url = server_.cdnBase() + "loop"}},
      {"refused", {.url = local(testing::closedPort())}},
      {"silent", {.url = local(silent.port()), .timeout = 300ms}},
      {"cut off", {.url = server_.cdnBase() + "cut.json"}},
      {"too large", {.url = server_.cdnBase() + "huge"}},
      {"bad address", {.url = "http://exa mple.com/"}},
      {"file", {.url = "file:///etc/passwd"}},
      // TLS against a plain HTTP port fails the handshake; it never falls back to plain text.
      {"TLS to plain HTTP",
       {.url = "https://127.0.0.1:" + std::to_string(server_.port()) + "/cdn/x"}},
  };
  std::string all;
  for (const auto& [what, request] : rows)
    all += std::string(what) + ": " + exchange(client_, request) + "\n";
  for (const auto& request : server_.requests()) {
    const auto type = request.headers.find("Content-Type");
    all += request.method + " " + request.path + " " + request.body + " " +
           (type == request.headers.end() ? "" : type->second) + "\n";
  }
  EXPECT_TRUE(testing::matchesGolden("http-exchanges.txt", all));
}

TEST_F(CurlHttpClientTest, KeepsManyRequestsInFlightAndAcceptsSendsFromCompletions) {
  server_.reply("a.json", Reply{.body = "[1]"});
  const testing::SilentServer silent;
  std::vector<std::future<std::string>> futures;
  // A request that never finishes must not hold up the others.
  auto stalled = std::async(std::launch::async, [&] {
    return exchange(client_, {.url = local(silent.port()), .timeout = 3s});
  });
  for (int i = 0; i < 40; ++i) {
    futures.push_back(std::async(std::launch::async, [&] {
      return exchange(client_, {.url = server_.cdnBase() + "a.json"});
    }));
  }
  for (auto& future : futures)
    EXPECT_EQ(future.get(), "status 200 compressed type application/json body [1] (3 bytes)");
  EXPECT_EQ(stalled.get(), "error: timed out");

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
  ASSERT_EQ(second.wait_for(10s), std::future_status::ready);
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
    std::this_thread::sleep_for(50ms);
  }
  auto future = promise->get_future();
  ASSERT_EQ(future.wait_for(0s), std::future_status::ready);
  EXPECT_EQ(future.get().code, HttpErrorCode::cancelled);
}

TEST(CurlHttpClient, TakesABodyOfExactlyTheLimitAndNotOneByteMore) {
  testing::TestServer server;
  server.reply("full", Reply{.body = std::string(1000, 'x'), .contentType = "text/plain"});
  server.reply("over", Reply{.body = std::string(1001, 'x'), .contentType = "text/plain"});
  CurlHttpClient client({.maxResponseBytes = 1000});
  EXPECT_EQ(exchange(client, {.url = server.cdnBase() + "full"}),
            "status 200 compressed type text/plain body xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx "
            "(1000 bytes)");
  EXPECT_EQ(exchange(client, {.url = server.cdnBase() + "over"}), "error: too large");
}

TEST(CurlHttpClientDeathTest, AClientDestroyedFromItsOwnCompletionStopsTheProcess) {
  EXPECT_DEATH(
      {
        auto client = std::make_shared<CurlHttpClient>();
        auto* last = &client;
        client->send({.url = "http://127.0.0.1:" + std::to_string(testing::closedPort()) + "/"},
                     [last](std::optional<Bytes>, std::optional<HttpResponse>,
                            std::optional<HttpError>) { last->reset(); });
        std::this_thread::sleep_for(20s);
      },
      "destroyed from one of its own completions");
}

TEST(Url, AcceptsOnlyAbsoluteHttpAddresses) {
  for (const char* url : {"https://cdn.example/abc/banner_config.json", "http://127.0.0.1:8080/x"})
    EXPECT_TRUE(isValidHttpUrl(url)) << url;
  for (const char* url : {"https://cdn.example/a b/banner_config.json", "https://cdn.example/a\nb",
                          "cdn.example/x", "ftp://cdn.example/x", "https://", ""})
    EXPECT_FALSE(isValidHttpUrl(url)) << url;
}

}  // namespace
}  // namespace quillet
