#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <concepts>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <boost/json/parse.hpp>

#include "quillet/codec/TCString.h"

#include "Commands.h"
#include "JsonText.h"

namespace quillet::cli {
namespace {

// A growable block of bytes that is written into in place: room for n more, then commit.
class OutputBuffer {
 public:
  char* room(std::size_t n) {
    if (capacity_ - size_ < n || !data_) {
      const std::size_t capacity = std::max(capacity_ * 2, size_ + n + 4096);
      auto grown = std::make_unique_for_overwrite<char[]>(capacity);
      if (size_ != 0) std::memcpy(grown.get(), data_.get(), size_);
      data_ = std::move(grown);
      capacity_ = capacity;
    }
    return data_.get() + size_;
  }
  void commit(const char* end) { size_ = static_cast<std::size_t>(end - data_.get()); }
  void append(std::string_view text) {
    std::memcpy(room(text.size()), text.data(), text.size());
    size_ += text.size();
  }
  void push(char c) {
    *room(1) = c;
    ++size_;
  }
  std::string_view view() const { return {data_.get(), size_}; }
  std::size_t size() const { return size_; }
  void clear() { size_ = 0; }

 private:
  std::unique_ptr<char[]> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// JSON text in the serializer's own form (no spaces, members in the order written), appended to
// one buffer that is reused for every string: no document is built per string.
class JsonWriter {
 public:
  explicit JsonWriter(OutputBuffer& out) : out_(out) {}

  void open(char bracket) {
    separate();
    out_.push(bracket);
    first_ = true;
  }
  void close(char bracket) {
    out_.push(bracket);
    first_ = false;
  }
  // `name` is one of ours: nothing in it needs escaping.
  void key(std::string_view name) {
    char* at = out_.room(name.size() + 4);
    if (!first_) *at++ = ',';
    *at++ = '"';
    at = std::copy(name.begin(), name.end(), at);
    *at++ = '"';
    *at++ = ':';
    out_.commit(at);
    first_ = true;
  }
  template <class Value>
  void member(std::string_view name, const Value& value) {
    key(name);
    write(value);
  }

  void write(bool value) {
    separate();
    out_.append(value ? "true" : "false");
  }
  void write(std::integral auto value) {
    separate();
    char* at = out_.room(24);
    out_.commit(std::to_chars(at, at + 24, value).ptr);
  }
  void write(std::string_view text) {
    separate();
    quoted(text);
  }
  void write(const VendorIdSet& ids) {
    separate();
    // Vendor ids have at most five digits, and the short form covers them.
    char* const start = out_.room(2 + static_cast<std::size_t>(ids.count()) * 6);
    char* at = start;
    ids.forEach([&at](std::int64_t id) {
      *at++ = ',';
      at = shortNumber(at, static_cast<std::uint32_t>(id));
    });
    if (at == start) ++at;  // no ids: the bracket takes the first id's comma's place
    *start = '[';
    *at++ = ']';
    out_.commit(at);
  }
  template <int N>
  void write(IdMask<N> mask) {
    separate();
    char* at = out_.room(2 + 3 * N);
    *at++ = '[';
    for (std::uint64_t rest = mask.bits(); rest != 0; rest &= rest - 1) {
      if (rest != mask.bits()) *at++ = ',';
      at = std::to_chars(at, at + 2, std::countr_zero(rest) + 1).ptr;
    }
    *at++ = ']';
    out_.commit(at);
  }
  // Deciseconds since 1970 as ISO 8601 UTC with milliseconds: "2020-01-26T17:01:00.000Z".
  void writeTime(std::uint64_t deciseconds) {
    // Created and last updated are mostly the same time: the last one written is kept.
    if (deciseconds == lastTime_ && lastTimeText_[0] == '"') {
      separate();
      out_.append(std::string_view(lastTimeText_.data(), lastTimeText_.size()));
      return;
    }
    // Days to a civil date, proleptic Gregorian (H. Hinnant's algorithm).
    const std::uint64_t seconds = deciseconds / 10;
    const std::uint64_t days = seconds / 86400 + 719468;
    const std::uint64_t era = days / 146097;
    const std::uint64_t dayOfEra = days - era * 146097;
    const std::uint64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::uint64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::uint64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
    const std::uint64_t month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
    const std::uint64_t second = seconds % 86400;
    separate();
    char* at = out_.room(26);
    const auto digits = [&at](std::uint64_t value, int count, char after) {
      for (int i = count - 1; i >= 0; --i, value /= 10)
        at[i] = static_cast<char>('0' + value % 10);
      at[count] = after;
      at += count + 1;
    };
    *at++ = '"';
    digits(yearOfEra + era * 400 + (month <= 2 ? 1 : 0), 4, '-');
    digits(month, 2, '-');
    digits(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1, 2, 'T');
    digits(second / 3600, 2, ':');
    digits(second / 60 % 60, 2, ':');
    digits(second % 60, 2, '.');
    digits(deciseconds % 10 * 100, 3, 'Z');
    *at++ = '"';
    std::memcpy(lastTimeText_.data(), at - lastTimeText_.size(), lastTimeText_.size());
    lastTime_ = deciseconds;
    out_.commit(at);
  }

