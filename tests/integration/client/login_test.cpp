// Login, logout and renewal against the dev server: the query the servers see, every login code,
// failover A -> B -> C during login, and the calls that must be refused.
#include "support/session_fixture.hpp"

#include <boost/json/parse.hpp>

#include <algorithm>
#include <thread>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

std::vector<int> serversTried(DevServer& server) {
  std::vector<int> out;
  for (auto& login : server.logins()) out.push_back(login.server);
  return out;
}

boost::json::object debugInfo(const QNBRLKit& kit) {
  return boost::json::parse(kit.getDebugInfo()).as_object();
}

TEST_F(SessionTest, LoginCarriesTheCredentialsAndReportsEachStep) {
  Listener listener;
  auto kit = makeKit(listener, "app-7");
  ASSERT_EQ(login(*kit, "alice", "secret-token"), 0);
  EXPECT_EQ(listener.changes(), (std::vector<Change>{{2, 1}, {3, 2}}));

  auto discovery = server_->discoveryRequests();
  ASSERT_EQ(discovery.size(), 1u);
  EXPECT_EQ(discovery[0].query.at("appId"), "app-7");

  auto logins = server_->logins();
  ASSERT_EQ(logins.size(), 1u);
  EXPECT_EQ(logins[0].server, A);
  EXPECT_EQ(logins[0].roomId, "app-7");
  EXPECT_EQ(logins[0].userId, "alice");
  EXPECT_EQ(logins[0].token, "secret-token");
  EXPECT_EQ(logins[0].timestamp, 1700000000000);
  EXPECT_GT(logins[0].connectTimeStamp, 1700000000000);
  EXPECT_EQ(logins[0].result, "loginSuccess");
  auto query = server_->connections(A, true).at(0).query;
  EXPECT_EQ(query.at("app"), "tavern");

  auto info = debugInfo(*kit);
  EXPECT_EQ(info.at("tavernSocket").at("tavernServer").as_string(), server_->tavernUrls()[A]);
  EXPECT_EQ(info.at("tavernSocket").at("connectionId").as_string(), logins[0].socket);
  EXPECT_EQ(
      info.at("loginArguments"),
      (boost::json::object{{"userId", "alice"}, {"token", "secret-token"}, {"timestamp", 1700000000000}}));
}

TEST_F(SessionTest, EveryRefusalTextGivesItsCodeAfterTheLastServer) {
  const std::pair<const char*, int> cases[] = {
      {"loginFail: InvalidAppId", 4}, {"loginFail: InvalidArgument", 3},
      {"loginFail: InvalidToken", 5}, {"loginFail: ExpiredToken", 6},
      {"loginFail: AuthFail", 7},     {"loginFail: AppForbidden", 2},
      {"loginFail: SomethingNew", 1}, {"KickOff", 1},
  };
  for (auto& [text, code] : cases) {
    SCOPED_TRACE(text);
    ASSERT_TRUE(server_->reset());
    server_->logins(true);
    ASSERT_TRUE(server_->scriptLogin(refusal(text)));
    Listener listener;
    auto kit = makeKit(listener);
    EXPECT_EQ(login(*kit, "bob"), code);
    EXPECT_EQ(serversTried(*server_), (std::vector<int>{A, B, C}));
    EXPECT_TRUE(listener.waitFor({1, 3}));
    EXPECT_EQ(listener.changes(), (std::vector<Change>{{2, 1}, {1, 3}}));
  }
}

TEST_F(SessionTest, LoginFailsOverToTheNextServer) {
  // A refuses, B is down: C accepts.
  ASSERT_TRUE(server_->scriptLogin(refusal("loginFail: AuthFail", A)));
  ASSERT_TRUE(server_->stopTavern(B));
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "carol"), 0);
  EXPECT_EQ(serversTried(*server_), (std::vector<int>{A, C}));
  EXPECT_EQ(debugInfo(*kit).at("tavernSocket").at("tavernServer").as_string(), server_->tavernUrls()[C]);
  EXPECT_EQ(listener.changes(), (std::vector<Change>{{2, 1}, {3, 2}}));
}

TEST_F(SessionTest, ConnectTimeOutsFailOverAndTheLastOneEndsTheLoginWith9) {
  // The black hole never answers; B accepts.
  auto hole = server_->blackholeUrl();
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().servers({hole, server_->tavernUrls()[B]})));
  Listener listener;
  auto kit = makeKit(listener);
  Codes codes;
  kit->loginByToken("t", 1, "dave", codes.completion());
  ASSERT_TRUE(awaitSocketOn(*kit, hole));
  time_.advance(5999ms);
  EXPECT_TRUE(server_->logins().empty());
  time_.advance(1ms);
  EXPECT_EQ(codes.await(), 0);
  EXPECT_EQ(serversTried(*server_), (std::vector<int>{B}));

  // Neither server completes the handshake: the last time-out ends the login with 9 and (1, 4).
  ASSERT_TRUE(server_->setSilent(server_->silentId(), Silence::AfterOpen));
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().servers({hole, server_->silentUrl()})));
  Listener second;
  auto other = makeKit(second);
  Codes failed;
  other->loginByToken("t", 1, "erin", failed.completion());
  for (auto& url : {hole, server_->silentUrl()}) {
    ASSERT_TRUE(awaitSocketOn(*other, url));
    time_.advance(6s);
  }
  EXPECT_EQ(failed.await(), 9);
  EXPECT_TRUE(second.waitFor({1, 4}));
  EXPECT_EQ(second.changes(), (std::vector<Change>{{2, 1}, {1, 4}}));
  // Disconnected, so a new login is accepted rather than refused as still connecting.
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer()));
  EXPECT_EQ(login(*other, "erin"), 0);
}

