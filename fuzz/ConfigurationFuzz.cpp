// The configuration and vendor list readers from arbitrary JSON bytes: the input is a
// configuration and a vendor list separated by a line "--". Every record read survives keyed
// encoding and decoding unchanged, and the vendor list's start document is read as the whole
// list is: it takes the same texts and gives the same facts, records, entries and stacks; a
// start's two steps over the vendors read them as the one parse does.

#include "quillet/base/IdList.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/Json.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/StartDocument.h"
#include "quillet/model/VendorList.h"
#include "quillet/model/VendorModel.h"
#include "quillet/model/VendorModelStart.h"

#include "FuzzInput.h"

namespace {

template <class Model>
void roundTrip(const Model& model) {
  const auto decoded = Model::fromJson(boost::json::value(model.toJson()));
  if (!decoded || !(*decoded == model)) quillet::fuzz::fail("a record changed in keyed coding");
}

std::string printed(const auto& ids) {
  return quillet::Json::print(boost::json::array(ids.begin(), ids.end()));
}

// What the start reads of `gvl`: the facts with every declared list, the records, each entry's
// special features, the stacks.
std::string startReads(const boost::json::object& gvl, const quillet::BrandingConfig& config) {
  using namespace quillet;
  const auto facts = VendorList::facts(gvl);
  std::string out = printed(facts.vendorIds) + printed(facts.specialFeatureIds) +
                    printed(facts.specialFeatureKeys) + std::to_string(facts.vendorListVersion) +
                    std::to_string(facts.policyVersion);
  for (const auto id : facts.vendorIds) {
    for (const auto list :
         {VendorList::Facts::List::purposes, VendorList::Facts::List::legIntPurposes}) {
      const auto declared = facts.declared(id, list);
      out += declared ? printed(*declared) : "-";
    }
  }
  for (const auto& purpose : PurposeModel::parse(gvl))
    out += Json::print(purpose.toJson());
  const auto vendors = VendorModel::parse(gvl, config);
  for (const auto& vendor : vendors)
    out += Json::print(vendor.toJson());
  for (const auto& entry :
       VendorList::entriesOf(std::make_shared<const boost::json::object>(gvl), vendors)) {
    const auto* features = entry ? Json::member(*entry, "specialFeatures") : nullptr;
    out += features ? Json::print(*features) : "-";
  }
  if (const auto* stacks = Json::member(gvl, "stacks")) out += Json::print(*stacks);
  return out;
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
  quillet::VendorList::StartDocumentReader reader;
  reader.read(parts[1]);
  const auto start = reader.finish();
  if (start.has_value() != gvlJson.has_value()) fuzz::fail("the start document takes other texts");
  if (!gvlJson || !gvlJson->is_object()) return 0;
  const auto& gvl = gvlJson->get_object();
  if (startReads(start->as_object(), config) != startReads(gvl, config))
    fuzz::fail("the start document reads otherwise than the whole list");
  for (const auto& purpose : PurposeModel::parse(gvl))
    roundTrip(purpose);
  const auto vendors = VendorModel::parse(gvl, config);
  IdList::Gatherer declared;
  std::vector<std::int64_t> ids;
  for (const auto& vendor : vendors) {
    if (vendor.name().empty()) fuzz::fail("a parsed vendor without a name");
    roundTrip(vendor);
    ids.push_back(vendor.id());
    for (const auto& list : {vendor.purposes(), vendor.legIntPurposes()}) {
      for (const auto purpose : list)
        declared.add(purpose);
    }
  }
  // A start's two steps: the ids and declared purposes, then the models.
  const auto outline = VendorModels::outline(gvl, config.selectedVendorIds());
  if (outline.ids != ids || outline.declaredPurposes != std::move(declared).sorted() ||
      VendorModels::models(gvl, config.selectedVendorIds()) != vendors) {
    fuzz::fail("a start's two steps read the vendors otherwise than parse");
  }
  // The keyed decoders on whatever the second document is.
  (void)PurposeModel::fromJson(*gvlJson);
  (void)VendorModel::fromJson(*gvlJson);
  return 0;
}
