#pragma once

#include <string>

#include <boost/json/value.hpp>

namespace quillet::cli {

/// The value as indented JSON text (two spaces); arrays that hold no arrays or objects stay on
/// one line so that long id lists remain readable.
std::string prettyJson(const boost::json::value& value);

}  // namespace quillet::cli
