#include "quillet/storage/ConsentStorage.h"

#include <atomic>
#include <cmath>
#include <future>
#include <mutex>
#include <system_error>
#include <thread>

#include "quillet/storage/ConsentStorageStart.h"

#ifdef __linux__
#include <sched.h>
#endif

#include <boost/json/serialize.hpp>

#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/model/Json.h"
#include "quillet/model/StartDocument.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"

namespace quillet::ConsentStorage {
namespace {

// The default store, opened when the installed platform has none; reopened after the host
// installs a platform again. Never destroyed: HTTP completions may write to it at exit.
struct Default {
  std::mutex mutex;
  std::shared_ptr<KeyValueStore> store;
  std::uint64_t generation = 0;
};

Default& fallback() {
  static Default* const instance = new Default();
  return *instance;
}

std::shared_ptr<KeyValueStore> openDefault() {
  auto opened = SqliteKeyValueStore::open();
  if (opened) return std::move(opened).value();
  QltLog::e("KeyValueStore",
            [&] { return opened.error() + "; keeping consent in memory for this run"; });
  return std::make_shared<MemoryKeyValueStore>();
}

bool representable(const boost::json::value& value) {
  switch (value.kind()) {
    case boost::json::kind::double_:
      return std::isfinite(value.get_double());
    case boost::json::kind::array:
      for (const auto& element : value.get_array()) {
        if (!representable(element)) return false;
      }
      return true;
    case boost::json::kind::object:
      for (const auto& member : value.get_object()) {
        if (!representable(member.value())) return false;
      }
      return true;
    default:
      return true;
  }
}

}  // namespace

std::shared_ptr<KeyValueStore> store() {
  if (auto installed = Platform::installedKeyValueStore()) return installed;
  const std::uint64_t generation = Platform::generation();
  Default& state = fallback();
  std::lock_guard lock(state.mutex);
  if (!state.store || state.generation != generation) {
    state.store = openDefault();
    state.generation = generation;
  }
  return state.store;
}

void saveConsent(bool consent, const std::optional<std::string>& tcString) {
  const auto kv = store();
  kv->set(StorageKeys::consent, consent);
  if (tcString) {
    kv->set(StorageKeys::tcString, *tcString);
  } else {
    kv->remove(StorageKeys::tcString);
  }
  kv->synchronize();
}

bool getConsent() {
  return store()->readBool(StorageKeys::consent);
}

std::optional<std::string> getTCString() {
  const auto value = store()->get(StorageKeys::tcString);
  if (!value) return std::nullopt;
  if (const std::string* text = value->get<std::string>()) return *text;
  return std::nullopt;
}

void saveGVL(const boost::json::object& gvl) {
  for (const auto& member : gvl) {
    if (!representable(member.value())) return;
  }
  const std::string text = boost::json::serialize(gvl);
  const auto kv = store();
  kv->set(StorageKeys::gvlJson, Bytes(text.begin(), text.end()));
  kv->synchronize();
}

namespace {

// Hands the stored vendor list's bytes to `reader` as they are read, so that the stored text is
// never held whole; false when there are none or the reader stopped.
template <typename Reader>
bool readStoredGVL(const KeyValueStore& kv, Reader& reader) {
  return kv.readBytesInPieces(StorageKeys::gvlJson, [&reader](std::span<const std::uint8_t> piece) {
    return reader.read(std::string_view(reinterpret_cast<const char*>(piece.data()), piece.size()));
  });
}

// The store, and its revision of the vendor list, at which the stored bytes last read as a JSON
// object. Only that verdict is kept: a failed read may not be the bytes' fault.
struct FoundList {
  std::mutex mutex;
  std::weak_ptr<const KeyValueStore> store;
  std::uint64_t revision = 0;
};

FoundList& foundList() {
  static FoundList* const instance = new FoundList();
  return *instance;
}

bool listFoundAt(const std::shared_ptr<const KeyValueStore>& kv, std::uint64_t revision) {
  FoundList& found = foundList();
  std::lock_guard lock(found.mutex);
  return found.revision == revision && found.store.lock() == kv;
}

void noteListFoundAt(const std::shared_ptr<const KeyValueStore>& kv,
                     std::optional<std::uint64_t> revision) {
  if (!revision) return;
  FoundList& found = foundList();
  std::lock_guard lock(found.mutex);
  found.store = kv;
  found.revision = *revision;
}

}  // namespace

std::optional<boost::json::object> loadGVL() {
  const auto kv = store();
  const auto revision = kv->revision(StorageKeys::gvlJson);  // asked first: see `revision`
  Json::DocumentReader reader(kv->byteCount(StorageKeys::gvlJson).value_or(0));
  const bool read = readStoredGVL(*kv, reader);
  auto document = reader.finish();
  if (!read || !document || !document->is_object()) return std::nullopt;
  noteListFoundAt(kv, revision);
  return std::move(document->get_object());
}

namespace {

// `loadStartGVL` from `kv`, whose revision of the list was `revision` before the read began.
// Gives nothing once `stop` is set, which it looks at between slices of the text.
std::optional<StartGVL> readStartGVL(const std::shared_ptr<const KeyValueStore>& kv,
                                     std::optional<std::uint64_t> revision,
                                     const std::atomic<bool>& stop) {
  auto text = std::make_shared<std::string>();
  text->reserve(kv->byteCount(StorageKeys::gvlJson).value_or(0));
  const bool read = kv->readBytesInPieces(
      StorageKeys::gvlJson, [&text, &stop](std::span<const std::uint8_t> piece) {
        text->append(reinterpret_cast<const char*>(piece.data()), piece.size());
        return !stop.load(std::memory_order_relaxed);
      });
  // A slice takes well under a tenth of a millisecond to parse.
  constexpr std::size_t kSlice = std::size_t{64} * 1024;
  VendorList::StartDocumentReader reader(text->size());
  const std::string_view whole = *text;
  for (std::size_t at = 0; at < whole.size(); at += kSlice) {
    if (stop.load(std::memory_order_relaxed) || !reader.read(whole.substr(at, kSlice))) break;
  }
  if (stop.load(std::memory_order_relaxed)) return std::nullopt;
  auto document = reader.finish();
  if (!read || !document || !document->is_object()) return std::nullopt;
  noteListFoundAt(kv, revision);
  return StartGVL{std::move(document->get_object()), std::move(text)};
}

// Whether the process may run on more than one core. On one, a thread of its own would only take
// turns with the start's other threads.
bool moreThanOneCore() {
#ifdef __linux__
  cpu_set_t cores;
  if (sched_getaffinity(0, sizeof cores, &cores) == 0) return CPU_COUNT(&cores) > 1;
#endif
  return std::thread::hardware_concurrency() > 1;
}

}  // namespace

std::optional<StartGVL> loadStartGVL() {
  const std::shared_ptr<const KeyValueStore> kv = store();
  const std::atomic<bool> goOn{false};
  return readStartGVL(kv, kv->revision(StorageKeys::gvlJson), goOn);  // revision asked first
}

struct EarlyStartGVL::Read {
  std::shared_ptr<const KeyValueStore> store;
  std::optional<std::uint64_t> revision;
  std::atomic<bool> stop{false};
  std::future<std::optional<StartGVL>> result;
};

EarlyStartGVL::EarlyStartGVL() : read_(std::make_unique<Read>()) {
  read_->store = store();
  read_->revision = read_->store->revision(StorageKeys::gvlJson);  // asked first: see `revision`
  static const bool spareCore = moreThanOneCore();
  if (!read_->revision || !spareCore) return;
  try {
    read_->result = std::async(std::launch::async, [read = read_.get()] {
      return readStartGVL(read->store, read->revision, read->stop);
    });
  } catch (const std::system_error&) {
    // No thread to be had: the start reads the list when it takes it.
  }
}

EarlyStartGVL::~EarlyStartGVL() {
  read_->stop = true;
  if (read_->result.valid()) read_->result.wait();
}

std::optional<StartGVL> EarlyStartGVL::take() {
  if (read_->result.valid()) {
    auto early = read_->result.get();
    const auto kv = store();
    if (kv == read_->store && read_->revision &&
        kv->revision(StorageKeys::gvlJson) == read_->revision) {
      return early;
    }
  }
  return loadStartGVL();
}

bool hasGVL() {
  const auto kv = store();
  const auto revision = kv->revision(StorageKeys::gvlJson);
  if (revision && listFoundAt(kv, *revision)) return true;
  Json::ObjectTextCheck check;
  const bool read = readStoredGVL(*kv, check);
  if (!check.finish() || !read) return false;
  noteListFoundAt(kv, revision);
  return true;
}

std::int64_t getConfigVersion() {
  return store()->readInteger(StorageKeys::configVersion);
}

void setConfigVersion(std::int64_t version) {
  const auto kv = store();
  kv->set(StorageKeys::configVersion, version);
  kv->synchronize();
}

std::int64_t getVendorListVersion() {
  return store()->readInteger(StorageKeys::vendorListVersion);
}

void setVendorListVersion(std::int64_t version) {
  const auto kv = store();
  kv->set(StorageKeys::vendorListVersion, version);
  kv->synchronize();
}

void resetConsent() {
  const auto kv = store();
  for (const std::string_view key :
       {StorageKeys::consent, StorageKeys::tcString, StorageKeys::gvlJson,
        StorageKeys::configVersion, StorageKeys::vendorListVersion}) {
    kv->remove(key);
  }
  kv->synchronize();
}

}  // namespace quillet::ConsentStorage
