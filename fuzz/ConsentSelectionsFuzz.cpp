// Consent selections from arbitrary JSON: the loose reader and the keyed decoder never stop the
// process, and keyed coding gives back what it was given.

#include "quillet/model/ConsentSelections.h"
#include "quillet/model/Json.h"

#include "FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillet;
  const auto json = Json::parse(fuzz::text(data, size));
  if (!json) return 0;
  if (json->is_object()) {
    if (const auto loose = ConsentSelections::init(json->get_object())) {
      const auto back = ConsentSelections::fromJson(boost::json::value(loose->toJson()));
      if (!back || !(*back == *loose)) fuzz::fail("loose selections changed in keyed coding");
    }
  }
  if (const auto keyed = ConsentSelections::fromJson(*json)) {
    const auto back = ConsentSelections::fromJson(boost::json::value(keyed->toJson()));
    if (!back || !(*back == *keyed)) fuzz::fail("selections changed in keyed coding");
  } else if (keyed.error().empty()) {
    fuzz::fail("a decoding error without a message");
  }
  return 0;
}
