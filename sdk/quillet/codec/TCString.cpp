#include "quillet/codec/TCString.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <span>

#if defined(__x86_64__) && defined(__GNUC__) && !defined(QUILLET_PORTABLE_DECODE)
#include <immintrin.h>
#endif

#include "quillet/codec/Base64Alphabet.h"

namespace quillet {
namespace {

struct ReadFailure {
  const char* section = nullptr;  // field prefix such as "VendorConsents", or null
  const char* field = nullptr;
  std::int64_t bitOffset = 0;
  std::string reason;
};

// Base64url only: unlike the byte conversions, the TC String reader refuses "+" and "/".
// Values 0 to 63; invalid characters have bit 7 set so that four lookups can be checked at once.
constexpr std::array<std::uint8_t, 256> kUrlValues = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(base64url::kInvalid);
  for (std::uint8_t i = 0; i < 64; ++i)
    values[static_cast<unsigned char>(base64url::kAlphabet[i])] = i;
  return values;
}();

#if defined(__x86_64__) && defined(__GNUC__) && !defined(QUILLET_PORTABLE_DECODE)
#define QUILLET_SSSE3_DECODE 1

// Sixteen characters into twelve bytes with SSSE3, in `bytes` followed by four zeros. Only the
// characters where `keep` has 0xFF count; the others must be zero bytes. False when a character
// counted is not base64url.
[[gnu::target("ssse3")]] inline bool decodeBlock(__m128i c, __m128i keep, __m128i& bytes) {
  // A character is valid when the classes of its low nibble and of its high nibble share no bit:
  // the high nibbles 2 to 7 have a bit each, every other high nibble has 0x40, which every low
  // nibble has too; a low nibble carries the bits of the high nibbles it is invalid with.
  const __m128i lowClasses = _mm_setr_epi8(0x55, 0x41, 0x41, 0x41, 0x41, 0x41, 0x41, 0x41, 0x41,
                                           0x41, 0x43, 0x6B, 0x6B, 0x6A, 0x6B, 0x63);
  const __m128i highClasses = _mm_setr_epi8(0x40, 0x40, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40,
                                            0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40);
  // Value minus character by high nibble: "-", digits, A-O, P-Z, a-o, p-z; "_" (high nibble 5)
  // is looked up at 13. A zero byte stays zero.
  const __m128i shifts = _mm_setr_epi8(0, 0, 62 - '-', 52 - '0', -'A', -'A', 26 - 'a', 26 - 'a', 0,
                                       0, 0, 0, 0, 63 - '_', 0, 0);
  const __m128i nibble = _mm_set1_epi8(0x0F);
  const __m128i high = _mm_and_si128(_mm_srli_epi32(c, 4), nibble);
  const __m128i low = _mm_and_si128(c, nibble);
  const __m128i clash = _mm_and_si128(
      keep, _mm_and_si128(_mm_shuffle_epi8(lowClasses, low), _mm_shuffle_epi8(highClasses, high)));
  if (_mm_movemask_epi8(_mm_cmpeq_epi8(clash, _mm_setzero_si128())) != 0xFFFF) return false;
  const __m128i slot = _mm_xor_si128(
      high, _mm_and_si128(_mm_cmpeq_epi8(c, _mm_set1_epi8('_')), _mm_set1_epi8(0x08)));
  const __m128i values = _mm_add_epi8(c, _mm_shuffle_epi8(shifts, slot));
  // Four 6-bit values a b c d become the 24 bits a << 18 | b << 12 | c << 6 | d, then bytes in
  // string order.
  const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
  const __m128i quads = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
  const __m128i order = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  bytes = _mm_shuffle_epi8(quads, order);
  return true;
}

const bool kHasSsse3 = __builtin_cpu_supports("ssse3");
#endif

// Zero bytes written after the decoded bits, so that the loads of 8 bytes of a read or a copy
// that starts at any bit in range stay inside the buffer and read zeros past the text.
constexpr std::size_t kSlack = 24;

// Bytes the decoders may write for `size` characters: three per four, three for the closing
// group, a whole block of 16 for the vector decoder, then the slack.
constexpr std::size_t decodedCapacity(std::size_t size) {
  return size / 4 * 3 + 3 + 16 + kSlack;
}

// The characters decoded into `out`, then zeroed slack. False when one of them is not
// base64url.
bool decodeScalar(const unsigned char* chars, std::size_t size, std::uint8_t* out) {
  std::uint64_t invalid = 0;
  std::size_t i = 0;
  // Eight characters make six bytes: gather 48 bits and store them with one 8-byte write (the
  // two extra bytes are overwritten by the next group or by the closing group).
  for (; i + 8 <= size; i += 8, out += 6) {
    std::uint64_t group = 0;
    for (std::size_t k = 0; k < 8; ++k) {
      const std::uint64_t value = kUrlValues[chars[i + k]];
      invalid |= value;
      group = (group << 6) | value;
    }
    group <<= 16;
    if constexpr (std::endian::native == std::endian::little) group = __builtin_bswap64(group);
    std::memcpy(out, &group, sizeof group);
  }
  // The last zero to seven characters, as a group of eight padded with zero bits.
  std::uint64_t group = 0;
  for (std::size_t k = 0; k < 8; ++k) {
    const std::uint64_t value = i + k < size ? kUrlValues[chars[i + k]] : 0;
    invalid |= value;
    group = (group << 6) | (value & 63U);
  }
  group <<= 16;
  if constexpr (std::endian::native == std::endian::little) group = __builtin_bswap64(group);
  std::memcpy(out, &group, sizeof group);
  std::fill(out + 6, out + 6 + kSlack, 0);
  return (invalid & 0xC0U) == 0;  // an invalid value has bit 7
}

#ifdef QUILLET_SSSE3_DECODE
// As decodeScalar, sixteen characters at a time; also puts the first 256 bits in `head` (see
// SegmentBits::head), built from registers so that reading them does not wait for the stores.
[[gnu::target("ssse3")]] bool decodeVector(const unsigned char* chars, std::size_t size,
                                           std::uint8_t* out, std::array<std::uint64_t, 4>& head) {
  // The first three blocks' bytes, from which `head` is cut.
  __m128i first[3] = {_mm_setzero_si128(), _mm_setzero_si128(), _mm_setzero_si128()};
  std::size_t block = 0;
  const auto put = [&](__m128i bytes) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
    out += 12;
    if (block < 3) first[block] = bytes;
    ++block;
  };
  const __m128i all = _mm_set1_epi8(-1);
  std::size_t done = 0;
  for (; done + 16 <= size; done += 16) {
    __m128i bytes;
    if (!decodeBlock(_mm_loadu_si128(reinterpret_cast<const __m128i*>(chars + done)), all, bytes))
      return false;
    put(bytes);
  }
  // The last 0 to 15 characters, moved to the front of a block whose other bytes are zero.
  const std::size_t rest = size - done;
  static constexpr std::array<std::uint8_t, 32> kMoves = {
      0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,
      11,   12,   13,   14,   15,   0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
      0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};
  static constexpr std::array<std::uint8_t, 32> kKeep = {
      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0,    0,    0,    0,    0,    0,
      0,    0,    0,    0,    0,    0,    0,    0,    0,    0};
  const __m128i keep = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kKeep.data() + 16 - rest));
  __m128i last;
  if (size >= 16) {
    // The block that ends with the text, its last `rest` characters moved down.
    const __m128i end = _mm_loadu_si128(reinterpret_cast<const __m128i*>(chars + size - 16));
    last = _mm_shuffle_epi8(
        end, _mm_loadu_si128(reinterpret_cast<const __m128i*>(kMoves.data() + 16 - rest)));
  } else {
    alignas(16) unsigned char copy[16] = {};
    if (rest > 0) std::memcpy(copy, chars, rest);  // an empty text may have no address
    last = _mm_load_si128(reinterpret_cast<const __m128i*>(copy));
  }
  __m128i bytes;
  if (!decodeBlock(last, keep, bytes)) return false;
  put(bytes);
  std::memset(out, 0, kSlack);
  // Bytes 0 to 15 and 16 to 31 of the output, then each eight as a big-endian number.
  const __m128i low = _mm_or_si128(first[0], _mm_slli_si128(first[1], 12));
  const __m128i high = _mm_or_si128(_mm_srli_si128(first[1], 4), _mm_slli_si128(first[2], 8));
  const __m128i swap = _mm_setr_epi8(7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(head.data()), _mm_shuffle_epi8(low, swap));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(head.data() + 2), _mm_shuffle_epi8(high, swap));
  return true;
}
#endif

