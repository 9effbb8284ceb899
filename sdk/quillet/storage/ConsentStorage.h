#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <boost/json/object.hpp>

#include "quillet/base/Export.h"
#include "quillet/storage/KeyValueStore.h"

/// What survives a restart of the host application: the consent flag, the last TC String, the
/// cached vendor list, and the configuration and vendor list versions. Static operations over
/// the process-wide key-value store, which cache no values; safe from any thread. No operation
/// reports an error: wrongly typed values read as absent, 0 or false.
namespace quillet::ConsentStorage {

/// The store the library uses: the installed platform's, or else the SQLite store at its default
/// path, opened on first use (a store in memory, with an error logged, when that cannot be
/// opened).
QUILLET_EXPORT std::shared_ptr<KeyValueStore> store();

/// Stores the flag, then the string (removing a stored one when absent), then synchronises.
QUILLET_EXPORT void saveConsent(bool consent, const std::optional<std::string>& tcString);
QUILLET_EXPORT bool getConsent();
QUILLET_EXPORT std::optional<std::string> getTCString();

/// Stores the vendor list as JSON bytes and synchronises. A document that JSON cannot represent
/// (a non-finite number) stores nothing and leaves the cached one in place.
QUILLET_EXPORT void saveGVL(const boost::json::object& gvl);
/// The cached vendor list; nothing when none is stored, its bytes are not JSON, or it is not an
/// object.
QUILLET_EXPORT std::optional<boost::json::object> loadGVL();
/// Whether `loadGVL` would give a vendor list, found without building it: a quarter of the time.
/// Found without reading at all when the store's `revision` of the list is the one at which
/// `loadGVL` or `hasGVL` last found a list in this process.
QUILLET_EXPORT bool hasGVL();

QUILLET_EXPORT std::int64_t getConfigVersion();
QUILLET_EXPORT void setConfigVersion(std::int64_t version);
QUILLET_EXPORT std::int64_t getVendorListVersion();
QUILLET_EXPORT void setVendorListVersion(std::int64_t version);

/// Forgets the consent, the string, the cached vendor list and both versions, then
/// synchronises. The device id and the special-feature states stay.
QUILLET_EXPORT void resetConsent();

}  // namespace quillet::ConsentStorage
