#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quillet/base/Export.h"
#include "quillet/codec/TCString.h"

namespace quillet {

/// What a TCData object takes from the page's side rather than from the TC String.
struct TCDataContext {
  bool gdprApplies = true;
  std::string_view eventStatus = "tcloaded";  ///< "tcloaded", "cmpuishown" or "useractioncomplete"
  std::optional<std::int64_t> listenerId;     ///< null when absent
};

/// The TCData object that `__tcfapi` hands web content, for the string `tcString` read as `tc`,
/// as compact JSON text: tcString, tcfPolicyVersion, cmpId, cmpVersion, gdprApplies,
/// eventStatus, cmpStatus ("loaded"), listenerId, isServiceSpecific, useNonStandardStacks,
/// publisherCC, purposeOneTreatment, purpose {consents, legitimateInterests}, vendor {consents,
/// legitimateInterests}, specialFeatureOptins, and publisher {consents, legitimateInterests,
/// customPurpose {consents, legitimateInterests}, restrictions}. An id map is keyed by decimal id
/// and holds true or false for every id its field covers: purposes 1 to 24, special features 1
/// to 12, vendors 1 to the section's MaxVendorId, custom purposes 1 to NumCustomPurposes (the
/// publisher's maps are empty without a publisher TC segment). Restrictions map a purpose id to
/// vendor ids and their restriction type (0, 1 or 2; the strictest where a vendor is named twice).
QUILLET_EXPORT std::string tcDataJson(const TCString& tc, std::string_view tcString,
                                      const TCDataContext& context);

/// What `__tcfapi("ping")` answers.
struct PingContext {
  bool gdprApplies = true;
  bool cmpLoaded = false;
  std::string_view cmpStatus = "stub";        ///< "stub", "loaded" or "error"
  std::string_view displayStatus = "hidden";  ///< "visible", "hidden" or "disabled"
  std::int64_t cmpId = 0;
  std::int64_t cmpVersion = 0;
  std::optional<std::int64_t> gvlVersion;        ///< null until a vendor list is loaded
  std::optional<std::int64_t> tcfPolicyVersion;  ///< null until a vendor list is loaded
};

/// The PingReturn object as compact JSON text: gdprApplies, cmpLoaded, cmpStatus,
/// displayStatus, apiVersion ("2.2"), cmpVersion, cmpId, gvlVersion, tcfPolicyVersion.
QUILLET_EXPORT std::string pingReturnJson(const PingContext& context);

/// What a page's `__tcfapi` asks its host for, as JSON text: {"ping": PingReturn, "tcData":
/// TCData or null}. With no `eventStatus` yet the CMP is a stub and there is no data; then the
/// stored string `tcString` (empty when none is stored) is the data, with `ping`'s status
/// "loaded"; a stored string that cannot be read gives the status "error" and no data.
QUILLET_EXPORT std::string tcfApiState(std::string_view tcString, std::string_view eventStatus,
                                       PingContext ping);

}  // namespace quillet
