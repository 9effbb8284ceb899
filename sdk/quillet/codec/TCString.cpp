#include "quillet/codec/TCString.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <span>

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
    // Three bytes per four characters, three more for the closing group (always written, even
    // when no characters are left for it), plus zeroed slack so that loads of 8 bytes past any
    // bit in range stay inside the buffer.
    const std::size_t size = text.size() / 4 * 3 + 3 + kSlack;
    if (size <= local_.size()) {
      bytes_ = local_.data();
    } else {
      heap_.resize(size);
      bytes_ = heap_.data();
    }
    const auto* chars = reinterpret_cast<const unsigned char*>(text.data());
    std::uint8_t* out = bytes_;
    std::uint64_t invalid = 0;
    std::size_t i = 0;
    // Eight characters make six bytes: gather 48 bits and store them with one 8-byte write
    // (the two extra bytes are overwritten by the next group or lie in the slack).
    for (; i + 8 <= text.size(); i += 8, out += 6) {
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
    for (; i + 4 <= text.size(); i += 4, out += 3) {
      const std::uint32_t a = kUrlValues[chars[i]], b = kUrlValues[chars[i + 1]],
                          c = kUrlValues[chars[i + 2]], d = kUrlValues[chars[i + 3]];
      invalid |= a | b | c | d;
      const std::uint32_t group = (a << 18) | (b << 12) | (c << 6) | d;
      out[0] = static_cast<std::uint8_t>(group >> 16);
      out[1] = static_cast<std::uint8_t>(group >> 8);
      out[2] = static_cast<std::uint8_t>(group);
    }
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      const std::uint32_t value = i + k < text.size() ? kUrlValues[chars[i + k]] : 0;
      invalid |= value;
      group = (group << 6) | (value & 63U);
    }
    out[0] = static_cast<std::uint8_t>(group >> 16);
    out[1] = static_cast<std::uint8_t>(group >> 8);
    out[2] = static_cast<std::uint8_t>(group);
    std::fill(out + 3, out + 3 + kSlack, 0);
    if ((invalid & 0xC0U) != 0) return failOnCharacter(text);  // an invalid value has bit 7
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
  void seek(std::int64_t position) { position_ = position; }

  // The next `width` bits (0 to 64) as a number; 0 on failure.
  std::uint64_t read(int width, const char* section, const char* field) {
    const std::int64_t start = take(width, section, field);
    return start < 0 ? 0 : peek(start, width);
  }
  bool readBit(const char* section, const char* field) { return read(1, section, field) != 0; }

  // `width` bits (0 to 64) at `at`, right-aligned. `at` must be inside the text.
  std::uint64_t peek(std::int64_t at, int width) const {
    if (width == 0) return 0;
    const std::uint8_t* p = bytes_ + (at >> 3);
    const int offset = static_cast<int>(at & 7);
    std::uint64_t high = 0;
    std::memcpy(&high, p, sizeof high);
    if constexpr (std::endian::native == std::endian::little) high = __builtin_bswap64(high);
    if (offset != 0) high = (high << offset) | (p[8] >> (8 - offset));
    return high >> (64 - width);
  }

  bool fail(const char* section, const char* field, std::int64_t at, std::string reason) {
    if (!failed_) {
      failed_ = true;
      failure_ = ReadFailure{section, field, at, std::move(reason)};
      bitCount_ = -1;  // every later take() fails at its first comparison
    }
    return false;
  }

  bool failed() const noexcept { return failed_; }
  const ReadFailure& failure() const noexcept { return failure_; }
  std::int64_t position() const noexcept { return position_; }
  std::int64_t remainingBits() const noexcept { return failed_ ? 0 : bitCount_ - position_; }

 private:
  static constexpr std::size_t kSlack = 16;

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

  std::array<std::uint8_t, 1536> local_;  // not initialised: load() writes what is read
  std::vector<std::uint8_t> heap_;
  std::uint8_t* bytes_ = nullptr;
  std::int64_t bitCount_ = 0;
  std::int64_t position_ = 0;
  bool failed_ = false;
  ReadFailure failure_;
};

