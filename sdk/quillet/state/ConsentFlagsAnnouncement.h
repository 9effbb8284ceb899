#pragma once

// Internal to the consent stores.

#include <string_view>

#include "quillet/state/ConsentFlags.h"
#include "quillet/state/NotificationCenter.h"

namespace quillet {

/// Posts `name` on the default centre once per entry, with "id" and "on", in ascending id order.
inline void announceEachFlag(std::string_view name, const ConsentFlags& flags) {
  auto& center = NotificationCenter::defaultCenter();
  // Observers are only added by observers or by other threads: with none now, the whole list can
  // go unannounced.
  if (!center.observed(name)) return;
  for (const auto& [id, on] : flags)
    center.post(name, {{"id", id}, {"on", on}});
}

}  // namespace quillet
