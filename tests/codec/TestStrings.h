#pragma once

#include <string>
#include <vector>

namespace quillet::testing {

/// One line of testdata/tc-strings.txt.
struct SampleString {
  std::string text;
  std::string status;  ///< valid, invalid, example, v1-not-v2, questionable
  std::string tags;    ///< the bracketed tag list, e.g. "core-only, range"
  int line = 0;

  bool hasTag(const std::string& tag) const { return tags.find(tag) != std::string::npos; }
};

const std::vector<SampleString>& sampleStrings();

}  // namespace quillet::testing
