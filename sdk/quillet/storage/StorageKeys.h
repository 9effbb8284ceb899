#pragma once

#include <string_view>

/// The names under which the library keeps its data in the key-value store. Every part that
/// reads or writes one of them uses these names.
namespace quillet::StorageKeys {

inline constexpr std::string_view consent = "qlt_consent";                        ///< boolean
inline constexpr std::string_view tcString = "qlt_tc_string";                     ///< text
inline constexpr std::string_view gvlJson = "qlt_gvl_json";                       ///< bytes: JSON
inline constexpr std::string_view configVersion = "qlt_config_version";           ///< integer
inline constexpr std::string_view vendorListVersion = "qlt_vendor_list_version";  ///< integer
inline constexpr std::string_view deviceId = "qlt_device_id";                     ///< text: a UUID
/// Dictionary: decimal feature id to boolean.
inline constexpr std::string_view specialFeatureMasterStates = "qlt_sf_master_states";
/// Dictionary: decimal feature id to (decimal vendor id to boolean).
inline constexpr std::string_view specialFeatureVendorStates = "qlt_sf_vendor_states";

}  // namespace quillet::StorageKeys
