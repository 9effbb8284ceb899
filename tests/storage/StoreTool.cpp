// A separate process for the storage tests: writes a store in one process so that another can
// read it, and writes while it is killed.
//
//   store_tool write PATH        sets a few values of every kind, synchronises, exits
//   store_tool hammer PATH ROUND forever: sets "k<i>" and "last" to ROUND * 1000000 + i,
//                                synchronises, then prints i on standard output
//   store_tool get PATH KEY      prints readString(KEY), or "(absent)"

#include <cstdio>
#include <cstring>
#include <string>

#include "quillet/storage/SqliteKeyValueStore.h"

using quillet::Bytes;
using quillet::SqliteKeyValueStore;
using quillet::StoreValue;

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  auto opened = SqliteKeyValueStore::open(argv[2]);
  if (!opened) {
    std::fprintf(stderr, "%s\n", opened.error().c_str());
    return 1;
  }
  const auto store = std::move(opened).value();
  const std::string command = argv[1];
  if (command == "write") {
    store->set("bool", true);
    store->set("integer", std::int64_t{-42});
    store->set("double", 2.5);
    store->set("text", "Grüße");
    store->set("bytes", Bytes{0, 1, 255});
    store->set("dictionary", StoreValue::Dictionary{{"1", StoreValue::Dictionary{{"755", true}}}});
    store->set("unsynchronised-but-committed", "yes");
    return store->synchronize() ? 0 : 1;
  }
  if (command == "hammer" && argc == 4) {
    const std::int64_t base = std::stoll(argv[3]) * 1000000;
    for (std::int64_t i = 1;; ++i) {
      store->set("k" + std::to_string(i), base + i);
      store->set("last", base + i);
      if (!store->synchronize()) return 1;
      std::printf("%lld\n", static_cast<long long>(i));
      std::fflush(stdout);
    }
  }
  if (command == "get" && argc == 4) {
    const auto value = store->readString(argv[3]);
    std::printf("%s\n", value ? value->c_str() : "(absent)");
    return 0;
  }
  return 2;
}
