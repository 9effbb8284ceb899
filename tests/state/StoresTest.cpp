#include <atomic>
#include <functional>
#include <optional>
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

#include "support/ConsentWalk.h"
#include "support/TestData.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(NotificationCenter, DeliversInOrderOnThePostingThreadUntilTheTokenGoes) {
  NotificationCenter center;
  EXPECT_FALSE(center.observed("n"));  // nobody observes anything yet
  std::vector<std::string> seen;
  auto first = center.addObserver("n", [&](const Notification& n) {
    seen.push_back("first " + std::to_string(*n.integer("id")) +
                   (*n.boolean("on") ? " on" : " off"));
  });
  auto second = center.addObserver("n", [&](const Notification&) { seen.push_back("second"); });
  auto other = center.addObserver("other", [&](const Notification&) { seen.push_back("other"); });
  EXPECT_TRUE(center.observed("other"));
  center.post("n", {{"id", std::int64_t{7}}, {"on", true}});
  first.reset();
  center.post("n", {{"id", std::int64_t{8}}, {"on", false}});
  EXPECT_THAT(seen, ElementsAre("first 7 on", "second", "second"));
  EXPECT_TRUE(center.observed("other"));
  other.reset();
  EXPECT_FALSE(center.observed("other"));
  EXPECT_FALSE(center.observed("never"));
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
  // An observer removed by one called before it in the same post is not called.
  NotificationCenter::Token later;
  auto first = center.addObserver("n", [&](const Notification&) { later.reset(); });
  later = center.addObserver("n", [&](const Notification&) { ++inner; });
  center.post("n");
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

// The stores are process-wide: every test starts them empty, on a store in memory, and narrates
// its walk through them (with what they persist) into testdata/golden/stores/<test>.txt.
class ConsentStores : public ::testing::Test {
 protected:
  void SetUp() override {
    Platform::install({.keyValueStore = store_});
    testing::emptyConsentStores();
    walk_.emplace([this]() -> testing::ConsentWalk::Values {
      return {{"persisted masters", persisted(StorageKeys::specialFeatureMasterStates)},
              {"persisted vendors", persisted(StorageKeys::specialFeatureVendorStates)}};
    });
  }
  void TearDown() override {
    const std::string test = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    if (!walk_->transcript.empty()) {
      EXPECT_TRUE(testing::matchesGolden("stores/" + test + ".txt", walk_->transcript));
    }
    walk_.reset();
    Platform::install({});
  }

  void step(const std::string& name, const std::function<void()>& action) {
    walk_->step(name, action);
  }

  std::string persisted(std::string_view key) const {
    const auto value = store_->get(key);
    if (!value) return "";
    const std::function<std::string(const StoreValue&)> text = [&](const StoreValue& v) {
      if (const auto* on = v.get<bool>()) return std::string(*on ? "+" : "-");
      const auto* dictionary = v.get<StoreValue::Dictionary>();
      if (dictionary == nullptr) return std::string("?");
      std::string out = "{";
      for (const auto& [name, inner] : *dictionary)
        out += " " + name + text(inner);
      return out + " }";
    };
    return text(*value);
  }

  std::shared_ptr<MemoryKeyValueStore> store_ = std::make_shared<MemoryKeyValueStore>();
  std::optional<testing::ConsentWalk> walk_;
};

// A reset switches everything off and empties legitimate interest; features without vendors get
// an empty inner map.
TEST_F(ConsentStores, PendingReset) {
  auto& pending = PendingConsentStore::shared();
  step("li 8/2 on", [&] { pending.setLiPurposeConsent(8, 2, true); });
  step("reset purposes 1 2 2, vendors 8 755, feature 1", [&] {
    const std::vector<std::int64_t> purposes{1, 2, 2}, vendors{8, 755}, features{1};
    pending.reset(purposes, vendors, features);
  });
  step("reset feature 1 only", [&] { pending.reset({}, {}, std::vector<std::int64_t>{1}); });
  EXPECT_FALSE(pending.specialFeatureConsent(1, 8));
  EXPECT_FALSE(pending.specialFeatureConsent(9, 8));
  step("feature 2 on for 8", [&] { pending.setSpecialFeatureConsent(2, 8, true); });
  EXPECT_TRUE(pending.specialFeatureConsent(2, 8));
  step("reset nothing", [&] { pending.reset({}, {}, {}); });
}

