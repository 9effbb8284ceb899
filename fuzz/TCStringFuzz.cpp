// The full TC String reader: never stops the process, and what it reads is well-formed.

#include <algorithm>

#include "quillet/codec/TCString.h"

#include "FuzzInput.h"

namespace {

void checkSection(const quillet::VendorSection& section) {
  const auto ids = section.ids();
  if (!std::is_sorted(ids.begin(), ids.end()) ||
      std::adjacent_find(ids.begin(), ids.end()) != ids.end())
    quillet::fuzz::fail("vendor ids not ascending and unique");
  if (!ids.empty() && (ids.front() < 1 || ids.back() > section.maxVendorId))
    quillet::fuzz::fail("vendor id outside 1...MaxVendorId");
  for (const auto id : ids) {
    if (!section.contains(id)) quillet::fuzz::fail("contains() disagrees with ids");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillet;
  const auto parsed = TCString::parse(fuzz::text(data, size));
  if (!parsed) {
    if (parsed.error().message().empty()) fuzz::fail("an error without a message");
    return 0;
  }
  const TCString& tc = *parsed;
  if (tc.version != 2) fuzz::fail("a version other than 2 was accepted");
  if (tc.consentLanguage.size() != 2) fuzz::fail("consent language not two characters");
  checkSection(tc.vendorConsents);
  checkSection(tc.vendorLegitimateInterests);
  if (tc.vendorsDisclosed) checkSection(*tc.vendorsDisclosed);
  if (tc.vendorsAllowed) checkSection(*tc.vendorsAllowed);
  for (const auto& restriction : tc.publisherRestrictions) {
    if (restriction.restrictionType < 0 || restriction.restrictionType > 3)
      fuzz::fail("restriction type outside 0...3");
  }
  return 0;
}
