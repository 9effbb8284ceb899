#include <atomic>
#include <functional>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/base/Platform.h"
#include "quillet/state/NotificationCenter.h"
#include "quillet/state/NotificationNames.h"
#include "quillet/state/PendingConsentStore.h"
#include "quillet/state/SpecialFeatureConsentStore.h"
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
// its walk through them into testdata/golden/stores/<test>.txt.
class ConsentStores : public ::testing::Test {
 protected:
  void SetUp() override {
    Platform::install({.keyValueStore = store_});
    testing::emptyConsentStores();
    walk_.emplace();
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

// With no one listening and logging off, a stored string brings the special features back in
// one pass: it must end where the announced walk through setMaster and setVendor ends, and leave
// the count of vendors on right for the switches that follow.
TEST(SpecialFeatureResync, UnobservedEndsWhereTheAnnouncedWalkEnds) {
  struct Row {
    const char* name;
    bool isOn;
    bool masterBefore;
    ConsentFlags before;
    std::vector<std::int64_t> vendors;
  };
  const Row rows[] = {
      {"off: vendors on go off, absent ones enter off",
       false,
       true,
       {{3, true}, {8, true}, {9, false}},
       {8, 9, 10}},
      {"on: a vendor on outside the list keeps the master on", true, false, {{3, true}}, {8, 10}},
      {"on: no vendor on turns the master off", true, true, {{8, false}}, {8, 10}},
      {"on: vendors on in the list", true, true, {{8, true}, {10, true}}, {8, 10, 12}},
      {"on: no vendors to rewrite keeps the master", true, false, {}, {}},
      {"off: a feature without vendors", false, true, {}, {5}},
  };
  Platform::install({.keyValueStore = std::make_shared<MemoryKeyValueStore>()});
  auto& features = SpecialFeatureConsentStore::shared();
  auto& pending = PendingConsentStore::shared();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto walk = [&](bool observed) {
      testing::emptyConsentStores();
      features.replaceVendorStates({{1, row.before}});
      features.assignMaster(1, row.masterBefore);
      pending.setSpecialFeatureConsent(1, 99, true);
      NotificationCenter::Token token;
      if (observed) {
        token = NotificationCenter::defaultCenter().addObserver(
            std::string(NotificationNames::specialFeatureVendorChanged),
            [](const Notification&) {});
      }
      features.resynchronise(1, row.isOn, row.vendors);
      std::string states = testing::ConsentWalk::text(features.masterStates()) + " | " +
                           testing::ConsentWalk::text(features.vendorStates()) + "| " +
                           testing::ConsentWalk::text(pending.specialFeatureMaster()) + " | " +
                           testing::ConsentWalk::text(pending.specialFeatureConsent());
      features.setVendor(1, 12, true);
      features.setVendor(1, 12, false);
      return states + " | then " + testing::ConsentWalk::text(features.masterStates());
    };
    EXPECT_EQ(walk(false), walk(true));
  }
  testing::emptyConsentStores();
  Platform::install({});
}

using ConsentStoresDeathTest = ConsentStores;

TEST_F(ConsentStoresDeathTest, APersistedKeyThatIsNotAnIntegerStopsTheProcess) {
  store_->set(StorageKeys::specialFeatureMasterStates, StoreValue::Dictionary{{"one", true}});
  EXPECT_DEATH(SpecialFeatureConsentStore::shared().loadPersisted(), "not an integer");
}

}  // namespace
}  // namespace quillet
