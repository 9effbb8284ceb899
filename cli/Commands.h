#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace quillet::cli {

struct DecodeOptions {
  bool pretty = false;
  bool strict = false;
  std::vector<std::string> strings;  ///< empty: read one string per line from `in`
};

/// Prints one JSON object per readable string to `out` and a message per unreadable one to `err`.
/// Returns the exit status: 0 when every string was read, else 1.
int runDecode(const DecodeOptions& options, std::istream& in, std::ostream& out, std::ostream& err);

/// Reads one JSON object of encoder parameters from `in` and prints the TC String to `out`.
/// Returns the exit status: 0 on success, 1 (with a message on `err`) for refused input.
int runEncode(std::istream& in, std::ostream& out, std::ostream& err);

}  // namespace quillet::cli
