#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/Platform.h"
#include "quillet/state/ConsentCommit.h"
#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/PurposeConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
#include "quillet/state/VendorConsentStore.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"

#include "support/Announcements.h"
#include "support/ConsentStores.h"
#include "support/RecordingLogSink.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(NotificationCenter, DeliversInOrderOnThePostingThreadUntilTheTokenGoes) {
  NotificationCenter center;
  std::vector<std::string> seen;
  auto first = center.addObserver("n", [&](const Notification& n) {
    seen.push_back("first " + std::to_string(*n.integer("id")) +
                   (*n.boolean("on") ? " on" : " off"));
  });
  auto second = center.addObserver("n", [&](const Notification&) { seen.push_back("second"); });
  auto other = center.addObserver("other", [&](const Notification&) { seen.push_back("other"); });
  center.post("n", {{"id", std::int64_t{7}}, {"on", true}});
  first.reset();
  center.post("n", {{"id", std::int64_t{8}}, {"on", false}});
  EXPECT_THAT(seen, ElementsAre("first 7 on", "second", "second"));
  const Notification probe{"x", {{"id", std::int64_t{1}}}};
  EXPECT_EQ(probe.boolean("id"), std::nullopt);  // an integer is not a boolean
  EXPECT_EQ(probe.integer("missing"), std::nullopt);
}

TEST(NotificationCenter, ObserversMayPostAndUnsubscribeFromTheirOwnCallback) {
  NotificationCenter center;
  int outer = 0;
  int inner = 0;
  NotificationCenter::Token self;
  self = center.addObserver("outer", [&](const Notification&) {
    ++outer;
    center.post("inner");
    self.reset();  // unsubscribes while running
  });
  auto innerToken = center.addObserver("inner", [&](const Notification&) { ++inner; });
  center.post("outer");
  center.post("outer");
  EXPECT_EQ(outer, 1);
  EXPECT_EQ(inner, 1);
}

TEST(NotificationCenter, ManyThreadsPostAndSubscribeAtOnce) {
  NotificationCenter center;
  std::atomic<int> delivered{0};
  auto token = center.addObserver("n", [&](const Notification&) { ++delivered; });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        center.post("n");
        auto transient = center.addObserver("n", [](const Notification&) {});
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(delivered.load(), 2000);
}

// The stores are process-wide: every test starts them empty, on a store in memory.
class ConsentStores : public ::testing::Test {
 protected:
  void SetUp() override {
    Platform::install({.keyValueStore = store_});
    testing::emptyConsentStores();
    announced_.take();
  }
  void TearDown() override { Platform::install({}); }

  std::shared_ptr<MemoryKeyValueStore> store_ = std::make_shared<MemoryKeyValueStore>();
  testing::Announcements announced_;
};

TEST_F(ConsentStores, PendingResetSwitchesEverythingOffButLeavesLegitimateInterestEmpty) {
  PendingConsentStore& pending = PendingConsentStore::shared();
  pending.setLiPurposeConsent(8, 2, true);
  const std::vector<std::int64_t> purposes{1, 2, 2}, vendors{8, 755}, features{1};
  pending.reset(purposes, vendors, features);
  EXPECT_EQ(pending.purposeConsent(), (ConsentFlags{{1, false}, {2, false}}));
  EXPECT_EQ(pending.vendorConsent(), (ConsentFlags{{8, false}, {755, false}}));
  EXPECT_EQ(pending.specialFeatureMaster(), (ConsentFlags{{1, false}}));
  EXPECT_EQ(pending.specialFeatureConsent(), (NestedConsentFlags{{1, {{8, false}, {755, false}}}}));
  EXPECT_THAT(pending.liPurposeConsent(), IsEmpty());

  pending.reset({}, {}, features);  // features without vendors: an empty inner map
  EXPECT_EQ(pending.specialFeatureConsent(), (NestedConsentFlags{{1, {}}}));
  EXPECT_FALSE(pending.specialFeatureConsent(1, 8));
  EXPECT_FALSE(pending.specialFeatureConsent(9, 8));
  pending.setSpecialFeatureConsent(2, 8, true);
  EXPECT_TRUE(pending.specialFeatureConsent(2, 8));
}

TEST_F(ConsentStores, PendingLoadCopiesTheStoresAndDropsLegitimateInterest) {
  PurposeConsentStore::shared().replaceStates({{1, true}});
  VendorConsentStore::shared().replaceStates({{8, true}, {10, false}});
  SpecialFeatureConsentStore::shared().setVendor(2, 8, true);
  PendingConsentStore& pending = PendingConsentStore::shared();
  pending.setLiPurposeConsent(8, {{7, true}});
  pending.load(VendorConsentStore::shared(), PurposeConsentStore::shared(),
               SpecialFeatureConsentStore::shared());
  EXPECT_EQ(pending.purposeConsent(), (ConsentFlags{{1, true}}));
  EXPECT_EQ(pending.vendorConsent(), (ConsentFlags{{8, true}, {10, false}}));
  EXPECT_EQ(pending.specialFeatureConsent(), (NestedConsentFlags{{2, {{8, true}}}}));
  EXPECT_EQ(pending.specialFeatureMaster(), (ConsentFlags{{2, true}}));
  EXPECT_THAT(pending.liPurposeConsent(), IsEmpty());
}

