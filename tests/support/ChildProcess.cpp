#include "support/ChildProcess.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace quillet::testing {
ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& input) {
  std::ofstream(files_ / "in", std::ios::binary) << input;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, (files_ / "in").c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, (files_ / "out").c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, (files_ / "err").c_str(), O_WRONLY | O_CREAT, 0600);
  std::vector<char*> args;
  for (const auto& arg : argv)
    args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
  kill();
  reap(0);
}

void ChildProcess::kill() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
}

bool ChildProcess::reap(int options) {
  int status = 0;
  if (pid_ <= 0 || waitpid(pid_, &status, options) != pid_) return pid_ <= 0;
  pid_ = -1;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return true;
}

bool ChildProcess::awaitLines(std::size_t lines) {
  for (bool ended = false;; ended = reap(WNOHANG)) {
    const std::string out = fileText(files_ / "out");
    if (static_cast<std::size_t>(std::count(out.begin(), out.end(), '\n')) >= lines) return true;
    if (ended) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

ChildProcess::Result ChildProcess::finish() {
  reap(0);
  return {status_, fileText(files_ / "out"), fileText(files_ / "err")};
}

ChildProcess::Result runProcess(const std::vector<std::string>& argv, const std::string& input) {
  return ChildProcess(argv, input).finish();
}

}  // namespace quillet::testing
