#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quillet/codec/QLTCMPUtils.h"

namespace quillet {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using V = std::vector<std::int64_t>;

TEST(ListHelpers, CsvStringJoinsInOrder) {
  EXPECT_EQ(QLTCMPUtils::csvString(V{3, 1, 2}), "3,1,2");
  EXPECT_EQ(QLTCMPUtils::csvString(V{-4}), "-4");
  EXPECT_EQ(QLTCMPUtils::csvString(V{}), "");
}

TEST(ListHelpers, ParseCsvKeepsTheIntegerPiecesInOrder) {
  EXPECT_THAT(QLTCMPUtils::parseCSV(" 1, 2,,x, 3 "), ElementsAre(1, 2, 3));
  EXPECT_THAT(QLTCMPUtils::parseCSV("5,5,-2,+7"), ElementsAre(5, 5, -2, 7));
  EXPECT_THAT(QLTCMPUtils::parseCSV("\t9\n,1 2,3.0,0x4,-,+"), ElementsAre(9));
  EXPECT_THAT(QLTCMPUtils::parseCSV("99999999999999999999,1"), ElementsAre(1));
  EXPECT_THAT(QLTCMPUtils::parseCSV(""), IsEmpty());
  const V ids{7, 0, -3, 7, 12};
  EXPECT_EQ(QLTCMPUtils::parseCSV(QLTCMPUtils::csvString(ids)), ids);
}

TEST(ListHelpers, AllPurposesGivenComparesAsSets) {
  EXPECT_TRUE(QLTCMPUtils::allPurposesGiven(V{1, 2}, V{}));
  EXPECT_TRUE(QLTCMPUtils::allPurposesGiven(V{3, 1, 2}, V{2, 2, 1}));
  EXPECT_FALSE(QLTCMPUtils::allPurposesGiven(V{1, 2}, V{1, 4}));
  EXPECT_FALSE(QLTCMPUtils::allPurposesGiven(V{}, V{1}));
}

}  // namespace
}  // namespace quillet
