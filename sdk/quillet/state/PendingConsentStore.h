#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <utility>

#include "quillet/state/ConsentFlags.h"

namespace quillet {

class PurposeConsentStore;
class SpecialFeatureConsentStore;
class VendorConsentStore;

/// The choices the consent screens build before they become a TC String, in memory only: a
/// switch per vendor and per purpose, legitimate interest per vendor and purpose, and the
/// special features' master switches and per-vendor opt-ins. Readers get copies. Safe to use
/// from several threads; changes of the special-feature opt-ins are logged under the tag
/// "PendingConsentStore" (debug), with no lock held.
class PendingConsentStore {
 public:
  /// The one process-wide instance.
  static PendingConsentStore& shared();

  ConsentFlags vendorConsent() const;
  void setVendorConsent(ConsentFlags flags);
  void setVendorConsent(std::int64_t vendorId, bool on);
  /// Sets each entry of `flags`, keeping the vendors it does not name.
  void mergeVendorConsent(const ConsentFlags& flags);

  ConsentFlags purposeConsent() const;
  void setPurposeConsent(ConsentFlags flags);
  void setPurposeConsent(std::int64_t purposeId, bool on);
  /// Sets each entry of `flags`, keeping the purposes it does not name.
  void mergePurposeConsent(const ConsentFlags& flags);

  /// By vendor, then purpose.
  NestedConsentFlags liPurposeConsent() const;
  void setLiPurposeConsent(NestedConsentFlags flags);
  void setLiPurposeConsent(std::int64_t vendorId, ConsentFlags purposes);
  void setLiPurposeConsent(std::int64_t vendorId, std::int64_t purposeId, bool on);
  /// Sets each vendor's purposes to those `flags` holds for it, keeping the vendors it does not
  /// name.
  void replaceLiPurposeConsent(NestedConsentFlags flags);
  /// Sets each vendor's and purpose's entry of `flags`, keeping those it does not name.
  void mergeLiPurposeConsent(const NestedConsentFlags& flags);

  /// By special feature, then vendor.
  NestedConsentFlags specialFeatureConsent() const;
  void setSpecialFeatureConsent(NestedConsentFlags flags);  // logged
  /// One opt-in, creating the feature's map when missing; logged.
  void setSpecialFeatureConsent(std::int64_t featureId, std::int64_t vendorId, bool isOn);
  /// Sets each vendor of `flags` (ascending by vendor) under `featureId`, keeping the feature's
  /// other vendors; logged.
  void mergeSpecialFeatureConsent(std::int64_t featureId,
                                  std::span<const std::pair<std::int64_t, bool>> flags);
  /// False when the feature or the vendor is absent.
  bool specialFeatureConsent(std::int64_t featureId, std::int64_t vendorId) const;

  ConsentFlags specialFeatureMaster() const;
  void setSpecialFeatureMaster(ConsentFlags flags);
  void setSpecialFeatureMaster(std::int64_t featureId, bool on);

  /// Every switch off: purposes, vendors, special-feature masters and each feature's vendors
  /// present and false; legitimate interests empty. Logs each special-feature step.
  void reset(std::span<const std::int64_t> purposes, std::span<const std::int64_t> vendors,
             std::span<const std::int64_t> specialFeatures);

  /// Copies the stores' current states in; legitimate interests become empty (no store keeps
  /// them).
  void load(const VendorConsentStore& vendorStore, const PurposeConsentStore& purposeStore,
            const SpecialFeatureConsentStore& specialFeatureStore);

 private:
  void logSpecialFeatureConsent() const;

  mutable std::mutex mutex_;
  ConsentFlags vendorConsent_;
  ConsentFlags purposeConsent_;
  NestedConsentFlags liPurposeConsent_;
  NestedConsentFlags specialFeatureConsent_;
  ConsentFlags specialFeatureMaster_;
};

}  // namespace quillet
