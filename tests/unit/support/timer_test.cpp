#include "support/timer.hpp"

#include "support/socketio_fixture.hpp"

#include <gtest/gtest.h>

#include <atomic>

using namespace qnbrl;
using namespace std::chrono_literals;
using testing_support::waitUntil;

namespace {

class QNBRLTimerTest : public ::testing::Test {
 protected:
  testing_support::ManualTime time;
  std::atomic<int> fired = 0;
};

}  // namespace

TEST_F(QNBRLTimerTest, OneShotFiresOnceOneIntervalAfterTheCallAndReleasesItself) {
  std::weak_ptr<QNBRLTimer> weak = QNBRLTimer::startTimer(2.0, false, [&] {
    EXPECT_TRUE(MainQueue::isCurrent());
    ++fired;
  });
  ASSERT_FALSE(weak.expired());  // the scheduled timer keeps itself alive
  time.advance(1999ms);
  EXPECT_EQ(fired, 0);
  time.advance(1ms);
  EXPECT_EQ(fired, 1);
  time.advance(10s);
  EXPECT_EQ(fired, 1);
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(time.clock().pending(), 0u);
}

TEST_F(QNBRLTimerTest, RepeatingKeepsItsCadenceUntilStopped) {
  auto timer = QNBRLTimer::startTimer(1.0, true, [&] { ++fired; });
  for (int i = 1; i <= 3; ++i) {
    time.advance(1s);
    EXPECT_EQ(fired, i);
  }
  // Firings missed in one long step collapse into one, and the cadence stays on whole seconds.
  time.advance(3500ms);
  EXPECT_EQ(fired, 4);
  time.advance(499ms);
  EXPECT_EQ(fired, 4);
  time.advance(1ms);
  EXPECT_EQ(fired, 5);
  std::weak_ptr<QNBRLTimer> weak = timer;
  timer->stop();
  timer->stop();
  timer.reset();
  time.advance(5s);
  EXPECT_EQ(fired, 5);
  EXPECT_TRUE(weak.expired());
}

TEST_F(QNBRLTimerTest, StopBeforeTheFirstFiringOrFromInsideTheBlockEndsIt) {
  QNBRLTimer::startTimer(1.0, true, [&] { ++fired; })->stop();
  std::shared_ptr<QNBRLTimer> timer;
  timer = QNBRLTimer::startTimer(1.0, true, [&] {
    fired += 10;
    timer->stop();
  });
  time.advance(1s);
  time.advance(5s);
  EXPECT_EQ(fired, 10);
}

TEST_F(QNBRLTimerTest, FiresAsATaskOfTheGivenSerialQueue) {
  auto queue = SerialQueue::create("com.qn.logan.timer.queue");
  std::atomic<bool> onQueue = false;
  auto timer = QNBRLTimer::startTimer(
      60.0, true,
      [&] {
        onQueue = queue->isCurrent();
        ++fired;
      },
      queue);
  time.clock().advance(60s);
  ASSERT_TRUE(waitUntil([&] { return fired == 1; }));
  EXPECT_TRUE(onQueue);
  ASSERT_TRUE(waitUntil([&] { return time.clock().pending() == 1; }));  // re-armed for the next tick
  timer->stop();
  EXPECT_EQ(time.clock().pending(), 0u);
}

TEST_F(QNBRLTimerTest, NonPositiveIntervalsDoNotFireAtOnce) {
  auto timer = QNBRLTimer::startTimer(-1.0, true, [&] { ++fired; });
  MainQueue::sync([] {});
  EXPECT_EQ(fired, 0);
  time.clock().advance(100us);
  MainQueue::sync([] {});
  EXPECT_EQ(fired, 1);
  timer->stop();
}
