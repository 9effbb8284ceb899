#include "quillet/codec/QLTCMPUtils.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <ratio>
#include <unordered_set>

#include "quillet/base/Fatal.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/codec/Base64Url.h"
#include "quillet/codec/BitReader.h"
#include "quillet/codec/BitWriter.h"

namespace quillet::QLTCMPUtils {
namespace {

constexpr std::string_view kTag = "QLTCMPUtils";
constexpr int kSpecialFeatureCount = 12;
constexpr int kPurposeCount = 24;
constexpr std::size_t kMaxRangeEntries = 4095;  // NumEntries is a 12-bit field

// Deciseconds since 1970, truncated toward zero; a clock before 1970 reads as 0.
std::uint64_t deciseconds(std::chrono::system_clock::time_point time) {
  const auto ds = std::chrono::duration_cast<std::chrono::duration<std::int64_t, std::deci>>(
      time.time_since_epoch());
  return ds.count() < 0 ? 0 : static_cast<std::uint64_t>(ds.count());
}

std::uint64_t nonNegative(std::int64_t value, std::string_view field) {
  if (value < 0) fatalError(std::string("encodeTCString: negative ") + std::string(field));
  return static_cast<std::uint64_t>(value);
}

// The UTF-8 bytes that a two-letter code is written from: its first two characters, upper-cased.
std::string codeBytes(std::string_view code) {
  return Text::uppercased(Text::prefixCharacters(code, 2));
}

void writeCode(BitWriter& writer, std::string_view code, std::string_view field) {
  for (const char c : codeBytes(code)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 'A') {
      fatalError(std::string("encodeTCString: ") + std::string(field) +
                 " holds a character below \"A\"");
    }
    writer.write(byte - 'A', 6);
  }
}

// Bits 1...length, bit i set when `ids` holds i; other ids are ignored. Built as 64-bit words so
// that the cost is the number of ids plus length / 64 writes.
void writeBitField(BitWriter& writer, std::span<const std::int64_t> ids, std::int64_t length) {
  if (length <= 0) return;
  const auto wordCount = static_cast<std::size_t>((length + 63) / 64);
  std::array<std::uint64_t, 8> local{};
  std::vector<std::uint64_t> heap;
  std::span<std::uint64_t> words;
  if (wordCount <= local.size()) {
    words = std::span(local).first(wordCount);
  } else {
    heap.assign(wordCount, 0);
    words = heap;
  }
  // Ids usually come in order, so bits are gathered in a register until the word changes.
  std::size_t current = 0;
  std::uint64_t gathered = 0;
  for (const std::int64_t id : ids) {
    if (id < 1 || id > length) continue;
    const auto bit = static_cast<std::uint64_t>(id - 1);
    const auto word = static_cast<std::size_t>(bit / 64);
    if (word != current) {
      words[current] |= gathered;
      current = word;
      gathered = 0;
    }
    gathered |= std::uint64_t{1} << (63 - bit % 64);
  }
  words[current] |= gathered;
  for (std::size_t w = 0; w + 1 < wordCount; ++w)
    writer.write(words[w], 64);
  const int rest = static_cast<int>(length - static_cast<std::int64_t>(wordCount - 1) * 64);
  writer.write(words[wordCount - 1] >> (64 - rest), rest);
}

// M: the largest vendor-list id, 0 for none. A negative one, or one above the largest the
// encoders take, stops the process.
std::int64_t maxVendorId(std::span<const std::int64_t> gvlVendorIds, std::string_view caller) {
  if (gvlVendorIds.empty()) return 0;
  const std::int64_t largest = *std::max_element(gvlVendorIds.begin(), gvlVendorIds.end());
  if (largest < 0) fatalError(std::string(caller) + ": negative largest vendor id");
  if (largest > kLargestEncodableVendorId) {
    fatalError(std::string(caller) + ": largest vendor id " + std::to_string(largest) +
               " is above " + std::to_string(kLargestEncodableVendorId));
  }
  return largest;
}

// MaxVendorId, IsRangeEncoding 0, and the stop for an empty vendor range.
void writeVendorSectionHeader(BitWriter& writer, std::int64_t maxId, std::string_view caller) {
  writer.write(static_cast<std::uint64_t>(maxId), 16);
  writer.writeBit(false);
  if (maxId == 0) fatalError(std::string(caller) + ": no vendor ids (MaxVendorId 0)");
}

// Ids 1...length whose bit is set, read from the position on, up to 64 bits at a time; bits
// missing at the end yield no ids.
std::vector<std::int64_t> idsOfSetBits(BitReader& reader, std::int64_t length) {
  std::vector<std::int64_t> ids;
  std::int64_t id = 1;
  while (id <= length) {
    const std::int64_t width =
        std::min<std::int64_t>({64, length - id + 1, reader.remainingBits()});
    if (width <= 0) break;
    const std::optional<std::uint64_t> chunk = reader.readUInt(width);
    if (!chunk) break;
    for (std::uint64_t rest = *chunk << (64 - width); rest != 0;) {
      const int leading = std::countl_zero(rest);
      ids.push_back(id + leading);
      rest &= ~(std::uint64_t{1} << (63 - leading));
    }
    id += width;
  }
  return ids;
}

bool isWhiteSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace

std::string encodeTCString(const TCStringInput& input, const Clock& clock) {
  constexpr std::string_view kCaller = "encodeTCString";
  BitWriter writer;
  const std::uint64_t created = deciseconds(clock.now());
  writer.write(2, 6);
  writer.write(created, 36);
  writer.write(created, 36);  // LastUpdated
  writer.write(nonNegative(input.cmpId, "cmpId"), 12);
  writer.write(nonNegative(input.cmpVersion, "cmpVersion"), 12);
  writer.write(nonNegative(input.consentScreen, "consentScreen"), 6);
  writeCode(writer, input.consentLanguage, "consentLanguage");
  writer.write(nonNegative(input.vendorListVersion, "vendorListVersion"), 12);
  writer.write(nonNegative(input.policyVersion, "policyVersion"), 6);
  writer.writeBit(input.isServiceSpecific);
  writer.writeBit(input.useNonStandardStacks);
  writeBitField(writer, input.specialFeatureOptins, kSpecialFeatureCount);
  writeBitField(writer, input.purposeConsents, kPurposeCount);
  writeBitField(writer, input.purposeLegitimateInterests, kPurposeCount);
  writer.writeBit(input.purposeOneTreatment);
  writeCode(writer, input.publisherCC, "publisherCC");

  const std::int64_t maxId = maxVendorId(input.gvlVendorIds, kCaller);
  writeVendorSectionHeader(writer, maxId, kCaller);
  writeBitField(writer, input.vendorConsents, maxId);
  writeVendorSectionHeader(writer, maxId, kCaller);
  writeBitField(writer, input.vendorLegitimateInterests, maxId);
  writer.write(0, 12);  // NumPubRestrictions

  QltLog::d(kTag, [&] {
    return "[TC-ENC] pc=" + std::to_string(input.purposeConsents.size()) +
           "  pli=" + std::to_string(input.purposeLegitimateInterests.size()) +
           "  vc=" + std::to_string(input.vendorConsents.size()) +
           "  vli=" + std::to_string(input.vendorLegitimateInterests.size()) +
           "  sfo=" + std::to_string(input.specialFeatureOptins.size());
  });
  return base64URLEncodedString(writer.data());
}

std::string encodeTCString(std::span<const std::int64_t> purposes,
                           std::span<const std::int64_t> vendors,
                           std::span<const std::int64_t> gvlVendorIds, const Clock& clock) {
  TCStringInput input;
  input.purposeConsents.assign(purposes.begin(), purposes.end());
  input.vendorConsents.assign(vendors.begin(), vendors.end());
  input.gvlVendorIds.assign(gvlVendorIds.begin(), gvlVendorIds.end());
  return encodeTCString(input, clock);
}

std::string encodeDisclosedVendorsSegment(std::span<const std::int64_t> allowedVendorIds,
                                          std::span<const std::int64_t> gvlVendorIds) {
  constexpr std::string_view kCaller = "encodeDisclosedVendorsSegment";
  BitWriter writer;
  writer.write(2, 3);  // SegmentType: the TCF's number for allowed vendors, kept on purpose
  const std::int64_t maxId = maxVendorId(gvlVendorIds, kCaller);
  writeVendorSectionHeader(writer, maxId, kCaller);
  writeBitField(writer, allowedVendorIds, maxId);
  return base64URLEncodedString(writer.data());
}

std::string encodeDisclosedVendors(std::span<const std::int64_t> disclosedVendorIds) {
  std::vector<std::int64_t> ids;
  ids.reserve(disclosedVendorIds.size());
  for (const std::int64_t id : disclosedVendorIds) {
    if (id >= 1 && id <= kLargestVendorId) ids.push_back(id);
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  // Runs of consecutive ids, each an entry of the range encoding.
  std::vector<std::pair<std::int64_t, std::int64_t>> runs;
  for (const std::int64_t id : ids) {
    if (!runs.empty() && runs.back().second + 1 == id) {
      runs.back().second = id;
    } else {
      runs.emplace_back(id, id);
    }
  }
  const std::int64_t maxId = ids.empty() ? 0 : ids.back();
  std::int64_t rangeBits = 12;
  for (const auto& [first, last] : runs)
    rangeBits += first == last ? 17 : 33;
  const bool range = runs.size() <= kMaxRangeEntries && rangeBits < maxId;

  BitWriter writer;
  writer.write(1, 3);  // SegmentType: disclosed vendors
  writer.write(static_cast<std::uint64_t>(maxId), 16);
  writer.writeBit(range);
  if (range) {
    writer.write(runs.size(), 12);
    for (const auto& [first, last] : runs) {
      writer.writeBit(first != last);
      writer.write(static_cast<std::uint64_t>(first), 16);
      if (first != last) writer.write(static_cast<std::uint64_t>(last), 16);
    }
  } else {
    writeBitField(writer, ids, maxId);
  }
  return base64URLEncodedString(writer.data());
}

bool isEncodableCode(std::string_view code) {
  const std::string bytes = codeBytes(code);
  return std::all_of(bytes.begin(), bytes.end(),
                     [](char c) { return static_cast<unsigned char>(c) >= 'A'; });
}

std::string csvString(std::span<const std::int64_t> from) {
  std::string out;
  for (const std::int64_t id : from) {
    if (!out.empty()) out.push_back(',');
    out.append(std::to_string(id));
  }
  return out;
}

std::vector<std::int64_t> parseCSV(std::string_view text) {
  std::vector<std::int64_t> ids;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(',', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view piece = text.substr(start, end - start);
    while (!piece.empty() && isWhiteSpace(piece.front()))
      piece.remove_prefix(1);
    while (!piece.empty() && isWhiteSpace(piece.back()))
      piece.remove_suffix(1);
    if (const auto id = Text::parseInteger(piece)) ids.push_back(*id);
    start = end + 1;
  }
  return ids;
}

bool allPurposesGiven(std::span<const std::int64_t> user, std::span<const std::int64_t> required) {
  const std::unordered_set<std::int64_t> given(user.begin(), user.end());
  return std::all_of(required.begin(), required.end(),
                     [&](std::int64_t id) { return given.contains(id); });
}

bool canDecodeTCString(std::string_view text) {
  // Every field before MaxVendorId has its standard width once 229 bits are there.
  constexpr std::int64_t kMaxVendorIdAt = 6 + 36 + 36 + 62 + 12 + 24 + 24 + 13;
  const std::optional<Bytes> bytes = fromBase64Url(text);
  if (!bytes) return true;
  BitReader reader(*bytes);
  if (reader.remainingBits() < 6) return true;
  reader.skip(kMaxVendorIdAt);
  return reader.readUInt(16).value_or(0) != 0;
}

std::optional<DecodedTCString> decodeTCString(std::string_view text) {
  const std::optional<Bytes> bytes = fromBase64Url(text);
  if (!bytes) return std::nullopt;
  BitReader reader(*bytes);
  const std::optional<std::uint64_t> version = reader.readUInt(6);
  if (!version) return std::nullopt;

  DecodedTCString decoded;
  decoded.version = *version;
  (void)reader.readUInt(36);  // Created; a failed read leaves the position
  (void)reader.readUInt(36);  // LastUpdated
  reader.skip(62);            // CmpId ... UseNonStandardTexts at their standard widths
  decoded.specialFeatureOptins = idsOfSetBits(reader, kSpecialFeatureCount);
  decoded.purposeConsents = idsOfSetBits(reader, kPurposeCount);
  decoded.purposeLegitimateInterests = idsOfSetBits(reader, kPurposeCount);
  reader.skip(13);  // PurposeOneTreatment, PublisherCC
  const auto maxId = static_cast<std::int64_t>(reader.readUInt(16).value_or(0));
  (void)reader.readBit();  // IsRangeEncoding: always read as a bit field
  if (maxId == 0) fatalError("decodeTCString: MaxVendorId 0");
  decoded.vendorConsents = idsOfSetBits(reader, maxId);
  (void)reader.readUInt(16);  // the legitimate-interest MaxVendorId; the consent one is used
  (void)reader.readBit();
  decoded.vendorLegitimateInterests = idsOfSetBits(reader, maxId);
  (void)reader.readUInt(12);  // NumPubRestrictions
  return decoded;
}

}  // namespace quillet::QLTCMPUtils
