#pragma once

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

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

/// Whether `text` is the whole of testdata/golden/<name>, naming the first line that differs when
/// not; with QUILLET_UPDATE_GOLDEN=1 in the environment it rewrites that file instead (review the
/// difference before committing it).
inline ::testing::AssertionResult matchesGolden(const std::string& name, const std::string& text) {
  if (std::getenv("QUILLET_UPDATE_GOLDEN") != nullptr) {
    std::ofstream(std::string(QUILLET_TESTDATA_DIR) + "/golden/" + name, std::ios::binary) << text;
  }
  const std::string golden = testdataText("golden/" + name);
  if (text == golden) return ::testing::AssertionSuccess();
  std::istringstream have(text);
  std::istringstream want(golden);
  std::string got;
  std::string expected;
  int line = 1;
  while (std::getline(have, got) && std::getline(want, expected) && got == expected)
    ++line;
  return ::testing::AssertionFailure() << "golden/" << name << " line " << line << ":\n  is     "
                                       << got << "\n  golden " << expected;
}

/// A JSON object from text; throws (failing the test) when it is not one.
inline boost::json::object jsonObject(const std::string& text) {
  auto value = Json::parse(text);
  if (!value || !value->is_object()) throw std::runtime_error("not a JSON object: " + text);
  return std::move(value->get_object());
}

}  // namespace quillet::testing
