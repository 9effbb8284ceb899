// The banner's document, written here from its defined literal pieces, against the rendering.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/ui/CMPBannerViewController.h"
#include "quillet/ui/Html.h"

#include "support/LogCapture.h"
#include "support/TestData.h"
#include "ui/ScreenFixture.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class BannerDocument : public testing::ScreenFixture {
 protected:
  std::shared_ptr<CMPBannerViewController> banner(BrandingConfig::Fields fields,
                                                  const std::string& stacks) {
    return makeBanner(std::move(fields), stacks);
  }
};

// Each configuration of testdata/banner-cases.txt gives its whole document, followed by the
// native controls the host draws (kind, action, title, colour, image), the accent colour of the
// other screens and the banner's warnings, in testdata/golden/banner-documents.html. Each was
// first written from the banner's defined literal pieces.
TEST_F(BannerDocument, EachConfigurationGivesItsGoldenDocument) {
  std::string all;
  for (const auto& [name, body] : testing::cases("banner-cases.txt")) {
    const auto config = BrandingConfig::init(testing::jsonObject(body.substr(0, body.find('\n'))));
    testing::LogCapture log;
    const auto screen = banner(config->fields(), body.substr(body.find('\n') + 1));
    all += "<!-- " + name + " -->\n" + screen->document() + "\n";
    for (const auto& c : screen->controls())
      all += "<!-- control " + std::to_string(static_cast<int>(c.kind)) + " " + c.action + " " +
             c.title + " " + c.colour + " " + c.imageUrl + " -->\n";
    all += "<!-- accent " + Html::accentColour(config->brandColor()) + " -->\n";
    for (const auto& line : log.lines()) {
      if (line.find("CMPBannerViewController") != std::string::npos)
        all += "<!-- " + line + " -->\n";
    }
  }
  EXPECT_TRUE(testing::matchesGolden("banner-documents.html", all));
}

TEST_F(BannerDocument, LinksAreRoutedAsAWebViewDelegateWould) {
  const auto screen = banner({.showCustomizeButton = true, .customizeLinkId = "prefs"}, "{}");
  host_->present(screen, {});
  EXPECT_EQ(screen->decidePolicy({"about:blank", false}), NavigationPolicy::allow);
  EXPECT_EQ(screen->decidePolicy({"", true}), NavigationPolicy::allow);
  EXPECT_EQ(screen->decidePolicy({"javascript:void(0)", true}), NavigationPolicy::allow);
  EXPECT_EQ(screen->decidePolicy({"https://example.com/more", true}), NavigationPolicy::cancel);
  EXPECT_EQ(screen->decidePolicy({"mailto:dpo@example.com", true}), NavigationPolicy::cancel);
  EXPECT_THAT(host_->opened(), ElementsAre("https://example.com/more", "mailto:dpo@example.com"));
  EXPECT_EQ(host_->screens().size(), 1U);

  EXPECT_EQ(screen->decidePolicy({"about:srcdoc#PREFS", true}), NavigationPolicy::cancel);
  ASSERT_EQ(host_->screens().size(), 2U);  // the second layer is up, the banner hidden
  EXPECT_TRUE(screen->isHidden());
  EXPECT_NE(std::dynamic_pointer_cast<SecondLayerViewController>(host_->topScreen()), nullptr);

  // Without a configured id the default anchor only moves within the page.
  EXPECT_EQ(banner({.showCustomizeButton = true}, "{}")
                ->decidePolicy({"about:srcdoc#qlt_customize_link", true}),
            NavigationPolicy::allow);
}

}  // namespace
}  // namespace quillet