// The low `width` bits of `value` in reverse order: the string's first bit becomes bit 0.
std::uint64_t reverseLow(std::uint64_t value, int width) {
  if (width == 0) return 0;
  value = ((value >> 1) & 0x5555555555555555ULL) | ((value & 0x5555555555555555ULL) << 1);
  value = ((value >> 2) & 0x3333333333333333ULL) | ((value & 0x3333333333333333ULL) << 2);
  value = ((value >> 4) & 0x0F0F0F0F0F0F0F0FULL) | ((value & 0x0F0F0F0F0F0F0F0FULL) << 4);
  value = ((value >> 8) & 0x00FF00FF00FF00FFULL) | ((value & 0x00FF00FF00FF00FFULL) << 8);
  value = ((value >> 16) & 0x0000FFFF0000FFFFULL) | ((value & 0x0000FFFF0000FFFFULL) << 16);
  value = (value >> 32) | (value << 32);
  return value >> (64 - width);
}

// Ids of the set bits among `length` bits from `start`; bit k stands for id k + 1. Reads 64 bits
// at a time, reversed so that the first bit is the lowest, and walks the set bits.
void appendSetBits(const SegmentBits& bits, std::int64_t start, std::int64_t length,
                   std::vector<std::int64_t>& ids) {
  std::size_t total = 0;
  for (std::int64_t done = 0; done < length; done += 64) {
    const int width = static_cast<int>(std::min<std::int64_t>(64, length - done));
    total += static_cast<std::size_t>(std::popcount(bits.peek(start + done, width)));
  }
  if (total == 0) return;
  const std::size_t first = ids.size();
  ids.resize(first + total);
  std::int64_t* out = ids.data() + first;
  for (std::int64_t done = 0; done < length; done += 64) {
    const int width = static_cast<int>(std::min<std::int64_t>(64, length - done));
    for (std::uint64_t rest = reverseLow(bits.peek(start + done, width), width); rest != 0;
         rest &= rest - 1) {
      *out++ = done + std::countr_zero(rest) + 1;
    }
  }
}

constexpr std::size_t kVendorIdCount = 65536;  // vendor ids are 16-bit fields

// The ids of a range section whose overlapping entries would repeat more ids than there are: a
// bit per possible vendor id, so repeated ranges cost neither memory nor sorting.
class VendorBitmap {
 public:
  explicit VendorBitmap(const std::vector<std::int64_t>& ids) {
    for (const std::int64_t id : ids)
      add(id, id);
  }
  void add(std::int64_t first, std::int64_t last) {
    const auto firstWord = static_cast<std::size_t>(first >> 6);
    const auto lastWord = static_cast<std::size_t>(last >> 6);
    const std::uint64_t firstMask = ~std::uint64_t{0} << (first & 63);
    const std::uint64_t lastMask = ~std::uint64_t{0} >> (63 - (last & 63));
    if (firstWord == lastWord) {
      words_[firstWord] |= firstMask & lastMask;
      return;
    }
    words_[firstWord] |= firstMask;
    for (std::size_t w = firstWord + 1; w < lastWord; ++w)
      words_[w] = ~std::uint64_t{0};
    words_[lastWord] |= lastMask;
  }
  // The ids, ascending.
  std::vector<std::int64_t> ids() const {
    std::vector<std::int64_t> out;
    for (std::size_t w = 0; w < words_.size(); ++w) {
      for (std::uint64_t rest = words_[w]; rest != 0; rest &= rest - 1) {
        out.push_back(static_cast<std::int64_t>(w * 64) + std::countr_zero(rest));
      }
    }
    return out;
  }