 private:
  void separate() {
    if (!first_) out_.push(',');
    first_ = false;
  }
  void quoted(std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    char* at = out_.room(2 + text.size() * 6);
    *at++ = '"';
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (c == '"' || c == '\\') {
        *at++ = '\\';
        *at++ = c;
      } else if (byte >= 0x20) {
        *at++ = c;
      } else if (const char* named = std::strchr("\bb\ff\nn\rr\tt", c); named && c != 0) {
        *at++ = '\\';
        *at++ = named[1];
      } else {
        at = std::copy_n("\\u00", 4, at);
        *at++ = kHex[byte >> 4];
        *at++ = kHex[byte & 15];
      }
    }
    *at++ = '"';
    out_.commit(at);
  }

  // A number below 100000 in decimal, two digits at a time.
  static char* shortNumber(char* at, std::uint32_t value) {
    static constexpr auto kPairs = [] {
      std::array<char, 200> pairs{};
      for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
      }
      return pairs;
    }();
    const int length = value < 10 ? 1 : value < 100 ? 2 : value < 1000 ? 3 : value < 10000 ? 4 : 5;
    char* end = at + length;
    char* digit = end;
    while (value >= 10) {
      digit -= 2;
      std::memcpy(digit, &kPairs[std::size_t{2} * (value % 100)], 2);
      value /= 100;
    }
    if (digit != at) *at = static_cast<char>('0' + value);
    return end;
  }

