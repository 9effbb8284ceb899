#pragma once

#include <memory>
#include <optional>
#include <string>

#include <boost/json/object.hpp>

// The library's own reading of the stored vendor list for a start; hosts use `loadGVL`.
namespace quillet::ConsentStorage {

/// The cached vendor list as a start reads it: its start document
/// (`VendorList::StartDocumentReader`), in well under half the time of `loadGVL`, and the text it
/// was read from, from which the whole list reads as `loadGVL` would give it. Nothing when
/// `loadGVL` would give nothing.
struct StartGVL {
  boost::json::object document;
  std::shared_ptr<const std::string> text;
};
std::optional<StartGVL> loadStartGVL();

}  // namespace quillet::ConsentStorage
