#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "support/TestData.h"

namespace quillet::testing {

/// Another process, its standard input read from a given text and its outputs kept in files.
class ChildProcess {
 public:
  struct Result {
    int status = -1;  ///< the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
  };

  /// Starts `argv[0]` with the arguments that follow; the environment is inherited.
  explicit ChildProcess(const std::vector<std::string>& argv, const std::string& input = "");
  /// Kills and reaps the process if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void kill();
  /// Waits until standard output holds `lines` line ends; false when the process ends first.
  bool awaitLines(std::size_t lines);
  /// Waits for the end of the process.
  Result finish();

 private:
  /// Waits for the end (`options` as for waitpid); true once it has ended.
  bool reap(int options);

  TempDirectory files_;
  pid_t pid_ = -1;
  int status_ = -1;
};

/// Runs a program to its end.
ChildProcess::Result runProcess(const std::vector<std::string>& argv,
                                const std::string& input = "");

}  // namespace quillet::testing
