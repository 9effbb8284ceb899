#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/base/ConsentAction.h"
#include "quillet/base/Export.h"
#include "quillet/base/SharedList.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/ConsentSelections.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/VendorModel.h"

namespace quillet {

/// What the consent screens are built from: the facade's loaded configuration and vendor list.
/// The lists are shared with the facade and with every screen built from the same load, so that
/// a screen costs no copy of the vendor list.
struct QUILLET_EXPORT ScreenContent {
  BrandingConfig config;
  SharedList<PurposeModel> purposes;
  SharedList<VendorModel> vendors;
  /// The vendor list entries of `vendors`, in the same order, sharing ownership of `gvl`; empty
  /// for a vendor without an entry under its id.
  SharedList<std::shared_ptr<const boost::json::object>> rawVendors;
  std::shared_ptr<const boost::json::object> gvl;
  std::optional<ConsentSelections> initialSelections;
  /// The facade's consent-action handler, which the second layer's buttons call.
  std::function<void(const ConsentAction&)> handleConsentAction;
  /// Set while `gvl` and `rawVendors` are those of the vendor list's start document, which has
  /// all that the banner reads: gives the whole list, waiting while it is read.
  std::function<std::shared_ptr<const boost::json::object>()> wholeGvl;

  /// The ids of `purposes` and of `vendors`, in their order.
  std::vector<std::int64_t> purposeIds() const;
  std::vector<std::int64_t> vendorIds() const;
  /// The special feature ids the accept-all and reject-all buttons set: the integer keys of the
  /// vendor list's "specialFeatures" object, ascending; none when it is not an object.
  std::vector<std::int64_t> specialFeatureKeys() const;
  /// This content with `gvl` and `rawVendors` from the whole vendor list, for every screen but
  /// the banner; a copy of itself when it has the whole list already.
  ScreenContent withWholeList() const;
};

}  // namespace quillet
