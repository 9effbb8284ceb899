#include "quillet/network/Url.h"

#include <memory>
#include <string>

#include <curl/curl.h>

namespace quillet {
namespace {

struct UrlCleanup {
  void operator()(CURLU* url) const noexcept { curl_url_cleanup(url); }
};

std::string part(CURLU* url, CURLUPart which) {
  char* value = nullptr;
  if (curl_url_get(url, which, &value, 0) != CURLUE_OK || value == nullptr) return {};
  std::string text(value);
  curl_free(value);
  return text;
}

}  // namespace

bool isValidHttpUrl(std::string_view text) {
  const std::string url(text);
  if (url.find('\0') != std::string::npos) return false;
  std::unique_ptr<CURLU, UrlCleanup> parsed(curl_url());
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
    return false;
  }
  const std::string scheme = part(parsed.get(), CURLUPART_SCHEME);
  return (scheme == "http" || scheme == "https") && !part(parsed.get(), CURLUPART_HOST).empty();
}

}  // namespace quillet
