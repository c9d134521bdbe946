// The connection state machine after login: lost connections and the back-off series, the server
// order of the attempts, kick-off, session expiry, token expiry, and logouts and destruction that
// meet a reconnection half-way.
#include "diagnostics/logan_file_manager.hpp"
#include "diagnostics/logan_manager.hpp"
#include "support/paths.hpp"
#include "support/session_fixture.hpp"
#include "support/text.hpp"

#include <filesystem>
#include <fstream>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

class ReconnectionTest : public SessionTest {
 protected:
  // Cuts the client's connection on `server` and checks that the next attempt waits exactly `pause`,
  // then lands on `next` and logs in again.
  void loseAndExpect(int server, std::chrono::seconds pause, int next) {
    auto before = server_->logins().size();
    ASSERT_TRUE(server_->dropTransport(server, ""));
    ASSERT_TRUE(awaitPause(pause));
    time_.advance(pause - 1ms);
    EXPECT_EQ(time_.clock().next_deadline() - time_.clock().now(), 1ms) << "attempt started early";
    time_.advance(1ms);
    ASSERT_TRUE(waitUntil([&] { return server_->logins().size() == before + 1; }));
    EXPECT_EQ(server_->logins().back().server, next);
  }
};

TEST_F(ReconnectionTest, PausesGrowAndTheSeriesContinuesAfterASuccess) {
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "alice"), 0);
  testing::internal::CaptureStdout();
  loseAndExpect(A, 1s, B);
  ASSERT_TRUE(listener.waitFor({3, 2}, 2));
  loseAndExpect(B, 2s, C);  // the index is not reset by the success
  ASSERT_TRUE(listener.waitFor({3, 2}, 3));
  loseAndExpect(C, 4s, A);
  ASSERT_TRUE(listener.waitFor({3, 2}, 4));
  loseAndExpect(A, 6s, B);
  ASSERT_TRUE(listener.waitFor({3, 2}, 5));
  loseAndExpect(B, 6s, C);
  ASSERT_TRUE(listener.waitFor({3, 2}, 6));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "connectIndex:1 \nconnectIndex:2 \nconnectIndex:3 \nconnectIndex:4 \nconnectIndex:4 \n");
  auto changes = listener.changes();
  EXPECT_EQ(changes.size(), 12u);
  for (std::size_t i = 2; i + 1 < changes.size(); i += 2) {
    EXPECT_EQ(changes[i], (Change{4, 5}));
    EXPECT_EQ(changes[i + 1], (Change{3, 2}));
  }
}

TEST_F(ReconnectionTest, KickOffEndsTheSessionWithoutReconnecting) {
  Listener first, second;
  auto kit = makeKit(first);
  auto elsewhere = makeKit(second);
  ASSERT_EQ(login(*kit, "carol"), 0);
  ASSERT_EQ(login(*elsewhere, "carol"), 0);
  ASSERT_TRUE(first.waitFor({1, 8}));
  time_.advance(30s);
  EXPECT_EQ(server_->logins().size(), 2u);
  EXPECT_EQ(first.changes(), (std::vector<Change>{{2, 1}, {3, 2}, {1, 8}}));
  // Still logged in: a new login is refused, logout is not.
  EXPECT_EQ(login(*kit, "carol"), 8);
  Codes codes;
  kit->logoutWithCompletion(codes.completion());
  EXPECT_EQ(codes.await(), 0);
  // The kick-off is remembered: after a new login, a plain server disconnect counts as one again.
  elsewhere.reset();
  ASSERT_EQ(login(*kit, "carol"), 0);
  ASSERT_TRUE(server_->disconnect(server_->logins().back().server, ""));
  EXPECT_TRUE(first.waitFor({1, 8}, 2));
}