  OutputBuffer& out_;
  bool first_ = true;
  std::uint64_t lastTime_ = 0;
  std::array<char, 26> lastTimeText_{};  ///< "YYYY-MM-DDTHH:MM:SS.mmmZ" with its quotes
};

void writeSection(JsonWriter& json, std::string_view name, const VendorSection& section,
                  std::string& key) {
  json.member(name, section.vendors);
  key.assign(name).append("MaxId");
  json.member(key, section.maxVendorId);
  key.assign(name).append("IsRange");
  json.member(key, section.isRangeEncoding);
}

// The string's object on one line, its members in a fixed order.
void writeJson(const TCString& tc, OutputBuffer& out) {
  JsonWriter json(out);
  std::string key;
  json.open('{');
  json.member("version", tc.version);
  json.key("created");
  json.writeTime(tc.created);
  json.key("lastUpdated");
  json.writeTime(tc.lastUpdated);
  json.member("cmpId", tc.cmpId);
  json.member("cmpVersion", tc.cmpVersion);
  json.member("consentScreen", tc.consentScreen);
  json.member("consentLanguage", std::string_view(tc.consentLanguage));
  json.member("vendorListVersion", tc.vendorListVersion);
  json.member("policyVersion", tc.policyVersion);
  json.member("isServiceSpecific", tc.isServiceSpecific);
  json.member("useNonStandardTexts", tc.useNonStandardTexts);
  json.member("specialFeatureOptins", tc.specialFeatureOptins);
  json.member("purposeConsents", tc.purposeConsents);
  json.member("purposeLegitimateInterests", tc.purposeLegitimateInterests);
  json.member("purposeOneTreatment", tc.purposeOneTreatment);
  json.member("publisherCountryCode", std::string_view(tc.publisherCountryCode));
  writeSection(json, "vendorConsents", tc.vendorConsents, key);
  writeSection(json, "vendorLegitimateInterests", tc.vendorLegitimateInterests, key);
  json.key("publisherRestrictions");
  json.open('[');
  for (const auto& restriction : tc.publisherRestrictions) {
    json.open('{');
    json.member("purposeId", restriction.purposeId);
    json.member("restrictionType", restriction.restrictionType);
    json.member("vendors", restriction.vendors);
    json.close('}');
  }
  json.close(']');
  if (tc.vendorsDisclosed) writeSection(json, "vendorsDisclosed", *tc.vendorsDisclosed, key);
  if (tc.vendorsAllowed) writeSection(json, "vendorsAllowed", *tc.vendorsAllowed, key);
  if (tc.publisherTC) {
    const auto& publisher = *tc.publisherTC;
    json.member("publisherPurposesConsent", publisher.purposesConsent);
    json.member("publisherPurposesLegitimateInterests", publisher.purposesLegitimateInterests);
    json.member("numCustomPurposes", publisher.numCustomPurposes);
    json.member("publisherCustomPurposesConsent", publisher.customPurposesConsent);
    json.member("publisherCustomPurposesLegitimateInterests",
                publisher.customPurposesLegitimateInterests);
  }
  json.key("warnings");
  json.open('[');
  for (const auto& warning : tc.warnings)
    json.write(std::string_view(warning));
  json.close(']');
  json.close('}');
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

// Decoded strings in their order: one JSON object a line for each that reads, and the message
// for each that does not, with the place among the lines where it falls.
class Decoded {
 public:
  explicit Decoded(const DecodeOptions& options) : options_(&options) {}

  // Appends the string's object, or the message of why it cannot be read.
  void add(std::string_view text) {
    const auto parsed = TCString::parse(text);
    if (!parsed) {
      refuse("cannot read " + quoted(text) + ": " + parsed.error().message());
      return;
    }
    if (options_->strict && !parsed->warnings.empty()) {
      std::string message = quoted(text) + " is refused under --strict: ";
      for (std::size_t i = 0; i < parsed->warnings.size(); ++i)
        message.append(i == 0 ? "" : "; ").append(parsed->warnings[i]);
      refuse(std::move(message));
      return;
    }
    if (options_->pretty) {
      OutputBuffer line;
      writeJson(*parsed, line);
      lines_.append(prettyJson(boost::json::parse(line.view())));
    } else {
      writeJson(*parsed, lines_);
    }
    lines_.push('\n');
  }

  // Each non-blank line of `text`, without the spaces around it.
  void addLines(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t end = std::min(text.find('\n', at), text.size());
      if (const auto line = trimmed(text.substr(at, end - at)); !line.empty()) add(line);
      at = end + 1;
    }
  }

  bool allRead() const { return refusals_.empty(); }
  std::size_t size() const { return lines_.size(); }

  // Writes the lines to `out` and the messages to `err`, each message once the lines before it
  // are out, so that both streams keep the input's order; then holds nothing. Returns allRead().
  bool writeTo(std::ostream& out, std::ostream& err) {
    const bool all = allRead();
    const std::string_view lines = lines_.view();
    std::size_t written = 0;
    std::string messages;  // those with no line between them, in one write
    for (std::size_t i = 0; i < refusals_.size(); ++i) {
      const auto& [at, message] = refusals_[i];
      out.write(lines.data() + written, static_cast<std::streamsize>(at - written));
      written = at;
      messages.append("quillet decode: ").append(message).push_back('\n');
      if (i + 1 == refusals_.size() || refusals_[i + 1].first != at) {
        out.flush();
        err.write(messages.data(), static_cast<std::streamsize>(messages.size()));
        messages.clear();
      }
    }
    out.write(lines.data() + written, static_cast<std::streamsize>(lines.size() - written));
    lines_.clear();
    refusals_.clear();
    return all;
  }

 private:
  void refuse(std::string message) { refusals_.emplace_back(lines_.size(), std::move(message)); }
  static std::string quoted(std::string_view text) {
    OutputBuffer out;
    JsonWriter(out).write(text);
    return std::string(out.view());
  }

  const DecodeOptions* options_;
  OutputBuffer lines_;
  std::vector<std::pair<std::size_t, std::string>> refusals_;  // where in lines_, and the message
};

// The output of strings given as arguments is written once this much has gathered.
constexpr std::size_t kBlock = std::size_t{1} << 18;

// Decodes batches of lines on up to `threads` worker threads of its own (as many as the system
// gives; with none, on the caller's); the results are taken in the order the batches were given.
// Destroying it lets the workers decode what is left and joins them.
class Workers {
 public:
  Workers(const DecodeOptions& options, int threads) : options_(options) {
    try {
      for (int i = 0; i < threads; ++i)
        threads_.emplace_back([this](const std::stop_token& stop) { work(stop); });
    } catch (const std::system_error&) {
      // Fewer threads than asked for: those there are do the work.
    }
  }
  ~Workers() = default;
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  // Hands on lines to decode; their result comes from the future, in the order given.
  std::future<Decoded> decode(std::string lines) {
    std::packaged_task<Decoded()> task([this, lines = std::move(lines)] {
      Decoded decoded = spare();
      decoded.addLines(lines);
      return decoded;
    });
    auto result = task.get_future();
    if (threads_.empty()) {
      task();
      return result;
    }
    {
      const std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
    }
    ready_.notify_one();
    return result;
  }

