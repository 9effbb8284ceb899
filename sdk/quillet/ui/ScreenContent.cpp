#include "quillet/ui/ScreenContent.h"

#include "quillet/model/VendorList.h"

namespace quillet {

std::vector<std::int64_t> ScreenContent::purposeIds() const {
  std::vector<std::int64_t> ids;
  for (const auto& purpose : purposes)
    ids.push_back(purpose.id());
  return ids;
}

std::vector<std::int64_t> ScreenContent::vendorIds() const {
  std::vector<std::int64_t> ids;
  for (const auto& vendor : vendors)
    ids.push_back(vendor.id());
  return ids;
}

std::vector<std::int64_t> ScreenContent::specialFeatureKeys() const {
  return gvl ? VendorList::specialFeatureKeys(*gvl) : std::vector<std::int64_t>{};
}

ScreenContent ScreenContent::withWholeList() const {
  ScreenContent out = *this;
  if (!wholeGvl) return out;
  out.gvl = wholeGvl();
  out.rawVendors = out.gvl ? VendorList::entriesOf(out.gvl, vendors.get())
                           : std::vector<std::shared_ptr<const boost::json::object>>{};
  out.wholeGvl = nullptr;
  return out;
}

}  // namespace quillet
