#include "quillet/state/ConsentFlags.h"

namespace quillet {

std::string describe(const ConsentFlags& flags) {
  std::string out = "{";
  for (const auto& [id, on] : flags) {
    if (out.size() > 1) out += ", ";
    out += std::to_string(id) + (on ? ": true" : ": false");
  }
  return out + "}";
}

std::string describe(const NestedConsentFlags& flags) {
  std::string out = "{";
  for (const auto& [id, inner] : flags) {
    if (out.size() > 1) out += ", ";
    out += std::to_string(id) + ": " + describe(inner);
  }
  return out + "}";
}

std::vector<std::int64_t> idsOn(const ConsentFlags& flags) {
  std::vector<std::int64_t> ids;
  for (const auto& [id, on] : flags) {
    if (on) ids.push_back(id);
  }
  return ids;
}

}  // namespace quillet
