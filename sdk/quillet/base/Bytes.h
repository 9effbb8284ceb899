#pragma once

#include <cstdint>
#include <vector>

namespace quillet {

/// An owned byte buffer.
using Bytes = std::vector<std::uint8_t>;

}  // namespace quillet
