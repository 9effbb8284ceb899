#pragma once

#include <cstdint>
#include <vector>

#include "quillet/base/Export.h"

namespace quillet {

/// The outcome of a consent screen: accept all, reject all, or the user's own selection.
class QUILLET_EXPORT ConsentAction {
 public:
  enum class Kind { customize, acceptAll, rejectAll };

  static ConsentAction customize(std::vector<std::int64_t> purposes,
                                 std::vector<std::int64_t> vendors) {
    return ConsentAction(Kind::customize, std::move(purposes), std::move(vendors));
  }
  static ConsentAction acceptAll() { return ConsentAction(Kind::acceptAll, {}, {}); }
  static ConsentAction rejectAll() { return ConsentAction(Kind::rejectAll, {}, {}); }

  Kind kind() const noexcept { return kind_; }
  /// The selection of `customize` (empty for the other two).
  const std::vector<std::int64_t>& purposes() const noexcept { return purposes_; }
  const std::vector<std::int64_t>& vendors() const noexcept { return vendors_; }

  /// Same kind, and for `customize` element-wise equal lists in order.
  bool operator==(const ConsentAction&) const = default;

 private:
  ConsentAction(Kind kind, std::vector<std::int64_t> purposes, std::vector<std::int64_t> vendors)
      : kind_(kind), purposes_(std::move(purposes)), vendors_(std::move(vendors)) {}

  Kind kind_;
  std::vector<std::int64_t> purposes_;
  std::vector<std::int64_t> vendors_;
};

}  // namespace quillet
