#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "quillet/base/Platform.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/storage/SqliteKeyValueStore.h"
#include "quillet/storage/StorageKeys.h"

#include "support/ScopedEnvironment.h"
#include "support/TempDirectory.h"
#include "support/TestData.h"

namespace quillet {
namespace {

// Runs against a fresh store of each kind, installed as the library's store.
class ConsentStorageTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "memory") {
      store_ = std::make_shared<MemoryKeyValueStore>();
    } else {
      store_ = SqliteKeyValueStore::open(directory_ / "store.sqlite").value();
    }
    Platform::install({.keyValueStore = store_});
  }
  void TearDown() override { Platform::install({}); }

  testing::TempDirectory directory_;
  std::shared_ptr<KeyValueStore> store_;
};

TEST_P(ConsentStorageTest, SavingWithoutAStringClearsTheOldOne) {
  ConsentStorage::saveConsent(false, "CQ-old");
  EXPECT_FALSE(ConsentStorage::getConsent());
  EXPECT_EQ(ConsentStorage::getTCString(), "CQ-old");
  ConsentStorage::saveConsent(true, std::nullopt);
  EXPECT_TRUE(ConsentStorage::getConsent());
  EXPECT_EQ(ConsentStorage::getTCString(), std::nullopt);
  // Values of the wrong kind read as absent, 0 or false, following the store's conversions.
  store_->set(StorageKeys::tcString, 5);
  EXPECT_EQ(ConsentStorage::getTCString(), std::nullopt);
  store_->set(StorageKeys::consent, "YES");
  EXPECT_TRUE(ConsentStorage::getConsent());
}

TEST_P(ConsentStorageTest, TheVendorListRoundTripsAsJsonBytes) {
  const auto gvl = testing::jsonObject(testing::testdataText("gvl-v3-106.json"));
  ConsentStorage::saveGVL(gvl);
  EXPECT_TRUE(store_->readBytes(StorageKeys::gvlJson).has_value());
  EXPECT_EQ(ConsentStorage::loadGVL(), gvl);

  // A document JSON cannot represent leaves the cached one in place.
  boost::json::object broken{{"vendorListVersion", std::numeric_limits<double>::infinity()}};
  ConsentStorage::saveGVL(broken);
  EXPECT_EQ(ConsentStorage::loadGVL(), gvl);

  // Bytes that are not JSON, or JSON that is not an object, load as nothing.
  store_->set(StorageKeys::gvlJson, Bytes{'{', 'x'});
  EXPECT_EQ(ConsentStorage::loadGVL(), std::nullopt);
  store_->set(StorageKeys::gvlJson, Bytes{'[', ']'});
  EXPECT_EQ(ConsentStorage::loadGVL(), std::nullopt);
  store_->set(StorageKeys::gvlJson, "{}");  // text, not bytes
  EXPECT_EQ(ConsentStorage::loadGVL(), std::nullopt);
}

TEST_P(ConsentStorageTest, ResetForgetsConsentButKeepsDeviceAndSpecialFeatures) {
  ConsentStorage::saveConsent(true, "CQ");
  ConsentStorage::saveGVL(boost::json::object{{"vendorListVersion", 106}});
  ConsentStorage::setConfigVersion(7);
  ConsentStorage::setVendorListVersion(106);
  store_->set(StorageKeys::deviceId, "8E3B6C5E-0000-4000-8000-000000000000");
  store_->set(StorageKeys::specialFeatureMasterStates, StoreValue::Dictionary{{"1", true}});
  EXPECT_EQ(ConsentStorage::getConfigVersion(), 7);
  EXPECT_EQ(ConsentStorage::getVendorListVersion(), 106);

  ConsentStorage::resetConsent();  // as if nothing had been saved
  EXPECT_FALSE(ConsentStorage::getConsent());
  EXPECT_EQ(ConsentStorage::getTCString(), std::nullopt);
  EXPECT_EQ(ConsentStorage::loadGVL(), std::nullopt);
  EXPECT_EQ(ConsentStorage::getConfigVersion(), 0);
  EXPECT_EQ(ConsentStorage::getVendorListVersion(), 0);
  EXPECT_TRUE(store_->get(StorageKeys::deviceId).has_value());
  EXPECT_EQ(store_->readDictionary(StorageKeys::specialFeatureMasterStates),
            (StoreValue::Dictionary{{"1", true}}));
}

INSTANTIATE_TEST_SUITE_P(Stores, ConsentStorageTest, ::testing::Values("memory", "sqlite"),
                         [](const auto& info) { return info.param; });

TEST(ConsentStorageDefault, OpensTheSqliteStoreAtTheDefaultPathOnFirstUse) {
  const testing::TempDirectory home;
  const testing::ScopedEnvironment dataHome("XDG_DATA_HOME", home.path().string());
  Platform::install({});
  ConsentStorage::saveConsent(true, "CQ-default");
  EXPECT_TRUE(std::filesystem::exists(home / "quillet/store.sqlite"));
  Platform::install({});  // a fresh open of the same file
  EXPECT_EQ(ConsentStorage::getTCString(), "CQ-default");
}

}  // namespace
}  // namespace quillet
