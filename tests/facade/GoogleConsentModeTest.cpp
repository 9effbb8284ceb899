#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/AnalyticsRegistry.h"
#include "quillet/base/QltLog.h"
#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/core/GoogleConsentMode.h"

#include "support/RecordingLogSink.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using Signals = std::map<std::string, std::string>;

class RecordingAnalytics final : public ConsentSignalReceiver {
 public:
  void setConsent(const Signals& signals) override { calls.push_back(signals); }
  std::vector<Signals> calls;
};

std::string withPurposes(std::vector<std::int64_t> purposes) {
  return QLTCMPUtils::encodeTCString(purposes, std::vector<std::int64_t>{1},
                                     std::vector<std::int64_t>{1});
}

Signals expected(const std::string& one, const std::string& seven) {
  return {{"ad_storage", one},
          {"analytics_storage", seven},
          {"ad_user_data", one},
          {"ad_personalization", one}};
}

TEST(GoogleConsentMode, OnlyPurposesOneAndSevenDecide) {
  EXPECT_EQ(GoogleConsentMode::signalsFor(withPurposes({1})), expected("granted", "denied"));
  EXPECT_EQ(GoogleConsentMode::signalsFor(withPurposes({7})), expected("denied", "granted"));
  EXPECT_EQ(GoogleConsentMode::signalsFor(withPurposes({2, 3, 4})), expected("denied", "denied"));
  const std::string core = withPurposes({1, 7});
  EXPECT_EQ(GoogleConsentMode::signalsFor(core + ".IAAA"), expected("granted", "granted"));
  for (const char* garbage : {"", "garbage", "CA", "!!", "a.b"}) {
    EXPECT_EQ(GoogleConsentMode::signalsFor(garbage), expected("denied", "denied")) << garbage;
  }
}

class GoogleConsentModeLog : public ::testing::Test {
 protected:
  std::vector<std::string> lines() const { return log_.lines(); }
  testing::LogCapture log_;
};

TEST_F(GoogleConsentModeLog, HandsTheSignalsToTheRegisteredAnalyticsLibrary) {
  AnalyticsRegistry registry;
  auto analytics = std::make_shared<RecordingAnalytics>();
  registry.registerClass("FIRAnalytics", analytics);
  const std::string tcString = withPurposes({1, 2});
  log_.clear();  // the encoder's own line
  GoogleConsentMode::update(tcString, registry);
  ASSERT_EQ(analytics->calls.size(), 1U);
  EXPECT_EQ(analytics->calls[0], expected("granted", "denied"));
  const std::string update =
      "[INFO] [QLT-CMP:QuilletCMP] [GoogleConsentMode] updateConsent: ad_storage=granted, "
      "analytics_storage=denied, ad_user_data=granted, ad_personalization=granted";
  EXPECT_THAT(
      lines(),
      ElementsAre("[INFO] [QLT-CMP:QuilletCMP] [GoogleConsentMode] DEBUG: normalized pc = [1, 2]",
                  update, update,
                  "[INFO] [QLT-CMP:QuilletCMP] [GoogleConsentMode] Calling "
                  "FIRAnalytics.setConsent: [\"ad_personalization\": \"granted\", "
                  "\"ad_storage\": \"granted\", \"ad_user_data\": \"granted\", "
                  "\"analytics_storage\": \"denied\"]"));
}

TEST_F(GoogleConsentModeLog, WithoutTheLibraryOnlyReportsItMissing) {
  AnalyticsRegistry registry;
  registry.registerClass("SomethingElse", std::make_shared<RecordingAnalytics>());
  GoogleConsentMode::update("", registry);
  const std::string update =
      "[INFO] [QLT-CMP:QuilletCMP] [GoogleConsentMode] updateConsent: ad_storage=denied, "
      "analytics_storage=denied, ad_user_data=denied, ad_personalization=denied";
  EXPECT_THAT(lines(), ElementsAre(update, update,
                                   "[INFO] [QLT-CMP:QuilletCMP] [GoogleConsentMode] "
                                   "FIRAnalytics.setConsent: not available"));
}

TEST(CanDecodeTCString, MatchesWhereTheDecoderWouldStop) {
  EXPECT_TRUE(QLTCMPUtils::canDecodeTCString(""));     // decodes to nothing
  EXPECT_TRUE(QLTCMPUtils::canDecodeTCString("!"));    // not base64url
  EXPECT_FALSE(QLTCMPUtils::canDecodeTCString("CA"));  // one byte: MaxVendorId reads as 0
  EXPECT_TRUE(QLTCMPUtils::canDecodeTCString(withPurposes({1})));
  EXPECT_FALSE(
      QLTCMPUtils::canDecodeTCString("COwJz-rOwJz-rMLAEAFRAPCgAAAAAAAAAAqIAAAA"));  // M = 0
}

}  // namespace
}  // namespace quillet