// Loading copies the stores into the pending choices and drops legitimate interest.
TEST_F(ConsentStores, PendingLoad) {
  step("stores: purpose 1 on, vendors 8 on 10 off, feature 2 on for 8, li 8/7", [] {
    PurposeConsentStore::shared().replaceStates({{1, true}});
    VendorConsentStore::shared().replaceStates({{8, true}, {10, false}});
    SpecialFeatureConsentStore::shared().setVendor(2, 8, true);
    PendingConsentStore::shared().setLiPurposeConsent(8, {{7, true}});
  });
  step("load", [] {
    PendingConsentStore::shared().load(VendorConsentStore::shared(), PurposeConsentStore::shared(),
                                       SpecialFeatureConsentStore::shared());
  });
}

// Only real changes are announced; an absent switch counts as changed.
TEST_F(ConsentStores, VendorAndPurposeSwitches) {
  auto& vendors = VendorConsentStore::shared();
  for (const bool on : {false, false, true})
    step(std::string("vendor 5 ") + (on ? "on" : "off"), [&] { vendors.setConsent(5, on); });
  step("replace vendors 2 on 1 off, purposes 3 on", [&] {
    vendors.replaceStates({{2, true}, {1, false}});
    PurposeConsentStore::shared().replaceStates({{3, true}});
  });
}

// The first vendor on switches the master on first; the last one off switches it off; a master
// off switches its vendors off, a master on switches none on; replaced states are counted anew.
TEST_F(ConsentStores, SpecialFeatureCascades) {
  auto& store = SpecialFeatureConsentStore::shared();
  step("feature 1 on for 8", [&] { store.setVendor(1, 8, true); });
  step("feature 1 off for 8", [&] { store.setVendor(1, 8, false); });
  step("feature 2 on for 1 2 3, off for 4 5", [&] {
    for (const std::int64_t vendor : {1, 2, 3, 4, 5})
      store.setVendor(2, vendor, vendor <= 3);
  });
  step("master 2 off", [&] { store.setMaster(2, false); });
  step("master 2 on", [&] { store.setMaster(2, true); });
  EXPECT_FALSE(store.vendorState(2, 1));
  EXPECT_FALSE(store.vendorState(2, 99));
  step("master 3 off", [&] { store.setMaster(3, false); });
  step("feature 3 on for 8", [&] { store.setVendor(3, 8, true); });
  step("vendor states replaced twice, the second time with none", [&] {
    store.replaceVendorStates({{3, {{8, true}}}});
    store.replaceVendorStates({});
  });
  step("feature 3 on for 9", [&] { store.setVendor(3, 9, true); });
  step("feature 3 off for 9", [&] { store.setVendor(3, 9, false); });
}

// Accept everything switches all on; a commit moves the pending choices into the stores.
TEST_F(ConsentStores, AcceptEverythingAndCommit) {
  step("accept purposes 1 2, vendors 8 755, feature 1", [] {
    const std::vector<std::int64_t> purposes{1, 2}, vendors{8, 755}, features{1};
    ConsentCommit::acceptEverything(purposes, vendors, features);
  });
  step("switch vendor 8 off", [] { ConsentCommit::switchVendor(8, false); });
  step("masters replaced with none",
       [] { SpecialFeatureConsentStore::shared().replaceMasterStates({}); });
  step("commit", [] { ConsentCommit::commitPending(); });
}

// What is persisted loads back without announcing anything; empty maps persist as empty.
TEST_F(ConsentStores, SpecialFeaturesPersistAndLoadBack) {
  auto& store = SpecialFeatureConsentStore::shared();
  step("feature 1 on for 755, off for 8; master 2 off; persist", [&] {
    store.setVendor(1, 755, true);
    store.setVendor(1, 8, false);
    store.setMaster(2, false);
    store.persist();
  });
  step("states replaced with none", [&] {
    store.replaceMasterStates({});
    store.replaceVendorStates({});
  });
  step("load persisted", [&] { store.loadPersisted(); });
  step("states replaced with none, persist", [&] {
    store.replaceMasterStates({});
    store.replaceVendorStates({});
    store.persist();
  });
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
