// The base64url conversions: any bytes survive a round trip, and any text that decodes encodes
// back to a text that decodes to the same bytes.

#include "quillet/codec/Base64Url.h"

#include "FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillet;
  const std::span<const std::uint8_t> bytes(data, size);
  const std::string encoded = base64URLEncodedString(bytes);
  if (encoded.find_first_of("+/=") != std::string::npos) fuzz::fail("encoding left +, / or =");
  const auto back = fromBase64Url(encoded);
  if (!back || !std::equal(back->begin(), back->end(), bytes.begin(), bytes.end()))
    fuzz::fail("bytes did not survive a round trip");

  if (const auto decoded = fromBase64Url(fuzz::text(data, size))) {
    const auto again = fromBase64Url(base64URLEncodedString(*decoded));
    if (!again || *again != *decoded) fuzz::fail("decoded text did not survive a round trip");
  }
  return 0;
}
