#include "support/queues.hpp"
#include "socketio/clock.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <vector>

using namespace qnbrl;
using testing_support::waitUntil;

TEST(SerialQueue, RunsTasksInOrderAndWaitingTaskHoldsTheQueue) {
  auto q = SerialQueue::create("test");
  std::mutex m;
  std::vector<int> order;
  std::function<void()> release;
  auto seen = [&] {
    std::lock_guard lock(m);
    return order;
  };
  q->async([&] {
    std::lock_guard lock(m);
    order.push_back(1);
  });
  q->asyncWaiting([&](std::function<void()> done) {
    std::lock_guard lock(m);
    order.push_back(2);
    release = std::move(done);
  });
  q->async([&] {
    std::lock_guard lock(m);
    order.push_back(3);
  });
  ASSERT_TRUE(waitUntil([&] { return seen().size() == 2; }));
  EXPECT_EQ(seen().size(), 2u);  // still held by the waiting task
  std::function<void()> done;
  {
    std::lock_guard lock(m);
    done = std::move(release);
  }
  done();
  q->sync([] {});
  EXPECT_EQ(seen(), (std::vector<int>{1, 2, 3}));
}

TEST(SerialQueue, CancelPendingDropsQueuedWork) {
  auto q = SerialQueue::create("test");
  std::promise<std::function<void()>> release;
  std::atomic<int> ran = 0;
  q->asyncWaiting([&](std::function<void()> done) { release.set_value(std::move(done)); });
  q->async([&] { ++ran; });
  auto done = release.get_future().get();
  q->cancelPending();
  done();
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

TEST(Queues, SyncHelpersRethrowInsteadOfWaitingForEver) {
  auto q = SerialQueue::create("test");
  auto fail = [] { throw std::runtime_error("boom"); };
  EXPECT_THROW(q->sync(fail), std::runtime_error);
  EXPECT_THROW(MainQueue::sync(fail), std::runtime_error);
  // Both queues still run work afterwards.
  std::atomic<int> ran = 0;
  q->sync([&] { ++ran; });
  MainQueue::sync([&] { ++ran; });
  EXPECT_EQ(ran, 2);
}
