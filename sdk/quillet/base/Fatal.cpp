#include "quillet/base/Fatal.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace quillet {

void fatalError(std::string_view message) noexcept {
  std::string line = "QuilletSDK fatal error: ";
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace quillet
