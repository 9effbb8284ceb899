// Runs a fuzz target without the fuzzer, for `make test`: over files and directories of kept
// inputs (a ".txt" file is one input per line, "#" lines skipped), and over pseudo-random inputs
// from a fixed seed.
//
//   fuzz_target [--random N] PATH...

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::size_t runs = 0;

void run(const std::string& input) {
  // A copy in its own allocation, so the address sanitizer sees reads past the end.
  const std::vector<std::uint8_t> bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  ++runs;
}

void runFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    std::exit(2);  // NOLINT(concurrency-mt-unsafe): nothing else runs in this program
  }
  if (path.extension() == ".txt") {
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line.front() != '#') run(line);
    }
    return;
  }
  run(std::string(std::istreambuf_iterator<char>(in), {}));
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t randomInputs = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--random" && i + 1 < argc) {
      randomInputs = std::strtoull(argv[++i], nullptr, 10);
      continue;
    }
    const std::filesystem::path path(arg);
    if (std::filesystem::is_directory(path)) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
        if (entry.is_regular_file() && entry.path().filename() != "README.md")
          runFile(entry.path());
      }
    } else {
      runFile(path);
    }
  }
  std::mt19937_64 random(20261122);
  for (std::size_t i = 0; i < randomInputs; ++i) {
    std::string input(random() % 512, '\0');
    for (auto& c : input)
      c = static_cast<char>(random());
    run(input);
  }
  std::printf("%zu inputs ran\n", runs);
  return runs == 0 ? 1 : 0;
}