TEST_F(ConsentStores, SpecialFeatureChangesAreLoggedWithTheWholeMap) {
  const testing::LogCapture log;
  PendingConsentStore::shared().setSpecialFeatureConsent(1, 755, true);
  PendingConsentStore::shared().reset({}, {}, {});
  EXPECT_THAT(log.lines(),
              ElementsAre("[DEBUG] [QLT-CMP:PendingConsentStore] specialFeatureConsent "
                          "changed: {1: {755: true}}",
                          "[DEBUG] [QLT-CMP:PendingConsentStore] specialFeatureConsent "
                          "changed: {}"));
}

TEST_F(ConsentStores, VendorSwitchesAnnounceOnlyRealChanges) {
  VendorConsentStore& vendors = VendorConsentStore::shared();
  vendors.setConsent(5, false);  // absent counts as changed
  vendors.setConsent(5, false);
  vendors.setConsent(5, true);
  EXPECT_THAT(announced_.take(), ElementsAre("qlt.vendorConsentChanged id=5 on=false",
                                             "qlt.vendorConsentChanged id=5 on=true"));
  vendors.replaceStates({{2, true}, {1, false}});
  PurposeConsentStore::shared().replaceStates({{3, true}});
  EXPECT_THAT(announced_.take(), ElementsAre("qlt.vendorConsentChanged id=1 on=false",
                                             "qlt.vendorConsentChanged id=2 on=true",
                                             "qlt.purposeConsentChanged id=3 on=true"));
  EXPECT_EQ(vendors.states(), (ConsentFlags{{1, false}, {2, true}}));
}

TEST_F(ConsentStores, SpecialFeatureCascadesAnnounceInOrder) {
  SpecialFeatureConsentStore& store = SpecialFeatureConsentStore::shared();
  store.setVendor(1, 8, true);  // first vendor on: master on first
  EXPECT_THAT(announced_.take(),
              ElementsAre("specialFeatureMasterChanged featureId=1 on=true",
                          "specialFeatureVendorChanged featureId=1 on=true vendorId=8"));
  EXPECT_TRUE(PendingConsentStore::shared().specialFeatureMaster().at(1));
  EXPECT_TRUE(PendingConsentStore::shared().specialFeatureConsent(1, 8));

  store.setVendor(1, 8, false);  // last vendor off: master off first, nothing more to cascade
  EXPECT_THAT(announced_.take(),
              ElementsAre("specialFeatureMasterChanged featureId=1 on=false",
                          "specialFeatureVendorChanged featureId=1 on=false vendorId=8"));

  for (const std::int64_t vendor : {1, 2, 3})
    store.setVendor(2, vendor, true);
  for (const std::int64_t vendor : {4, 5})
    store.setVendor(2, vendor, false);
  announced_.take();
  store.setMaster(2, false);  // three vendors on, two off
  EXPECT_THAT(announced_.take(),
              ElementsAre("specialFeatureVendorChanged featureId=2 on=false vendorId=1",
                          "specialFeatureVendorChanged featureId=2 on=false vendorId=2",
                          "specialFeatureVendorChanged featureId=2 on=false vendorId=3",
                          "specialFeatureMasterChanged featureId=2 on=false"));
  EXPECT_FALSE(PendingConsentStore::shared().specialFeatureConsent(2, 3));
  store.setMaster(2, true);  // on switches no vendor on
  EXPECT_THAT(announced_.take(), ElementsAre("specialFeatureMasterChanged featureId=2 on=true"));
  EXPECT_FALSE(store.vendorState(2, 1));
}

TEST_F(ConsentStores, AMasterSwitchedOffTurnsOnWithItsFirstVendorAndCountsAfterReplacing) {
  SpecialFeatureConsentStore& store = SpecialFeatureConsentStore::shared();
  store.setMaster(3, false);
  announced_.take();
  store.setVendor(3, 8, true);
  EXPECT_THAT(announced_.take(),
              ElementsAre("specialFeatureMasterChanged featureId=3 on=true",
                          "specialFeatureVendorChanged featureId=3 on=true vendorId=8"));
  // Replaced states are counted anew: once the vendors on are gone, switching off the one vendor
  // switched on since switches the master off.
  store.replaceVendorStates({{3, {{8, true}}}});
  store.replaceVendorStates({});
  store.setVendor(3, 9, true);
  announced_.take();
  store.setVendor(3, 9, false);
  EXPECT_THAT(announced_.take(),
              ElementsAre("specialFeatureMasterChanged featureId=3 on=false",
                          "specialFeatureVendorChanged featureId=3 on=false vendorId=9"));
}

