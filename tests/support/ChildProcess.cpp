#include "support/ChildProcess.h"

#include <algorithm>
#include <array>
#include <csignal>

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace quillet::testing {

ChildProcess::ChildProcess(std::vector<std::string> argv) {
  std::array<int, 2> in{}, out{}, err{};
  if (pipe(in.data()) != 0 || pipe(out.data()) != 0 || pipe(err.data()) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  for (const int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) {
    posix_spawn_file_actions_addclose(&actions, fd);
  }
  std::vector<char*> args;
  for (auto& arg : argv)
    args.push_back(arg.data());
  args.push_back(nullptr);
  if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  close(err[1]);
  in_ = in[1];
  out_ = out[0];
  err_ = err[0];
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  for (const int fd : {in_, out_, err_}) {
    if (fd >= 0) close(fd);
  }
}

void ChildProcess::kill() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
}

bool ChildProcess::awaitLines(std::size_t lines) {
  while (static_cast<std::size_t>(std::count(early_.begin(), early_.end(), '\n')) < lines) {
    std::array<char, 4096> buffer{};
    const ssize_t n = out_ >= 0 ? read(out_, buffer.data(), buffer.size()) : 0;
    if (n <= 0) return false;
    early_.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return true;
}

ChildProcess::Result ChildProcess::finish(const std::string& input) {
  Result result;
  if (pid_ <= 0) return result;
  result.out = std::move(early_);
  std::size_t written = 0;
  if (input.empty()) {
    close(in_);
    in_ = -1;
  }
  std::array<pollfd, 3> fds{pollfd{out_, POLLIN, 0}, pollfd{err_, POLLIN, 0},
                            pollfd{in_, POLLOUT, 0}};
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    if (poll(fds.data(), fds.size(), -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        std::array<char, 4096> buffer{};
        const ssize_t n = read(fds[i].fd, buffer.data(), buffer.size());
        if (n <= 0) {
          fds[i].fd = -1;
        } else {
          (i == 0 ? result.out : result.err).append(buffer.data(), static_cast<std::size_t>(n));
        }
      }
    }
    if (fds[2].fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
      const ssize_t n = write(fds[2].fd, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<std::size_t>(n);
      if (n <= 0 || written == input.size()) {
        close(in_);
        in_ = -1;
        fds[2].fd = -1;
      }
    }
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

ChildProcess::Result runProcess(std::vector<std::string> argv, const std::string& input) {
  ChildProcess child(std::move(argv));
  return child.finish(input);
}

}  // namespace quillet::testing
