// Writes to a store until it is killed, for the storage tests:
//
//   store_tool PATH ROUND    forever: sets "k<i>" and "last" to ROUND * 1000000 + i,
//                            synchronises, then prints i on standard output

#include <cstdio>
#include <string>

#include "quillet/storage/SqliteKeyValueStore.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  auto opened = quillet::SqliteKeyValueStore::open(argv[1]);
  if (!opened) {
    std::fprintf(stderr, "%s\n", opened.error().c_str());
    return 1;
  }
  const auto store = std::move(opened).value();
  const std::int64_t base = std::stoll(argv[2]) * 1000000;
  for (std::int64_t i = 1;; ++i) {
    store->set("k" + std::to_string(i), base + i);
    store->set("last", base + i);
    if (!store->synchronize()) return 1;
    std::printf("%lld\n", static_cast<long long>(i));
    std::fflush(stdout);
  }
}
