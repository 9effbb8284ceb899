#include <cerrno>
#include <iostream>
#include <string>
#include <system_error>

#include <unistd.h>

#include "Commands.h"

namespace quillet::cli {

// Replaces this process with quillet-demo next to it, handing on every argument.
int startDemo(const DemoOptions& /*options*/, char** argv) {
  const std::string program = (programFolder() / "quillet-demo").string();
  argv[0] = const_cast<char*>(program.c_str());  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  execv(program.c_str(), argv);
  std::cerr << "quillet: cannot run " << program << ": " << std::generic_category().message(errno)
            << '\n';
  return 1;
}

}  // namespace quillet::cli
