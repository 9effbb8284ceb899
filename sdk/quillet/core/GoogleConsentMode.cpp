#include "quillet/core/GoogleConsentMode.h"

#include <algorithm>
#include <map>
#include <vector>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/codec/QLTCMPUtils.h"

namespace quillet::GoogleConsentMode {
namespace {

constexpr std::string_view kTag = "QuilletCMP";

std::string printed(const std::map<std::string, std::string>& signals) {
  std::string out = "[";
  for (const auto& [key, value] : signals) {
    if (out.size() > 1) out += ", ";
    out.append("\"").append(key).append("\": \"").append(value).append("\"");
  }
  return out + "]";
}

// The decoded purpose consents of the core segment; nothing when it does not decode.
std::optional<std::vector<std::int64_t>> purposeConsents(std::string_view tcString) {
  const auto core = tcString.substr(0, tcString.find('.'));
  // Strings come from anywhere here: one the decoder would stop on counts as undecodable.
  if (!QLTCMPUtils::canDecodeTCString(core)) return std::nullopt;
  const auto decoded = QLTCMPUtils::decodeTCString(core);
  if (!decoded) return std::nullopt;
  return decoded->purposeConsents;
}

std::map<std::string, std::string> signalsFrom(const std::vector<std::int64_t>& purposes) {
  const auto has = [&](std::int64_t id) {
    return std::find(purposes.begin(), purposes.end(), id) != purposes.end();
  };
  const std::string purpose1 = has(1) ? "granted" : "denied";
  return {{"ad_storage", purpose1},
          {"analytics_storage", has(7) ? "granted" : "denied"},
          {"ad_user_data", purpose1},
          {"ad_personalization", purpose1}};
}

}  // namespace

std::map<std::string, std::string> signalsFor(std::string_view tcString) {
  return signalsFrom(purposeConsents(tcString).value_or(std::vector<std::int64_t>{}));
}

void update(std::string_view tcString, const AnalyticsRegistry& registry) {
  const auto decoded = purposeConsents(tcString);
  std::vector<std::int64_t> purposes;
  if (decoded) {
    purposes = *decoded;
    QltLog::i(kTag, [&] {
      return "[GoogleConsentMode] DEBUG: normalized pc = " + Text::printedList(purposes);
    });
  }
  const auto signals = signalsFrom(purposes);
  const auto line = [&] {
    return "[GoogleConsentMode] updateConsent: ad_storage=" + signals.at("ad_storage") +
           ", analytics_storage=" + signals.at("analytics_storage") +
           ", ad_user_data=" + signals.at("ad_user_data") +
           ", ad_personalization=" + signals.at("ad_personalization");
  };
  QltLog::i(kTag, line);
  QltLog::i(kTag, line);  // written twice on purpose
  if (const auto receiver = registry.lookUp("FIRAnalytics")) {
    QltLog::i(kTag, [&] {
      return "[GoogleConsentMode] Calling FIRAnalytics.setConsent: " + printed(signals);
    });
    receiver->setConsent(signals);
    return;
  }
  QltLog::i(kTag, "[GoogleConsentMode] FIRAnalytics.setConsent: not available");
}

}  // namespace quillet::GoogleConsentMode