 private:
  std::array<std::uint64_t, kVendorIdCount / 64> words_{};
};

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
void readRangeEntries(SegmentBits& bits, const char* section, std::optional<std::int64_t> maxId,
                      std::vector<std::int64_t>& ids) {
  const auto entries = static_cast<std::int64_t>(bits.read(12, section, "NumEntries"));
  ids.reserve(ids.size() + static_cast<std::size_t>(entries));  // at least one id per entry
  bool sorted = true;  // entries so far are in order without overlap
  std::int64_t previousLast = 0;
  std::unique_ptr<VendorBitmap> bitmap;
  // The position lives in a local while entries are read: stores of ids could otherwise alias it
  // and serialise the loop through memory.
  std::int64_t position = bits.position();
  const std::int64_t end = position + bits.remainingBits();
  for (std::int64_t entry = 0; entry < entries; ++entry) {
    const std::int64_t startAt = position + 1;
    const std::int64_t endAt = startAt + 16;
    std::int64_t first = 0;
    std::int64_t last = 0;
    bool isRange = false;
    if (end - position >= 33) {
      const std::uint64_t head = bits.peek(position, 17);
      isRange = (head >> 16) != 0;
      first = static_cast<std::int64_t>(head & 0xFFFFU);
      last = first;
      position += 17;
      if (isRange) {
        last = static_cast<std::int64_t>(bits.peek(position, 16));
        position += 16;
      }
    } else {
      // Near the end, field by field, so that a truncation names the field it cuts.
      bits.seek(position);
      isRange = bits.readBit(section, "IsARange");
      first = static_cast<std::int64_t>(bits.read(16, section, "StartOrOnlyVendorId"));
      last = isRange ? static_cast<std::int64_t>(bits.read(16, section, "EndVendorId")) : first;
      if (bits.failed()) return;
      position = bits.position();
    }
    if (first == 0 || first > last || (maxId && last > *maxId)) [[unlikely]] {
      failOnRange(bits, section, first, last, isRange, startAt, endAt, maxId);
      return;
    }
    sorted = sorted && first > previousLast;
    previousLast = last;
    // Out-of-order entries are sorted at the end, unless they pile up more ids than there are
    // vendor ids: then the bitmap takes over.
    if (!bitmap && !sorted &&
        ids.size() + static_cast<std::size_t>(last - first) >= kVendorIdCount) {
      bitmap = std::make_unique<VendorBitmap>(ids);
    }
    if (bitmap) {
      bitmap->add(first, last);
      continue;
    }
    ids.push_back(first);
    for (std::int64_t id = first + 1; id <= last; ++id)
      ids.push_back(id);
  }
  bits.seek(position);
  if (bitmap) {
    ids = bitmap->ids();
  } else if (!sorted) {
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  }
}

// MaxVendorId, IsRangeEncoding, then a bit field or range entries.
VendorSection readVendorSection(SegmentBits& bits, const char* section) {
  VendorSection result;
  result.maxVendorId = static_cast<std::int64_t>(bits.read(16, section, "MaxVendorId"));
  result.isRangeEncoding = bits.readBit(section, "IsRangeEncoding");
  if (bits.failed()) return result;
  if (result.isRangeEncoding) {
    readRangeEntries(bits, section, result.maxVendorId, result.ids);
  } else {
    const std::int64_t start = bits.take(result.maxVendorId, section, "BitField");
    if (start >= 0) appendSetBits(bits, start, result.maxVendorId, result.ids);
  }
  return result;
}

std::string readCode(SegmentBits& bits, const char* field, std::vector<std::string>& warnings) {
  std::string code;
  for (int letter = 0; letter < 2; ++letter) {
    const auto value = bits.read(6, nullptr, field);
    if (value <= 25) {
      code.push_back(static_cast<char>('A' + value));
    } else {
      code.push_back('?');
      if (!bits.failed()) {
        warnings.push_back(std::string(field) + " letter value " + std::to_string(value) +
                           " is not a letter A to Z");
      }
    }
  }
  return code;
}

// Under policy version 4 and later, purposes 3 to 6 may not rest on legitimate interest.
void checkLegitimateInterestPolicy(int policyVersion, IdMask<24> purposes, std::string_view where,
                                   std::vector<std::string>& warnings) {
  if (policyVersion < 4) return;
  for (int purpose = 3; purpose <= 6; ++purpose) {
    if (purposes.contains(purpose)) {
      warnings.push_back(std::string(where) + ": purpose " + std::to_string(purpose) +
                         " is signalled under legitimate interest, which policy version " +
                         std::to_string(policyVersion) + " does not allow");
    }
  }
}

TCStringError errorFrom(std::string segment, const ReadFailure& failure) {
  std::string field;
  if (failure.section != nullptr) field.append(failure.section).append(".");
  if (failure.field != nullptr) field.append(failure.field);
  return TCStringError{std::move(segment), std::move(field), failure.bitOffset, failure.reason};
}

