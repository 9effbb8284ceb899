// The quillet command: reads and writes TC Strings.

#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>

#include "quillet/core/Version.h"

#include "Commands.h"

namespace {

constexpr int kUsageError = 2;

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"quillet: read and write IAB TCF v2 TC Strings", "quillet"};
  app.set_version_flag("--version", std::string("quillet ") + quillet::kVersion);
  app.require_subcommand(1);

  quillet::cli::DecodeOptions decodeOptions;
  CLI::App* decode = app.add_subcommand(
      "decode", "Print every field of each TC String as one JSON object per line");
  decode->add_flag("--pretty", decodeOptions.pretty, "Indent the JSON output");
  decode->add_flag("--strict", decodeOptions.strict,
                   "Refuse strings that carry warnings (policy rules they break)");
  decode->add_option("TCSTRING", decodeOptions.strings,
                     "TC Strings to read; without any, one per line from standard input");

  std::string inputPath;
  CLI::App* encode =
      app.add_subcommand("encode", "Write a TC String from a JSON object of encoder parameters");
  encode
      ->add_option("--input", inputPath, "Read the JSON object from FILE instead of standard input")
      ->option_text("FILE");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : kUsageError;
  }

  if (decode->parsed()) {
    return quillet::cli::runDecode(decodeOptions, std::cin, std::cout, std::cerr);
  }
  if (inputPath.empty()) return quillet::cli::runEncode(std::cin, std::cout, std::cerr);
  std::ifstream file(inputPath, std::ios::binary);
  if (!file) {
    std::cerr << "quillet encode: cannot open " << inputPath << '\n';
    return 1;
  }
  return quillet::cli::runEncode(file, std::cout, std::cerr);
}