// The bits of one segment, decoded from base64url into a big-endian byte buffer, read with a
// sticky failure: after the first failed read every read yields 0 and the parser only has to
// look at `failed()` before it trusts what it read. Strings up to 1.5 KB of text are held on the
// stack.
class SegmentBits {
 public:
  // False, with the failure set, when the text holds a character outside base64url or more than
  // two "=" of padding.
  bool load(std::string_view text) {
    std::size_t padding = 0;
    while (padding < text.size() && text[text.size() - 1 - padding] == '=')
      ++padding;
    if (padding > 2) {
      return fail(nullptr, "padding", static_cast<std::int64_t>(text.size() - padding) * 6,
                  "more than two \"=\" at the end");
    }
    text.remove_suffix(padding);
    bitCount_ = static_cast<std::int64_t>(text.size()) * 6;
    const std::size_t size = decodedCapacity(text.size());
    if (size <= local_.size()) {
      bytes_ = local_.data();
    } else {
      heap_.resize(size);
      bytes_ = heap_.data();
    }
    const auto* chars = reinterpret_cast<const unsigned char*>(text.data());
#ifdef QUILLET_SSSE3_DECODE
    if (kHasSsse3) return decodeVector(chars, text.size(), bytes_, head_) || failOnCharacter(text);
#endif
    if (!decodeScalar(chars, text.size(), bytes_)) return failOnCharacter(text);
    head_ = {};  // what is decoded, and its zeroed slack
    std::memcpy(head_.data(), bytes_, std::min(sizeof head_, text.size() * 3 / 4 + kSlack));
    if constexpr (std::endian::native == std::endian::little) {
      for (auto& word : head_)
        word = __builtin_bswap64(word);
    }
    return true;
  }

