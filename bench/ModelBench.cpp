// The vendor list path at start-up: parsing the 763 KB real vendor list into purpose and vendor
// records, caching it through the SQLite store and loading it back, and the memory the parsed
// forms hold.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <benchmark/benchmark.h>
#include <boost/container/pmr/memory_resource.hpp>
#include <boost/json.hpp>
#include <boost/json/basic_parser_impl.hpp>
#include <malloc.h>

#include "quillet/base/Platform.h"
#include "quillet/base/QltLog.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/Json.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/StartDocument.h"
#include "quillet/model/VendorList.h"
#include "quillet/model/VendorModel.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/SqliteKeyValueStore.h"

#include "BenchData.h"

namespace {

using namespace quillet;

const std::string& vendorListText() {
  static const std::string text = bench::testdataText("gvl-v3-106.json");
  return text;
}

struct Parsed {
  std::vector<PurposeModel> purposes;
  std::vector<VendorModel> vendors;
};

Parsed parseAll(const boost::json::object& gvl) {
  const BrandingConfig config({});
  return Parsed{PurposeModel::parse(gvl), VendorModel::parse(gvl, config)};
}

// Bytes from the file to purpose and vendor records, logging off.
void ParseVendorList(benchmark::State& state) {
  const std::string& text = vendorListText();
  for (auto _ : state) {
    auto document = Json::parseDocument(text);
    benchmark::DoNotOptimize(parseAll(document->get_object()));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(ParseVendorList)->Unit(benchmark::kMillisecond);

// The same with logging on into a sink that drops the lines: the cost of the messages that the
// parsers build only while logging is on.
class DiscardingSink final : public LogSink {
 public:
  void write(std::string_view) noexcept override {}
};

void ParseVendorListLoggingOn(benchmark::State& state) {
  QltLog::setSink(std::make_shared<DiscardingSink>());
  QltLog::setEnabled(true);
  const std::string& text = vendorListText();
  for (auto _ : state) {
    auto document = Json::parseDocument(text);
    benchmark::DoNotOptimize(parseAll(document->get_object()));
  }
  QltLog::setEnabled(false);
  QltLog::setSink(nullptr);
}
BENCHMARK(ParseVendorListLoggingOn)->Unit(benchmark::kMillisecond);

void ModelsFromParsedJson(benchmark::State& state) {
  const auto document = Json::parse(vendorListText());
  for (auto _ : state)
    benchmark::DoNotOptimize(parseAll(document->get_object()));
}
BENCHMARK(ModelsFromParsedJson)->Unit(benchmark::kMillisecond);

// What a consent decision and the stores read from the list, read once per start.
void FactsFromParsedJson(benchmark::State& state) {
  const auto document = Json::parse(vendorListText());
  for (auto _ : state)
    benchmark::DoNotOptimize(VendorList::facts(document->get_object()));
}
BENCHMARK(FactsFromParsedJson)->Unit(benchmark::kMillisecond);

// The SQLite store as a host's own store might be: one that cannot tell whether a value changed.
class StoreWithoutRevisions final : public KeyValueStore {
 public:
  explicit StoreWithoutRevisions(std::shared_ptr<KeyValueStore> inner) : inner_(std::move(inner)) {}
  std::optional<StoreValue> get(std::string_view key) const override { return inner_->get(key); }
  void set(std::string_view key, StoreValue value) override { inner_->set(key, std::move(value)); }
  void remove(std::string_view key) override { inner_->remove(key); }
  bool synchronize() override { return inner_->synchronize(); }
  bool readBytesInPieces(
      std::string_view key,
      const std::function<bool(std::span<const std::uint8_t>)>& sink) const override {
    return inner_->readBytesInPieces(key, sink);
  }

 private:
  std::shared_ptr<KeyValueStore> inner_;
};

// saveGVL (serialise, store, synchronise) and loadGVL (read, parse) through the SQLite store.
// Argument 0: both, each time; 1: loadGVL alone, of the list saved once (start-up's read); 2:
// hasGVL alone, reading the list each time (the check of a start that has the list in memory,
// with a store that cannot tell whether the list changed); 3: hasGVL alone, with the SQLite
// store telling that the list did not change since it was found.
void SaveAndLoadVendorList(benchmark::State& state) {
  std::string pattern = (std::filesystem::temp_directory_path() / "quillet-bench-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  const std::filesystem::path directory = pattern;
  const auto mode = state.range(0);
  std::shared_ptr<KeyValueStore> store =
      SqliteKeyValueStore::open(directory / "store.sqlite").value();
  if (mode == 2) store = std::make_shared<StoreWithoutRevisions>(store);
  Platform::install({.keyValueStore = store});
  const auto document = Json::parse(vendorListText());
  const boost::json::object& gvl = document->get_object();
  if (mode != 0) ConsentStorage::saveGVL(gvl);
  for (auto _ : state) {
    if (mode == 0) ConsentStorage::saveGVL(gvl);
    if (mode >= 2) {
      benchmark::DoNotOptimize(ConsentStorage::hasGVL());
    } else {
      benchmark::DoNotOptimize(ConsentStorage::loadGVL());
    }
  }
  Platform::install({});
  std::filesystem::remove_all(directory);
}
BENCHMARK(SaveAndLoadVendorList)
    ->ArgName("mode")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Arg(3)
    ->Unit(benchmark::kMillisecond);

std::size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// The JSON parse alone: the floor of any start-up that reads the vendor list from its text.
// Argument 1: into the document's own blocks, as the library parses the list; 0: one heap
// allocation per value.
void ParseVendorListJsonOnly(benchmark::State& state) {
  const std::string& text = vendorListText();
  const bool blocks = state.range(0) == 1;
  for (auto _ : state)
    benchmark::DoNotOptimize(blocks ? Json::parseDocument(text) : Json::parse(text));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(ParseVendorListJsonOnly)
    ->ArgName("blocks")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond);

// Reads every token and builds nothing.
struct IgnoringHandler {
  using ec = boost::json::error_code;
  using sv = boost::json::string_view;
  static constexpr std::size_t max_object_size = std::size_t(-1);
  static constexpr std::size_t max_array_size = std::size_t(-1);
  static constexpr std::size_t max_key_size = std::size_t(-1);
  static constexpr std::size_t max_string_size = std::size_t(-1);
  bool on_document_begin(ec&) { return true; }
  bool on_document_end(ec&) { return true; }
  bool on_object_begin(ec&) { return true; }
  bool on_object_end(std::size_t, ec&) { return true; }
  bool on_array_begin(ec&) { return true; }
  bool on_array_end(std::size_t, ec&) { return true; }
  bool on_key_part(sv, std::size_t, ec&) { return true; }
  bool on_key(sv, std::size_t, ec&) { return true; }
  bool on_string_part(sv, std::size_t, ec&) { return true; }
  bool on_string(sv, std::size_t, ec&) { return true; }
  bool on_number_part(sv, ec&) { return true; }
  bool on_int64(std::int64_t, sv, ec&) { return true; }
  bool on_uint64(std::uint64_t, sv, ec&) { return true; }
  bool on_double(double, sv, ec&) { return true; }
  bool on_bool(bool, ec&) { return true; }
  bool on_null(ec&) { return true; }
  bool on_comment_part(sv, ec&) { return true; }
  bool on_comment(sv, ec&) { return true; }
};

// The same parser reading the text without building a document: what is left of the JSON parse
// for a reader that takes only what the start-up needs. The difference from
// ParseVendorListJsonOnly/blocks:1 is the cost of the document itself.
void TokenizeVendorListOnly(benchmark::State& state) {
  const std::string& text = vendorListText();
  for (auto _ : state) {
    boost::json::basic_parser<IgnoringHandler> parser(boost::json::parse_options{});
    boost::json::error_code error;
    parser.write_some(false, text.data(), text.size(), error);
    if (error) throw std::runtime_error("the vendor list is not JSON: " + error.message());
    benchmark::DoNotOptimize(parser.done());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(TokenizeVendorListOnly)->Unit(benchmark::kMillisecond);

// The same text read into the start document: the whole list less the vendor members that the
// start does not read. Between the two benchmarks above.
void ParseVendorListStartDocument(benchmark::State& state) {
  const std::string& text = vendorListText();
  for (auto _ : state) {
    VendorList::StartDocumentReader reader(text.size());
    reader.read(text);
    benchmark::DoNotOptimize(reader.finish());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(ParseVendorListStartDocument)->Unit(benchmark::kMillisecond);

// Counts what the JSON document asks for, before the allocator's own overhead.
class CountingResource final : public boost::container::pmr::memory_resource {
 public:
  std::size_t bytes = 0;
  std::size_t blocks = 0;

 private:
  void* do_allocate(std::size_t size, std::size_t) override {
    bytes += size;
    ++blocks;
    return ::operator new(size);
  }
  void do_deallocate(void* pointer, std::size_t size, std::size_t) override {
    bytes -= size;
    --blocks;
    ::operator delete(pointer);
  }
  bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }
};

// Not a timing: the memory that holding the parsed vendor list costs, as counters. "json" is the
// document as the library parses the list, the whole of its blocks (large pages and heap);
// "heap_json" the same document with one heap allocation per value; "requested" what the values ask
// for, before any allocator's overhead; "models" the heap that the models take.
void MemoryOfParsedVendorList(benchmark::State& state) {
  const std::string& text = vendorListText();
  const auto ratio = [&](std::size_t bytes) {
    return static_cast<double>(bytes) / static_cast<double>(text.size());
  };
  for (auto _ : state) {
    malloc_trim(0);
    const std::size_t before = heapInUse();
    {
      auto heapDocument = Json::parse(text);
      state.counters["heap_json_x_file"] = ratio(heapInUse() - before);
    }
    malloc_trim(0);
    Json::DocumentReader reader(text.size());
    reader.read(text);
    auto document = reader.finish();
    const std::size_t json = reader.blockBytes();
    const std::size_t afterJson = heapInUse();
    Parsed parsed = parseAll(document->get_object());
    const std::size_t models = heapInUse() - afterJson;
    state.counters["json_MB"] = static_cast<double>(json) / 1e6;
    state.counters["json_x_file"] = ratio(json);
    state.counters["models_MB"] = static_cast<double>(models) / 1e6;
    state.counters["models_x_file"] = ratio(models);
    state.counters["json_and_models_x_file"] = ratio(json + models);
    benchmark::DoNotOptimize(parsed);
  }
  CountingResource counting;
  {
    boost::system::error_code error;
    const boost::json::value document = boost::json::parse(text, error, &counting);
    state.counters["requested_x_file"] = ratio(counting.bytes);
    state.counters["json_blocks"] = static_cast<double>(counting.blocks);
  }
}
BENCHMARK(MemoryOfParsedVendorList)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