TEST_F(ConsentStores, AcceptEverythingSwitchesAllOnAndACommitMovesThePendingChoicesIntoTheStores) {
  const std::vector<std::int64_t> purposes{1, 2}, vendors{8, 755}, features{1};
  ConsentCommit::acceptEverything(purposes, vendors, features);
  EXPECT_THAT(announced_.take(),
              ElementsAre("specialFeatureMasterChanged featureId=1 on=true",
                          "specialFeatureVendorChanged featureId=1 on=true vendorId=8",
                          "specialFeatureVendorChanged featureId=1 on=true vendorId=755"));
  auto& pending = PendingConsentStore::shared();
  EXPECT_EQ(pending.purposeConsent(), (ConsentFlags{{1, true}, {2, true}}));
  EXPECT_EQ(pending.vendorConsent(), (ConsentFlags{{8, true}, {755, true}}));
  EXPECT_EQ(pending.specialFeatureMaster(), (ConsentFlags{{1, true}}));
  EXPECT_TRUE(SpecialFeatureConsentStore::shared().vendorState(1, 755));
  ConsentCommit::switchVendor(8, false);
  EXPECT_EQ(VendorConsentStore::shared().states(), (ConsentFlags{{8, false}}));
  SpecialFeatureConsentStore::shared().replaceMasterStates({});
  ConsentCommit::commitPending();
  EXPECT_EQ(VendorConsentStore::shared().states(), (ConsentFlags{{8, false}, {755, true}}));
  EXPECT_EQ(PurposeConsentStore::shared().states(), (ConsentFlags{{1, true}, {2, true}}));
  EXPECT_EQ(SpecialFeatureConsentStore::shared().masterStates(), (ConsentFlags{{1, true}}));
  EXPECT_EQ(store_->readDictionary(StorageKeys::specialFeatureMasterStates),
            (StoreValue::Dictionary{{"1", true}}));
}

TEST_F(ConsentStores, SpecialFeaturesPersistAndLoadBack) {
  SpecialFeatureConsentStore& store = SpecialFeatureConsentStore::shared();
  store.setVendor(1, 755, true);
  store.setVendor(1, 8, false);
  store.setMaster(2, false);
  store.persist();
  EXPECT_EQ(store_->readDictionary(StorageKeys::specialFeatureMasterStates),
            (StoreValue::Dictionary{{"1", true}, {"2", false}}));
  const auto persistedMasters = store.masterStates();
  const auto persistedVendors = store.vendorStates();
  store.replaceMasterStates({});
  store.replaceVendorStates({});
  announced_.take();
  store.loadPersisted();
  EXPECT_EQ(store.masterStates(), persistedMasters);
  EXPECT_EQ(store.vendorStates(), persistedVendors);
  EXPECT_THAT(announced_.take(), IsEmpty());  // loading announces nothing

  store.replaceMasterStates({});
  store.replaceVendorStates({});
  store.persist();  // empty maps persist as empty dictionaries
  EXPECT_EQ(store_->readDictionary(StorageKeys::specialFeatureVendorStates),
            StoreValue::Dictionary{});
}

TEST_F(ConsentStores, PersistedValuesOfTheWrongShapeAreIgnored) {
  SpecialFeatureConsentStore& store = SpecialFeatureConsentStore::shared();
  store_->set(StorageKeys::specialFeatureMasterStates, StoreValue::Dictionary{{"1", 1}});
  store_->set(StorageKeys::specialFeatureVendorStates,
              StoreValue::Dictionary{{"1", StoreValue::Dictionary{{"8", "yes"}}}});
  store.loadPersisted();
  EXPECT_THAT(store.masterStates(), IsEmpty());
  EXPECT_THAT(store.vendorStates(), IsEmpty());
  store_->set(StorageKeys::specialFeatureMasterStates, "not a dictionary");
  store.loadPersisted();
  EXPECT_THAT(store.masterStates(), IsEmpty());
}

using ConsentStoresDeathTest = ConsentStores;

TEST_F(ConsentStoresDeathTest, APersistedKeyThatIsNotAnIntegerStopsTheProcess) {
  store_->set(StorageKeys::specialFeatureMasterStates, StoreValue::Dictionary{{"one", true}});
  EXPECT_DEATH(SpecialFeatureConsentStore::shared().loadPersisted(), "not an integer");
}

}  // namespace
}  // namespace quillet