  // Reserves the next `width` bits and returns where they start, or -1 (with the failure set)
  // when fewer remain or an earlier read failed.
  std::int64_t take(std::int64_t width, const char* section, const char* field) {
    if (width > bitCount_ - position_) [[unlikely]] {
      return failTruncated(width, section, field);
    }
    const std::int64_t start = position_;
    position_ += width;
    return start;
  }

  // Moves to `position`, which the caller has checked is inside the text.
  void seek(std::int64_t position) {
    position_ = position;
  }

  // The next `width` bits (0 to 64) as a number; 0 on failure.
  std::uint64_t read(int width, const char* section, const char* field) {
    const std::int64_t start = take(width, section, field);
    return start < 0 ? 0 : peek(start, width);
  }
  bool readBit(const char* section, const char* field) {
    return read(1, section, field) != 0;
  }

  // `width` bits (0 to 64) at `at`, right-aligned. `at` must be inside the text.
  std::uint64_t peek(std::int64_t at, int width) const {
    if (width == 0) return 0;
    const std::uint8_t* p = bytes_ + (at >> 3);
    const int offset = static_cast<int>(at & 7);
    std::uint64_t high = bigEndianAt(p);
    if (offset != 0) high = (high << offset) | (p[8] >> (8 - offset));
    return high >> (64 - width);
  }

  // The decoded bytes, with slack after the text for a load of eight bytes at any of them.
  const std::uint8_t* data() const noexcept {
    return bytes_;
  }
  // `width` bits (1 to 57) at bit `at` of `data()`, right-aligned, from one load: the eight bytes
  // from the one that holds `at` carry at least 57 bits after it. `at` must be inside the text.
  static std::uint64_t peekShort(const std::uint8_t* data, std::int64_t at, int width) {
    return (bigEndianAt(data + (at >> 3)) << (at & 7)) >> (64 - width);
  }

  // The `length` bits at `at` (inside the text) into ceil(length / 64) numbers, most significant
  // bit first, the last one padded with zero bits.
  void copy(std::int64_t at, std::int64_t length, std::uint64_t* out) const {
    const std::uint8_t* p = bytes_ + (at >> 3);
    const int offset = static_cast<int>(at & 7);
    std::uint64_t current = bigEndianAt(p);
    for (std::int64_t done = 0; done < length; done += 64) {
      p += 8;
      const std::uint64_t next = bigEndianAt(p);
      std::uint64_t word = (current << offset) | ((next >> 1) >> (63 - offset));
      if (length - done < 64) word &= ~std::uint64_t{0} << (64 - (length - done));
      *out++ = word;
      current = next;
    }
  }

