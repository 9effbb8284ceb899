#pragma once

#include <string>
#include <vector>

#include "support/TestData.h"

namespace quillet::testing {

/// One case of a case file: its "== " line without the marker, and the lines up to the next.
struct Case {
  std::string title;
  std::string body;
};

/// The cases of testdata/<name>, each starting at a line "== title"; lines before the first are
/// the file's own description.
inline std::vector<Case> cases(const std::string& name) {
  std::vector<Case> out;
  std::istringstream text(testdataText(name));
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("== ")) {
      out.push_back({line.substr(3), {}});
    } else if (!out.empty()) {
      out.back().body += line + "\n";
    }
  }
  return out;
}

/// What follows `word` in a title, up to the next space ("" when the title lacks it).
inline std::string after(const std::string& title, const std::string& word) {
  const auto at = title.find(word);
  if (at == std::string::npos) return {};
  const auto from = at + word.size();
  return title.substr(from, title.find(' ', from) - from);
}

}  // namespace quillet::testing
