#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/base/Clock.h"
#include "quillet/base/Export.h"

/// The TC String encoder and decoder of this library, and the id-list helpers that go with them.
///
/// The core segment is always written with both vendor sections as bit fields over 1...M (M the
/// largest vendor-list id) and no publisher restrictions. The vendor segment is written with
/// segment type 2. All operations are stateless and safe to call from any thread.
namespace quillet::QLTCMPUtils {

/// The choices and metadata of one core segment. The defaults are those of the short
/// `encodeTCString(purposes, vendors, gvlVendorIds)`.
struct QUILLET_EXPORT TCStringInput {
  std::vector<std::int64_t> purposeConsents;
  std::vector<std::int64_t> purposeLegitimateInterests;
  std::vector<std::int64_t> specialFeatureOptins;
  std::vector<std::int64_t> vendorConsents;
  std::vector<std::int64_t> vendorLegitimateInterests;
  /// All vendor ids of the vendor list in use; only the largest matters. Must hold a positive id
  /// of at most `kLargestEncodableVendorId`.
  std::vector<std::int64_t> gvlVendorIds;
  std::int64_t cmpId = 471;
  std::int64_t cmpVersion = 1;
  std::int64_t consentScreen = 0;
  /// Its first two characters are upper-cased and written one 6-bit field per UTF-8 byte; a byte
  /// below "A" stops the process (see `isEncodableCode`).
  std::string consentLanguage = "EN";
  std::int64_t vendorListVersion = 1;
  std::int64_t policyVersion = 1;
  bool isServiceSpecific = false;
  /// Written in the field that the TCF calls UseNonStandardTexts.
  bool useNonStandardStacks = false;
  bool purposeOneTreatment = false;
  std::string publisherCC = "US";
};

/// The core segment as unpadded base64url. Created and LastUpdated are both the clock's time in
/// deciseconds since 1970, read once. Values wider than their field keep their low bits; ids
/// outside a section are ignored.
///
/// Stops the process when an integer field is negative, a code holds a byte below "A" after
/// upper-casing, or the largest `gvlVendorIds` element is not positive or is above
/// `kLargestEncodableVendorId`.
QUILLET_EXPORT std::string encodeTCString(const TCStringInput& input,
                                          const Clock& clock = systemClock());

/// The full encoder with consents for `purposes` and `vendors` and every other field at its
/// default (cmpId 471, cmpVersion 1, language "EN", vendor list and policy version 1, "US").
QUILLET_EXPORT std::string encodeTCString(std::span<const std::int64_t> purposes,
                                          std::span<const std::int64_t> vendors,
                                          std::span<const std::int64_t> gvlVendorIds,
                                          const Clock& clock = systemClock());

/// The vendor segment (segment type 2, a bit field over 1...M of `allowedVendorIds`) as unpadded
/// base64url, without a separator. Stops the process when the largest `gvlVendorIds` element is
/// not positive or is above `kLargestEncodableVendorId`.
QUILLET_EXPORT std::string encodeDisclosedVendorsSegment(
    std::span<const std::int64_t> allowedVendorIds, std::span<const std::int64_t> gvlVendorIds);

/// The disclosed vendors segment of TCF 2.3 (segment type 1) listing `disclosedVendorIds` (any
/// order, repeats allowed; ids outside 1...65535 are left out), as unpadded base64url without a
/// separator: a bit field over 1...the largest id, or range entries where they take fewer bits.
QUILLET_EXPORT std::string encodeDisclosedVendors(std::span<const std::int64_t> disclosedVendorIds);

/// The largest vendor id a TC String can name: MaxVendorId has 16 bits. A string written for a
/// larger largest id holds only that id's low 16 bits there, so that readers take the vendor
/// sections for shorter than they are (and a multiple of 65,536 reads as no vendors at all).
inline constexpr std::int64_t kLargestVendorId = 65535;

/// The largest vendor-list id the encoders take. Both vendor sections hold a bit for every id up
/// to the largest, so that id sets the string's length: 16,777,215 gives strings of about 5.6 MB.
/// A larger one would take memory out of all proportion.
inline constexpr std::int64_t kLargestEncodableVendorId = (std::int64_t{1} << 24) - 1;

/// Whether a consent language or publisher country code can be written without stopping the
/// process: every UTF-8 byte of its upper-cased first two characters is at least "A".
QUILLET_EXPORT bool isEncodableCode(std::string_view code);

/// The decimal forms joined by "," ("3,1,2"; empty for no ids).
QUILLET_EXPORT std::string csvString(std::span<const std::int64_t> from);

/// The comma-separated pieces that are signed decimal integers once trimmed of white space, in
/// order, duplicates kept; other pieces are skipped.
QUILLET_EXPORT std::vector<std::int64_t> parseCSV(std::string_view text);

/// True when every id of `required` is in `user` (true for no required ids).
QUILLET_EXPORT bool allPurposesGiven(std::span<const std::int64_t> user,
                                     std::span<const std::int64_t> required);

/// What `decodeTCString` reads back from a core segment; each list ascending.
struct QUILLET_EXPORT DecodedTCString {
  std::uint64_t version = 0;
  std::vector<std::int64_t> specialFeatureOptins;
  std::vector<std::int64_t> purposeConsents;
  std::vector<std::int64_t> purposeLegitimateInterests;
  std::vector<std::int64_t> vendorConsents;
  std::vector<std::int64_t> vendorLegitimateInterests;

  bool operator==(const DecodedTCString&) const = default;
};

/// Reads the choices of a core segment written by `encodeTCString`. Nothing when the text is not
/// base64url (a text that still holds a "." is not) or holds fewer than 6 bits. Fields are read
/// at their standard widths whatever the version; both vendor sections are read as bit fields
/// over the consent section's MaxVendorId, even when flagged as ranges; reads past the end yield
/// no ids. Stops the process when that MaxVendorId is 0 or missing.
QUILLET_EXPORT std::optional<DecodedTCString> decodeTCString(std::string_view text);

/// Whether `decodeTCString(text)` returns (with a result or nothing) rather than stopping the
/// process: false exactly when the text decodes to 6 or more bits but has no MaxVendorId field
/// (fewer than 229 bits) or that field is 0. Lets callers that take strings from outside treat
/// such text as undecodable.
QUILLET_EXPORT bool canDecodeTCString(std::string_view text);

}  // namespace quillet::QLTCMPUtils