  // The first 256 bits as four numbers, most significant bit first; bits past the text are 0.
  const std::array<std::uint64_t, 4>& head() const noexcept {
    return head_;
  }

  bool fail(const char* section, const char* field, std::int64_t at, std::string reason) {
    if (!failed_) {
      failed_ = true;
      failure_ = ReadFailure{section, field, at, std::move(reason)};
      bitCount_ = -1;  // every later take() fails at its first comparison
    }
    return false;
  }

  bool failed() const noexcept {
    return failed_;
  }
  const ReadFailure& failure() const noexcept {
    return failure_;
  }
  std::int64_t position() const noexcept {
    return position_;
  }
  std::int64_t remainingBits() const noexcept {
    return failed_ ? 0 : bitCount_ - position_;
  }

 private:
  [[gnu::cold]] [[gnu::noinline]] std::int64_t failTruncated(std::int64_t width,
                                                             const char* section,
                                                             const char* field) {
    if (failed_) return -1;
    const std::int64_t left = bitCount_ - position_;
    fail(section, field, position_,
         "the string ends (" + std::to_string(width) + (width == 1 ? " bit" : " bits") +
             " needed, " + std::to_string(left) + " left)");
    return -1;
  }

  [[gnu::cold]] [[gnu::noinline]] bool failOnCharacter(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (kUrlValues[static_cast<unsigned char>(text[i])] == base64url::kInvalid) {
        return fail(nullptr, "text", static_cast<std::int64_t>(i) * 6,
                    describeCharacter(text[i]) + " is not a base64url character");
      }
    }
    return fail(nullptr, "text", 0, "invalid text");
  }

  static std::string describeCharacter(char c) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x21 && byte < 0x7F) return std::string("'") + c + "'";
    static constexpr char kHex[] = "0123456789ABCDEF";
    return std::string("byte 0x") + kHex[byte >> 4] + kHex[byte & 15U];
  }

  static std::uint64_t bigEndianAt(const std::uint8_t* p) {
    std::uint64_t value = 0;
    std::memcpy(&value, p, sizeof value);
    if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap64(value);
    return value;
  }

  std::array<std::uint8_t, 1536> local_;  // not initialised: load() writes what is read
  std::vector<std::uint8_t> heap_;
  std::uint8_t* bytes_ = nullptr;
  std::array<std::uint64_t, 4> head_;  // written by load()
  std::int64_t bitCount_ = 0;
  std::int64_t position_ = 0;
  bool failed_ = false;
  ReadFailure failure_;
};

// Each byte value with its bits in reverse order.
constexpr std::array<std::uint8_t, 256> kReversedBytes = [] {
  std::array<std::uint8_t, 256> reversed{};
  for (int value = 0; value < 256; ++value) {
    for (int bit = 0; bit < 8; ++bit) {
      if ((value >> bit) & 1) reversed[value] |= static_cast<std::uint8_t>(0x80 >> bit);
    }
  }
  return reversed;
}();

// The low `width` bits of `value` in reverse order: the string's first bit becomes bit 0.
inline std::uint64_t reverseLow(std::uint64_t value, int width) {
  const int bytes = (width + 7) / 8;
  std::uint64_t reversed = 0;
  for (int byte = 0; byte < bytes; ++byte)
    reversed = (reversed << 8) | kReversedBytes[(value >> (8 * byte)) & 0xFF];
  return reversed >> (bytes * 8 - width);
}

}  // namespace

namespace detail {

// The reader fills a set's words directly.
struct VendorIdSetAccess {
  // Empties `set` and gives it `count` words, from id 1 on, for the caller to write whole.
  static std::uint64_t* reset(VendorIdSet& set, std::uint32_t count) {
    set.clear();
    if (count <= VendorIdSet::kInlineWords) {
      set.firstWord_ = 0;
      set.wordCount_ = count;
    } else {
      set.cover(0, count - 1);
    }
    return set.words();
  }
  // Adds ranges of ids to a set, holding those within one word in a register until a range
  // falls elsewhere: ranges mostly come in order, and most lie within a word.
  class Adder {
   public:
    explicit Adder(VendorIdSet& set) : set_(set) {}
    Adder(const Adder&) = delete;
    Adder& operator=(const Adder&) = delete;
    ~Adder() { flush(); }

