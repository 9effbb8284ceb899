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

struct DemoOptions {
  int port = 8765;    ///< of the web host; 0 for a free one
  std::string state;  ///< folder of the consent store; empty: under $XDG_STATE_HOME
  std::string settingsId = "demo";
  bool reset = false;   ///< forget the stored consent first
  bool manage = false;  ///< open the second layer once start-up is done
  std::string config;   ///< banner configuration file; empty: the bundled sample
  std::string gvl;      ///< vendor list file; empty: the bundled one
  std::string cdn;      ///< a real configuration CDN instead of the embedded one
  std::string api;      ///< a real consent API instead of the embedded one
  std::string data;     ///< folder of the bundled configuration, vendor list and disclosures
  bool log = false;     ///< the library's log lines on standard error
};

/// Serves the consent screens in a browser until SIGINT or SIGTERM, with an embedded
/// configuration CDN and consent API on loopback; prints what each decision stores and posts.
int runDemo(const DemoOptions& options, std::ostream& out, std::ostream& err);

}  // namespace quillet::cli
