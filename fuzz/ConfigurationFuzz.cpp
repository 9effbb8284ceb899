// The configuration and vendor list readers from arbitrary JSON bytes: the input is a
// configuration and a vendor list separated by a line "--". Every record read survives keyed
// encoding and decoding unchanged.

#include "quillet/model/BrandingConfig.h"
#include "quillet/model/Json.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/VendorModel.h"

#include "FuzzInput.h"

namespace {

template <class Model>
void roundTrip(const Model& model) {
  const auto decoded = Model::fromJson(boost::json::value(model.toJson()));
  if (!decoded || !(*decoded == model)) quillet::fuzz::fail("a record changed in keyed coding");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillet;
  const auto parts = fuzz::split(fuzz::text(data, size), "\n--\n", 2);
  const auto configJson = Json::parse(parts[0]);
  const auto gvlJson = Json::parse(parts[1]);

  BrandingConfig config(BrandingConfig::Fields{});
  if (configJson && configJson->is_object()) {
    if (auto read = BrandingConfig::init(configJson->get_object())) config = std::move(*read);
  }
  if (!gvlJson || !gvlJson->is_object()) return 0;
  const auto& gvl = gvlJson->get_object();
  for (const auto& purpose : PurposeModel::parse(gvl))
    roundTrip(purpose);
  for (const auto& vendor : VendorModel::parse(gvl, config)) {
    if (vendor.name().empty()) fuzz::fail("a parsed vendor without a name");
    roundTrip(vendor);
  }
  // The keyed decoders on whatever the second document is.
  (void)PurposeModel::fromJson(*gvlJson);
  (void)VendorModel::fromJson(*gvlJson);
  return 0;
}