TEST_F(ReconnectionTest, FailedAttemptsMoveAlongTheListUntilAServerIsBack) {
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "henry"), 0);
  // B refuses the session, C and then A are down: each failure schedules the next, longer pause.
  ASSERT_TRUE(server_->scriptLogin(refusal("loginFail: AuthFail", B)));
  ASSERT_TRUE(server_->stopTavern(C));
  ASSERT_TRUE(server_->dropTransport(A, ""));
  ASSERT_TRUE(server_->stopTavern(A));
  for (auto pause : {1s, 2s}) {
    ASSERT_TRUE(awaitPause(pause));
    time_.advance(pause);
  }
  ASSERT_TRUE(awaitPause(4s));
  ASSERT_FALSE(server_->startTavern(A).empty());
  time_.advance(4s);
  ASSERT_TRUE(listener.waitFor({3, 2}, 2));
  auto logins = server_->logins();
  ASSERT_EQ(logins.size(), 3u);
  EXPECT_EQ(logins[1].server, B);
  EXPECT_EQ(logins[2].server, A);
  // Reconnecting is told once per series.
  EXPECT_EQ(listener.changes(), (std::vector<Change>{{2, 1}, {3, 2}, {4, 5}, {3, 2}}));
}

TEST_F(ReconnectionTest, ConnectTimeOutsDuringReconnection) {
  // A, a server that never answers, then B: the time-out moves on to B at once.
  auto hole = server_->blackholeUrl();
  ASSERT_TRUE(server_->scriptDiscovery(
      DiscoveryAnswer().servers({server_->tavernUrls()[A], hole, server_->tavernUrls()[B]})));
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "ivan"), 0);
  ASSERT_TRUE(server_->dropTransport(A, ""));
  ASSERT_TRUE(awaitPause(1s));
  time_.advance(1s);
  ASSERT_TRUE(awaitSocketOn(*kit, hole));
  time_.advance(6s);
  ASSERT_TRUE(listener.waitFor({3, 2}, 2));
  EXPECT_EQ(server_->logins().back().server, B);

  // Only A and the silent one: the time-out on the last server ends the series with (1, 4).
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().servers({server_->tavernUrls()[A], hole})));
  Listener second;
  auto other = makeKit(second);
  ASSERT_EQ(login(*other, "judy"), 0);
  ASSERT_TRUE(server_->disconnect(A, server_->logins().back().socket, std::nullopt, true));
  ASSERT_TRUE(awaitPause(1s));
  time_.advance(1s);
  ASSERT_TRUE(awaitSocketOn(*other, hole));
  time_.advance(6s);
  ASSERT_TRUE(second.waitFor({1, 4}));
  time_.advance(30s);
  EXPECT_EQ(second.changes(), (std::vector<Change>{{2, 1}, {3, 2}, {4, 5}, {1, 4}}));
}

TEST_F(ReconnectionTest, ExpiredSessionReconnectsAndAnExpiredTokenIsReported) {
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "dave"), 0);
  ASSERT_TRUE(server_->disconnect(A, "", "ExpireSession", true));
  ASSERT_TRUE(awaitPause(1s));
  time_.advance(1s);
  ASSERT_TRUE(listener.waitFor({3, 2}, 2));
  EXPECT_EQ(listener.expired(), 0);

  ASSERT_TRUE(server_->disconnect(B, "", "loginFail: ExpiredToken", true));
  ASSERT_TRUE(awaitPause(2s));
  EXPECT_EQ(listener.expired(), 1);
  time_.advance(2s);
  ASSERT_TRUE(listener.waitFor({3, 2}, 3));  // the old credentials still work here
  EXPECT_EQ(server_->logins().back().server, C);
}

TEST_F(ReconnectionTest, RenewalDuringThePauseGivesTheNextAttemptTheNewToken) {
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "erin", "old-token"), 0);
  ASSERT_TRUE(server_->dropTransport(A, ""));
  ASSERT_TRUE(awaitPause(1s));
  auto renewed = std::string(32, 'n');
  int code = -1;
  kit->renewToken(renewed, 1800000000000, [&](const std::string&, int c) { code = c; });
  EXPECT_EQ(code, 0);
  time_.advance(1s);
  ASSERT_TRUE(listener.waitFor({3, 2}, 2));
  auto last = server_->logins().back();
  EXPECT_EQ(last.token, renewed);
  EXPECT_EQ(last.timestamp, 1800000000000);
}

