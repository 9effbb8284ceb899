#include <cctype>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include <boost/json/value.hpp>

#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/model/Json.h"

#include "Commands.h"

namespace quillet::cli {
namespace {

// A refusal of the input, with the message the user sees.
struct Refusal {
  std::string message;
};

std::int64_t integerMember(std::string_view name, const boost::json::value& value,
                           std::int64_t minimum, std::optional<Refusal>& refusal) {
  const auto number = Json::exactInteger(&value);
  if (!number) {
    refusal = Refusal{std::string(name) + " must be an integer"};
    return 0;
  }
  if (*number < minimum) {
    refusal = Refusal{std::string(name) + " must be at least " + std::to_string(minimum)};
    return 0;
  }
  return *number;
}

std::vector<std::int64_t> idListMember(std::string_view name, const boost::json::value& value,
                                       std::optional<Refusal>& refusal) {
  std::vector<std::int64_t> ids;
  if (!value.is_array()) {
    refusal = Refusal{std::string(name) + " must be an array of integers"};
    return ids;
  }
  for (const auto& element : value.get_array()) {
    const auto id = Json::exactInteger(&element);
    if (!id) {
      refusal = Refusal{std::string(name) + " must be an array of integers"};
      return ids;
    }
    ids.push_back(*id);
  }
  return ids;
}

bool boolMember(std::string_view name, const boost::json::value& value,
                std::optional<Refusal>& refusal) {
  if (!value.is_bool()) {
    refusal = Refusal{std::string(name) + " must be true or false"};
    return false;
  }
  return value.get_bool();
}

std::string codeMember(std::string_view name, const boost::json::value& value,
                       std::optional<Refusal>& refusal) {
  if (!value.is_string()) {
    refusal = Refusal{std::string(name) + " must be a text"};
    return {};
  }
  std::string code(value.get_string());
  if (!QLTCMPUtils::isEncodableCode(code)) {
    refusal = Refusal{std::string(name) + " must be made of letters (got \"" + code + "\")"};
  }
  return code;
}

struct EncodeRequest {
  QLTCMPUtils::TCStringInput input;
  std::optional<std::int64_t> created;  // deciseconds
  std::optional<std::vector<std::int64_t>> disclosedVendors;
};

std::optional<EncodeRequest> readRequest(const boost::json::object& object,
                                         std::optional<Refusal>& refusal) {
  EncodeRequest request;
  auto& in = request.input;
  bool haveVendorList = false;
  for (const auto& member : object) {
    const std::string_view name = member.key();
    const boost::json::value& value = member.value();
    if (name == "purposeConsents") {
      in.purposeConsents = idListMember(name, value, refusal);
    } else if (name == "purposeLegitimateInterests") {
      in.purposeLegitimateInterests = idListMember(name, value, refusal);
    } else if (name == "specialFeatureOptins") {
      in.specialFeatureOptins = idListMember(name, value, refusal);
    } else if (name == "vendorConsents") {
      in.vendorConsents = idListMember(name, value, refusal);
    } else if (name == "vendorLegitimateInterests") {
      in.vendorLegitimateInterests = idListMember(name, value, refusal);
    } else if (name == "gvlVendorIds") {
      in.gvlVendorIds = idListMember(name, value, refusal);
      haveVendorList = true;
    } else if (name == "cmpId") {
      in.cmpId = integerMember(name, value, 0, refusal);
    } else if (name == "cmpVersion") {
      in.cmpVersion = integerMember(name, value, 0, refusal);
    } else if (name == "consentScreen") {
      in.consentScreen = integerMember(name, value, 0, refusal);
    } else if (name == "consentLanguage") {
      in.consentLanguage = codeMember(name, value, refusal);
    } else if (name == "vendorListVersion") {
      in.vendorListVersion = integerMember(name, value, 0, refusal);
    } else if (name == "policyVersion") {
      in.policyVersion = integerMember(name, value, 0, refusal);
    } else if (name == "isServiceSpecific") {
      in.isServiceSpecific = boolMember(name, value, refusal);
    } else if (name == "useNonStandardStacks") {
      in.useNonStandardStacks = boolMember(name, value, refusal);
    } else if (name == "purposeOneTreatment") {
      in.purposeOneTreatment = boolMember(name, value, refusal);
    } else if (name == "publisherCC") {
      in.publisherCC = codeMember(name, value, refusal);
    } else if (name == "created") {
      request.created = integerMember(name, value, 0, refusal);
      if (!refusal && *request.created >= (std::int64_t{1} << 36)) {
        refusal = Refusal{"created must fit in 36 bits (deciseconds since 1970)"};
      }
    } else if (name == "disclosedVendors") {
      request.disclosedVendors = idListMember(name, value, refusal);
    } else {
      refusal = Refusal{"unknown member \"" + std::string(name) + "\""};
    }
    if (refusal) return std::nullopt;
  }
  if (!haveVendorList || in.gvlVendorIds.empty()) {
    refusal = Refusal{"gvlVendorIds must list the vendor list's vendor ids"};
    return std::nullopt;
  }
  const std::int64_t largest = *std::max_element(in.gvlVendorIds.begin(), in.gvlVendorIds.end());
  if (largest <= 0) {
    refusal = Refusal{"gvlVendorIds must hold a positive vendor id"};
    return std::nullopt;
  }
  if (largest > QLTCMPUtils::kLargestEncodableVendorId) {
    refusal = Refusal{"gvlVendorIds must hold no vendor id above " +
                      std::to_string(QLTCMPUtils::kLargestEncodableVendorId)};
    return std::nullopt;
  }
  return request;
}

std::string listed(const std::vector<std::int64_t>& ids) {
  std::string out;
  for (const auto id : ids)
    out += (out.empty() ? "" : ", ") + std::to_string(id);
  return out;
}

// What the encoder would do with the request without a word: ids it drops, values it cuts to
// their field, and codes that move every later field.
std::vector<std::string> warningsFor(const EncodeRequest& request) {
  const auto& in = request.input;
  std::vector<std::string> warnings;
  const std::int64_t maxVendorId =
      *std::max_element(in.gvlVendorIds.begin(), in.gvlVendorIds.end());
  const std::set<std::int64_t> vendorList(in.gvlVendorIds.begin(), in.gvlVendorIds.end());
  const auto ids = [&](std::string_view name, const std::vector<std::int64_t>& list,
                       std::int64_t last, bool vendors) {
    std::vector<std::int64_t> outside;
    std::vector<std::int64_t> unlisted;
    for (const auto id : list) {
      if (id < 1 || id > last) {
        outside.push_back(id);
      } else if (vendors && !vendorList.contains(id)) {
        unlisted.push_back(id);
      }
    }
    if (!outside.empty()) {
      warnings.push_back(std::string(name) + " holds " + listed(outside) + ", outside 1 to " +
                         std::to_string(last) + ": not written");
    }
    if (!unlisted.empty()) {
      warnings.push_back(std::string(name) + " holds " + listed(unlisted) +
                         ", not in gvlVendorIds: written all the same");
    }
  };
  ids("purposeConsents", in.purposeConsents, 24, false);
  ids("purposeLegitimateInterests", in.purposeLegitimateInterests, 24, false);
  ids("specialFeatureOptins", in.specialFeatureOptins, 12, false);
  ids("vendorConsents", in.vendorConsents, maxVendorId, true);
  ids("vendorLegitimateInterests", in.vendorLegitimateInterests, maxVendorId, true);
  if (request.disclosedVendors)
    ids("disclosedVendors", *request.disclosedVendors, maxVendorId, true);

  const auto width = [&](std::string_view name, std::int64_t value, int bits) {
    const std::int64_t limit = std::int64_t{1} << bits;
    if (value >= limit) {
      warnings.push_back(std::string(name) + " " + std::to_string(value) + " does not fit in " +
                         std::to_string(bits) + " bits: " + std::to_string(value % limit) +
                         " is written");
    }
  };
  width("cmpId", in.cmpId, 12);
  width("cmpVersion", in.cmpVersion, 12);
  width("consentScreen", in.consentScreen, 6);
  width("vendorListVersion", in.vendorListVersion, 12);
  width("policyVersion", in.policyVersion, 6);
  width("MaxVendorId", maxVendorId, 16);

  // The encoder writes one 6-bit field per byte of the first two characters, upper-cased.
  const auto code = [&](std::string_view name, const std::string& text) {
    const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    const auto isLetter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
    if (text.size() == 2 && std::all_of(text.begin(), text.end(), isLetter)) return;
    const std::string what = std::string(name) + " \"" + text + "\" is not two letters A to Z: ";
    if (text.size() < 2 || !std::all_of(text.begin(), text.end(), isAscii)) {
      warnings.push_back(what + "every field after it moves out of place");
      return;
    }
    std::string written = text.substr(0, 2);
    for (auto& c : written)
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    warnings.push_back(what + "\"" + written + "\" is written" +
                       (std::all_of(written.begin(), written.end(), isLetter)
                            ? ""
                            : ", which no reader takes for letters"));
  };
  code("consentLanguage", in.consentLanguage);
  code("publisherCC", in.publisherCC);
  return warnings;
}

}  // namespace

std::optional<std::string> readAll(std::istream& in, std::string_view command,
                                   std::string_view name, std::ostream& err) {
  try {
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.bad() && !failedStandardInput(in)) return text;
  } catch (const std::exception&) {  // a file stream reports read errors this way
  }
  err << "quillet " << command << ": cannot read " << name << ": "
      << std::generic_category().message(errno) << '\n';
  return std::nullopt;
}

