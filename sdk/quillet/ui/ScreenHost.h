#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <boost/json/object.hpp>

#include "quillet/core/ConsentAction.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/VendorModel.h"

namespace quillet {

/// What a consent screen is built from: the facade's loaded configuration and vendor list.
struct ScreenContent {
  BrandingConfig config;
  std::vector<PurposeModel> purposes;
  std::vector<VendorModel> vendors;
  /// The vendor list entries of `vendors`, sharing ownership of `gvl`.
  std::vector<std::shared_ptr<const boost::json::object>> rawVendors;
  std::shared_ptr<const boost::json::object> gvl;
  /// Where the screen hands the user's decision.
  std::function<void(ConsentAction)> onOutcome;
};

/// Shows the library's screens in whatever the host has (a web view, a browser, a test
/// recorder). The facade presents on the main thread only; `canPresent` may be asked from any
/// thread.
class ScreenHost {
 public:
  virtual ~ScreenHost() = default;
  /// Whether there is somewhere to present a screen now (the top view controller).
  virtual bool canPresent() const = 0;
  /// The first-layer banner, animated.
  virtual void presentBanner(ScreenContent content) = 0;
  /// The second layer, full screen, animated; the stores already hold the stored choices.
  virtual void presentSecondLayer(ScreenContent content) = 0;
};

}  // namespace quillet
