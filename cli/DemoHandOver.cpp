#include <cerrno>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>

#include <unistd.h>

#include "Commands.h"

namespace quillet::cli {

// Replaces this process with quillet-demo next to it, handing on every argument.
int startDemo(const DemoOptions& /*options*/, char** argv) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  const std::string program =
      ((error ? fs::path(".") : self.parent_path()) / "quillet-demo").string();
  argv[0] = const_cast<char*>(program.c_str());  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  execv(program.c_str(), argv);
  std::cerr << "quillet: cannot run " << program << ": " << std::generic_category().message(errno)
            << '\n';
  return 1;
}

}  // namespace quillet::cli
