#include "support/queues.hpp"
#include "socketio/clock.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

using namespace qnbrl;
using testing_support::waitUntil;

TEST(SerialQueue, RunsTasksInOrderAndWaitingTaskHoldsTheQueue) {
  auto q = SerialQueue::create("test");
  std::vector<int> order;
  std::function<void()> release;
  q->async([&] { order.push_back(1); });
  q->asyncWaiting([&](std::function<void()> done) {
    order.push_back(2);
    release = std::move(done);
  });
  q->async([&] { order.push_back(3); });
  ASSERT_TRUE(waitUntil([&] { return order.size() == 2; }));
  std::atomic<bool> third_ran = false;
  q->async([&] { third_ran = true; });
  EXPECT_EQ(order.size(), 2u);  // still held by the waiting task
  release();
  q->sync([] {});
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(third_ran);
}

TEST(SerialQueue, CancelPendingDropsQueuedWork) {
  auto q = SerialQueue::create("test");
  std::function<void()> release;
  std::atomic<int> ran = 0;
  q->asyncWaiting([&](std::function<void()> done) { release = std::move(done); });
  q->async([&] { ++ran; });
  ASSERT_TRUE(waitUntil([&] { return static_cast<bool>(release); }));
  q->cancelPending();
  release();
  q->sync([] {});
  EXPECT_EQ(ran, 0);
}

TEST(ManualClock, FiresDueTimersInDeadlineOrderAndHonoursCancel) {
  auto clock = std::make_shared<sio::ManualClock>();
  std::vector<int> fired;
  auto ex = MainQueue::executor();
  clock->schedule(ex, std::chrono::seconds(6), [&] { fired.push_back(6); });
  clock->schedule(ex, std::chrono::seconds(1), [&] { fired.push_back(1); });
  auto cancelled = clock->schedule(ex, std::chrono::seconds(2), [&] { fired.push_back(2); });
  cancelled->cancel();
  clock->advance(std::chrono::milliseconds(5999));
  MainQueue::sync([] {});
  EXPECT_EQ(fired, (std::vector<int>{1}));
  clock->advance(std::chrono::milliseconds(1));
  MainQueue::sync([] {});
  EXPECT_EQ(fired, (std::vector<int>{1, 6}));
  EXPECT_EQ(clock->pending(), 0u);
}

TEST(SteadyClock, CancelledTimerNeverRuns) {
  std::atomic<int> ran = 0;
  auto ex = MainQueue::executor();
  auto t = sio::Clock::current().schedule(ex, std::chrono::milliseconds(1), [&] { ran += 1; });
  auto t2 = sio::Clock::current().schedule(ex, std::chrono::milliseconds(2), [&] { ran += 10; });
  t->cancel();
  ASSERT_TRUE(waitUntil([&] { return ran.load() >= 10; }));
  MainQueue::sync([] {});
  EXPECT_EQ(ran, 10);
}