  // Takes back a result once written, so that its memory serves a later batch: fresh memory
  // for every batch would cost a page fault every 4 KiB of output.
  void recycle(Decoded&& decoded) {
    const std::lock_guard lock(mutex_);
    spares_.push_back(std::move(decoded));
  }

 private:
  Decoded spare() {
    const std::lock_guard lock(mutex_);
    if (spares_.empty()) return Decoded(options_);
    Decoded decoded = std::move(spares_.back());
    spares_.pop_back();
    return decoded;
  }

  void work(const std::stop_token& stop) {
    for (;;) {
      std::unique_lock lock(mutex_);
      if (!ready_.wait(lock, stop, [this] { return !tasks_.empty(); })) return;
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
    }
  }

  const DecodeOptions& options_;
  std::mutex mutex_;
  std::condition_variable_any ready_;
  std::deque<std::packaged_task<Decoded()>> tasks_;
  std::vector<Decoded> spares_;        // written results, empty
  std::vector<std::jthread> threads_;  // last: joined before the queue goes
};

// Reads standard input in large reads and hands on whole lines, a batch at a time; the last
// batch holds what follows the last line end. Returns the error number when reading failed, else 0.
template <class Batch>
int readBatches(std::istream& in, Batch&& batch) {
  constexpr std::size_t kRead = std::size_t{1} << 16;
  std::string pending;
  try {
    for (;;) {
      const std::size_t held = pending.size();
      pending.resize(held + kRead);
      const auto got =
          in.rdbuf()->sgetn(pending.data() + held, static_cast<std::streamsize>(kRead));
      pending.resize(held + static_cast<std::size_t>(std::max<std::streamsize>(got, 0)));
      if (got <= 0) break;
      // A line end before `held` would have ended the last batch.
      const std::size_t last = std::string_view(pending).substr(held).rfind('\n');
      if (last == std::string_view::npos) continue;
      const std::size_t end = held + last;
      std::string rest = pending.substr(end + 1);
      pending.resize(end + 1);
      batch(std::move(pending));
      pending = std::move(rest);
    }
  } catch (const std::exception&) {  // the stream library reports read errors this way
    in.setstate(std::ios::badbit);
  }
  const int error = in.bad() || failedStandardInput(in) ? (errno != 0 ? errno : EIO) : 0;
  batch(std::move(pending));
  return error;
}

}  // namespace

bool failedStandardInput(const std::istream& in) {
  return in.rdbuf() == std::cin.rdbuf() && std::ferror(stdin) != 0;
}

int runDecode(const DecodeOptions& options, std::istream& in, std::ostream& out,
              std::ostream& err) {
  bool allRead = true;
  int readError = 0;
  if (!options.strings.empty()) {
    Decoded decoded(options);
    for (const auto& text : options.strings) {
      decoded.add(trimmed(text));
      if (decoded.size() >= kBlock) allRead = decoded.writeTo(out, err) && allRead;
    }
    allRead = decoded.writeTo(out, err) && allRead;
  } else {
    // One thread decodes on the caller's, each batch written out as soon as it is decoded, so
    // that neither lines nor messages gather; more keep enough batches in flight to keep every
    // worker busy while the oldest is written out.
    const int threads = options.threads > 1 ? options.threads : 0;
    const auto inFlight = static_cast<std::size_t>(threads) * 2;
    Workers workers(options, threads);
    std::deque<std::future<Decoded>> results;
    const auto writeOldest = [&] {
      Decoded oldest = results.front().get();
      results.pop_front();
      allRead = oldest.writeTo(out, err) && allRead;
      workers.recycle(std::move(oldest));
    };
    readError = readBatches(in, [&](std::string lines) {
      results.push_back(workers.decode(std::move(lines)));
      if (results.size() > inFlight) writeOldest();
    });
    while (!results.empty())
      writeOldest();
  }
  if (readError != 0) {
    err << "quillet decode: cannot read standard input: "
        << std::generic_category().message(readError) << '\n';
  }
  out.flush();
  return allRead && readError == 0 ? 0 : 1;
}

}  // namespace quillet::cli
