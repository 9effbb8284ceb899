// The banner's document, written here from its defined literal pieces, against the rendering.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/ui/CMPBannerViewController.h"
#include "quillet/ui/Html.h"

#include "support/RecordingLogSink.h"
#include "ui/ScreenFixture.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const std::string kHead =
    "<html><head>\n  <meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">\n  "
    "<style>\n    "
    "body{font-family:-apple-system,Arial,sans-serif;font-size:16px;color:#212121;margin:0}\n    "
    "h1,h2,h3,h4,h5{margin-top:16px;margin-bottom:8px}\n    a{color:";
const std::string kHeadEnd = ";text-decoration:underline}\n  </style>\n</head><body>";
const std::string kIntroduction =
    "<div style=\"padding:4px 0 0 0\">\n  <div "
    "style=\"font-size:15.5px;line-height:1.55;color:#111;\">\n    We and selected partners use "
    "device identifiers or similar technologies to\n    <b>store and/or access information on your "
    "device</b>.\n  </div>\n\n  <div "
    "style=\"margin-top:6px;font-size:15.5px;line-height:1.55;color:#111;\">\n    We also process "
    "<b>personal data</b> (e.g., <b>unique identifiers</b>, app usage).\n    We do this either "
    "with your <b>consent</b>, or – for some purposes – based on\n    <b>legitimate interest</b>. "
    "You can give, refuse, or withdraw consent and\n    <b>object</b> to legitimate‑interest "
    "processing at any time in <b>Manage Settings</b>.\n  </div>\n\n  <div "
    "style=\"margin-top:10px;font-size:14.5px;line-height:1.6;color:#222;\">\n    <span "
    "style=\"font-weight:600;\">Data processing activities include:</span>\n    <div "
    "style=\"margin-top:4px;\">";
const std::string kNoStacks = "No data processing activities enabled.";
const std::string kBoldOpen = "<b>";
const std::string kNameEnd = "</b>: ";
const std::string kStackEnd = ".";
const std::string kViewAllStart =
    "<a id=\"qlt-view-all\" role=\"button\" aria-expanded=\"false\"\n   "
    "href=\"javascript:void(0)\" onclick=\"qltToggleStacks(true)\"\n   "
    "style=\"text-decoration:underline;color:";
const std::string kViewAllMiddle = ";font-weight:600\">\n   View all data processing activities (";
const std::string kViewAllEnd =
    ")\n</a>\n<a id=\"qlt-hide-all\" role=\"button\" aria-expanded=\"true\"\n   "
    "href=\"javascript:void(0)\" onclick=\"qltToggleStacks(false)\"\n   "
    "style=\"display:none;text-decoration:underline;color:";
const std::string kHideAllEnd = ";font-weight:600\">\n   Hide list\n</a>";
const std::string kPreviewEnd = "</div>\n    ";
const std::string kListStart =
    "<ol id=\"qlt-stacks-all\"\n    style=\"display:none;margin:8px 0 0 0;padding-left:0;\n        "
    "   list-style: none; /* custom numbers below stay inside */\">\n  ";
const std::string kListEnd = "\n</ol>";
const std::string kItemStart = "<li style=\"margin:6px 0;\">";
const std::string kItemNumberEnd = ". <b>";
const std::string kItemNameEnd = "</b>: ";
const std::string kItemEnd = ".</li>";
const std::string kVendorCountStart =
    "\n  </div>\n\n  <div style=\"margin-top:8px;font-size:14.5px;color:#222;\">\n    This app "
    "works with <b>";
const std::string kVendorCountEnd = "</b> third‑party vendors. ";
const std::string kVendorLinkStart = "<a href=\"";
const std::string kVendorLinkMiddle = "\" style=\"text-decoration:underline;color:";
const std::string kVendorLinkEnd = ";font-weight:600\">\n  View vendor list &amp; details\n</a>";
const std::string kClosing =
    "\n  </div>\n\n  <div style=\"margin-top:6px;font-size:13.5px;color:#333;\">\n    Your choices "
    "apply to <b>this service</b>. You can resurface these settings\n    anytime from the Consent "
    "icon or <b>Settings → Privacy → Consent</b>.\n  </div>\n</div>\n";
const std::string kScript =
    "<script>\nfunction qltToggleStacks(expand){\n  var list = "
    "document.getElementById('qlt-stacks-all');\n  var view = "
    "document.getElementById('qlt-view-all');\n  var hide = "
    "document.getElementById('qlt-hide-all');\n  if(!list||!view||!hide) return;\n  if(expand){ "
    "list.style.display='block'; view.style.display='none'; hide.style.display='inline'; "
    "hide.setAttribute('aria-expanded','true'); }\n  else { list.style.display='none'; "
    "view.style.display='inline'; hide.style.display='none'; "
    "view.setAttribute('aria-expanded','false'); window.scrollTo({top:0, behavior:'smooth'}); "
    "}\n}\n</script>";