    // Ids `first`...`last` (1 <= first <= last <= 65535).
    void add(std::int64_t first, std::int64_t last) {
      const auto from = static_cast<std::uint64_t>(first - 1);
      const auto to = static_cast<std::uint64_t>(last - 1);
      const auto word = static_cast<std::uint32_t>(from / 64);
      if (word == to / 64) {
        if (word != word_) {
          flush();
          word_ = word;
        }
        bits_ |= VendorIdSet::wordBits(from, to);
      } else {
        set_.add(from, to);
      }
    }

   private:
    void flush() {
      if (bits_ != 0) set_.addWord(word_, bits_);
      bits_ = 0;
    }

    VendorIdSet& set_;
    std::uint32_t word_ = 0;
    std::uint64_t bits_ = 0;  // ids of word_ not yet in the set
  };
};

}  // namespace detail

namespace {

// The `length` bits from `start` as a set: bit k stands for id k + 1. A set keeps the string's
// bit order, so the bits are copied 64 at a time as they are.
void copyBitField(const SegmentBits& bits, std::int64_t start, std::int64_t length,
                  VendorIdSet& set) {
  bits.copy(start, length,
            detail::VendorIdSetAccess::reset(set, static_cast<std::uint32_t>((length + 63) / 64)));
}

[[gnu::cold]] void failOnRange(SegmentBits& bits, const char* section, std::int64_t first,
                               std::int64_t last, bool isRange, std::int64_t startAt,
                               std::int64_t endAt, std::optional<std::int64_t> maxId) {
  if (first == 0) {
    bits.fail(section, "StartOrOnlyVendorId", startAt, "vendor id 0");
  } else if (first > last) {
    bits.fail(
        section, "EndVendorId", endAt,
        "range " + std::to_string(first) + "-" + std::to_string(last) + " ends before it starts");
  } else {
    bits.fail(section, isRange ? "EndVendorId" : "StartOrOnlyVendorId", isRange ? endAt : startAt,
              "vendor " + std::to_string(last) + " above MaxVendorId " + std::to_string(*maxId));
  }
}

// NumEntries, then each entry: IsARange, StartOrOnlyVendorId, and EndVendorId for a range. An
// id of 0, a start above its end, or an id above `maxId` (when given) fails.
// Kept out of line: inlined into the reader of the whole segment, its loop state no longer fits in
// registers.
[[gnu::noinline]] void readRangeEntries(SegmentBits& bits, const char* section,
                                        std::optional<std::int64_t> maxId, VendorIdSet& set) {
  std::int64_t left = static_cast<std::int64_t>(bits.read(12, section, "NumEntries"));
  // Ids are 16 bits wide, so without `maxId` none is too high.
  const std::int64_t highest = maxId.value_or(VendorIdSet::kMaxId);
  // The loop's state lives in locals while whole entries are read: stores into the set could
  // otherwise alias it and serialise the loop through memory.
  const std::uint8_t* const data = bits.data();
  std::int64_t position = bits.position();
  const std::int64_t lastWhole = position + bits.remainingBits() - 33;
  detail::VendorIdSetAccess::Adder adder(set);
  // While the longest entry fits, each is read whole and its parts picked without a branch, as
  // single ids and ranges come in no order a branch could predict.
  for (; left > 0 && position <= lastWhole; --left) {
    const std::uint64_t entryBits = SegmentBits::peekShort(data, position, 33);
    const bool isRange = (entryBits >> 32) != 0;
    const auto first = static_cast<std::int64_t>((entryBits >> 16) & 0xFFFFU);
    const std::int64_t last = isRange ? static_cast<std::int64_t>(entryBits & 0xFFFFU) : first;
    if (first == 0 || first > last || last > highest) [[unlikely]] {
      failOnRange(bits, section, first, last, isRange, position + 1, position + 17, maxId);
      return;
    }
    position += isRange ? 33 : 17;
    adder.add(first, last);
  }
  // Near the end, field by field, so that a truncation names the field it cuts.
  bits.seek(position);
  for (; left > 0; --left) {
    const std::int64_t startAt = bits.position() + 1;
    const bool isRange = bits.readBit(section, "IsARange");
    const auto first = static_cast<std::int64_t>(bits.read(16, section, "StartOrOnlyVendorId"));
    const std::int64_t last =
        isRange ? static_cast<std::int64_t>(bits.read(16, section, "EndVendorId")) : first;
    if (bits.failed()) return;
    if (first == 0 || first > last || last > highest) [[unlikely]] {
      failOnRange(bits, section, first, last, isRange, startAt, startAt + 16, maxId);
      return;
    }
    adder.add(first, last);
  }
}

// MaxVendorId, IsRangeEncoding, then a bit field or range entries.
void readVendorSection(SegmentBits& bits, const char* section, VendorSection& result) {
  result.maxVendorId = static_cast<std::int64_t>(bits.read(16, section, "MaxVendorId"));
  result.isRangeEncoding = bits.readBit(section, "IsRangeEncoding");
  if (bits.failed()) return;
  if (result.isRangeEncoding) {
    readRangeEntries(bits, section, result.maxVendorId, result.vendors);
  } else {
    const std::int64_t start = bits.take(result.maxVendorId, section, "BitField");
    if (start >= 0) copyBitField(bits, start, result.maxVendorId, result.vendors);
  }
}

[[gnu::cold]] void warnOnLetter(const char* field, std::uint64_t value,
                                std::vector<std::string>& warnings) {
  warnings.push_back(std::string(field) + " letter value " + std::to_string(value) +
                     " is not a letter A to Z");
}

// Two letters, at bit `Offset`, read with `read` into `code`; "?" for a value above Z.
template <int Offset, class Read>
[[gnu::always_inline]] inline void readCode(Read& read, const SegmentBits& bits, const char* field,
                                            std::string& code, std::vector<std::string>& warnings) {
  const std::uint64_t values[2] = {read.template field<Offset, 6>(field),
                                   read.template field<Offset + 6, 6>(field)};
  code.resize(2);
  for (int i = 0; i < 2; ++i) {
    code[i] = static_cast<char>(values[i] <= 25 ? 'A' + values[i] : '?');
    if (values[i] > 25 && !bits.failed()) [[unlikely]]
      warnOnLetter(field, values[i], warnings);
  }
}

[[gnu::cold]] [[gnu::noinline]] void warnOnLegitimateInterest(int policyVersion,
                                                              IdMask<24> purposes,
                                                              std::string_view where,
                                                              std::vector<std::string>& warnings) {
  for (int purpose = 3; purpose <= 6; ++purpose) {
    if (purposes.contains(purpose)) {
      warnings.push_back(std::string(where) + ": purpose " + std::to_string(purpose) +
                         " is signalled under legitimate interest, which policy version " +
                         std::to_string(policyVersion) + " does not allow");
    }
  }
}

[[gnu::cold]] [[gnu::noinline]] void warnOnRestriction(const PublisherRestriction& restriction,
                                                       std::vector<std::string>& warnings) {
  if (restriction.purposeId == 0)
    warnings.emplace_back("PubRestrictions: a restriction names purpose 0, which is not a purpose");
  if (restriction.restrictionType == 3) {
    warnings.push_back("PubRestrictions: purpose " + std::to_string(restriction.purposeId) +
                       " has restriction type 3, which is undefined");
  }
}

// Under policy version 4 and later, purposes 3 to 6 may not rest on legitimate interest.
inline void checkLegitimateInterestPolicy(int policyVersion, IdMask<24> purposes,
                                          std::string_view where,
                                          std::vector<std::string>& warnings) {
  constexpr std::uint64_t kPurposes3To6 = 0b111100;
  if (policyVersion >= 4 && (purposes.bits() & kPurposes3To6) != 0) [[unlikely]]
    warnOnLegitimateInterest(policyVersion, purposes, where, warnings);
}

TCStringError errorFrom(std::string segment, const ReadFailure& failure) {
  std::string field;
  if (failure.section != nullptr) field.append(failure.section).append(".");
  if (failure.field != nullptr) field.append(failure.field);
  return TCStringError{std::move(segment), std::move(field), failure.bitOffset, failure.reason};
}

// The fields before the vendor consents, each read with `read.field<offset, width>(name)`.
template <class Read>
[[gnu::always_inline]] inline void readCoreFields(SegmentBits& bits, TCString& tc, Read& read) {
  tc.version = static_cast<int>(read.template field<0, 6>("Version"));
  if (!bits.failed() && tc.version != 2) {
    bits.fail(nullptr, "Version", 0,
              "version " + std::to_string(tc.version) + " is not a TCF v2 string");
    return;
  }
  tc.created = read.template field<6, 36>("Created");
  tc.lastUpdated = read.template field<42, 36>("LastUpdated");
  tc.cmpId = static_cast<int>(read.template field<78, 12>("CmpId"));
  tc.cmpVersion = static_cast<int>(read.template field<90, 12>("CmpVersion"));
  tc.consentScreen = static_cast<int>(read.template field<102, 6>("ConsentScreen"));
  readCode<108>(read, bits, "ConsentLanguage", tc.consentLanguage, tc.warnings);
  tc.vendorListVersion = static_cast<int>(read.template field<120, 12>("VendorListVersion"));
  tc.policyVersion = static_cast<int>(read.template field<132, 6>("TcfPolicyVersion"));
  tc.isServiceSpecific = read.template field<138, 1>("IsServiceSpecific") != 0;
  tc.useNonStandardTexts = read.template field<139, 1>("UseNonStandardTexts") != 0;
  // Masks hold id k at bit k - 1, the reverse of the string's order.
  tc.specialFeatureOptins =
      IdMask<12>(reverseLow(read.template field<140, 12>("SpecialFeatureOptIns"), 12));
  tc.purposeConsents = IdMask<24>(reverseLow(read.template field<152, 24>("PurposesConsent"), 24));
  tc.purposeLegitimateInterests =
      IdMask<24>(reverseLow(read.template field<176, 24>("PurposesLITransparency"), 24));
  tc.purposeOneTreatment = read.template field<200, 1>("PurposeOneTreatment") != 0;
  readCode<201>(read, bits, "PublisherCC", tc.publisherCountryCode, tc.warnings);
}

// The bits of every field before the vendor consents.
constexpr int kCoreFieldBits = 213;

// Reads the fields one after the other, each checked; the offsets are where they would be.
struct CheckedFields {
  SegmentBits& bits;
  template <int, int Width>
  std::uint64_t field(const char* name) {
    return bits.read(Width, nullptr, name);
  }
};

// Cuts every field from the segment's first 256 bits, when all of them are there.
struct HeadFields {
  const std::array<std::uint64_t, 4>& words;
  template <int Offset, int Width>
  std::uint64_t field(const char*) const {
    static_assert(Offset + Width <= kCoreFieldBits);
    constexpr int kWord = Offset / 64;
    constexpr int kShift = Offset % 64;
    std::uint64_t value = words[kWord] << kShift;
    if constexpr (kShift + Width > 64) value |= words[kWord + 1] >> (64 - kShift);
    return value >> (64 - Width);
  }
};

void readCore(SegmentBits& bits, TCString& tc) {
  if (bits.remainingBits() >= kCoreFieldBits) {
    bits.take(kCoreFieldBits, nullptr, "");
    HeadFields fields{bits.head()};
    readCoreFields(bits, tc, fields);
  } else {
    CheckedFields fields{bits};
    readCoreFields(bits, tc, fields);
  }
  if (bits.failed()) return;
  readVendorSection(bits, "VendorConsents", tc.vendorConsents);
  readVendorSection(bits, "VendorLegitimateInterests", tc.vendorLegitimateInterests);
  const auto restrictions = static_cast<int>(bits.read(12, nullptr, "NumPubRestrictions"));
  tc.publisherRestrictions.reserve(static_cast<std::size_t>(restrictions));
  for (int r = 0; r < restrictions && !bits.failed(); ++r) {
    PublisherRestriction& restriction = tc.publisherRestrictions.emplace_back();
    restriction.purposeId = static_cast<int>(bits.read(6, "PubRestrictions", "PurposeId"));
    restriction.restrictionType =
        static_cast<int>(bits.read(2, "PubRestrictions", "RestrictionType"));
    readRangeEntries(bits, "PubRestrictions", std::nullopt, restriction.vendors);
    if ((restriction.purposeId == 0 || restriction.restrictionType == 3) && !bits.failed())
        [[unlikely]]
      warnOnRestriction(restriction, tc.warnings);
  }
  if (!bits.failed()) {
    checkLegitimateInterestPolicy(tc.policyVersion, tc.purposeLegitimateInterests, "core",
                                  tc.warnings);
  }
}

PublisherTCSegment readPublisherTC(SegmentBits& bits, int policyVersion,
                                   std::vector<std::string>& warnings) {
  PublisherTCSegment segment;
  segment.purposesConsent =
      IdMask<24>(reverseLow(bits.read(24, nullptr, "PubPurposesConsent"), 24));
  segment.purposesLegitimateInterests =
      IdMask<24>(reverseLow(bits.read(24, nullptr, "PubPurposesLITransparency"), 24));
  segment.numCustomPurposes = static_cast<int>(bits.read(6, nullptr, "NumCustomPurposes"));
  const int n = segment.numCustomPurposes;
  segment.customPurposesConsent =
      IdMask<64>(reverseLow(bits.read(n, nullptr, "CustomPurposesConsent"), n));
  segment.customPurposesLegitimateInterests =
      IdMask<64>(reverseLow(bits.read(n, nullptr, "CustomPurposesLITransparency"), n));
  if (!bits.failed()) {
    checkLegitimateInterestPolicy(policyVersion, segment.purposesLegitimateInterests,
                                  "publisher TC", warnings);
  }
  return segment;
}

}  // namespace

