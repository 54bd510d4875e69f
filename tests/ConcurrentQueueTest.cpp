#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "input/ConcurrentQueue.h"

namespace {

TEST(ConcurrentQueue, DeliversMoveOnlyItemsInOrder) {
  ConcurrentQueue<std::unique_ptr<int>> queue;
  for (int i = 0; i < 5; ++i) queue.Enqueue(std::make_unique<int>(i));
  EXPECT_EQ(queue.Size(), 5u);
  for (int i = 0; i < 5; ++i) {
    std::unique_ptr<int> item;
    ASSERT_TRUE(queue.Dequeue(item));
    EXPECT_EQ(*item, i);
  }
  std::unique_ptr<int> none;
  EXPECT_FALSE(queue.TryDequeue(none, 1));
  EXPECT_EQ(none, nullptr);
}

TEST(ConcurrentQueue, DequeueWaitsForAProducer) {
  ConcurrentQueue<int> queue;
  std::thread producer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    queue.Enqueue(42);
  });
  int item = 0;
  EXPECT_TRUE(queue.Dequeue(item));
  EXPECT_EQ(item, 42);
  producer.join();
}

TEST(ConcurrentQueue, AbortWakesEveryWaiterAndDropsWhatIsQueued) {
  ConcurrentQueue<std::function<void()>> queue;
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      std::function<void()> job;
      if (!queue.Dequeue(job)) ++woken;
    });
  }
  std::thread timed([&] {
    std::function<void()> job;
    if (!queue.TryDequeue(job, 60000)) ++woken;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  queue.Abort();
  for (auto& t : waiters) t.join();
  timed.join();
  EXPECT_EQ(woken, 4);

  bool ran = false;
  queue.Enqueue([&] { ran = true; });
  std::function<void()> job;
  EXPECT_FALSE(queue.Dequeue(job));
  EXPECT_FALSE(ran);
  EXPECT_TRUE(queue.IsAborted());
}

TEST(ConcurrentQueue, ManyProducersAndConsumersDeliverEachItemOnce) {
  ConcurrentQueue<int> queue;
  constexpr int kProducers = 4, kPerProducer = 5000;
  std::vector<std::atomic<int>> seen(kProducers * kPerProducer);
  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; ++p) {
    threads.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i) queue.Enqueue(p * kPerProducer + i);
    });
  }
  std::atomic<int> received{0};
  for (int c = 0; c < 3; ++c) {
    threads.emplace_back([&] {
      int item;
      while (queue.Dequeue(item)) {
        ++seen[static_cast<size_t>(item)];
        if (++received == kProducers * kPerProducer) queue.Abort();
      }
    });
  }
  for (auto& t : threads) t.join();
  for (const auto& count : seen) ASSERT_EQ(count, 1);
}

}  // namespace