const std::string kTail = "</body></html>";

struct Expected {
  std::string linkColour = "#0057FF";
  std::string preview;  // the joined previewed stacks, or the "no data" text
  std::string unfold;   // the two unfold links, or nothing
  std::string list;     // the whole <ol>, or nothing
  std::size_t vendorCount = 3;
  std::string anchor = "#qlt_customize_link";

  std::string document() const {
    return kHead + linkColour + kHeadEnd + kIntroduction + preview + " " + unfold + kPreviewEnd +
           list + kVendorCountStart + std::to_string(vendorCount) + kVendorCountEnd +
           kVendorLinkStart + anchor + kVendorLinkMiddle + linkColour + kVendorLinkEnd + kClosing +
           kScript + kTail;
  }
};

using Stacks = std::vector<std::pair<std::string, std::string>>;

std::string unfoldLinks(const std::string& colour, std::size_t kept) {
  return kViewAllStart + colour + kViewAllMiddle + std::to_string(kept) + kViewAllEnd + colour +
         kHideAllEnd;
}

std::string listOf(const Stacks& stacks) {
  std::string items;
  for (std::size_t i = 0; i < stacks.size(); ++i) {
    items += kItemStart + std::to_string(i + 1) + kItemNumberEnd + stacks[i].first + kItemNameEnd +
             stacks[i].second + kItemEnd;
  }
  return kListStart + items + kListEnd;
}

std::string previewOf(const Stacks& stacks) {
  std::string out;
  for (std::size_t i = 0; i < std::min<std::size_t>(3, stacks.size()); ++i) {
    if (i > 0) out += " ";
    out += kBoldOpen + stacks[i].first + kNameEnd + stacks[i].second + kStackEnd;
  }
  return out;
}

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

TEST_F(BannerDocument, SevenKeptStacksPreviewThreeAndListAllSeven) {
  const auto screen = banner({.selectedPurposesIds = std::vector<std::int64_t>{2, 1}});
  // S2 names special feature 2 but also purposes, so only its purposes count.
  const Stacks kept = {{"S1", "d1"}, {"S2", "d2"}, {"S3", "d3"}, {"S4", "d4"},
                       {"S5", "d5"}, {"S6", "d6"}, {"S9", "d9"}};
  Expected expected;
  expected.preview = previewOf(kept);
  expected.unfold = unfoldLinks("#0057FF", 7);
  expected.list = listOf(kept);
  EXPECT_EQ(screen->document(), expected.document());
}

TEST_F(BannerDocument, ExactlyThreeKeptStacksWriteTheListButNoUnfoldLinks) {
  const auto screen = banner({.selectedPurposesIds = std::vector<std::int64_t>{1}},
                             R"({"1": {"name": "S1", "description": "d1", "purposes": [1]},
                                 "2": {"name": "S2", "description": "d2", "purposes": [1]},
                                 "3": {"name": "S3", "description": "d3", "purposes": [1]}})");
  const Stacks kept = {{"S1", "d1"}, {"S2", "d2"}, {"S3", "d3"}};
  Expected expected;
  expected.preview = previewOf(kept);
  expected.list = listOf(kept);
  EXPECT_EQ(screen->document(), expected.document());
}

TEST_F(BannerDocument, WithoutSelectedPurposesOnlySpecialFeatureStacksRemain) {
  for (const auto& selection :
       {std::optional<std::vector<std::int64_t>>{}, std::optional(std::vector<std::int64_t>{})}) {
    const auto screen = banner({.selectedPurposesIds = selection});
    Expected expected;
    expected.preview = previewOf({{"S9", "d9"}});
    expected.list = listOf({{"S9", "d9"}});
    EXPECT_EQ(screen->document(), expected.document());
  }
  // With no stacks at all the preview says so, and no list is written.
  Expected expected;
  expected.preview = kNoStacks;
  EXPECT_EQ(banner({}, "[]")->document(), expected.document());
}

TEST_F(BannerDocument, StackTextsAreEscapedTheBannersWay) {
  const auto screen =
      banner({.selectedPurposesIds = std::vector<std::int64_t>{1}},
             R"([{"name": "A<B>&C", "description": "x \"q\" <i>", "purposes": [1]}])");
  Expected expected;
  expected.preview = previewOf({{"A&gt;B&gt;&amp;C", "x \"q\" &gt;i&gt;"}});
  expected.list = listOf({{"A&gt;B&gt;&amp;C", "x \"q\" &gt;i&gt;"}});
  EXPECT_EQ(screen->document(), expected.document());
}