int runEncode(const EncodeOptions& options, std::istream& in, std::ostream& out,
              std::ostream& err) {
  std::optional<std::string> text;
  if (options.input.empty()) {
    text = readAll(in, "encode", "standard input", err);
  } else {
    std::error_code ignored;
    if (std::filesystem::is_directory(options.input, ignored)) {
      err << "quillet encode: cannot read " << options.input << ": it is a folder\n";
      return 1;
    }
    std::ifstream file(options.input, std::ios::binary);
    if (!file) {
      err << "quillet encode: cannot open " << options.input << ": "
          << std::generic_category().message(errno) << '\n';
      return 1;
    }
    text = readAll(file, "encode", options.input, err);
  }
  if (!text) return 1;
  const std::optional<boost::json::value> document = Json::parse(*text);
  if (!document) {
    err << "quillet encode: the input is not JSON\n";
    return 1;
  }
  if (!document->is_object()) {
    err << "quillet encode: the input must be one JSON object\n";
    return 1;
  }
  std::optional<Refusal> refusal;
  const auto request = readRequest(document->get_object(), refusal);
  if (!request) {
    err << "quillet encode: " << refusal->message << '\n';
    return 1;
  }
  const auto warnings = warningsFor(*request);
  for (const auto& warning : warnings)
    err << "quillet encode: " << (options.strict ? "" : "warning: ") << warning << '\n';
  if (options.strict && !warnings.empty()) return 1;
  std::string tcString;
  if (request->created) {
    const FixedClock clock(std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<std::int64_t, std::deci>(*request->created))));
    tcString = QLTCMPUtils::encodeTCString(request->input, clock);
  } else {
    tcString = QLTCMPUtils::encodeTCString(request->input);
  }
  if (request->disclosedVendors) {
    tcString += '.';
    tcString += QLTCMPUtils::encodeDisclosedVendorsSegment(*request->disclosedVendors,
                                                           request->input.gvlVendorIds);
  }
  if (options.discloseVendorList) {
    tcString += '.';
    tcString += QLTCMPUtils::encodeDisclosedVendors(request->input.gvlVendorIds);
  }
  out << tcString << '\n';
  out.flush();
  return 0;
}

}  // namespace quillet::cli
