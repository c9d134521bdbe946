#include "transport/socket_manager.hpp"

#include "support/socketio_fixture.hpp"

#include <boost/json/serialize.hpp>

#include <future>

using namespace testing_support;
using namespace std::chrono_literals;
namespace json = boost::json;
using qnbrl::QNSocketManager;
using qnbrl::QNSocketManagerDelegate;
using qnbrl::QNSocketMessageDelegate;

namespace {

// A message delegate that records every event it hears.
struct Listener {
  std::mutex mutex;
  std::vector<std::pair<std::string, sio::Payload>> heard;
  std::shared_ptr<QNSocketMessageDelegate> delegate = std::make_shared<QNSocketMessageDelegate>();

  Listener() {
    delegate->onEvent = [this](QNSocketManager&, std::string_view event, const sio::Payload& p) {
      std::lock_guard lock(mutex);
      heard.emplace_back(event, p);
    };
  }
  std::vector<std::pair<std::string, sio::Payload>> snapshot() {
    std::lock_guard lock(mutex);
    return heard;
  }
  std::size_t count() { return snapshot().size(); }
};

json::object tavernConfig() {
  return {{"compress", true},
          {"forceWebsockets", true},
          {"connectParams",
           json::object{{"app", "tavern"}, {"roomId", "app1"}, {"token", R"({"token":"t+/=","userId":"u1"})"}}}};
}

class SocketManager : public DevServerSuite {
 protected:
  void SetUp() override {
    DevServerSuite::SetUp();
    manager_->setMessageDelegate(listener_.delegate);
    manager_->setDelegate(delegate_);
    delegate_->onSocketChange = [this](QNSocketManager&, const std::shared_ptr<sio::Socket>& s) {
      std::lock_guard lock(mutex_);
      changes_.push_back(s);
    };
    delegate_->onConnectTimeout = [this](QNSocketManager&, const json::array& a) {
      EXPECT_TRUE(a.empty());
      ++timeouts_;
    };
  }
  void connectTo(int server) {
    manager_->createSocketWithUrl(server_->tavernUrls().at(server), tavernConfig());
    manager_->connect();
    ASSERT_TRUE(waitUntil([&] {
      auto s = manager_->socket().lock();
      return s && s->status() == sio::Socket::Status::Connected;
    }));
  }

