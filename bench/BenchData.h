#pragma once

// Reading the test data that the benchmarks measure with.

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace quillet::bench {

/// The bytes of a file under testdata/.
inline std::string testdataText(const std::string& name) {
  std::ifstream file(std::string(QUILLET_TESTDATA_DIR) + "/" + name, std::ios::binary);
  if (!file) throw std::runtime_error("testdata/" + name + " is missing");
  std::ostringstream out;
  out << file.rdbuf();
  return out.str();
}

}  // namespace quillet::bench
