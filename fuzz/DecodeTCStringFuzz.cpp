// The compact TC String decoder. It stops the process, as defined, on a core segment whose
// vendor consent MaxVendorId reads 0; the harness skips those inputs, recognising them with its
// own BitReader walk over the fields in front of that one.

#include "quillet/codec/Base64Url.h"
#include "quillet/codec/BitReader.h"
#include "quillet/codec/QLTCMPUtils.h"

#include "FuzzInput.h"

namespace {

// Version, Created, LastUpdated, CmpId ... UseNonStandardTexts, SpecialFeatureOptIns,
// PurposesConsent, PurposesLITransparency, PurposeOneTreatment and PublisherCC.
constexpr int kBitsBeforeMaxVendorId = 6 + 36 + 36 + 62 + 12 + 24 + 24 + 13;

// True when decoding reaches the defined stop.
bool reachesStop(std::string_view text) {
  const auto bytes = quillet::fromBase64Url(text);
  if (!bytes) return false;
  quillet::BitReader reader(*bytes);
  if (reader.remainingBits() < 6) return false;  // no version: nothing is decoded
  if (reader.remainingBits() < kBitsBeforeMaxVendorId + 16) return true;
  reader.skip(kBitsBeforeMaxVendorId);
  return reader.readUInt(16).value_or(0) == 0;
}

void checkIds(const std::vector<std::int64_t>& ids, std::int64_t largest) {
  std::int64_t previous = 0;
  for (const auto id : ids) {
    if (id <= previous || id > largest) quillet::fuzz::fail("decoded ids out of order or range");
    previous = id;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillet;
  const auto text = fuzz::text(data, size);
  if (reachesStop(text)) return 0;
  const auto decoded = QLTCMPUtils::decodeTCString(text);
  if (!decoded) return 0;
  checkIds(decoded->specialFeatureOptins, 12);
  checkIds(decoded->purposeConsents, 24);
  checkIds(decoded->purposeLegitimateInterests, 24);
  checkIds(decoded->vendorConsents, 65535);
  checkIds(decoded->vendorLegitimateInterests, 65535);
  return 0;
}
