#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace quillet::testing {

/// Another process with its standard input, output and error on pipes.
class ChildProcess {
 public:
  struct Result {
    int status = -1;  ///< the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
  };

  /// Starts `argv[0]` with the arguments that follow; the environment is inherited.
  explicit ChildProcess(std::vector<std::string> argv);
  /// Kills and reaps the process if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const noexcept { return pid_ > 0; }
  void kill();
  /// Reads standard output until it holds `lines` line ends or ends; what was read is kept for
  /// `finish`. Returns whether that many lines came.
  bool awaitLines(std::size_t lines);
  /// Writes `input` and closes standard input, reads both outputs to their end, and waits.
  Result finish(const std::string& input = "");

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  int err_ = -1;
  std::string early_;  ///< standard output read before `finish`
};

/// Runs a program to its end.
ChildProcess::Result runProcess(std::vector<std::string> argv, const std::string& input = "");

}  // namespace quillet::testing
