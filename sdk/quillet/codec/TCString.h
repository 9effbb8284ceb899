#pragma once

#include <bit>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quillet/base/Export.h"
#include "quillet/base/Result.h"
#include "quillet/codec/VendorIdSet.h"

namespace quillet {

/// Ids 1...N (N at most 64) held as a bit mask: purposes, special features, custom purposes.
template <int N>
class IdMask {
  static_assert(N >= 1 && N <= 64);

 public:
  constexpr IdMask() noexcept = default;
  /// Bit id - 1 of `bits` stands for id; bits at N and above are dropped.
  constexpr explicit IdMask(std::uint64_t bits) noexcept
      : bits_(N == 64 ? bits : bits & ((std::uint64_t{1} << (N % 64)) - 1)) {}

  constexpr bool contains(std::int64_t id) const noexcept {
    return id >= 1 && id <= N && ((bits_ >> (id - 1)) & 1U) != 0;
  }
  /// The ids, ascending.
  std::vector<std::int64_t> ids() const {
    std::vector<std::int64_t> out;
    out.reserve(static_cast<std::size_t>(count()));
    for (std::uint64_t rest = bits_; rest != 0; rest &= rest - 1) {
      out.push_back(std::countr_zero(rest) + 1);
    }
    return out;
  }
  constexpr int count() const noexcept { return std::popcount(bits_); }
  constexpr bool empty() const noexcept { return bits_ == 0; }
  constexpr std::uint64_t bits() const noexcept { return bits_; }
  constexpr bool operator==(const IdMask&) const noexcept = default;

 private:
  std::uint64_t bits_ = 0;
};

/// A vendor list of a TC String (consents, legitimate interests, disclosed or allowed vendors).
struct QUILLET_EXPORT VendorSection {
  std::int64_t maxVendorId = 0;
  bool isRangeEncoding = false;
  VendorIdSet vendors;  ///< as the string holds them; ids() lists them

  bool contains(std::int64_t id) const noexcept { return vendors.contains(id); }
  /// The vendor ids, ascending.
  std::vector<std::int64_t> ids() const { return vendors.ids(); }
  bool operator==(const VendorSection&) const = default;
};

/// One publisher restriction: for `purposeId`, restriction type 0 (not allowed), 1 (require
/// consent), 2 (require legitimate interest) or 3 (undefined) applies to `vendors`.
struct QUILLET_EXPORT PublisherRestriction {
  int purposeId = 0;
  int restrictionType = 0;
  VendorIdSet vendors;

  bool operator==(const PublisherRestriction&) const = default;
};

/// The publisher TC segment (segment type 3).
struct QUILLET_EXPORT PublisherTCSegment {
  IdMask<24> purposesConsent;
  IdMask<24> purposesLegitimateInterests;
  int numCustomPurposes = 0;
  IdMask<64> customPurposesConsent;
  IdMask<64> customPurposesLegitimateInterests;

  bool operator==(const PublisherTCSegment&) const = default;
};

/// Why a TC String could not be read: the segment, the field and the bit offset (counted from
/// the start of that segment) where reading stopped.
struct QUILLET_EXPORT TCStringError {
  std::string
      segment;  ///< "core", "disclosed vendors", "allowed vendors", "publisher TC", or "segment N"
  std::string field;  ///< TCF field name, e.g. "VendorConsents.MaxVendorId"
  std::int64_t bitOffset = 0;
  std::string reason;

  /// "core segment, field VendorConsents.MaxVendorId at bit 213: the string ends (16 bits
  /// needed, 5 left)".
  std::string message() const;
};

/// Every field of a TCF v2 TC String: the core segment and the optional disclosed vendors,
/// allowed vendors and publisher TC segments, in either vendor encoding.
///
/// `parse` never stops the process: text that is not a well-formed version 2 string gives an
/// error. Trailing "=" padding (at most two per segment) is accepted. A string that is well-formed
/// but breaks a policy rule parses and carries a warning. A plain value; safe to share read-only.
struct QUILLET_EXPORT TCString {
  /// Every field at its initial value. (Defined out of line, so that building one in place sets
  /// only the fields rather than clearing the whole object first.)
  TCString() noexcept;

  int version = 0;
  std::uint64_t created = 0;      ///< deciseconds since 1970-01-01 UTC
  std::uint64_t lastUpdated = 0;  ///< deciseconds since 1970-01-01 UTC
  int cmpId = 0;
  int cmpVersion = 0;
  int consentScreen = 0;
  std::string consentLanguage;  ///< two letters; "?" for a letter value above Z (with a warning)
  int vendorListVersion = 0;
  int policyVersion = 0;
  bool isServiceSpecific = false;
  bool useNonStandardTexts = false;
  IdMask<12> specialFeatureOptins;
  IdMask<24> purposeConsents;
  IdMask<24> purposeLegitimateInterests;
  bool purposeOneTreatment = false;
  std::string publisherCountryCode;
  VendorSection vendorConsents;
  VendorSection vendorLegitimateInterests;
  std::vector<PublisherRestriction> publisherRestrictions;
  std::optional<VendorSection> vendorsDisclosed;
  std::optional<VendorSection> vendorsAllowed;
  std::optional<PublisherTCSegment> publisherTC;
  std::vector<std::string> warnings;

  static Result<TCString, TCStringError> parse(std::string_view text);

  bool operator==(const TCString&) const = default;
};

}  // namespace quillet
