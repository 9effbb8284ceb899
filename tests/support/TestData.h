#pragma once

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>

#include "quillet/model/Json.h"

namespace quillet::testing {

/// The bytes of a file under testdata/.
inline std::string testdataText(const std::string& name) {
  std::ifstream file(std::string(QUILLET_TESTDATA_DIR) + "/" + name, std::ios::binary);
  if (!file) throw std::runtime_error("testdata/" + name + " is missing");
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

/// A JSON object from text; throws (failing the test) when it is not one.
inline boost::json::object jsonObject(const std::string& text) {
  auto value = Json::parse(text);
  if (!value || !value->is_object()) throw std::runtime_error("not a JSON object: " + text);
  return std::move(value->get_object());
}

}  // namespace quillet::testing
