#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "quillet/ui/Screen.h"
#include "quillet/ui/ScreenContent.h"
#include "quillet/ui/SecondLayerViewController.h"

namespace quillet {

/// One stack of the vendor list as the banner previews it.
struct StackPreview {
  std::int64_t id = 0;
  std::string name;
  std::string description;
  std::vector<std::int64_t> purposes;
  std::vector<std::int64_t> specialFeatures;

  /// The stacks of a vendor list's "stacks" member (an object of stacks or an array of them), in
  /// document order; none when it is missing.
  static std::vector<StackPreview> read(const boost::json::object& gvl);
};

/// The first-layer banner: a document that says what processing happens, previews the stacks
/// that apply to this publisher and links to the second layer, with native buttons (accept all,
/// optionally reject and customise) below it. Its buttons write the consent stores and hand one
/// `ConsentAction` to `completion`.
class CMPBannerViewController final : public Screen, public SecondLayerDelegate {
 public:
  /// `completion` gets the banner's own accept-all or reject-all, after the banner is dismissed.
  CMPBannerViewController(ScreenContent content, std::function<void(ConsentAction)> completion);

  std::string title() const override;
  std::string_view kind() const noexcept override { return "banner"; }
  /// The banner's document text; the same for the same inputs, byte for byte.
  std::string document() const override;
  /// The logo (when the configuration has an http or https address) and the buttons.
  std::vector<NativeControl> controls() const override;
  NavigationPolicy decidePolicy(const Navigation& navigation) override;
  /// "onAcceptAll", "onRejectAll", "onCustomize".
  void perform(std::string_view action) override;
  void didDismiss() override;

  void onAcceptAll();
  void onRejectAll();
  void onCustomize();

  void didAcceptAll() override;
  void didSaveSelections(const std::vector<std::int64_t>& purposes,
                         const std::vector<std::int64_t>& vendors) override;

  /// Runs once when the banner's part is over: after `completion`, after the second layer
  /// reported a decision, or when the banner was dismissed in any other way.
  std::function<void()> onFinished;

  /// The stacks the banner keeps for this configuration and raw vendor list, in order.
  static std::vector<StackPreview> keptStacks(
      const BrandingConfig& config, const boost::json::object& gvl,
      const std::vector<std::shared_ptr<const boost::json::object>>& rawVendors);

  const ScreenContent& content() const noexcept { return content_; }
  bool didResetPendingConsentStore = false;

 private:
  // Colour C of the document's links: the brand colour as written, unless it could leave the
  // style it is written into (then the default, and a warning).
  std::string linkColour() const;
  // Colour B of the buttons: the brand colour read as hexadecimal RGB, else the default.
  std::string buttonColour() const;
  std::string customizeAnchor() const;
  void finish();
  // Dismisses the banner; once it is gone, hands `action` to the completion and finishes.
  void dismissThenComplete(ConsentAction action);

  ScreenContent content_;
  std::function<void(ConsentAction)> completion_;
  bool decided_ = false;
  bool finished_ = false;
};

}  // namespace quillet
