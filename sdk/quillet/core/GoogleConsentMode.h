#pragma once

#include <map>
#include <string>
#include <string_view>

namespace quillet {

class AnalyticsRegistry;

/// Mirrors a TC String into Google Consent Mode: "ad_storage", "ad_user_data" and
/// "ad_personalization" follow purpose 1, "analytics_storage" purpose 7; an undecodable string
/// denies all four. Logs under the tag "QuilletCMP" (info).
namespace GoogleConsentMode {

/// The four signals for a TC String (only its core segment is read).
std::map<std::string, std::string> signalsFor(std::string_view tcString);

/// Logs the signals and hands them to the receiver registered as "FIRAnalytics", when there is
/// one. Runs on the caller's thread; keeps no state.
void update(std::string_view tcString, const AnalyticsRegistry& registry);

}  // namespace GoogleConsentMode
}  // namespace quillet
