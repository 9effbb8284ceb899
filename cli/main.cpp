// The quillet command: reads and writes TC Strings, and shows the consent screens.

#include <algorithm>
#include <filesystem>
#include <iostream>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include "quillet/base/Version.h"

#include "Commands.h"

std::filesystem::path quillet::cli::programFolder() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path(".") : self.parent_path();
}

namespace {

constexpr int kUsageError = 2;

// The demo's bundled files are at a fixed place relative to this program, in the build tree as
// once installed.
std::string demoDataFolder() {
  return (quillet::cli::programFolder() / QUILLET_DEMO_DATA_FROM_BIN).lexically_normal().string();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"quillet: read and write IAB TCF v2 TC Strings", "quillet"};
  app.set_version_flag("--version", std::string("quillet ") + quillet::kVersion);
  app.require_subcommand(1);

  // A command's options are set up only when its name is among the arguments: setting up those
  // of every command would cost more than reading a string.
  const auto named = [&](const CLI::App* command) {
    return std::any_of(argv + 1, argv + argc,
                       [command](const char* word) { return command->check_name(word); });
  };

  quillet::cli::DecodeOptions decodeOptions;
  CLI::App* decode = app.add_subcommand(
      "decode", "Print every field of each TC String as one JSON object per line");
  if (named(decode)) {
    decode->add_flag("--pretty", decodeOptions.pretty, "Indent the JSON output");
    decode->add_flag("--strict", decodeOptions.strict,
                     "Refuse strings that carry warnings (policy rules they break)");
    decode
        ->add_option("--threads", decodeOptions.threads,
                     "Decode standard input on N threads (1 to 256), output in input order")
        ->check(CLI::Range(1, 256).description(""))
        ->type_name("N");
    decode->add_option("TCSTRING", decodeOptions.strings,
                       "TC Strings to read; without any, one per line from standard input");
  }

  quillet::cli::EncodeOptions encodeOptions;
  CLI::App* encode =
      app.add_subcommand("encode", "Write a TC String from a JSON object of encoder parameters");
  if (named(encode)) {
    encode
        ->add_option("--input", encodeOptions.input,
                     "Read the JSON object from FILE instead of standard input")
        ->option_text("FILE");
    encode->add_flag("--strict", encodeOptions.strict,
                     "Refuse values the encoder would drop, cut to their field or write out of "
                     "place (named as warnings otherwise)");
    encode->add_flag("--disclose-vendor-list", encodeOptions.discloseVendorList,
                     "Append a disclosed vendors segment (TCF 2.3) listing every gvlVendorIds "
                     "vendor, in the shorter of its two encodings");
  }

  quillet::cli::InAppOptions inAppOptions;
  CLI::App* inApp = app.add_subcommand(
      "inapp", "Print the IAB in-app values (IABTCF_ keys) of a TC String as one JSON object");
  if (named(inApp)) {
    inApp->add_option("TCSTRING", inAppOptions.tcString, "The TC String")->required();
    inApp->add_option("--gdpr-applies", inAppOptions.gdprApplies, "IABTCF_gdprApplies: 1 or 0")
        ->capture_default_str();
    inApp->add_option("--cmp-sdk-id", inAppOptions.cmpSdkId, "IABTCF_CmpSdkID")
        ->capture_default_str();
    inApp->add_option("--cmp-sdk-version", inAppOptions.cmpSdkVersion, "IABTCF_CmpSdkVersion")
        ->capture_default_str();
  }

  quillet::cli::DemoOptions demoOptions;
  CLI::App* demo = app.add_subcommand(
      "demo", "Show the consent screens in a browser, with an embedded CDN and consent API");
  if (named(demo)) {
    demoOptions.data = demoDataFolder();
    demo->add_option("--port", demoOptions.port, "Port of the web host (0: any free port)")
        ->capture_default_str()
        ->check(CLI::Range(0, 65535));
    demo->add_option("--state", demoOptions.state,
                     "Folder of the consent store (default: $XDG_STATE_HOME/quillet-demo)");
    demo->add_option("--settings-id", demoOptions.settingsId, "Publisher settings id")
        ->capture_default_str();
    demo->add_flag("--reset", demoOptions.reset, "Forget the stored consent first");
    demo->add_flag("--manage", demoOptions.manage,
                   "Open the second layer for a user who already decided");
    demo->add_option("--config", demoOptions.config, "Banner configuration file")
        ->option_text("FILE");
    demo->add_option("--gvl", demoOptions.gvl, "Vendor list file")->option_text("FILE");
    demo->add_option("--cdn", demoOptions.cdn, "A real configuration CDN (ending in /)")
        ->option_text("URL");
    demo->add_flag("--log", demoOptions.log,
                   "Print every line of the library's log (its warnings and errors always are)");
    demo->add_option("--api", demoOptions.api, "A real consent API")->option_text("URL");
  }

  // A first word that is neither an option nor a command is named, with the commands there are.
  const auto known = [&](const char* word) {
    for (const CLI::App* command : {decode, encode, inApp, demo}) {
      if (command->check_name(word)) return true;
    }
    return false;
  };
  if (argc > 1 && argv[1][0] != '-' && !known(argv[1])) {
    std::cerr << "quillet: unknown command \"" << argv[1]
              << "\"; the commands are decode, encode, inapp and demo (--help)\n";
    return kUsageError;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : kUsageError;
  }

  if (demo->parsed()) return quillet::cli::startDemo(demoOptions, argv);
  if (decode->parsed()) {
    // A larger pipe takes the output in fewer, larger writes (nothing happens when standard
    // output is not a pipe, or the system refuses).
    fcntl(STDOUT_FILENO, F_SETPIPE_SZ, 1 << 20);  // NOLINT(cppcoreguidelines-pro-type-vararg)
    return quillet::cli::runDecode(decodeOptions, std::cin, std::cout, std::cerr);
  }
  if (inApp->parsed()) return quillet::cli::runInApp(inAppOptions, std::cout, std::cerr);
  return quillet::cli::runEncode(encodeOptions, std::cin, std::cout, std::cerr);
}
