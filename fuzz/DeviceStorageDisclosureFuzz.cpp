// Device storage disclosure documents: any bytes give a document or an error with a message.

#include "quillet/model/DeviceStorageDisclosure.h"

#include "FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillet;
  const auto decoded = DeviceStorageDisclosure::decode(fuzz::text(data, size));
  if (!decoded && decoded.error().empty()) fuzz::fail("a decoding error without a message");
  return 0;
}
