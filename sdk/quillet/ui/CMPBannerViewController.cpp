#include "quillet/ui/CMPBannerViewController.h"

#include <algorithm>
#include <cctype>

#include "quillet/base/IdList.h"
#include "quillet/base/QltLog.h"
#include "quillet/base/Text.h"
#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"
#include "quillet/state/ConsentCommit.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/ui/Html.h"
#include "quillet/ui/ScreenHost.h"

namespace quillet {
namespace {

constexpr std::string_view kTag = "CMPBannerViewController";
constexpr std::string_view kDefaultLinkColour = "#0057FF";
constexpr std::string_view kDefaultButtonColour = "#FF6600";
constexpr std::size_t kPreviewCount = 3;

// The fixed pieces of the document, in the order they are written.
constexpr std::string_view kHead =
    "<html><head>\n  <meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">\n  "
    "<style>\n    "
    "body{font-family:-apple-system,Arial,sans-serif;font-size:16px;color:#212121;margin:0}\n    "
    "h1,h2,h3,h4,h5{margin-top:16px;margin-bottom:8px}\n    a{color:";
constexpr std::string_view kHeadEnd = ";text-decoration:underline}\n  </style>\n</head><body>";
constexpr std::string_view kIntroduction =
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
constexpr std::string_view kNoStacks = "No data processing activities enabled.";
constexpr std::string_view kBoldOpen = "<b>";
constexpr std::string_view kNameEnd = "</b>: ";
constexpr std::string_view kStackEnd = ".";
constexpr std::string_view kViewAllStart =
    "<a id=\"qlt-view-all\" role=\"button\" aria-expanded=\"false\"\n   "
    "href=\"javascript:void(0)\" onclick=\"qltToggleStacks(true)\"\n   "
    "style=\"text-decoration:underline;color:";
constexpr std::string_view kViewAllMiddle =
    ";font-weight:600\">\n   View all data processing activities (";
constexpr std::string_view kViewAllEnd =
    ")\n</a>\n<a id=\"qlt-hide-all\" role=\"button\" aria-expanded=\"true\"\n   "
    "href=\"javascript:void(0)\" onclick=\"qltToggleStacks(false)\"\n   "
    "style=\"display:none;text-decoration:underline;color:";
constexpr std::string_view kHideAllEnd = ";font-weight:600\">\n   Hide list\n</a>";
constexpr std::string_view kPreviewEnd = "</div>\n    ";
constexpr std::string_view kListStart =
    "<ol id=\"qlt-stacks-all\"\n    style=\"display:none;margin:8px 0 0 0;padding-left:0;\n        "
    "   list-style: none; /* custom numbers below stay inside */\">\n  ";
constexpr std::string_view kListEnd = "\n</ol>";
constexpr std::string_view kItemStart = "<li style=\"margin:6px 0;\">";
constexpr std::string_view kItemNumberEnd = ". <b>";
constexpr std::string_view kItemNameEnd = "</b>: ";
constexpr std::string_view kItemEnd = ".</li>";
constexpr std::string_view kVendorCountStart =
    "\n  </div>\n\n  <div style=\"margin-top:8px;font-size:14.5px;color:#222;\">\n    This app "
    "works with <b>";
constexpr std::string_view kVendorCountEnd = "</b> third‑party vendors. ";
constexpr std::string_view kVendorLinkStart = "<a href=\"";
constexpr std::string_view kVendorLinkMiddle = "\" style=\"text-decoration:underline;color:";
constexpr std::string_view kVendorLinkEnd =
    ";font-weight:600\">\n  View vendor list &amp; details\n</a>";
constexpr std::string_view kClosing =
    "\n  </div>\n\n  <div style=\"margin-top:6px;font-size:13.5px;color:#333;\">\n    Your choices "
    "apply to <b>this service</b>. You can resurface these settings\n    anytime from the Consent "
    "icon or <b>Settings → Privacy → Consent</b>.\n  </div>\n</div>\n";
constexpr std::string_view kScript =
    "<script>\nfunction qltToggleStacks(expand){\n  var list = "
    "document.getElementById('qlt-stacks-all');\n  var view = "
    "document.getElementById('qlt-view-all');\n  var hide = "
    "document.getElementById('qlt-hide-all');\n  if(!list||!view||!hide) return;\n  if(expand){ "
    "list.style.display='block'; view.style.display='none'; hide.style.display='inline'; "
    "hide.setAttribute('aria-expanded','true'); }\n  else { list.style.display='none'; "
    "view.style.display='inline'; hide.style.display='none'; "
    "view.setAttribute('aria-expanded','false'); window.scrollTo({top:0, behavior:'smooth'}); "
    "}\n}\n</script>";
constexpr std::string_view kTail = "</body></html>";

// The banner's own escaping of stack texts: "<" deliberately becomes "&gt;" like ">".
std::string escapeStackText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '&') {
      out += "&amp;";
    } else if (c == '<' || c == '>') {
      out += "&gt;";
    } else {
      out += c;
    }
  }
  return out;
}