TEST_F(SessionTest, AServerThatAnswersOutOfOrderIsLeftForTheNext) {
  // The connect reply before any open packet, then silence: taken as connected, the login would hang.
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().servers({server_->hostileUrl(), server_->tavernUrls()[B]})));
  Listener listener;
  auto kit = makeKit(listener);
  EXPECT_EQ(login(*kit, "dora"), 0);
  EXPECT_EQ(serversTried(*server_), (std::vector<int>{B}));
}

TEST_F(SessionTest, DiscoveryWithoutServersEndsWith9AndNoFurtherChange) {
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().code(500).times(1)));
  Listener listener;
  auto kit = makeKit(listener);
  EXPECT_EQ(login(*kit, "frank"), 9);
  EXPECT_EQ(listener.changes(), (std::vector<Change>{{2, 1}}));
  EXPECT_TRUE(server_->logins().empty());
  // Not connecting any more: the next login goes ahead.
  EXPECT_EQ(login(*kit, "frank"), 0);
}

TEST_F(SessionTest, ASecondLoginIsRefusedWhileConnectingAndOnceLoggedIn) {
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().after(300ms)));
  Listener listener;
  auto kit = makeKit(listener);
  Codes first, second;
  kit->loginByToken("t", 1, "gina", first.completion());
  kit->loginByToken("t", 1, "gina", second.completion());
  EXPECT_EQ(second.all(), (std::vector<int>{8}));  // at once, on this thread
  EXPECT_EQ(first.await(), 0);
  EXPECT_EQ(login(*kit, "other"), 8);
  EXPECT_EQ(server_->logins().size(), 1u);
  EXPECT_EQ(listener.changes(), (std::vector<Change>{{2, 1}, {3, 2}}));
}

TEST_F(SessionTest, ConcurrentLoginsLetExactlyOneThrough) {
  Listener listener;
  auto kit = makeKit(listener);
  Codes codes;
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back(
        [&, i] { kit->loginByToken("t", 1, "racer" + std::to_string(i), codes.completion()); });
  }
  for (auto& t : callers) t.join();
  ASSERT_NE(codes.await(4), -1);
  auto all = codes.all();
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, (std::vector<int>{0, 8, 8, 8}));
  EXPECT_EQ(server_->logins().size(), 1u);
}

TEST_F(SessionTest, LogoutClosesTheConnectionWithoutARequestAndAllowsANewLogin) {
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "hank"), 0);
  Codes codes;
  kit->logoutWithCompletion(codes.completion());
  EXPECT_EQ(codes.await(), 0);
  EXPECT_TRUE(listener.waitFor({1, 6}));
  EXPECT_TRUE(waitUntil([] { return live(A) == 0; }));
  EXPECT_TRUE(server_->commands().empty());
  auto info = debugInfo(*kit);
  EXPECT_FALSE(info.contains("loginArguments"));
  EXPECT_FALSE(info.at("tavernSocket").as_object().contains("connectionId"));

  kit->logoutWithCompletion(codes.completion());
  EXPECT_EQ(codes.all(), (std::vector<int>{0, 102}));
  EXPECT_EQ(login(*kit, "ivy"), 0);
  EXPECT_EQ(server_->logins().back().userId, "ivy");
}

TEST_F(SessionTest, RenewalChecksTheTokenAndCarriesTheNewOneOnTheNextConnection) {
  Listener listener;
  auto kit = makeKit(listener);
  ASSERT_EQ(login(*kit, "jack"), 0);
  std::vector<int> codes;
  auto record = [&](const std::string&, int code) { codes.push_back(code); };
  kit->renewToken(std::string(31, 'x'), 2, record);
  kit->renewToken(std::string(33, 'x'), 2, record);
  kit->renewToken(std::string(15, 'x') + " " + std::string(16, 'x'), 2, record);
  EXPECT_EQ(codes, (std::vector<int>{2, 2, 2}));

  // The live socket is replaced by an unconnected one for the next server.
  auto renewed = std::string(32, 'r');
  kit->renewToken(renewed, 1800000000000, record);
  EXPECT_EQ(codes.back(), 0);
  EXPECT_TRUE(waitUntil([] { return live(A) == 0; }));
  EXPECT_TRUE(awaitSocketOn(*kit, server_->tavernUrls()[B]));
  EXPECT_TRUE(server_->connections(B).empty());
}

TEST_F(SessionTest, AClientDestroyedMidLoginNeverCallsBack) {
  ASSERT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().after(200ms)));
  Listener listener;
  Codes codes;
  {
    auto kit = makeKit(listener);
    kit->loginByToken("t", 1, "leo", codes.completion());
    // Destroyed while its discovery waits for the answer.
    ASSERT_TRUE(waitUntil([] { return server_->discoveryRequests().size() == 1; }));
  }
  // A second client logs in after the first one's discovery has answered.
  Listener other;
  auto kit = makeKit(other);
  ASSERT_EQ(login(*kit, "leo2"), 0);
  EXPECT_TRUE(codes.all().empty());
  EXPECT_EQ(listener.changes(), (std::vector<Change>{{2, 1}}));
  EXPECT_EQ(server_->logins().size(), 1u);
}

}  // namespace
