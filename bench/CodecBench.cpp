// Hot paths of the TC String codec: encoding a full consent for a large vendor list, and reading
// real strings back with the core decoder and the full reader.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/codec/TCString.h"

namespace {
// Heap allocations made in this process, so that a benchmark can count those of what it measures.
std::atomic<std::int64_t> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
// The compiler takes these for frees of blocks from the standard operator new, which they replace.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
#pragma GCC diagnostic pop

namespace {

using namespace quillet;

// Heap allocations that `read` makes, counted once, outside any timing.
template <class Read>
std::int64_t allocationsOf(Read&& read) {
  const std::int64_t before = allocations.load(std::memory_order_relaxed);
  read();
  return allocations.load(std::memory_order_relaxed) - before;
}

std::vector<std::int64_t> range(std::int64_t first, std::int64_t last) {
  std::vector<std::int64_t> ids(static_cast<std::size_t>(last - first + 1));
  std::iota(ids.begin(), ids.end(), first);
  return ids;
}

// With repetitions, the fastest one: on a shared machine the other runs measure the neighbours.
double fastest(const std::vector<double>& runs) { return *std::min_element(runs.begin(), runs.end()); }

const FixedClock kClock(std::chrono::system_clock::time_point(std::chrono::seconds(1700000000)));

QLTCMPUtils::TCStringInput acceptAll1200() {
  QLTCMPUtils::TCStringInput input;
  input.purposeConsents = range(1, 24);
  input.purposeLegitimateInterests = range(1, 24);
  input.specialFeatureOptins = range(1, 12);
  input.vendorConsents = range(1, 1200);
  input.vendorLegitimateInterests = range(1, 1200);
  input.gvlVendorIds = range(1, 1200);
  input.vendorListVersion = 106;
  input.policyVersion = 5;
  return input;
}

void EncodeAcceptAll1200Vendors(benchmark::State& state) {
  const auto input = acceptAll1200();
  for (auto _ : state)
    benchmark::DoNotOptimize(QLTCMPUtils::encodeTCString(input, kClock));
}
BENCHMARK(EncodeAcceptAll1200Vendors);

void EncodeDisclosedVendorsSegment1200Vendors(benchmark::State& state) {
  const auto ids = range(1, 1200);
  for (auto _ : state) {
    benchmark::DoNotOptimize(QLTCMPUtils::encodeDisclosedVendorsSegment(ids, ids));
  }
}
BENCHMARK(EncodeDisclosedVendorsSegment1200Vendors);

struct Sample {
  std::string text, status, tags;
};

std::vector<Sample> samples() {
  std::ifstream file(QUILLET_TESTDATA_DIR "/tc-strings.txt");
  if (!file) throw std::runtime_error("testdata/tc-strings.txt is missing");
  std::vector<Sample> out;
  for (std::string line; std::getline(file, line);) {
    const auto tab = line.find('\t');
    const std::string meta = line.substr(tab + 1);
    out.push_back({line.substr(0, tab), meta.substr(0, meta.find(';')),
                   meta.substr(meta.find('['), meta.find(']') - meta.find('['))});
  }
  return out;
}

// The four strings measured: the shortest core-only one with vendors (the core decoder stops on
// a string without), the longest core-only bit field, a core-only range encoding with publisher
// restrictions, and the longest string of all.
const std::string& sample(int which) {
  static const std::vector<std::string> chosen = [] {
    const auto all = samples();
    auto readable = [](const Sample& s) { return s.status == "valid" || s.status == "example"; };
    auto has = [](const Sample& s, const char* tag) {
      return s.tags.find(tag) != std::string::npos;
    };
    std::vector<Sample> core, bitField, range, any;
    for (const auto& s : all) {
      if (!readable(s)) continue;
      any.push_back(s);
      if (!has(s, "core-only")) continue;
      const auto parsed = TCString::parse(s.text);
      if (parsed && parsed->vendorConsents.maxVendorId > 0) core.push_back(s);
      if (has(s, "bitfield")) bitField.push_back(s);
      if (has(s, "range") && has(s, "publisher-restrictions")) range.push_back(s);
    }
    auto shortest = [](const Sample& a, const Sample& b) { return a.text.size() < b.text.size(); };
    return std::vector<std::string>{
        std::min_element(core.begin(), core.end(), shortest)->text,
        std::max_element(bitField.begin(), bitField.end(), shortest)->text,
        range.front().text,
        std::max_element(any.begin(), any.end(), shortest)->text,
    };
  }();
  return chosen.at(static_cast<std::size_t>(which));
}

const char* const kNames[] = {"core-only", "long bit field", "range + restrictions", "longest"};

void ReadWithTCString(benchmark::State& state) {
  const std::string& text = sample(static_cast<int>(state.range(0)));
  state.SetLabel(std::string(kNames[state.range(0)]) + ", " + std::to_string(text.size()) +
                 " chars");
  if (!TCString::parse(text)) state.SkipWithError("sample did not parse");
  for (auto _ : state)
    benchmark::DoNotOptimize(TCString::parse(text));
  state.counters["allocations"] = static_cast<double>(
      allocationsOf([&] { benchmark::DoNotOptimize(TCString::parse(text)); }));
}
BENCHMARK(ReadWithTCString)->DenseRange(0, 3)->ComputeStatistics("min", fastest);

// Every valid real string in turn; the time per string is the mean over all of them.
void ReadEveryValidString(benchmark::State& state) {
  std::vector<std::string> texts;
  for (const auto& s : samples())
    if (s.status == "valid") texts.push_back(s.text);
  for (auto _ : state) {
    for (const auto& text : texts)
      benchmark::DoNotOptimize(TCString::parse(text));
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * texts.size()));
  state.counters["per string"] = benchmark::Counter(
      static_cast<double>(state.iterations() * texts.size()),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.SetLabel(std::to_string(texts.size()) + " strings");
  int allocating = 0;
  for (const auto& text : texts) {
    if (allocationsOf([&] { benchmark::DoNotOptimize(TCString::parse(text)); }) > 0) ++allocating;
  }
  state.counters["strings that allocate"] = allocating;
}
BENCHMARK(ReadEveryValidString)->ComputeStatistics("min", fastest);

void ReadWithDecodeTCString(benchmark::State& state) {
  const std::string& text = sample(static_cast<int>(state.range(0)));
  const std::string core = text.substr(0, text.find('.'));
  state.SetLabel(std::string(kNames[state.range(0)]) + ", core " + std::to_string(core.size()) +
                 " chars");
  for (auto _ : state)
    benchmark::DoNotOptimize(QLTCMPUtils::decodeTCString(core));
}
BENCHMARK(ReadWithDecodeTCString)->DenseRange(0, 3);

}  // namespace
