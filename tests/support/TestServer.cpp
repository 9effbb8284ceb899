#include "support/TestServer.h"

#include <algorithm>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "quillet/webhost/StartAccepting.h"

namespace quillet::testing {
namespace {

int boundSocket(int backlog) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot bind a loopback socket");
  }
  if (backlog > 0 && listen(fd, backlog) != 0) throw std::runtime_error("cannot listen");
  return fd;
}

int portOf(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

}  // namespace

TestServer::TestServer() {
  // Enough workers for every connection a test opens at once, and short keep-alive so that idle
  // connections give their worker back soon.
  server_.new_task_queue = [] { return new httplib::ThreadPool(64); };
  server_.set_keep_alive_timeout(1);
  server_.Get(R"(/cdn/(.+))", [this](const httplib::Request& request, httplib::Response& response) {
    record(request);
    std::unique_lock lock(mutex_);
    const auto it = replies_.find(request.matches[1]);
    const Reply reply = it != replies_.end() ? it->second
                                             : Reply{.status = 404,
                                                     .body =
                                                         "<html><body><h1>404 Not Found</h1>"
                                                         "</body></html>",
                                                     .contentType = "text/html"};
    lock.unlock();
    std::this_thread::sleep_for(reply.delay);
    switch (reply.kind) {
      case Reply::Kind::body:
        response.status = reply.status;
        return response.set_content(reply.body, reply.contentType);
      case Reply::Kind::cutOff:
        return response.set_content_provider(
            reply.body.size(), reply.contentType,
            [body = reply.body](std::size_t offset, std::size_t, httplib::DataSink& sink) {
              return offset == 0 && sink.write(body.data(), body.size() / 2);
            });
      case Reply::Kind::huge:
        return response.set_content_provider(
            reply.size, "application/octet-stream",
            [size = reply.size](std::size_t offset, std::size_t, httplib::DataSink& sink) {
              static const std::string chunk(std::size_t{64} * 1024, 'x');
              return sink.write(chunk.data(), std::min(chunk.size(), size - offset));
            });
      case Reply::Kind::redirectLoop:
        return response.set_redirect(request.path, 302);
    }
  });
  const auto post = [this](const httplib::Request& request, httplib::Response& response) {
    record(request);
    std::lock_guard lock(mutex_);
    const auto it = postStatus_.find(request.matches[1]);
    response.status = it != postStatus_.end() ? it->second : 200;
    response.set_content("{}", "application/json");
  };
  server_.Post(R"(/api/(.+))", post);
  server_.Put(R"(/api/(.+))", post);
  port_ = server_.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("the test server could not bind");
  thread_ = startAccepting(server_);
}

TestServer::~TestServer() {
  server_.stop();
  thread_.join();
}

void TestServer::reply(const std::string& cdnPath, Reply reply) {
  std::lock_guard lock(mutex_);
  replies_[cdnPath] = std::move(reply);
}

void TestServer::replyToPost(const std::string& apiPath, int status) {
  std::lock_guard lock(mutex_);
  postStatus_[apiPath] = status;
}

void TestServer::record(const httplib::Request& request) {
  {
    std::lock_guard lock(mutex_);
    ++counts_[request.path];
    if (keepRequests_)
      requests_.push_back({request.method,
                           request.path,
                           request.body,
                           {request.headers.begin(), request.headers.end()}});
  }
  arrived_.notify_all();
}

std::vector<RecordedRequest> TestServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<RecordedRequest> TestServer::since(std::size_t& seen) const {
  std::vector<RecordedRequest> all = requests();
  std::vector<RecordedRequest> later(
      all.begin() + static_cast<std::ptrdiff_t>(std::min(seen, all.size())), all.end());
  std::sort(later.begin(), later.end(),
            [](const auto& a, const auto& b) { return a.path + a.body < b.path + b.body; });
  seen = all.size();
  return later;
}

std::size_t TestServer::count(const std::string& path) const {
  std::lock_guard lock(mutex_);
  const auto it = counts_.find(path);
  return it == counts_.end() ? 0 : it->second;
}

void TestServer::keepRequests(bool keep) {
  std::lock_guard lock(mutex_);
  keepRequests_ = keep;
}

bool TestServer::waitFor(const std::string& path, std::size_t n,
                         std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] {
    std::size_t count = 0;
    for (const auto& [seen, times] : counts_)
      count += path.empty() || seen == path ? times : 0;
    return count >= n;
  });
}

int closedPort() {
  const int fd = boundSocket(0);
  const int port = portOf(fd);
  close(fd);
  return port;
}

SilentServer::SilentServer() : socket_(boundSocket(16)), port_(portOf(socket_)) {}

SilentServer::~SilentServer() {
  close(socket_);
}

}  // namespace quillet::testing