StackPreview readStack(const boost::json::object& entry, std::string_view key) {
  StackPreview stack;
  stack.id = VendorList::entryId(entry, key);
  stack.name = std::string(Json::string(Json::member(entry, "name")).value_or(""));
  stack.description = std::string(Json::string(Json::member(entry, "description")).value_or(""));
  stack.purposes = Json::integerMembers(Json::member(entry, "purposes"));
  stack.specialFeatures = Json::integerMembers(Json::member(entry, "specialFeatures"));
  return stack;
}

bool allIn(const std::vector<std::int64_t>& ids, const std::vector<std::int64_t>& sorted) {
  return std::all_of(ids.begin(), ids.end(), [&](std::int64_t id) {
    return std::binary_search(sorted.begin(), sorted.end(), id);
  });
}

// Percent-encodes what a URL path may not hold as it is.
std::string percentEncodedForPath(std::string_view text) {
  constexpr std::string_view kAllowed = "-._~!$&'()*+,;=:@/";
  std::string out;
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (std::isalnum(u) != 0 || kAllowed.find(c) != std::string_view::npos) {
      out += c;
    } else {
      constexpr std::string_view kHex = "0123456789ABCDEF";
      out += '%';
      out += kHex[u >> 4U];
      out += kHex[u & 0xFU];
    }
  }
  return out;
}

std::string lowercased(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

bool schemeStartsWith(std::string_view url, std::string_view prefix) {
  const auto colon = url.find(':');
  return colon != std::string_view::npos && lowercased(url.substr(0, colon)).starts_with(prefix);
}

}  // namespace

std::vector<StackPreview> StackPreview::read(const boost::json::object& gvl) {
  std::vector<StackPreview> stacks;
  const boost::json::value* member = Json::member(gvl, "stacks");
  if (const boost::json::object* object = Json::object(member)) {
    for (const auto& entry : *object) {
      if (const auto* stack = entry.value().if_object()) {
        stacks.push_back(readStack(*stack, entry.key()));
      }
    }
  } else if (const boost::json::array* array = Json::array(member)) {
    for (const auto& element : *array) {
      if (const auto* stack = element.if_object()) stacks.push_back(readStack(*stack, ""));
    }
  }
  return stacks;
}

CMPBannerViewController::CMPBannerViewController(ScreenContent content,
                                                 std::function<void(ConsentAction)> completion)
    : content_(std::move(content)), completion_(std::move(completion)) {}

std::string CMPBannerViewController::title() const {
  return "Consent";
}

std::vector<StackPreview> CMPBannerViewController::keptStacks(
    const BrandingConfig& config, const boost::json::object& gvl,
    const std::vector<std::shared_ptr<const boost::json::object>>& rawVendors) {
  std::vector<std::int64_t> purposes;
  if (config.selectedPurposesIds() && !config.selectedPurposesIds()->empty()) {
    purposes = *config.selectedPurposesIds();
  }
  IdList::Gatherer declared;
  for (const auto& vendor : rawVendors) {
    if (!vendor) continue;
    const boost::json::array* ids = Json::array(Json::member(*vendor, "specialFeatures"));
    if (ids == nullptr) continue;
    for (const auto& element : *ids) {
      if (const auto id = Json::exactInteger(&element)) declared.add(*id);
    }
  }
  const std::vector<std::int64_t> features = std::move(declared).sorted();
  std::sort(purposes.begin(), purposes.end());

  std::vector<StackPreview> kept;
  for (auto& stack : StackPreview::read(gvl)) {
    const bool keep = !stack.purposes.empty() ? allIn(stack.purposes, purposes)
                                              : !stack.specialFeatures.empty() &&
                                                    allIn(stack.specialFeatures, features);
    if (keep) kept.push_back(std::move(stack));
  }
  return kept;
}