TEST_F(BannerDocument, BrandColourAndCustomizeAnchorAreUsedAsGivenAndEscaped) {
  Expected expected;
  expected.linkColour = "#112233";
  expected.preview = kNoStacks;
  expected.anchor = "#prefs";
  EXPECT_EQ(banner({.brandColor = "#112233", .customizeLinkId = "prefs"}, "{}")->document(),
            expected.document());
  expected.anchor = "#already";
  EXPECT_EQ(banner({.brandColor = "#112233", .customizeLinkId = "#already"}, "{}")->document(),
            expected.document());
  expected.anchor = "#x&quot; onmouseover=&quot;alert(1)";
  EXPECT_EQ(banner({.brandColor = "#112233", .customizeLinkId = "x\" onmouseover=\"alert(1)"}, "{}")
                ->document(),
            expected.document());
}

TEST_F(BannerDocument, ColourTextsAreReadOneWayForLinksAndAnotherForButtons) {
  // Links take the text as it stands unless it could leave the style; buttons read it as
  // hexadecimal RGB after trimming white space and one "#".
  struct Row {
    std::optional<std::string> text;
    std::string link;
    std::string button;
    bool warned;
  };
  const std::vector<Row> rows = {
      {std::nullopt, "#0057FF", "#FF6600", false},
      {"#12ab34", "#12ab34", "#12AB34", false},
      {"12ab34", "12ab34", "#12AB34", false},
      {" #00ff00 ", " #00ff00 ", "#00FF00", false},
      {"#abc", "#abc", "#000ABC", true},
      {"#A1B2C3D4", "#A1B2C3D4", "#B2C3D4", true},
      {"##12ab34", "##12ab34", "#000000", true},
      {"rgb(1, 2, 3)", "rgb(1, 2, 3)", "#000000", true},
      {"", "#0057FF", "#000000", true},
      {"red;}</style><script>alert(1)</script>", "#0057FF", "#000000", true},
      {"x\" onmouseover=\"alert(1)", "#0057FF", "#000000", true},
  };
  for (const auto& row : rows) {
    testing::LogCapture log;
    const auto screen = banner(
        {.brandColor = row.text, .showRejectButton = true, .showCustomizeButton = true}, "{}");
    const std::string label = row.text.value_or("(absent)");
    EXPECT_THAT(screen->document(), HasSubstr("a{color:" + row.link + ";text-decoration")) << label;
    const auto controls = screen->controls();
    EXPECT_EQ(controls[0].colour, row.button) << label;
    EXPECT_EQ(controls[1].colour, "#D70015") << label;
    EXPECT_EQ(controls[2].colour, row.button) << label;
    EXPECT_EQ(Html::accentColour(row.text), row.text ? row.button : "#0040DD") << label;
    const auto lines = log.lines();
    EXPECT_EQ(std::any_of(lines.begin(), lines.end(),
                          [](const std::string& line) {
                            return line.starts_with("[WARN] [QLT-CMP:CMPBannerViewController]");
                          }),
              row.warned)
        << label;
  }
}

TEST_F(BannerDocument, ButtonsFollowTheConfiguration) {
  using Kind = NativeControl::Kind;
  EXPECT_THAT(
      banner({.showRejectButton = true, .showCustomizeButton = true}, "{}")->controls(),
      ElementsAre(
          NativeControl{Kind::filledButton, "onAcceptAll", "Accept All", "#FF6600", ""},
          NativeControl{Kind::destructiveButton, "onRejectAll", "Decline", "#D70015", ""},
          NativeControl{Kind::plainButton, "onCustomize", "Customize Settings", "#FF6600", ""}));
  EXPECT_THAT(
      banner({.logoUrl = "https://cdn.example/logo.png",
              .brandColor = "#0a0B0c",
              .showRejectButton = true,
              .showCustomizeButton = true,
              .acceptButtonText = "OK",
              .rejectButtonText = "No",
              .manageButtonText = "Choose"},
             "{}")
          ->controls(),
      ElementsAre(NativeControl{Kind::image, "", "", "", "https://cdn.example/logo.png"},
                  NativeControl{Kind::filledButton, "onAcceptAll", "OK", "#0A0B0C", ""},
                  NativeControl{Kind::destructiveButton, "onRejectAll", "No", "#D70015", ""},
                  NativeControl{Kind::plainButton, "onCustomize", "Choose", "#0A0B0C", ""}));
  EXPECT_EQ(banner({.logoUrl = "javascript:alert(1)"}, "{}")->controls().size(), 1U);
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