  Listener listener_;
  std::shared_ptr<QNSocketManagerDelegate> delegate_ = std::make_shared<QNSocketManagerDelegate>();
  std::mutex mutex_;
  std::vector<std::weak_ptr<sio::Socket>> changes_;
  std::atomic<int> timeouts_{0};
  // Last, so it goes first: its connection is down before what its handlers touch is destroyed.
  std::shared_ptr<QNSocketManager> manager_ = QNSocketManager::create();
};

TEST_F(SocketManager, ConfigurationBecomesTheConnectionQuery) {
  connectTo(0);
  auto conn = server_->awaitConnection(0);
  ASSERT_TRUE(conn);
  EXPECT_EQ(conn->query.at("app").as_string(), "tavern");
  EXPECT_EQ(conn->query.at("roomId").as_string(), "app1");
  EXPECT_EQ(conn->query.at("token").as_string(), R"({"token":"t+/=","userId":"u1"})");
  EXPECT_EQ(manager_->url(), server_->tavernUrls().at(0));
  EXPECT_EQ(json::serialize(manager_->config()), json::serialize(tavernConfig()));
  std::lock_guard lock(mutex_);
  ASSERT_EQ(changes_.size(), 1u);
  EXPECT_EQ(changes_[0].lock(), manager_->socket().lock());
}

TEST_F(SocketManager, EveryServerEventReachesTheDelegateUntouched) {
  connectTo(0);
  auto sid = manager_->socket().lock()->sid();
  // "disconnect" is the socket's own; the other eleven come from the server.
  const std::vector<std::string> pushed(std::begin(qnbrl::kServerEvents) + 1, std::end(qnbrl::kServerEvents));
  for (auto& event : pushed) {
    ASSERT_TRUE(server_->push(0, sid, event, json::array{json::object{{"event", event}}, 7}));
  }
  ASSERT_TRUE(server_->push(0, sid, "ChannelMessageReceived",
                            json::array{json::object{{"content", json::object{{"binary", bytesValue({1, 2})}}}}}));
  ASSERT_TRUE(server_->push(0, sid, "notAServerEvent", json::array{}));
  ASSERT_TRUE(waitUntil([&] { return listener_.count() == pushed.size() + 1; }));
  auto heard = listener_.snapshot();
  for (std::size_t i = 0; i < pushed.size(); ++i) {
    EXPECT_EQ(heard[i].first, pushed[i]);
    EXPECT_EQ(json::serialize(heard[i].second.args), json::serialize(json::array{json::object{{"event", pushed[i]}}, 7}));
  }
  auto& binary = heard.back().second;
  ASSERT_EQ(binary.buffers.size(), 1u);
  EXPECT_EQ(*binary.buffers[0], (sio::Buffer{1, 2}));
  // A delegate that is gone hears nothing, and nothing breaks.
  listener_.delegate.reset();
  ASSERT_TRUE(server_->push(0, sid, "MemberJoined", json::array{3}));
  AckSink probe;
  manager_->command("probe", {}, [&](const sio::Payload&) { probe.callback()({}); });
  ASSERT_TRUE(waitUntil([&] { return probe.count() == 1; }));
  EXPECT_EQ(listener_.count(), pushed.size() + 1);
}

TEST_F(SocketManager, ASecondSocketReplacesTheFirstWithoutADisconnectEvent) {
  connectTo(0);
  auto first = manager_->socket();
  connectTo(1);
  EXPECT_TRUE(first.expired());
  ASSERT_TRUE(waitUntil([&] { return server_->connections(0, true).empty(); }));
  EXPECT_EQ(server_->connections(1, true).size(), 1u);
  qnbrl::MainQueue::sync([] {});
  EXPECT_EQ(listener_.count(), 0u);
  std::lock_guard lock(mutex_);
  EXPECT_EQ(changes_.size(), 2u);
}

TEST_F(SocketManager, DestroyReportsNamespaceLeaveAndKeepsTheUrl) {
  connectTo(0);
  qnbrl::MainQueue::sync([&] { manager_->destroy(); });
  ASSERT_EQ(listener_.count(), 1u);
  EXPECT_EQ(listener_.snapshot()[0].first, "disconnect");
  EXPECT_EQ(json::serialize(listener_.snapshot()[0].second.args), R"(["Namespace leave"])");
  EXPECT_TRUE(manager_->socket().expired());
  EXPECT_EQ(manager_->url(), server_->tavernUrls().at(0));
  // Without a socket a request sends nothing and is still answered once, at its time-out.
  ManualTime time;
  std::atomic<int> timedOut{0};
  manager_->command("join", {{"channelId", "c"}}, [&](const sio::Payload& ack) {
    timedOut += qnbrl::QNBRLResult::resultWithArray(ack.args).isAckTimeout() ? 1 : 100;
  });
  time.advance(5999ms);
  qnbrl::MainQueue::sync([] {});
  EXPECT_EQ(timedOut, 0);
  time.advance(60s);
  EXPECT_TRUE(waitUntil([&] { return timedOut == 1; }));
  EXPECT_TRUE(server_->commands().empty());
}

TEST_F(SocketManager, CommandsWaitSixSecondsAndClearingAttributesTen) {
  ManualTime time;
  ASSERT_TRUE(server_->scriptCommand("*", CommandAnswer().none()));
  connectTo(0);
  std::vector<std::string> timedOut;
  std::mutex m;
  // The longer wait goes first, so the shorter one must bring its own deadline forward.
  for (const char* name : {"clearLocalUserAttributes", "setChannelAttributes"}) {
    manager_->command(name, {}, [&, name](const sio::Payload& ack) {
      EXPECT_TRUE(qnbrl::QNBRLResult::resultWithArray(ack.args).isAckTimeout());
      std::lock_guard lock(m);
      timedOut.emplace_back(name);
    });
  }
  ASSERT_TRUE(waitUntil([&] { return server_->commands().size() == 2; }));
  time.advance(6s);
  {
    std::lock_guard lock(m);
    EXPECT_EQ(timedOut, std::vector<std::string>{"setChannelAttributes"});
  }
  time.advance(4s);
  std::lock_guard lock(m);
  EXPECT_EQ(timedOut, (std::vector<std::string>{"setChannelAttributes", "clearLocalUserAttributes"}));
}

TEST_F(SocketManager, CommandsCarryNameAndPayloadAndComeBackDecoded) {
  ASSERT_TRUE(server_->scriptCommand("setLocalUserAttributes",
                                     CommandAnswer().ack(json::array{"Too Many Requests", json::object{{"result", 5}}})));
  connectTo(0);
  std::promise<qnbrl::QNBRLResult> answered;
  manager_->command("setLocalUserAttributes", {{"channelId", "c1"}},
                    [&](const sio::Payload& ack) { answered.set_value(qnbrl::QNBRLResult::resultWithArray(ack.args)); });
  auto result = answered.get_future().get();
  EXPECT_TRUE(result.isTooManyRequests());
  EXPECT_EQ(result.code, 5);
  auto cmds = server_->commands();
  ASSERT_EQ(cmds.size(), 1u);
  EXPECT_EQ(json::serialize(cmds[0].payload), R"({"channelId":"c1"})");
}

TEST_F(SocketManager, ConnectTimeOutIsReportedWithAnEmptyList) {
  ManualTime time;
  manager_->createSocketWithUrl(server_->blackholeUrl(), tavernConfig());
  manager_->connect();
  time.advance(5999ms);
  EXPECT_EQ(timeouts_, 0);
  time.advance(1ms);
  ASSERT_TRUE(waitUntil([&] { return timeouts_ == 1; }));
  EXPECT_EQ(listener_.count(), 0u);  // a time-out is not a disconnect
  // A manager that is gone hears no time-out.
  manager_->createSocketWithUrl(server_->blackholeUrl(), tavernConfig());
  manager_->connect();
  manager_.reset();
  time.advance(6s);
  EXPECT_EQ(timeouts_, 1);
}

}  // namespace