TEST_F(ReconnectionTest, LogoutWaitsBehindThePause) {
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "frank"), 0);
  ASSERT_TRUE(server_->dropTransport(A, ""));
  ASSERT_TRUE(awaitPause(1s));
  Codes codes;
  kit->logoutWithCompletion(codes.completion());
  EXPECT_TRUE(codes.all().empty());
  time_.advance(1s);
  EXPECT_EQ(codes.await(), 0);
  EXPECT_TRUE(listener.waitFor({1, 6}));
  // The attempt that the pause released was closed by the logout; nothing follows.
  time_.advance(30s);
  EXPECT_TRUE(waitUntil([] { return live(B) == 0; }));
  EXPECT_EQ(listener.changes().back(), (Change{1, 6}));
}

TEST_F(ReconnectionTest, AClientDestroyedMidReconnectionStaysSilent) {
  Listener listener;
  {
    auto kit = makeKit(listener);
    ASSERT_EQ(login(*kit, "gina"), 0);
    ASSERT_TRUE(server_->dropTransport(A, ""));
    ASSERT_TRUE(awaitPause(1s));
  }
  time_.advance(1s);
  time_.advance(30s);
  EXPECT_EQ(server_->logins().size(), 1u);
  EXPECT_EQ(listener.changes(), (std::vector<Change>{{2, 1}, {3, 2}}));
}

}  // namespace

namespace {

// The (state, reason) pairs of the telemetry records written for one user so far, oldest first:
// closed-off files carry their date in their names, the working file holds the newest records.
std::vector<Change> recordedStates(const std::string& userId) {
  auto store = std::dynamic_pointer_cast<qnbrl::QNLoganFileManager>(
      qnbrl::LoganManager::sharedInstance().collectManager()->loganFileManager());
  store->queue()->sync([] {});  // every record submitted so far is in the files
  std::vector<std::filesystem::path> files;
  for (auto& entry : std::filesystem::directory_iterator(qnbrl::cachesDirectory() / "logan")) {
    if (entry.is_regular_file() && entry.path().filename() != "logan") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  files.push_back(qnbrl::cachesDirectory() / "logan" / "logan");
  std::vector<Change> out;
  for (auto& path : files) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      boost::system::error_code ec;
      auto record = boost::json::parse(line, ec);
      if (ec || !record.is_object()) continue;
      auto content = boost::json::parse(record.at("content").as_string(), ec);
      if (ec || content.at("type") != "ConnectState" || content.at("uid") != userId.c_str()) continue;
      out.emplace_back(content.at("state").to_number<int>(), content.at("reason").to_number<int>());
    }
  }
  return out;
}

TEST_F(ReconnectionTest, TelemetryPairsFollowTheDelegateExceptReconnectingAndTimedOut) {
  auto user = "telemetry-" + std::to_string(qnbrl::currentTimeStamp());
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, user), 0);
  ASSERT_TRUE(server_->dropTransport(A, ""));
  ASSERT_TRUE(awaitPause(1s));
  time_.advance(1s);
  ASSERT_TRUE(listener.waitFor({3, 2}, 2));
  Codes codes;
  kit->logoutWithCompletion(codes.completion());
  ASSERT_EQ(codes.await(), 0);  // after (1, 6) and its record
  EXPECT_EQ(recordedStates(user), (std::vector<Change>{{2, 1}, {3, 2}, {3, 2}, {1, 6}}));

  // A connect time-out on the last server is told but not recorded; a delegate that does not listen
  // gets nothing recorded at all.
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().servers({server_->blackholeUrl()})));
  Codes timedOut;
  kit->loginByToken("t", 1, user, timedOut.completion());
  ASSERT_TRUE(awaitSocketOn(*kit, server_->blackholeUrl()));
  time_.advance(6s);
  EXPECT_EQ(timedOut.await(), 9);
  ASSERT_TRUE(listener.waitFor({1, 4}));
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer()));
  auto deafDelegate = std::make_shared<QNBRLDelegate>();
  auto deaf = makeKit(deafDelegate);
  ASSERT_EQ(login(*deaf, user + "-deaf"), 0);
  EXPECT_EQ(recordedStates(user), (std::vector<Change>{{2, 1}, {3, 2}, {3, 2}, {1, 6}, {2, 1}}));
  EXPECT_TRUE(recordedStates(user + "-deaf").empty());
}

}  // namespace
