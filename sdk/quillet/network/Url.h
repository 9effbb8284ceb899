#pragma once

#include <string_view>

namespace quillet {

/// Whether a text is an absolute http or https URL with a host that a request can be sent to.
/// Spaces, control characters and other malformed text are refused; nothing is escaped.
bool isValidHttpUrl(std::string_view text);

}  // namespace quillet
