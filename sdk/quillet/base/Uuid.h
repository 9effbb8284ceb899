#pragma once

#include <string>

namespace quillet {

/// A random (version 4) UUID in its 36-character text form, upper-case hexadecimal digits in
/// groups of 8-4-4-4-12: "8E3B6C5E-1F2A-4B3C-9D4E-5F6A7B8C9D0E". Drawn from the operating
/// system's random source. Safe to call from any thread.
std::string randomUuid();

}  // namespace quillet
