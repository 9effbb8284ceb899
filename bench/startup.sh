#!/usr/bin/env bash
# Start-up of the codec commands against a C++ program that only prints a line, and against
# /bin/true (the cost of starting any process here): mean wall and CPU time of 300 starts each,
# each started by a small program with posix_spawn (a start from a shell adds the shell's own
# fork), with the shared libraries each program loads.
# usage: bench/startup.sh [path/to/quillet]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
quillet=${1:-build/release/cli/quillet}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '#include <iostream>\nint main() { std::cout << "hello\\n"; }\n' > "$work/hello.cpp"
c++ -O2 "$work/hello.cpp" -o "$work/hello"
cat > "$work/starts.cpp" <<'CPP'
// starts N program args...: starts the program N times, one after another, output to /dev/null.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
extern char** environ;
int main(int argc, char** argv) {
  const int runs = std::atoi(argv[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < runs; ++i) {
    pid_t child = 0;
    int status = 0;
    if (posix_spawn(&child, argv[2], &actions, nullptr, argv + 2, environ) != 0 ||
        waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::fprintf(stderr, "starts: %s failed\n", argv[2]);
      return 1;
    }
  }
  const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - start;
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  const double cpu = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
                     (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
  std::printf("%6.2f ms wall, %6.2f ms CPU a start\n", wall.count() / runs, cpu / runs);
}
CPP
c++ -O2 "$work/starts.cpp" -o "$work/starts"
echo '{"purposeConsents": [1, 2], "vendorConsents": [8], "gvlVendorIds": [8]}' > "$work/encode.json"
string=COtybn4PA_zT4KjACBENAPCIAEBAAECAAIAAAAAAAAAA
measure() {
  printf '%-22s ' "$1"
  shift
  "$work/starts" 300 "$@"
}
measure "/bin/true" /bin/true
measure "C++ hello" "$work/hello"
measure "quillet decode X" "$quillet" decode "$string"
measure "quillet encode" "$quillet" encode --input "$work/encode.json"
libraries() { ldd "$1" 2>/dev/null | wc -l; }
echo "shared libraries loaded: quillet $(libraries "$quillet"), C++ hello $(libraries "$work/hello")"
if ! ldd "$quillet" > /dev/null 2>&1; then
  echo "quillet is a static executable: it loads no shared library"
elif ldd "$quillet" | grep -E 'curl|sqlite|icu'; then
  echo "quillet loads the libraries above"
else
  echo "quillet loads none of libcurl, SQLite, ICU"
fi
if nm "$quillet" | grep -q -E ' (curl_|sqlite3_)'; then
  echo "quillet carries libcurl or SQLite"
else
  echo "quillet carries none of libcurl, SQLite"
fi
