// Exits while the library is busy, for the facade tests:
//
//   facade_tool STORE CDN_URL API_URL
//
// It starts the shared facade on a SQLite store at STORE with the library's default HTTP client
// and logging on, then calls std::exit while the first fetch waits on a slow server. Its last
// exit handler waits long enough for the answer to arrive after the exit destroyed what it
// destroys, so that the library's threads run on through the process's end.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/storage/SqliteKeyValueStore.h"

using namespace quillet;

namespace {

class SilentLog final : public LogSink {
 public:
  void write(std::string_view) noexcept override {}
};

void lingerAtExit() {
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  // Registered before the library constructs anything, so that it runs after the library's
  // process-wide instances would have been destroyed.
  std::atexit(lingerAtExit);
  auto opened = SqliteKeyValueStore::open(argv[1]);
  if (!opened) {
    std::fprintf(stderr, "%s\n", opened.error().c_str());
    return 1;
  }
  Platform::install(
      {.keyValueStore = std::move(opened).value(), .endpoints = Endpoints{argv[2], argv[3]}});
  QltLog::setSink(std::make_shared<SilentLog>());
  QltLog::setEnabled(true);
  QuilletCMP::shared().initialize("pub");
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  std::printf("exiting\n");
  std::fflush(stdout);
  std::exit(0);
}
