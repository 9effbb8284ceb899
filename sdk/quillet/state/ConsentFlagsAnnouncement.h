#pragma once

// Internal to the consent stores.

#include <string_view>

#include "quillet/state/ConsentFlags.h"
#include "quillet/state/NotificationCenter.h"

namespace quillet {

/// Posts `name` on the default centre once per entry, with "id" and "on", in ascending id order.
inline void announceEachFlag(std::string_view name, const ConsentFlags& flags) {
  for (const auto& [id, on] : flags) {
    NotificationCenter::defaultCenter().post(name, {{"id", id}, {"on", on}});
  }
}

}  // namespace quillet
