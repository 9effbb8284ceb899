// A list made on first read: once, by the first of several readers, with its size known before.

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "quillet/base/SharedList.h"

namespace quillet {
namespace {

TEST(SharedList, ADeferredListIsMadeOnceByItsFirstReader) {
  std::atomic<int> made{0};
  auto held = std::make_shared<int>(7);
  const auto list = SharedList<int>::deferred(3, [&made, held] {
    ++made;
    return std::vector<int>{1, 2, *held};
  });
  const SharedList<int> copy = list;
  EXPECT_EQ(copy.size(), 3u);
  EXPECT_FALSE(copy.empty());
  EXPECT_EQ(made, 0);
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i)
    readers.emplace_back([&list] { EXPECT_EQ(list.get(), (std::vector<int>{1, 2, 7})); });
  for (auto& reader : readers)
    reader.join();
  EXPECT_EQ(copy[2], 7);
  EXPECT_EQ(made, 1);
  EXPECT_EQ(held.use_count(), 1);  // what making it needed is released
  EXPECT_TRUE(SharedList<int>().empty());
  EXPECT_EQ(SharedList<int>(std::vector<int>{4}).get(), std::vector<int>{4});
}

}  // namespace
}  // namespace quillet
