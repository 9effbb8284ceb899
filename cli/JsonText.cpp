#include "JsonText.h"

#include <boost/json/serialize.hpp>

namespace quillet::cli {
namespace {

bool isFlat(const boost::json::array& array) {
  for (const auto& element : array) {
    if (element.is_array() || element.is_object()) return false;
  }
  return true;
}

void print(const boost::json::value& value, int depth, std::string& out) {
  const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
  const std::string inner(static_cast<std::size_t>(depth + 1) * 2, ' ');
  if (value.is_object()) {
    const auto& object = value.get_object();
    if (object.empty()) {
      out += "{}";
      return;
    }
    out += "{\n";
    bool first = true;
    for (const auto& member : object) {
      if (!first) out += ",\n";
      first = false;
      out += inner + boost::json::serialize(boost::json::value(member.key())) + ": ";
      print(member.value(), depth + 1, out);
    }
    out += "\n" + indent + "}";
  } else if (value.is_array()) {
    const auto& array = value.get_array();
    if (array.empty() || isFlat(array)) {
      out += boost::json::serialize(value);
      return;
    }
    out += "[\n";
    bool first = true;
    for (const auto& element : array) {
      if (!first) out += ",\n";
      first = false;
      out += inner;
      print(element, depth + 1, out);
    }
    out += "\n" + indent + "]";
  } else {
    out += boost::json::serialize(value);
  }
}

}  // namespace

std::string prettyJson(const boost::json::value& value) {
  std::string out;
  print(value, 0, out);
  return out;
}

}  // namespace quillet::cli
