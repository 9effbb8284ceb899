#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/core/ConsentAction.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/ConsentSelections.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/VendorModel.h"

namespace quillet {

/// What the consent screens are built from: the facade's loaded configuration and vendor list.
struct ScreenContent {
  BrandingConfig config;
  std::vector<PurposeModel> purposes;
  std::vector<VendorModel> vendors;
  /// The vendor list entries of `vendors`, in the same order, sharing ownership of `gvl`.
  std::vector<std::shared_ptr<const boost::json::object>> rawVendors;
  std::shared_ptr<const boost::json::object> gvl;
  std::optional<ConsentSelections> initialSelections;
  /// The facade's consent-action handler, which the second layer's buttons call.
  std::function<void(const ConsentAction&)> handleConsentAction;
};

}  // namespace quillet