std::string CMPBannerViewController::linkColour() const {
  const auto& colour = content_.config.brandColor();
  if (!colour) return std::string(kDefaultLinkColour);
  if (Html::isInertCssValue(*colour)) return *colour;
  QltLog::w(kTag, [&] {
    return "brandColor cannot be written into the document's style; links take " +
           std::string(kDefaultLinkColour) + ": " + *colour;
  });
  return std::string(kDefaultLinkColour);
}

std::string CMPBannerViewController::buttonColour() const {
  const auto& colour = content_.config.brandColor();
  if (!colour) return std::string(kDefaultButtonColour);
  const auto read = Html::readRgbColour(*colour);
  if (!read.exact) {
    QltLog::w(kTag, [&] {
      return "brandColor is not six hexadecimal digits; the buttons read it as " + read.hex + ": " +
             *colour;
    });
  }
  return read.hex;
}

std::string CMPBannerViewController::customizeAnchor() const {
  const auto& id = content_.config.customizeLinkId();
  if (!id) return "#qlt_customize_link";
  return id->starts_with('#') ? *id : "#" + *id;
}

std::string CMPBannerViewController::document() const {
  const std::string linkColour = this->linkColour();
  const boost::json::object noList;
  const auto kept =
      keptStacks(content_.config, content_.gvl ? *content_.gvl : noList, content_.rawVendors);

  std::string out;
  out.reserve(4096 + kept.size() * 256);
  out += kHead;
  out += linkColour;
  out += kHeadEnd;
  out += kIntroduction;
  if (kept.empty()) {
    out += kNoStacks;
  } else {
    for (std::size_t i = 0; i < std::min(kPreviewCount, kept.size()); ++i) {
      if (i > 0) out += ' ';
      out += kBoldOpen;
      out += escapeStackText(kept[i].name);
      out += kNameEnd;
      out += escapeStackText(kept[i].description);
      out += kStackEnd;
    }
  }
  out += ' ';
  if (kept.size() > kPreviewCount) {
    out += kViewAllStart;
    out += linkColour;
    out += kViewAllMiddle;
    out += std::to_string(kept.size());
    out += kViewAllEnd;
    out += linkColour;
    out += kHideAllEnd;
  }
  out += kPreviewEnd;
  if (!kept.empty()) {
    out += kListStart;
    for (std::size_t i = 0; i < kept.size(); ++i) {
      out += kItemStart;
      out += std::to_string(i + 1);
      out += kItemNumberEnd;
      out += escapeStackText(kept[i].name);
      out += kItemNameEnd;
      out += escapeStackText(kept[i].description);
      out += kItemEnd;
    }
    out += kListEnd;
  }
  out += kVendorCountStart;
  out += std::to_string(content_.vendors.size());
  out += kVendorCountEnd;
  out += kVendorLinkStart;
  out += Html::escape(customizeAnchor());
  out += kVendorLinkMiddle;
  out += linkColour;
  out += kVendorLinkEnd;
  out += kClosing;
  out += kScript;
  out += kTail;
  return out;
}

std::vector<NativeControl> CMPBannerViewController::controls() const {
  const auto& config = content_.config;
  const std::string buttonColour = this->buttonColour();
  std::vector<NativeControl> controls;
  if (config.logoUrl() && Html::isSafeLink(*config.logoUrl()) &&
      schemeStartsWith(*config.logoUrl(), "http")) {
    controls.push_back({NativeControl::Kind::image, "", "", "", *config.logoUrl()});
  }
  controls.push_back({NativeControl::Kind::filledButton, "onAcceptAll",
                      config.acceptButtonText().value_or("Accept All"), buttonColour, ""});
  if (config.showRejectButton()) {
    controls.push_back({NativeControl::Kind::destructiveButton, "onRejectAll",
                        config.rejectButtonText().value_or("Decline"),
                        std::string(Html::kSystemRed), ""});
  }
  if (config.showCustomizeButton()) {
    controls.push_back({NativeControl::Kind::plainButton, "onCustomize",
                        config.manageButtonText().value_or("Customize Settings"), buttonColour,
                        ""});
  }
  return controls;
}

