#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <string_view>
#include <system_error>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>

#include "quillet/codec/TCString.h"

#include "Commands.h"
#include "JsonText.h"

namespace quillet::cli {
namespace {

// Deciseconds since 1970 as ISO 8601 UTC with milliseconds: 2020-01-26T17:01:00.000Z.
std::string isoTime(std::uint64_t deciseconds) {
  const auto seconds = static_cast<std::time_t>(deciseconds / 10);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  std::array<char, 40> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  std::string out(text.data(), length);
  const auto millis = static_cast<unsigned>(deciseconds % 10) * 100;
  out += '.';
  out +=
      std::to_string(millis / 100) + std::to_string(millis / 10 % 10) + std::to_string(millis % 10);
  out += 'Z';
  return out;
}

boost::json::array idArray(const std::vector<std::int64_t>& ids) {
  boost::json::array array;
  array.reserve(ids.size());
  for (const auto id : ids)
    array.emplace_back(id);
  return array;
}

template <int N>
boost::json::array idArray(IdMask<N> mask) {
  return idArray(mask.ids());
}

void putSection(boost::json::object& out, std::string_view name, const VendorSection& section) {
  out[name] = idArray(section.ids);
  out[std::string(name) + "MaxId"] = section.maxVendorId;
  out[std::string(name) + "IsRange"] = section.isRangeEncoding;
}

boost::json::object toJson(const TCString& tc) {
  boost::json::object out;
  out["version"] = tc.version;
  out["created"] = isoTime(tc.created);
  out["lastUpdated"] = isoTime(tc.lastUpdated);
  out["cmpId"] = tc.cmpId;
  out["cmpVersion"] = tc.cmpVersion;
  out["consentScreen"] = tc.consentScreen;
  out["consentLanguage"] = tc.consentLanguage;
  out["vendorListVersion"] = tc.vendorListVersion;
  out["policyVersion"] = tc.policyVersion;
  out["isServiceSpecific"] = tc.isServiceSpecific;
  out["useNonStandardTexts"] = tc.useNonStandardTexts;
  out["specialFeatureOptins"] = idArray(tc.specialFeatureOptins);
  out["purposeConsents"] = idArray(tc.purposeConsents);
  out["purposeLegitimateInterests"] = idArray(tc.purposeLegitimateInterests);
  out["purposeOneTreatment"] = tc.purposeOneTreatment;
  out["publisherCountryCode"] = tc.publisherCountryCode;
  putSection(out, "vendorConsents", tc.vendorConsents);
  putSection(out, "vendorLegitimateInterests", tc.vendorLegitimateInterests);
  boost::json::array restrictions;
  for (const auto& restriction : tc.publisherRestrictions) {
    restrictions.push_back(boost::json::object{{"purposeId", restriction.purposeId},
                                               {"restrictionType", restriction.restrictionType},
                                               {"vendors", idArray(restriction.vendors)}});
  }
  out["publisherRestrictions"] = std::move(restrictions);
  if (tc.vendorsDisclosed) putSection(out, "vendorsDisclosed", *tc.vendorsDisclosed);
  if (tc.vendorsAllowed) putSection(out, "vendorsAllowed", *tc.vendorsAllowed);
  if (tc.publisherTC) {
    const auto& publisher = *tc.publisherTC;
    out["publisherPurposesConsent"] = idArray(publisher.purposesConsent);
    out["publisherPurposesLegitimateInterests"] = idArray(publisher.purposesLegitimateInterests);
    out["numCustomPurposes"] = publisher.numCustomPurposes;
    out["publisherCustomPurposesConsent"] = idArray(publisher.customPurposesConsent);
    out["publisherCustomPurposesLegitimateInterests"] =
        idArray(publisher.customPurposesLegitimateInterests);
  }
  boost::json::array warnings;
  for (const auto& warning : tc.warnings)
    warnings.emplace_back(warning);
  out["warnings"] = std::move(warnings);
  return out;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

// Prints the string's object, or a message on `err`; false when it could not be read.
bool decodeOne(std::string_view text, const DecodeOptions& options, std::ostream& out,
               std::ostream& err) {
  const auto quoted = boost::json::serialize(boost::json::value(text));
  const auto parsed = TCString::parse(text);
  if (!parsed) {
    err << "quillet decode: cannot read " << quoted << ": " << parsed.error().message() << '\n';
    return false;
  }
  if (options.strict && !parsed->warnings.empty()) {
    err << "quillet decode: " << quoted << " is refused under --strict: ";
    for (std::size_t i = 0; i < parsed->warnings.size(); ++i) {
      err << (i == 0 ? "" : "; ") << parsed->warnings[i];
    }
    err << '\n';
    return false;
  }
  const boost::json::value json = toJson(*parsed);
  out << (options.pretty ? prettyJson(json) : boost::json::serialize(json)) << '\n';
  return true;
}

}  // namespace

bool failedStandardInput(const std::istream& in) {
  return in.rdbuf() == std::cin.rdbuf() && std::ferror(stdin) != 0;
}

int runDecode(const DecodeOptions& options, std::istream& in, std::ostream& out,
              std::ostream& err) {
  bool allRead = true;
  if (!options.strings.empty()) {
    for (const auto& text : options.strings) {
      allRead = decodeOne(trimmed(text), options, out, err) && allRead;
    }
  } else {
    std::string line;
    try {
      while (std::getline(in, line)) {
        const std::string_view text = trimmed(line);
        if (text.empty()) continue;
        allRead = decodeOne(text, options, out, err) && allRead;
      }
    } catch (const std::exception&) {  // the stream library reports read errors this way
      in.setstate(std::ios::badbit);
    }
    if (in.bad() || failedStandardInput(in)) {
      err << "quillet decode: cannot read standard input: "
          << std::generic_category().message(errno) << '\n';
      allRead = false;
    }
  }
  out.flush();
  return allRead ? 0 : 1;
}

}  // namespace quillet::cli
