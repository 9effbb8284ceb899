// The banner's document, written here from its defined literal pieces, against the rendering.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/ui/CMPBannerViewController.h"
#include "quillet/ui/Html.h"

#include "support/RecordingLogSink.h"
#include "support/TestData.h"
#include "ui/ScreenFixture.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Stacks 1..6 need purposes 1 and 2 at most, 8 needs purpose 9, 9 needs special feature 1 only
// (declared by vendor 755), 10 needs special feature 2 (declared by no vendor), 11 names nothing.
constexpr const char* kStacks = R"({
  "1": {"id": 1, "name": "S1", "description": "d1", "purposes": [1], "specialFeatures": []},
  "2": {"id": 2, "name": "S2", "description": "d2", "purposes": [2], "specialFeatures": [2]},
  "3": {"id": 3, "name": "S3", "description": "d3", "purposes": [1, 2], "specialFeatures": []},
  "4": {"id": 4, "name": "S4", "description": "d4", "purposes": [2, 1], "specialFeatures": []},
  "5": {"id": 5, "name": "S5", "description": "d5", "purposes": [1, 1], "specialFeatures": []},
  "6": {"id": 6, "name": "S6", "description": "d6", "purposes": [2], "specialFeatures": []},
  "8": {"id": 8, "name": "S8", "description": "d8", "purposes": [1, 9], "specialFeatures": []},
  "9": {"id": 9, "name": "S9", "description": "d9", "purposes": [], "specialFeatures": [1]},
  "10": {"id": 10, "name": "S10", "description": "d10", "purposes": [], "specialFeatures": [2]},
  "11": {"id": 11, "name": "S11", "description": "d11", "purposes": [], "specialFeatures": []}
})";

class BannerDocument : public testing::ScreenFixture {
 protected:
  std::shared_ptr<CMPBannerViewController> banner(BrandingConfig::Fields fields,
                                                  const std::string& stacks = kStacks) {
    return makeBanner(std::move(fields), stacks);
  }
};

// Every row's whole document, one after the other, in testdata/golden/banner-documents.html,
// each followed by the native controls the host draws (kind, action, title, colour, image), the
// accent colour of the other screens and the log lines. Each was first written from the banner's
// defined literal pieces. Colour texts are read one way for links (the text as it stands unless
// it could leave the style) and another for buttons (hexadecimal RGB after trimming white space
// and one "#").
TEST_F(BannerDocument, EachConfigurationGivesItsGoldenDocument) {
  using Ids = std::optional<std::vector<std::int64_t>>;
  std::vector<std::tuple<std::string, BrandingConfig::Fields, std::string>> rows = {
      // S2 names special feature 2 but also purposes, so only its purposes count: seven kept,
      // three previewed, all seven listed behind the unfold links.
      {"seven kept stacks", {.selectedPurposesIds = Ids{{2, 1}}}, kStacks},
      {"exactly three: the list but no unfold links",
       {.selectedPurposesIds = Ids{{1}}},
       R"({"1": {"name": "S1", "description": "d1", "purposes": [1]},
           "2": {"name": "S2", "description": "d2", "purposes": [1]},
           "3": {"name": "S3", "description": "d3", "purposes": [1]}})"},
      {"no selected purposes: only the special-feature stack", {}, kStacks},
      {"an empty selection is none",
       {.selectedPurposesIds = Ids{std::vector<std::int64_t>{}}},
       kStacks},
      {"no stacks at all: the preview says so and no list", {}, "[]"},
      {"stack texts escaped the banner's way",
       {.selectedPurposesIds = Ids{{1}}},
       R"([{"name": "A<B>&C", "description": "x \"q\" <i>", "purposes": [1]}])"},
      {"brand colour and anchor as given",
       {.brandColor = "#112233", .customizeLinkId = "prefs"},
       "{}"},
      {"an anchor with its #", {.customizeLinkId = "#already"}, "{}"},
      {"an anchor escaped", {.customizeLinkId = "x\" onmouseover=\"alert(1)"}, "{}"},
      {"every button, a logo, a colour in mixed case",
       {.logoUrl = "https://cdn.example/logo.png",
        .brandColor = "#0a0B0c",
        .showRejectButton = true,
        .showCustomizeButton = true,
        .acceptButtonText = "OK",
        .rejectButtonText = "No",
        .manageButtonText = "Choose"},
       "{}"},
      {"a logo that is no web address", {.logoUrl = "javascript:alert(1)"}, "{}"},
  };
  for (const char* colour :
       {"12ab34", " #00ff00 ", "#abc", "#A1B2C3D4", "##12ab34", "rgb(1, 2, 3)", "",
        "red;}</style><script>alert(1)</script>", "x\" onmouseover=\"alert(1)"}) {
    rows.emplace_back(
        std::string("colour ") + colour,
        BrandingConfig::Fields{
            .brandColor = colour, .showRejectButton = true, .showCustomizeButton = true},
        "{}");
  }
  std::string all;
  for (const auto& [name, fields, stacks] : rows) {
    testing::LogCapture log;
    const auto screen = banner(fields, stacks);
    all += "<!-- " + name + " -->\n" + screen->document() + "\n";
    for (const auto& c : screen->controls())
      all += "<!-- control " + std::to_string(static_cast<int>(c.kind)) + " " + c.action + " " +
             c.title + " " + c.colour + " " + c.imageUrl + " -->\n";
    all += "<!-- accent " + Html::accentColour(fields.brandColor) + " -->\n";
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
