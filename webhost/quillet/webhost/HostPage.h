#pragma once

#include <string_view>

namespace quillet::webhost {

/// The page a browser opens: it draws the host's screens and talks to the host.
extern const std::string_view kHostPage;

}  // namespace quillet::webhost
