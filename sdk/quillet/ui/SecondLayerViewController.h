#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "quillet/base/Export.h"
#include "quillet/ui/Screen.h"
#include "quillet/ui/ScreenContent.h"

namespace quillet {

class PurposeTabViewController;
class VendorsPageViewController;

/// Told by the second layer how it ended (never told of a reject-all).
class QUILLET_EXPORT SecondLayerDelegate {
 public:
  virtual ~SecondLayerDelegate() = default;
  virtual void didAcceptAll() = 0;
  virtual void didSaveSelections(const std::vector<std::int64_t>& purposes,
                                 const std::vector<std::int64_t>& vendors) = 0;
};

/// "Manage Preferences": a purposes page and a vendors page switched by two segments, and the
/// Save, Accept All and Reject All buttons, which write the consent stores, hand a
/// `ConsentAction` to the facade's handler and close both consent screens. A vendor's consent
/// changed on another screen ("qlt.vendorConsentChanged") is shown here too, once per turn of
/// the main queue however many vendors changed.
class QUILLET_EXPORT SecondLayerViewController final : public Screen {
 public:
  explicit SecondLayerViewController(ScreenContent content);
  ~SecondLayerViewController() override;

  std::string title() const override;
  std::string_view kind() const noexcept override { return "secondLayer"; }
  std::string document() const override;

  void saveTapped();
  void acceptAllTapped();
  void rejectAllTapped();
  /// Shows page `index` (0 purposes, 1 vendors); other indices are ignored.
  void segmentChanged(std::int64_t index);
  std::int64_t selectedSegment() const noexcept { return selected_; }

  const ScreenContent& content() const noexcept { return content_; }

  /// Held weakly.
  std::weak_ptr<SecondLayerDelegate> delegate;

  /// The pages, built on first use.
  PurposeTabViewController& purposeVC();
  VendorsPageViewController& vendorsVC();

 protected:
  void handleEvent(const ScreenEvent& event) override;

 private:
  // Closes both consent screens, then runs `followUp` (when this screen still exists).
  void close(std::function<void()> followUp);
  // Presents a details screen over this one; the pages are brought in line when it closes.
  void openDetails(std::shared_ptr<Screen> details);
  std::set<std::int64_t> purposeIds() const;
  void dispatch(const ScreenEvent& event);
  // Shows the document again on the next turn of the main queue, once for any number of calls.
  void scheduleRender();

  ScreenContent content_;
  bool handling_ = false;  // inside this screen's own event, which renders it anyway
  bool renderScheduled_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::shared_ptr<void> vendorObserver_;  // the observation of vendor consent changes
  std::int64_t selected_ = 0;
  std::unique_ptr<PurposeTabViewController> purposeVC_;
  std::unique_ptr<VendorsPageViewController> vendorsVC_;
};

}  // namespace quillet