NavigationPolicy CMPBannerViewController::decidePolicy(const Navigation& navigation) {
  if (!navigation.isLinkActivation || navigation.url.empty()) return NavigationPolicy::allow;
  if (content_.config.customizeLinkId()) {
    const std::string anchor = lowercased(customizeAnchor());
    const std::string url = lowercased(navigation.url);
    if (url.find(lowercased(percentEncodedForPath(customizeAnchor()))) != std::string::npos ||
        url.find(anchor) != std::string::npos) {
      onCustomize();
      return NavigationPolicy::cancel;
    }
  }
  if (schemeStartsWith(navigation.url, "http") || schemeStartsWith(navigation.url, "mailto")) {
    if (Html::isSafeLink(navigation.url)) openExternally(navigation.url);
    return NavigationPolicy::cancel;
  }
  return NavigationPolicy::allow;
}

void CMPBannerViewController::perform(std::string_view action) {
  if (action == "onAcceptAll") onAcceptAll();
  if (action == "onRejectAll") onRejectAll();
  if (action == "onCustomize") onCustomize();
}

void CMPBannerViewController::onAcceptAll() {
  if (decided_) return;
  decided_ = true;
  ConsentCommit::acceptEverything(content_.purposeIds(), content_.vendorIds(),
                                  content_.specialFeatureKeys());
  ConsentCommit::commitPending();
  dismissThenComplete(ConsentAction::acceptAll());
}

void CMPBannerViewController::onRejectAll() {
  if (decided_) return;
  decided_ = true;
  const auto features = content_.specialFeatureKeys();
  const auto vendors = content_.vendorIds();
  auto& store = SpecialFeatureConsentStore::shared();
  for (const auto featureId : features) {
    store.setMaster(featureId, false);
    for (const auto vendorId : vendors)
      store.setVendor(featureId, vendorId, false);
  }
  PendingConsentStore::shared().reset(content_.purposeIds(), vendors, features);
  ConsentCommit::commitPending();
  dismissThenComplete(ConsentAction::rejectAll());
}

void CMPBannerViewController::dismissThenComplete(ConsentAction action) {
  const std::weak_ptr<Screen> self = weak_from_this();
  dismiss(*this, true, [self, action = std::move(action)] {
    if (const auto screen = self.lock()) {
      auto& banner = static_cast<CMPBannerViewController&>(*screen);
      if (banner.completion_) banner.completion_(action);
      banner.finish();
    }
  });
}

void CMPBannerViewController::onCustomize() {
  if (content_.purposes.empty() || content_.vendors.empty()) return;
  auto secondLayer = std::make_shared<SecondLayerViewController>(content_.withWholeList());
  secondLayer->delegate = std::static_pointer_cast<CMPBannerViewController>(shared_from_this());
  const std::weak_ptr<Screen> self = weak_from_this();
  present(std::move(secondLayer),
          Presentation{PresentationStyle::fullScreen, Transition::coverVertical, true}, [self] {
            if (const auto screen = self.lock()) screen->setHidden(true);
          });
}

void CMPBannerViewController::didAcceptAll() {
  QltLog::i(kTag, "second layer accepted all");
  finish();
}

void CMPBannerViewController::didSaveSelections(const std::vector<std::int64_t>& purposes,
                                                const std::vector<std::int64_t>& vendors) {
  QltLog::i(kTag, [&] {
    return "second layer saved purposes " + Text::printedList(purposes) + ", vendors " +
           Text::printedList(vendors);
  });
  finish();
}

void CMPBannerViewController::didDismiss() {
  // Dismissed by the second layer's closing (any of its buttons) rather than by our own.
  if (!decided_) finish();
}

void CMPBannerViewController::finish() {
  if (finished_) return;
  finished_ = true;
  if (onFinished) onFinished();
}

}  // namespace quillet
