#pragma once

// A compact binary form of store values, used for dictionaries in the SQLite store. Internal to
// the storage subsystem.

#include <optional>
#include <span>

#include "quillet/storage/StoreValue.h"

namespace quillet::storeValueCodec {

Bytes encode(const StoreValue& value);

/// Nothing when the bytes are not exactly one encoded value (truncated, unknown tags, trailing
/// bytes, or nesting deeper than 64 levels).
std::optional<StoreValue> decode(std::span<const std::uint8_t> bytes);

}  // namespace quillet::storeValueCodec
