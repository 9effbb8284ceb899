#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/base/Export.h"
#include "quillet/base/Result.h"

namespace quillet {

/// One purpose of the Global Vendor List, as the screens show it. An immutable value.
class QUILLET_EXPORT PurposeModel {
 public:
  PurposeModel(std::int64_t id, std::string name, std::optional<std::string> description);

  std::int64_t id() const noexcept { return id_; }
  /// Never empty in records made by `parse`.
  const std::string& name() const noexcept { return name_; }
  const std::optional<std::string>& description() const noexcept { return description_; }

  /// The purposes of a vendor list's "purposes" object, in the object's member order. An id is
  /// the member's integer "id", else its key read as an integer, else 0. Members that are not
  /// objects or have no name are dropped with a warning; a missing "purposes" gives no purposes
  /// and an error line. Logs under the tag "PurposeModel"; builds no message while logging is
  /// off.
  static std::vector<PurposeModel> parse(const boost::json::object& from);

  /// Keyed coding: "id" and "name" required, "description" written and read only when present.
  boost::json::object toJson() const;
  static Result<PurposeModel> fromJson(const boost::json::value& json);

  bool operator==(const PurposeModel&) const = default;

 private:
  std::int64_t id_;
  std::string name_;
  std::optional<std::string> description_;
};

}  // namespace quillet
