#include "TestStrings.h"

#include <fstream>
#include <stdexcept>

namespace quillet::testing {

const std::vector<SampleString>& sampleStrings() {
  static const std::vector<SampleString> samples = [] {
    std::vector<SampleString> out;
    std::ifstream file(QUILLET_TESTDATA_DIR "/tc-strings.txt");
    if (!file) throw std::runtime_error("testdata/tc-strings.txt is missing");
    std::string line;
    int number = 0;
    while (std::getline(file, line)) {
      ++number;
      const auto tab = line.find('\t');
      if (tab == std::string::npos) continue;
      SampleString sample;
      sample.text = line.substr(0, tab);
      const std::string meta = line.substr(tab + 1);
      sample.status = meta.substr(0, meta.find(';'));
      const auto open = meta.find('[');
      const auto close = meta.find(']');
      if (open != std::string::npos && close != std::string::npos) {
        sample.tags = meta.substr(open + 1, close - open - 1);
      }
      sample.line = number;
      out.push_back(std::move(sample));
    }
    return out;
  }();
  return samples;
}

}  // namespace quillet::testing
