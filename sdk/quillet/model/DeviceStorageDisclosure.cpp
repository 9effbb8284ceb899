#include "quillet/model/DeviceStorageDisclosure.h"

#include "quillet/model/Json.h"
#include "quillet/model/KeyedDecoder.h"

namespace quillet {
namespace {

std::optional<DeviceStorageDisclosure::Entry> decodeEntry(const boost::json::value& json,
                                                          std::string path,
                                                          KeyedDecoder& document) {
  KeyedDecoder decoder(json, std::move(path));
  auto identifier = decoder.requiredString("identifier");
  auto type = decoder.requiredString("type");
  auto maxAgeSeconds = decoder.requiredInteger("maxAgeSeconds");
  auto cookieRefresh = decoder.requiredBool("cookieRefresh");
  auto purposes = decoder.requiredIntegerArray("purposes");
  if (decoder.failed()) {
    document.fail(decoder.error());
    return std::nullopt;
  }
  std::vector<std::string> domains;
  if (auto list = decoder.tryStringArray("domains")) {
    domains = std::move(*list);
  } else if (auto single = decoder.tryString("domain")) {
    domains.push_back(std::move(*single));
  }
  return DeviceStorageDisclosure::Entry{.identifier = std::move(*identifier),
                                        .type = std::move(*type),
                                        .maxAgeSeconds = *maxAgeSeconds,
                                        .cookieRefresh = *cookieRefresh,
                                        .domains = std::move(domains),
                                        .purposes = std::move(*purposes)};
}

std::optional<DeviceStorageDisclosure::Domain> decodeDomain(const boost::json::value& json,
                                                            std::string path,
                                                            KeyedDecoder& document) {
  KeyedDecoder decoder(json, std::move(path));
  auto domain = decoder.requiredString("domain");
  auto use = decoder.optionalString("use");
  if (decoder.failed()) {
    document.fail(decoder.error());
    return std::nullopt;
  }
  return DeviceStorageDisclosure::Domain{.domain = std::move(*domain), .use = std::move(use)};
}

// Each element of an optional array through `decodeOne`; absent when the array is, and on the
// first element that fails.
template <class T, class Decode>
std::optional<std::vector<T>> decodeList(KeyedDecoder& document, std::string_view key,
                                         Decode decodeOne) {
  const boost::json::array* elements = document.optionalArray(key);
  if (elements == nullptr) return std::nullopt;
  std::vector<T> list;
  list.reserve(elements->size());
  for (std::size_t i = 0; i < elements->size(); ++i) {
    auto element = decodeOne((*elements)[i], document.elementPath(key, i), document);
    if (!element) return std::nullopt;
    list.push_back(std::move(*element));
  }
  return list;
}

}  // namespace

Result<DeviceStorageDisclosure> DeviceStorageDisclosure::fromJson(const boost::json::value& json) {
  KeyedDecoder document(json);
  DeviceStorageDisclosure disclosure;
  disclosure.disclosures = decodeList<Entry>(document, "disclosures", decodeEntry);
  disclosure.domains = decodeList<Domain>(document, "domains", decodeDomain);
  if (document.failed()) return Failure{document.error()};
  return disclosure;
}

Result<DeviceStorageDisclosure> DeviceStorageDisclosure::decode(std::string_view text) {
  const auto json = Json::parse(text);
  if (!json) return Failure{std::string("the document is not JSON")};
  return fromJson(*json);
}

}  // namespace quillet
