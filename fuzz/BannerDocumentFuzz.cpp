// The banner's document from an arbitrary configuration and vendor list (separated by a line
// "--"): never stops the process, and no text from outside opens a tag. Every "<" in the
// document must start one of the tags the banner itself writes, there is one script, and the
// document is whole.

#include <cctype>
#include <memory>
#include <set>
#include <string>

#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"
#include "quillet/ui/CMPBannerViewController.h"

#include "FuzzInput.h"

namespace {

using namespace quillet;

std::shared_ptr<CMPBannerViewController> banner(const BrandingConfig& config,
                                                std::shared_ptr<const boost::json::object> gvl) {
  auto vendors = VendorModel::parse(*gvl, config);
  auto raw = VendorList::entriesOf(gvl, vendors);
  ScreenContent content{config,
                        PurposeModel::parse(*gvl),
                        std::move(vendors),
                        std::move(raw),
                        std::move(gvl),
                        std::nullopt,
                        {},
                        {}};
  return std::make_shared<CMPBannerViewController>(std::move(content), [](const ConsentAction&) {});
}

// The tag names (with a leading "/" for end tags) following each "<" of a document.
std::set<std::string> tagsOf(std::string_view document) {
  std::set<std::string> tags;
  for (auto at = document.find('<'); at != std::string_view::npos;
       at = document.find('<', at + 1)) {
    auto end = at + 1;
    while (end < document.size() && (std::isalnum(static_cast<unsigned char>(document[end])) ||
                                     document[end] == '/' || document[end] == '!'))
      ++end;
    tags.emplace(document.substr(at + 1, end - at - 1));
  }
  return tags;
}

// Every tag the banner writes: a configuration that keeps more stacks than the preview shows, so
// that the preview, "view all" and the full list all appear.
const std::set<std::string>& ownTags() {
  static const std::set<std::string> tags = [] {
    std::string stacks = "{";
    for (int i = 1; i <= 6; ++i) {
      if (i > 1) stacks += ',';
      stacks += "\"" + std::to_string(i) + "\": {\"id\": " + std::to_string(i) +
                ", \"name\": \"S\", \"description\": \"D\", \"purposes\": [1]}";
    }
    stacks += "}";
    const auto gvl = Json::parse(R"({"purposes": {"1": {"id": 1, "name": "P"}}, "stacks": )" +
                                 stacks + R"(, "vendors": {"1": {"id": 1, "name": "V"}}})");
    const auto config = BrandingConfig::init(
        Json::parse(R"({"selectedPurposesIds": [1], "brandColor": "#123456"})")->get_object());
    return tagsOf(banner(*config, std::make_shared<const boost::json::object>(gvl->get_object()))
                      ->document());
  }();
  return tags;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parts = fuzz::split(fuzz::text(data, size), "\n--\n", 2);
  const auto configJson = Json::parse(parts[0]);
  const auto gvlJson = Json::parse(parts[1]);
  if (!configJson || !configJson->is_object() || !gvlJson || !gvlJson->is_object()) return 0;
  const auto config = BrandingConfig::init(configJson->get_object());
  if (!config) return 0;
  const auto screen =
      banner(*config, std::make_shared<const boost::json::object>(gvlJson->get_object()));
  const std::string document = screen->document();

  for (const auto& tag : tagsOf(document)) {
    if (!ownTags().contains(tag)) fuzz::fail(("text from outside opened a tag: <" + tag).c_str());
  }
  std::size_t scripts = 0;
  for (auto at = document.find("<script"); at != std::string::npos;
       at = document.find("<script", at + 1))
    ++scripts;
  if (scripts != 1) fuzz::fail("the document does not have exactly one script");
  if (!document.ends_with("</body></html>")) fuzz::fail("the document is cut short");
  if (screen->document() != document) fuzz::fail("the same inputs gave another document");
  (void)screen->controls();
  return 0;
}
