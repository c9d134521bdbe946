// The real pauses of a reconnection series: 1 second, then 2.
#include "support/session_fixture.hpp"

using namespace testing_support;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

TEST(ClientRealTime, ReconnectionPausesOneThenTwoSeconds) {
  DevServerOptions options;
  options.tavern = 2;
  options.tavernTls = 0;
  options.session = true;
  DevServer server(options);
  ASSERT_TRUE(server.ready());
  Listener listener;
  qnbrl::QNBRLOptions kitOptions;
  kitOptions.envConfig.apiServer = server.httpUrl();
  auto kit = qnbrl::QNBRLKit::create("app-1", listener.delegate, kitOptions);
  Codes codes;
  kit->loginByToken("t", 1, "alice", codes.completion());
  ASSERT_EQ(codes.await(), 0);

  std::size_t connected = 1;
  for (auto [from, pause] : {std::pair{0, 1.0}, {1, 2.0}}) {
    auto start = Clock::now();
    ASSERT_TRUE(server.dropTransport(from, ""));
    ASSERT_TRUE(waitUntil([&] { return server.logins().size() > connected; }, 5s));
    ++connected;
    auto took = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_GE(took, pause);
    EXPECT_LT(took, pause + 0.9);
    ASSERT_TRUE(listener.waitFor({3, 2}, connected));
  }
}

}  // namespace
