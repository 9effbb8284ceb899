#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/base/Export.h"

namespace quillet {

/// The publisher's banner configuration ("banner_config.json"): the banner's look and texts,
/// which first-layer buttons show, the publisher's vendor and purpose selection, the versions the
/// vendor list cache is checked against, and the publisher country code. An immutable value.
class QUILLET_EXPORT BrandingConfig {
 public:
  /// Every field, in order, for building a configuration directly.
  struct Fields {
    std::optional<std::string> logoUrl;
    std::optional<std::string> brandColor;
    std::optional<std::string> privacyUrl;
    std::optional<std::string> layout;
    std::optional<std::string> bannerText;
    bool showRejectButton = false;
    bool showCustomizeButton = false;
    std::optional<std::string> acceptButtonText;
    std::optional<std::string> rejectButtonText;
    std::optional<std::string> manageButtonText;
    std::optional<std::string> customizeLinkId;
    /// Absent: no selection was given. Empty: a selection of nothing. Document order, duplicates
    /// kept.
    std::optional<std::vector<std::int64_t>> selectedVendorIds;
    std::optional<std::vector<std::int64_t>> selectedPurposesIds;
    std::optional<std::int64_t> vendorListVersion;
    std::optional<std::int64_t> configVersion;
    /// Kept upper-cased (full Unicode mapping); not checked for length or alphabet.
    std::optional<std::string> publisherCC;

    bool operator==(const Fields&) const = default;
  };

  /// Member-wise construction; `publisherCC` is stored upper-cased.
  explicit BrandingConfig(Fields fields);

  /// Reads a configuration document. Never fails (the result is always present): each top-level
  /// key of a field's name is read on its own, and a missing or wrongly typed value leaves that
  /// field at its fallback (absent, or false for the two flags). Strings are never converted to
  /// numbers or booleans. Id lists take numbers (truncated) and booleans (1 or 0) and skip other
  /// elements; versions take any number, truncated.
  static std::optional<BrandingConfig> init(const boost::json::object& json);

  const std::optional<std::string>& logoUrl() const noexcept { return fields_.logoUrl; }
  const std::optional<std::string>& brandColor() const noexcept { return fields_.brandColor; }
  const std::optional<std::string>& privacyUrl() const noexcept { return fields_.privacyUrl; }
  const std::optional<std::string>& layout() const noexcept { return fields_.layout; }
  const std::optional<std::string>& bannerText() const noexcept { return fields_.bannerText; }
  bool showRejectButton() const noexcept { return fields_.showRejectButton; }
  bool showCustomizeButton() const noexcept { return fields_.showCustomizeButton; }
  const std::optional<std::string>& acceptButtonText() const noexcept {
    return fields_.acceptButtonText;
  }
  const std::optional<std::string>& rejectButtonText() const noexcept {
    return fields_.rejectButtonText;
  }
  const std::optional<std::string>& manageButtonText() const noexcept {
    return fields_.manageButtonText;
  }
  const std::optional<std::string>& customizeLinkId() const noexcept {
    return fields_.customizeLinkId;
  }
  const std::optional<std::vector<std::int64_t>>& selectedVendorIds() const noexcept {
    return fields_.selectedVendorIds;
  }
  const std::optional<std::vector<std::int64_t>>& selectedPurposesIds() const noexcept {
    return fields_.selectedPurposesIds;
  }
  std::optional<std::int64_t> vendorListVersion() const noexcept {
    return fields_.vendorListVersion;
  }
  std::optional<std::int64_t> configVersion() const noexcept { return fields_.configVersion; }
  const std::optional<std::string>& publisherCC() const noexcept { return fields_.publisherCC; }

  const Fields& fields() const noexcept { return fields_; }

 private:
  Fields fields_;
};

}  // namespace quillet
