// The application's hold on a client: releasing it from another thread or from inside the client's own
// callbacks, and renewals that meet a failover on the main queue.
#include "support/session_fixture.hpp"

#include <future>
#include <thread>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

enum class Release { FromAnotherThread, FromTheCallback };

class ReleaseTest : public SessionTest, public testing::WithParamInterface<Release> {};

// The (3, 2) report is under way when the application lets go: the login completion that would follow
// it, and the (1, 6) of the closing connection, must never begin.
TEST_P(ReleaseTest, NothingBeginsOnceTheReleaseHasReturned) {
  auto delegate = std::make_shared<QNBRLDelegate>();
  std::shared_ptr<QNBRLKit> kit = makeKit(delegate);
  std::promise<void> delivering, released;
  std::atomic<bool> releaseReturned{false};
  std::mutex mutex;
  std::vector<Change> heard;
  delegate->connectionStateChanged = [&](QNBRLKit&, QNBRLConnectionState s, QNBRLConnectionChangeReason r) {
    {
      std::lock_guard lock(mutex);
      heard.emplace_back(static_cast<int>(s), static_cast<int>(r));
      EXPECT_FALSE(releaseReturned) << "a callback began after the release had returned";
    }
    if (s != QNBRLConnectionState::Connected) return;
    if (GetParam() == Release::FromTheCallback) {
      kit.reset();
      releaseReturned = true;
      return;
    }
    delivering.set_value();
    EXPECT_EQ(released.get_future().wait_for(10s), std::future_status::ready);
  };
  Codes codes;
  kit->loginByToken("token-1", 1700000000000, "mia", codes.completion());
  if (GetParam() == Release::FromAnotherThread) {
    ASSERT_EQ(delivering.get_future().wait_for(10s), std::future_status::ready);
    kit.reset();  // the main queue is held by the callback: this must not wait for it
    releaseReturned = true;
    released.set_value();
  }
  ASSERT_TRUE(waitUntil([&] { return releaseReturned.load(); }));
  ASSERT_TRUE(waitUntil([] { return live(A) == 0; }));
  MainQueue::sync([] {});
  EXPECT_TRUE(codes.all().empty());
  std::lock_guard lock(mutex);
  EXPECT_EQ(heard, (std::vector<Change>{{2, 1}, {3, 2}}));
}

INSTANTIATE_TEST_SUITE_P(Client, ReleaseTest,
                         testing::Values(Release::FromAnotherThread, Release::FromTheCallback));

// loginByToken tells (2, 1) on the caller's thread; a delegate that lets go there must not leave the
// rest of loginByToken on freed memory, and nothing is sent for a client that is gone.
TEST_F(SessionTest, ReleasedInsideTheFirstReportLoginStopsThere) {
  auto delegate = std::make_shared<QNBRLDelegate>();
  std::shared_ptr<QNBRLKit> kit = makeKit(delegate);
  int reports = 0;
  delegate->connectionStateChanged = [&](QNBRLKit&, QNBRLConnectionState, QNBRLConnectionChangeReason) {
    ++reports;
    kit.reset();
  };
  Codes codes;
  kit->loginByToken("token-1", 1700000000000, "noah", codes.completion());
  EXPECT_FALSE(kit);
  // A second client's whole login is the bound: the first one's would have come before it.
  auto other = makeKit(std::make_shared<QNBRLDelegate>());
  ASSERT_EQ(login(*other, "noah2"), 0);
  EXPECT_EQ(reports, 1);
  EXPECT_TRUE(codes.all().empty());
  EXPECT_EQ(server_->discoveryRequests().size(), 1u);
}

// Renewal rebuilds the socket while the main queue fails over along the list and reconnects: under
// the thread sanitizer this must be race-free, and the client must come out of it usable.
TEST_F(SessionTest, RenewalDuringFailoverIsRaceFree) {
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "olga"), 0);
  for (int server : {B, C}) ASSERT_TRUE(server_->stopTavern(server));
  ASSERT_TRUE(server_->dropTransport(A, ""));
  ASSERT_TRUE(server_->stopTavern(A));
  std::atomic<bool> done{false};
  std::thread renewer([&] {
    for (int i = 0; i < 200; ++i) {
      kit->renewToken(std::string(31, 'r') + static_cast<char>('a' + i % 26), 1800000000000 + i,
                      [](const std::string&, int code) { EXPECT_EQ(code, 0); });
    }
    done = true;
  });
  // Attempts fail at once on the stopped servers; the clock moves every pause of the series along.
  for (int i = 0; i < 1000 && !done; ++i) {
    time_.advance(1s);
    MainQueue::sync([] {});
  }
  renewer.join();
  // The client is not wedged: it logs out (behind any pause) and in again.
  for (int server : {A, B, C}) ASSERT_FALSE(server_->startTavern(server).empty());
  Codes out;
  kit->logoutWithCompletion(out.completion());
  ASSERT_TRUE(waitUntil([&] {
    time_.advance(6s);
    return !out.all().empty();
  }));
  EXPECT_EQ(out.all(), std::vector<int>{0});
  ASSERT_EQ(login(*kit, "olga"), 0);
  EXPECT_EQ(live(A) + live(B) + live(C), 1u);
}

}  // namespace
