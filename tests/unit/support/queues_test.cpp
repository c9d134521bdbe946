#include "support/queues.hpp"
#include "socketio/clock.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

using namespace qnbrl;
using testing_support::waitUntil;
using namespace std::chrono_literals;

TEST(SerialQueue, RunsTasksInOrderAndWaitingTaskHoldsTheQueue) {
  auto q = SerialQueue::create("test");
  std::mutex m;
  std::vector<int> order;
  auto record = [&](int i) {
    return [&, i] {
      std::lock_guard lock(m);
      order.push_back(i);
    };
  };
  auto seen = [&] {
    std::lock_guard lock(m);
    return order;
  };
  std::promise<std::function<void()>> held;
  q->async(record(1));
  q->asyncWaiting([&](std::function<void()> done) {
    record(2)();
    held.set_value(std::move(done));
  });
  q->async(record(3));
  auto release = held.get_future().get();
  // The third task must not start while the second holds the queue: a queue that let it through
  // would run it well within this window.
  EXPECT_FALSE(waitUntil([&] { return seen().size() > 2; }, 100ms));
  EXPECT_EQ(seen(), (std::vector<int>{1, 2}));
  release();
  q->sync([] {});
  EXPECT_EQ(seen(), (std::vector<int>{1, 2, 3}));
}

TEST(SerialQueue, CancelPendingDropsQueuedWork) {
  auto q = SerialQueue::create("test");
  std::promise<std::function<void()>> held;
  std::atomic<int> ran = 0;
  q->asyncWaiting([&](std::function<void()> done) { held.set_value(std::move(done)); });
  q->async([&] { ++ran; });
  auto release = held.get_future().get();
  q->cancelPending();
  release();
  q->sync([] {});
  EXPECT_EQ(ran, 0);
}

// Not firing before the deadline is covered by the timer tests.
TEST(ManualClock, FiresDueTimersInDeadlineOrderThenSchedulingOrderAndHonoursCancel) {
  sio::ManualClock clock;
  std::vector<int> fired;
  auto ex = MainQueue::executor();
  clock.schedule(ex, 6s, [&] { fired.push_back(6); });
  clock.schedule(ex, 1s, [&] { fired.push_back(1); });
  clock.schedule(ex, 6s, [&] { fired.push_back(7); });
  clock.schedule(ex, 2s, [&] { fired.push_back(2); })->cancel();
  clock.advance(6s);
  MainQueue::sync([] {});
  EXPECT_EQ(fired, (std::vector<int>{1, 6, 7}));
  EXPECT_EQ(clock.pending(), 0u);
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

// Admission posts each start to the main queue at once, so one sync shows every start let in so far.
TEST(AdmissionGate, LetsInAtMostItsLimitInArrivalOrderUntilTheLastOwnerOfATicketDropsIt) {
  AdmissionGate gate(2);
  std::vector<int> admitted;                   // main queue only
  std::vector<AdmissionGate::Ticket> tickets;  // main queue only
  for (int i = 0; i < 5; ++i) {
    gate.enter([&, i](AdmissionGate::Ticket ticket) {
      EXPECT_TRUE(MainQueue::isCurrent());
      admitted.push_back(i);
      tickets.push_back(std::move(ticket));
    });
  }
  auto seen = [&] {
    std::vector<int> copy;
    MainQueue::sync([&] { copy = admitted; });
    return copy;
  };
  EXPECT_EQ(seen(), (std::vector<int>{0, 1}));

  // A ticket with two owners keeps its place until both have let go, from any thread.
  AdmissionGate::Ticket shared;
  MainQueue::sync([&] { shared = std::exchange(tickets[0], nullptr); });
  AdmissionGate::Ticket other = shared;
  shared.reset();
  EXPECT_EQ(seen(), (std::vector<int>{0, 1}));
  other.reset();
  EXPECT_EQ(seen(), (std::vector<int>{0, 1, 2}));

  // Both places given back at once: the next two come in, in order.
  std::vector<AdmissionGate::Ticket> dropped;
  MainQueue::sync([&] { dropped = std::exchange(tickets, {}); });
  dropped.clear();
  EXPECT_EQ(seen(), (std::vector<int>{0, 1, 2, 3, 4}));
}
