#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quillet/model/BrandingConfig.h"
#include "quillet/network/QLTAPIServer.h"

// The library's own variant of the combined fetch, for the facade's start.
namespace quillet::QLTAPIServer {

/// A vendor list for a start. One read from the store comes as its start document (what a start
/// reads of it: see `VendorList::StartDocumentReader`) with `text`, the bytes from which the whole
/// list reads; one from memory or the network comes whole, without text.
struct StartList {
  VendorList list;
  std::shared_ptr<const std::string> text;
};

/// `fetchBannerConfigAndMaybeGVL` for the facade's start: the same steps and log lines, with a
/// list that is read from the store completed as its start document.
void fetchBannerConfigAndMaybeStartGVL(
    std::string_view settingsId,
    std::function<void(std::optional<BrandingConfig>, StartList)> completion);

}  // namespace quillet::QLTAPIServer
