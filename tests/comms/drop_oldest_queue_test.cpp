#include "comms/drop_oldest_queue.h"

#include <gmock/gmock.h>

namespace varnel::comms {
namespace {

TEST(DropOldestQueueTest, LosesItsOldestAtItsLimitOfItemsAndOfBytes) {
  DropOldestQueue<int> queue;
  std::vector<size_t> full;
  const auto push = [&](int item, size_t bytes) {
    queue.Push(item, bytes, [&](size_t queued) { full.push_back(queued); });
  };
  for (int item = 0; item <= 256; ++item) push(item, 1);
  EXPECT_EQ(queue.Pop(), 1);
  push(257, (size_t{64} << 20U) - 255);
  EXPECT_THAT(full, testing::ElementsAre(256));
  (void)queue.Pop();
  push(258, 2);
  EXPECT_EQ(queue.Pop(), 4);
  push(259, (size_t{64} << 20U) + 1);
  EXPECT_EQ(queue.Pop(), 259) << "alone, whatever its size";
}

}  // namespace
}  // namespace varnel::comms
