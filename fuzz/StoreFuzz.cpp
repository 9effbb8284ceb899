// The SQLite store driven by an arbitrary sequence of operations and checked, read for read,
// against the in-memory store. Keys come from a small set so that operations meet; values are
// every kind the store holds, dictionaries nested.

#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include <unistd.h>

#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"

#include "FuzzInput.h"

namespace {

using namespace quillet;

constexpr int kKeys = 6;

std::string keyFor(std::uint8_t b) {
  return b % (kKeys + 1) == kKeys ? std::string() : "key" + std::to_string(b % (kKeys + 1));
}

StoreValue valueFrom(fuzz::Reader& in, int depth) {
  switch (in.byte() % (depth < 3 ? 6 : 5)) {
    case 0:
      return in.byte() % 2 == 1;
    case 1:
      return in.integer();
    case 2: {
      const std::int64_t bits = in.integer();
      double d = 0;
      static_assert(sizeof d == sizeof bits);
      std::memcpy(&d, &bits, sizeof d);
      return d;
    }
    case 3:
      return std::string(in.bytes(40));
    case 4: {
      const auto b = in.bytes(40);
      return Bytes(b.begin(), b.end());
    }
    default: {
      StoreValue::Dictionary dictionary;
      const int n = in.byte() % 4;
      for (int i = 0; i < n; ++i)
        dictionary.insert_or_assign(std::string(in.bytes(8)), valueFrom(in, depth + 1));
      return dictionary;
    }
  }
}

// Equal, with NaN equal to NaN (a stored NaN must come back as a NaN).
bool same(const StoreValue& a, const StoreValue& b);
bool same(const StoreValue::Dictionary& a, const StoreValue::Dictionary& b) {
  if (a.size() != b.size()) return false;
  for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j) {
    if (i->first != j->first || !same(i->second, j->second)) return false;
  }
  return true;
}
bool same(const StoreValue& a, const StoreValue& b) {
  const auto* x = a.get<double>();
  const auto* y = b.get<double>();
  if (x && y && std::isnan(*x) && std::isnan(*y)) return true;
  const auto* p = a.get<StoreValue::Dictionary>();
  const auto* q = b.get<StoreValue::Dictionary>();
  if (p && q) return same(*p, *q);
  return a == b;
}

void compare(const KeyValueStore& sqlite, const KeyValueStore& memory, const std::string& key) {
  const auto s = sqlite.get(key);
  const auto m = memory.get(key);
  if (s.has_value() != m.has_value() || (s && !same(*s, *m))) {
    std::fprintf(stderr, "key \"%s\"\n", key.c_str());
    fuzz::fail("get differs");
  }
  if (sqlite.readBool(key) != memory.readBool(key)) fuzz::fail("readBool differs");
  if (sqlite.readInteger(key) != memory.readInteger(key)) fuzz::fail("readInteger differs");
  if (sqlite.readString(key) != memory.readString(key)) fuzz::fail("readString differs");
  if (sqlite.readBytes(key) != memory.readBytes(key)) fuzz::fail("readBytes differs");
  const auto sd = sqlite.readDictionary(key);
  const auto md = memory.readDictionary(key);
  if (sd.has_value() != md.has_value() || (sd && !same(*sd, *md)))
    fuzz::fail("readDictionary differs");
}

std::shared_ptr<SqliteKeyValueStore> sqliteStore() {
  static const auto store = [] {
    const auto directory = std::filesystem::temp_directory_path() /
                           ("quillet-store-fuzz-" + std::to_string(::getpid()));
    std::filesystem::remove_all(directory);
    auto opened = SqliteKeyValueStore::open(directory / "store.sqlite");
    if (!opened) fuzz::fail("cannot open a store in the temporary directory");
    std::atexit([] {
      std::filesystem::remove_all(std::filesystem::temp_directory_path() /
                                  ("quillet-store-fuzz-" + std::to_string(::getpid())));
    });
    return *opened;
  }();
  return store;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto sqlite = sqliteStore();
  for (int k = 0; k <= kKeys; ++k)
    sqlite->remove(keyFor(static_cast<std::uint8_t>(k)));
  MemoryKeyValueStore memory;

  fuzz::Reader in({data, size});
  for (int step = 0; step < 64 && !in.empty(); ++step) {
    const std::uint8_t op = in.byte();
    const std::string key = keyFor(in.byte());
    switch (op % 8) {
      case 0:
      case 1:
      case 2: {
        StoreValue value = valueFrom(in, 0);
        sqlite->set(key, value);
        memory.set(key, std::move(value));
        break;
      }
      case 3:
        sqlite->remove(key);
        memory.remove(key);
        break;
      case 4:
        // Durability is costly; a rare synchronise keeps the fuzzer fast.
        if (in.byte() == 0 && !sqlite->synchronize()) fuzz::fail("synchronize failed");
        break;
      default:
        compare(*sqlite, memory, key);
    }
  }
  for (int k = 0; k <= kKeys; ++k)
    compare(*sqlite, memory, keyFor(static_cast<std::uint8_t>(k)));
  return 0;
}
