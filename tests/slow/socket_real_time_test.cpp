// The real durations behind the clock seam: connect time-out, acknowledgement time-outs, heartbeat.
#include "transport/socket_manager.hpp"

#include "support/socketio_fixture.hpp"

using namespace testing_support;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

TEST(SocketRealTime, ConnectTimeOutAfterSixSeconds) {
  DevServer server(DevServerOptions{});
  ASSERT_TRUE(server.ready());
  auto manager = qnbrl::QNSocketManager::create();
  auto delegate = std::make_shared<qnbrl::QNSocketManagerDelegate>();
  std::atomic<double> fired_after{-1};
  auto start = Clock::now();
  delegate->onConnectTimeout = [&](qnbrl::QNSocketManager&, const boost::json::array&) { fired_after = secondsSince(start); };
  manager->setDelegate(delegate);
  manager->createSocketWithUrl(server.blackholeUrl(), {});
  manager->connect();
  ASSERT_TRUE(waitUntil([&] { return fired_after >= 0; }, 10s));
  EXPECT_GE(fired_after, 6.0);
  EXPECT_LT(fired_after, 7.0);
}

TEST(SocketRealTime, CommandsTimeOutAfterSixAndTenSeconds) {
  DevServer server(DevServerOptions{});
  ASSERT_TRUE(server.ready());
  ASSERT_TRUE(server.scriptCommand("*", CommandAnswer().none()));
  auto manager = qnbrl::QNSocketManager::create();
  manager->createSocketWithUrl(server.tavernUrls().at(0), {});
  manager->connect();
  ASSERT_TRUE(waitUntil([&] { return manager->socket().lock()->status() == sio::Socket::Status::Connected; }));
  std::atomic<double> plain{-1}, clear{-1};
  auto start = Clock::now();
  manager->command("join", {}, [&](const qnbrl::QNBRLResult& r) {
    EXPECT_TRUE(r.isAckTimeout());
    plain = secondsSince(start);
  });
  manager->command("clearLocalUserAttributes", {}, [&](const qnbrl::QNBRLResult& r) {
    EXPECT_TRUE(r.isAckTimeout());
    clear = secondsSince(start);
  });
  ASSERT_TRUE(waitUntil([&] { return clear >= 0; }, 15s));
  EXPECT_GE(plain, 6.0);
  EXPECT_LT(plain, 7.0);
  EXPECT_GE(clear, 10.0);
  EXPECT_LT(clear, 11.0);
}

}  // namespace
