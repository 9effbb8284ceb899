// Writes the consent screens' documents to a folder, for the browser tests:
//   screen_tool OUT_DIR
// banner.html            the banner for the bundled 987-vendor list, purposes 1 to 11 selected
// purposes.html          the second layer's purposes page, purpose 11 unfolded, a switch just
//                        tapped (its knob slides), the locked essential switch
// vendors.html           the vendors page
// vendor-details.html    a vendor's details with its legitimate interests unfolded
// purpose-details.html   a purpose's details
// disclosure.html        a disclosure document from the test data
// hostile-*.html         the same screens and a disclosure built from testdata/hostile-gvl.json,
//                        testdata/hostile-disclosure.json and a configuration crafted to break
//                        out of text and attributes

#include <cstdio>
#include <fstream>
#include <sstream>

#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/model/Json.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/ui/CMPBannerViewController.h"
#include "quillet/ui/DeviceStorageDisclosureViewController.h"
#include "quillet/ui/ScreenHost.h"
#include "quillet/ui/SecondLayerViewController.h"

#include "support/ScreenData.h"

using namespace quillet;

namespace {

class Host final : public ScreenHost {
 public:
  bool canPresent() const override { return true; }
  void openUrl(const std::string&) override {}

 protected:
  void update(const Update&) override {}
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  return static_cast<bool>(out);
}

// Writes every screen for one configuration and vendor list, file names starting with `prefix`.
bool writeScreens(const std::string& dir, const std::string& prefix, const BrandingConfig& config,
                  const std::string& vendorList, std::int64_t detailsIndex) {
  const auto host = std::make_shared<Host>();
  Platform current = Platform::current();
  current.screenHost = host;
  Platform::install(current);
  const auto content = testing::screenContent(config, vendorList);
  auto banner = std::make_shared<CMPBannerViewController>(content, [](ConsentAction) {});
  host->present(banner, {});
  bool ok = writeFile(dir + "/" + prefix + "banner.html", banner->document());
  banner->onCustomize();
  const auto second = host->topScreen();
  const auto follow = [&](const std::string& link) {
    host->topScreen()->decidePolicy({link, true});
  };
  follow("quillet://expand/11");
  follow("quillet://purpose-consent/2");  // switched just now: its knob slides
  ok = ok && writeFile(dir + "/" + prefix + "purposes.html", second->document());
  follow("quillet://read-more/1");
  ok = ok && writeFile(dir + "/" + prefix + "purpose-details.html", host->topScreen()->document());
  follow("quillet://close");
  follow("quillet://segment/1");
  ok = ok && writeFile(dir + "/" + prefix + "vendors.html", second->document());
  follow("quillet://vendor-details/" + std::to_string(detailsIndex));
  follow("quillet://li-fold");
  ok = ok && writeFile(dir + "/" + prefix + "vendor-details.html", host->topScreen()->document());
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: screen_tool OUT_DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  const std::string data = QUILLET_TESTDATA_DIR;
  Platform::install({.keyValueStore = std::make_shared<MemoryKeyValueStore>(),
                     .mainQueue = std::make_shared<RunLoop>()});

  std::vector<std::int64_t> purposes;
  for (std::int64_t p = 1; p <= 11; ++p)
    purposes.push_back(p);
  const BrandingConfig config({.brandColor = "#1A73E8",
                               .showRejectButton = true,
                               .showCustomizeButton = true,
                               .selectedPurposesIds = purposes});
  bool ok = writeScreens(dir, "", config, readFile(data + "/gvl-v3-106.json"), 2);

  DeviceStorageDisclosureViewController disclosure(
      "Vendor", "",
      Json::parse(readFile(data + "/gvl-v3-106.json")).value().at("purposes").as_object(),
      "#1A73E8");
  disclosure.show(readFile(data + "/dsd-cavai-empty.json"));
  ok = ok && writeFile(dir + "/disclosure.html", disclosure.document());

  // Hostile input: every text and address a vendor list or configuration can carry.
  const std::string payload =
      R"(<script>window.__pwned=1</script><img src=x onerror="window.__pwned=2">" onmouseover="window.__pwned=3" ' onfocus='window.__pwned=4)";
  const BrandingConfig hostile({.logoUrl = "javascript:window.__pwned=7",
                                .brandColor = "red;}</style><script>window.__pwned=8</script>",
                                .showRejectButton = true,
                                .showCustomizeButton = true,
                                .acceptButtonText = payload,
                                .customizeLinkId = payload,
                                .selectedPurposesIds = purposes});
  ok = ok && writeScreens(dir, "hostile-", hostile, readFile(data + "/hostile-gvl.json"), 2);
  DeviceStorageDisclosureViewController hostileDisclosure("Vendor", "", {}, "#1A73E8");
  hostileDisclosure.show(readFile(data + "/hostile-disclosure.json"));
  ok = ok && writeFile(dir + "/hostile-disclosure.html", hostileDisclosure.document());
  Platform::install({});
  return ok ? 0 : 1;
}
