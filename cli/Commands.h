#pragma once

#include <cstdint>
#include <filesystem>
#include <istream>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace quillet::cli {

struct DecodeOptions {
  bool pretty = false;
  bool strict = false;
  std::vector<std::string> strings;  ///< empty: read one string per line from `in`
  int threads = 1;  ///< decoding threads for `in`'s lines; the output keeps the input's order
};

/// Prints one JSON object per readable string to `out` and a message per unreadable one to `err`.
/// Returns the exit status: 0 when every string was read, else 1.
int runDecode(const DecodeOptions& options, std::istream& in, std::ostream& out, std::ostream& err);

struct EncodeOptions {
  std::string input;    ///< file of the JSON object; empty: standard input
  bool strict = false;  ///< refuse values the encoder would drop, clip or misplace
  /// append a TCF 2.3 disclosed vendors segment listing every `gvlVendorIds` vendor
  bool discloseVendorList = false;
};

/// Reads one JSON object of encoder parameters from `in` and prints the TC String to `out`.
/// Values that the encoder would silently drop, clip to their field or write out of place are
/// named on `err` as warnings, or refused under `strict`. Returns the exit status: 0 on success,
/// 1 (with a message on `err`) for refused or unreadable input.
int runEncode(const EncodeOptions& options, std::istream& in, std::ostream& out, std::ostream& err);

/// Whether `in` reads standard input and reading it failed (the standard input stream reports a
/// read error, such as reading a folder, as an end).
bool failedStandardInput(const std::istream& in);

/// The whole of `in`, or absent after "quillet COMMAND: cannot read NAME: REASON" on `err`.
std::optional<std::string> readAll(std::istream& in, std::string_view command,
                                   std::string_view name, std::ostream& err);

struct InAppOptions {
  std::string tcString;
  bool gdprApplies = true;
  std::int64_t cmpSdkId = 0;
  std::int64_t cmpSdkVersion = 0;
};
/// Prints the in-app values of the string as one JSON object to `out`, keys in the order ad SDKs'
/// documentation lists them. Returns 0, or 1 with the reader's message on `err`.
int runInApp(const InAppOptions& options, std::ostream& out, std::ostream& err);

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
  bool log = false;     ///< every line of the library's log, not only warnings and errors
};

/// Serves the consent screens in a browser until SIGINT or SIGTERM, with an embedded
/// configuration CDN and consent API on loopback; prints what each decision stores and posts.
int runDemo(const DemoOptions& options, std::ostream& out, std::ostream& err);

/// The folder of the running program.
std::filesystem::path programFolder();

/// `quillet demo` once its options are read. The demo, with the network, the store and the web
/// host, is a program of its own, so that reading and writing strings loads none of them:
/// `quillet` replaces its process with `quillet-demo` next to it, handing on `argv`, and
/// `quillet-demo` runs the demo.
int startDemo(const DemoOptions& options, char** argv);

}  // namespace quillet::cli
