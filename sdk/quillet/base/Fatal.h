#pragma once

#include <string_view>

#include "quillet/base/Export.h"

namespace quillet {

/// Stops the process after a programming fault that the library is defined to stop on: a broken
/// caller contract (an empty vendor range given to the encoder, a negative field width, ...),
/// never bad data from outside. Writes "QuilletSDK fatal error: " + message + a line break to
/// standard error in one write, then calls std::abort(). Callable from any thread.
[[noreturn]] QUILLET_EXPORT void fatalError(std::string_view message) noexcept;

}  // namespace quillet
