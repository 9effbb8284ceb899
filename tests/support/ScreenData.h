#pragma once

#include <memory>
#include <string>

#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"
#include "quillet/ui/ScreenContent.h"

namespace quillet::testing {

/// What the facade would hand its screens for a configuration and a vendor list's text (which
/// must be JSON).
inline ScreenContent screenContent(const BrandingConfig& config, const std::string& vendorList,
                                   std::function<void(const ConsentAction&)> handler = {}) {
  auto gvl =
      std::make_shared<const boost::json::object>(Json::parse(vendorList).value().as_object());
  auto vendors = VendorModel::parse(*gvl, config);
  auto raw = VendorList::entriesOf(gvl, vendors);
  return ScreenContent{config,
                       PurposeModel::parse(*gvl),
                       std::move(vendors),
                       std::move(raw),
                       std::move(gvl),
                       std::nullopt,
                       std::move(handler),
                       {}};
}

}  // namespace quillet::testing
