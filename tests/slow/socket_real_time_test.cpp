// The real durations behind the clock seam: connect time-out, acknowledgement time-outs.
#include "transport/socket_manager.hpp"

#include "support/socketio_fixture.hpp"

using namespace testing_support;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(SocketRealTime, ConnectTimesOutAfterSixSecondsAndCommandsAfterSixAndTen) {
  DevServer server(DevServerOptions{});
  ASSERT_TRUE(server.ready());
  ASSERT_TRUE(server.scriptCommand("*", CommandAnswer().none()));
  const auto start = Clock::now();
  const auto seconds = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  std::atomic<double> timed_out{-1}, plain{-1}, clear{-1};

  auto hanging = qnbrl::QNSocketManager::create();
  auto delegate = std::make_shared<qnbrl::QNSocketManagerDelegate>();
  delegate->onConnectTimeout = [&](qnbrl::QNSocketManager&, const boost::json::array&) { timed_out = seconds(); };
  hanging->setDelegate(delegate);
  hanging->createSocketWithUrl(server.blackholeUrl(), {});
  hanging->connect();

  auto manager = qnbrl::QNSocketManager::create();
  manager->createSocketWithUrl(server.tavernUrls().at(0), {});
  manager->connect();
  ASSERT_TRUE(waitUntil([&] { return manager->socket().lock()->status() == sio::Socket::Status::Connected; }));
  const double sent = seconds();
  manager->command("join", {}, [&](const sio::Payload& a) { plain = a.args == boost::json::array{"NO ACK"} ? seconds() : 0; });
  manager->command("clearLocalUserAttributes", {},
                   [&](const sio::Payload& a) { clear = a.args == boost::json::array{"NO ACK"} ? seconds() : 0; });
  ASSERT_TRUE(waitUntil([&] { return clear >= 0; }, 15s));
  EXPECT_GE(timed_out, 6.0);
  EXPECT_LT(timed_out, 7.0);
  EXPECT_GE(plain - sent, 6.0);
  EXPECT_LT(plain - sent, 7.0);
  EXPECT_GE(clear - sent, 10.0);
  EXPECT_LT(clear - sent, 11.0);
}