TCString::TCString() noexcept = default;

std::string TCStringError::message() const {
  std::string text = segment + " segment, ";
  if (!field.empty()) text += "field " + field + " ";
  return text + "at bit " + std::to_string(bitOffset) + ": " + reason;
}

Result<TCString, TCStringError> TCString::parse(std::string_view text) {
  // Built where the caller receives it: every return hands back `result`.
  Result<TCString, TCStringError> result(std::in_place);
  TCString& tc = result.value();
  const auto fail = [&result](TCStringError error) { result = Failure{std::move(error)}; };
  const std::size_t coreEnd = std::min(text.find('.'), text.size());
  {
    SegmentBits bits;
    if (bits.load(text.substr(0, coreEnd))) readCore(bits, tc);
    if (bits.failed()) {
      fail(errorFrom("core", bits.failure()));
      return result;
    }
  }
  int index = 1;
  for (std::size_t start = coreEnd; start < text.size();) {
    ++index;
    const std::size_t begin = start + 1;
    const std::size_t end = std::min(text.find('.', begin), text.size());
    start = end;
    const std::string_view piece = text.substr(begin, end - begin);
    // A segment is named by its type once that is known, and by its place until then.
    const char* named = nullptr;
    const auto name = [&] {
      return named ? std::string(named) : "segment " + std::to_string(index);
    };
    SegmentBits bits;
    if (piece.empty()) {
      fail(TCStringError{name(), "", 0, "empty segment"});
      return result;
    }
    if (!bits.load(piece)) {
      fail(errorFrom(name(), bits.failure()));
      return result;
    }
    const auto type = bits.read(3, nullptr, "SegmentType");
    if (bits.failed()) {
      fail(errorFrom(name(), bits.failure()));
      return result;
    }
    switch (type) {
      case 0:
        tc.warnings.push_back(name() + " has segment type 0 (core) and was ignored");
        continue;
      case 1:
      case 2: {
        const bool disclosed = type == 1;
        named = disclosed ? "disclosed vendors" : "allowed vendors";
        std::optional<VendorSection>& slot = disclosed ? tc.vendorsDisclosed : tc.vendorsAllowed;
        if (slot) {
          fail(TCStringError{name(), "SegmentType", 0, "segment appears twice"});
          return result;
        }
        readVendorSection(bits, disclosed ? "DisclosedVendors" : "AllowedVendors", slot.emplace());
        break;
      }
      case 3:
        named = "publisher TC";
        if (tc.publisherTC) {
          fail(TCStringError{name(), "SegmentType", 0, "segment appears twice"});
          return result;
        }
        tc.publisherTC = readPublisherTC(bits, tc.policyVersion, tc.warnings);
        break;
      default: {
        fail(TCStringError{name(), "SegmentType", 0,
                           "unknown segment type " + std::to_string(type)});
        return result;
      }
    }
    if (bits.failed()) {
      fail(errorFrom(name(), bits.failure()));
      return result;
    }
  }
  return result;
}

}  // namespace quillet