void readCore(SegmentBits& bits, TCString& tc) {
  tc.version = static_cast<int>(bits.read(6, nullptr, "Version"));
  if (!bits.failed() && tc.version != 2) {
    bits.fail(nullptr, "Version", 0,
              "version " + std::to_string(tc.version) + " is not a TCF v2 string");
    return;
  }
  tc.created = bits.read(36, nullptr, "Created");
  tc.lastUpdated = bits.read(36, nullptr, "LastUpdated");
  tc.cmpId = static_cast<int>(bits.read(12, nullptr, "CmpId"));
  tc.cmpVersion = static_cast<int>(bits.read(12, nullptr, "CmpVersion"));
  tc.consentScreen = static_cast<int>(bits.read(6, nullptr, "ConsentScreen"));
  tc.consentLanguage = readCode(bits, "ConsentLanguage", tc.warnings);
  tc.vendorListVersion = static_cast<int>(bits.read(12, nullptr, "VendorListVersion"));
  tc.policyVersion = static_cast<int>(bits.read(6, nullptr, "TcfPolicyVersion"));
  tc.isServiceSpecific = bits.readBit(nullptr, "IsServiceSpecific");
  tc.useNonStandardTexts = bits.readBit(nullptr, "UseNonStandardTexts");
  // Masks hold id k at bit k - 1, the reverse of the string's order.
  tc.specialFeatureOptins =
      IdMask<12>(reverseLow(bits.read(12, nullptr, "SpecialFeatureOptIns"), 12));
  tc.purposeConsents = IdMask<24>(reverseLow(bits.read(24, nullptr, "PurposesConsent"), 24));
  tc.purposeLegitimateInterests =
      IdMask<24>(reverseLow(bits.read(24, nullptr, "PurposesLITransparency"), 24));
  tc.purposeOneTreatment = bits.readBit(nullptr, "PurposeOneTreatment");
  tc.publisherCountryCode = readCode(bits, "PublisherCC", tc.warnings);
  tc.vendorConsents = readVendorSection(bits, "VendorConsents");
  tc.vendorLegitimateInterests = readVendorSection(bits, "VendorLegitimateInterests");
  const auto restrictions = static_cast<int>(bits.read(12, nullptr, "NumPubRestrictions"));
  tc.publisherRestrictions.reserve(static_cast<std::size_t>(restrictions));
  for (int r = 0; r < restrictions && !bits.failed(); ++r) {
    PublisherRestriction restriction;
    restriction.purposeId = static_cast<int>(bits.read(6, "PubRestrictions", "PurposeId"));
    restriction.restrictionType =
        static_cast<int>(bits.read(2, "PubRestrictions", "RestrictionType"));
    readRangeEntries(bits, "PubRestrictions", std::nullopt, restriction.vendors);
    tc.publisherRestrictions.push_back(std::move(restriction));
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

bool VendorSection::contains(std::int64_t id) const noexcept {
  return std::binary_search(ids.begin(), ids.end(), id);
}

std::string TCStringError::message() const {
  std::string text = segment + " segment, ";
  if (!field.empty()) text += "field " + field + " ";
  return text + "at bit " + std::to_string(bitOffset) + ": " + reason;
}

Result<TCString, TCStringError> TCString::parse(std::string_view text) {
  TCString tc;
  const std::size_t coreEnd = std::min(text.find('.'), text.size());
  {
    SegmentBits bits;
    if (bits.load(text.substr(0, coreEnd))) readCore(bits, tc);
    if (bits.failed()) return Failure{errorFrom("core", bits.failure())};
  }
  int index = 1;
  for (std::size_t start = coreEnd; start < text.size();) {
    ++index;
    const std::size_t begin = start + 1;
    const std::size_t end = std::min(text.find('.', begin), text.size());
    start = end;
    const std::string_view piece = text.substr(begin, end - begin);
    std::string name = "segment " + std::to_string(index);
    SegmentBits bits;
    if (piece.empty()) return Failure{TCStringError{name, "", 0, "empty segment"}};
    if (!bits.load(piece)) return Failure{errorFrom(name, bits.failure())};
    const auto type = bits.read(3, nullptr, "SegmentType");
    if (bits.failed()) return Failure{errorFrom(name, bits.failure())};
    switch (type) {
      case 0:
        tc.warnings.push_back(name + " has segment type 0 (core) and was ignored");
        continue;
      case 1:
      case 2: {
        const bool disclosed = type == 1;
        name = disclosed ? "disclosed vendors" : "allowed vendors";
        std::optional<VendorSection>& slot = disclosed ? tc.vendorsDisclosed : tc.vendorsAllowed;
        if (slot) return Failure{TCStringError{name, "SegmentType", 0, "segment appears twice"}};
        slot = readVendorSection(bits, disclosed ? "DisclosedVendors" : "AllowedVendors");
        break;
      }
      case 3:
        name = "publisher TC";
        if (tc.publisherTC) {
          return Failure{TCStringError{name, "SegmentType", 0, "segment appears twice"}};
        }
        tc.publisherTC = readPublisherTC(bits, tc.policyVersion, tc.warnings);
        break;
      default:
        return Failure{
            TCStringError{name, "SegmentType", 0, "unknown segment type " + std::to_string(type)}};
    }
    if (bits.failed()) return Failure{errorFrom(name, bits.failure())};
  }
  return tc;
}

}  // namespace quillet
