#include <chrono>
#include <iterator>
#include <optional>
#include <string_view>

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
  if (*std::max_element(in.gvlVendorIds.begin(), in.gvlVendorIds.end()) <= 0) {
    refusal = Refusal{"gvlVendorIds must hold a positive vendor id"};
    return std::nullopt;
  }
  return request;
}

}  // namespace

int runEncode(std::istream& in, std::ostream& out, std::ostream& err) {
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::optional<boost::json::value> document = Json::parse(text);
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
  out << tcString << '\n';
  out.flush();
  return 0;
}

}  // namespace quillet::cli
