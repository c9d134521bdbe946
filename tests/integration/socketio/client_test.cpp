#include "support/socketio_fixture.hpp"

#include <boost/json/serialize.hpp>

using namespace testing_support;
using namespace std::chrono_literals;
namespace json = boost::json;

namespace {

class SocketIo : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    DevServerOptions o;
    o.tavern = 2;
    o.tavernTls = 1;
    server_ = new DevServer(o);
    ASSERT_TRUE(server_->ready());
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override { ASSERT_TRUE(server_->reset()); }

  // A connected socket on tavern server `id`, with its recorder attached before connecting.
  std::shared_ptr<sio::Manager> open(const std::string& url, sio::Options options = {}) {
    auto m = std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), url, std::move(options));
    recorder_.attach(*m->socket(), {"connect", "disconnect", "pushed"});
    m->socket()->connect(6s, [this] { ++timeouts_; });
    return m;
  }
  std::shared_ptr<sio::Manager> openConnected(int id = 0, sio::Options options = {}) {
    auto m = open(server_->tavernUrls().at(id), std::move(options));
    EXPECT_TRUE(recorder_.waitFor("connect"));
    return m;
  }

  static DevServer* server_;
  Recorder recorder_;
  std::atomic<int> timeouts_{0};
};
DevServer* SocketIo::server_ = nullptr;

TEST_F(SocketIo, QueryArrivesIntactAndTheSocketIdIsTheServers) {
  sio::Options o;
  std::string token = R"({"token":"a+b/c=d&e#f é g","userId":"u 1"})";
  o.query = {{"app", "tavern"}, {"token", token}, {"n", "12"}};
  auto m = openConnected(0, o);
  auto conn = server_->awaitConnection(0);
  ASSERT_TRUE(conn);
  EXPECT_EQ(conn->query.at("token").as_string(), token);
  EXPECT_EQ(conn->query.at("app").as_string(), "tavern");
  EXPECT_EQ(conn->query.at("n").as_string(), "12");
  EXPECT_EQ(conn->query.at("EIO").as_string(), "4");
  EXPECT_EQ(conn->query.at("transport").as_string(), "websocket");
  EXPECT_EQ(m->socket()->sid(), conn->id);
  EXPECT_EQ(m->socket()->status(), sio::Socket::Status::Connected);
}

TEST_F(SocketIo, AcknowledgementsAndTheirTimeOuts) {
  ManualTime time;
  auto m = openConnected();
  ASSERT_TRUE(server_->scriptCommand("slow", CommandAnswer().none()));
  ASSERT_TRUE(server_->scriptCommand("limited", CommandAnswer().ack(json::array{"Too Many Requests", json::object{{"result", 5}}})));
  AckSink ok, limited, silent;
  m->socket()->emitWithAck("command", args({"set", json::object{{"k", "v"}}}), 6s, ok.callback());
  m->socket()->emitWithAck("command", args({"limited", json::object{}}), 6s, limited.callback());
  m->socket()->emitWithAck("command", args({"slow", json::object{}}), 6s, silent.callback());
  ASSERT_TRUE(waitUntil([&] { return ok.count() == 1 && limited.count() == 1; }));
  EXPECT_EQ(json::serialize(ok.at(0).args), R"([{"result":0}])");
  EXPECT_EQ(json::serialize(limited.at(0).args), R"(["Too Many Requests",{"result":5}])");
  ASSERT_TRUE(waitUntil([&] { return server_->commands().size() == 3; }));
  time.advance(5999ms);
  EXPECT_EQ(silent.count(), 0u);
  time.advance(1ms);
  ASSERT_EQ(silent.count(), 1u);
  EXPECT_EQ(json::serialize(silent.at(0).args), R"(["NO ACK"])");
  time.advance(60s);
  EXPECT_EQ(ok.count() + limited.count() + silent.count(), 3u);  // each exactly once
  auto cmds = server_->commands();
  EXPECT_EQ(cmds.at(0).name, "set");
  EXPECT_EQ(json::serialize(cmds.at(0).payload), R"({"k":"v"})");
}

TEST_F(SocketIo, PendingAcknowledgementAnswersOnceAfterCloseOrDestruction) {
  ManualTime time;
  ASSERT_TRUE(server_->scriptCommand("*", CommandAnswer().none()));
  auto m = openConnected();
  AckSink before_close, after_destroy, no_socket;
  m->socket()->emitWithAck("command", args({"a", json::object{}}), 6s, before_close.callback());
  ASSERT_TRUE(waitUntil([&] { return server_->commands().size() == 1; }));
  ASSERT_TRUE(server_->dropTransport(0, ""));
  ASSERT_TRUE(recorder_.waitFor("disconnect"));
  m->socket()->emitWithAck("command", args({"b", json::object{}}), 6s, after_destroy.callback());
  std::weak_ptr<sio::Socket> weak = m->socket();
  m.reset();
  // With the socket gone, an emit has nowhere to go and nothing answers it.
  if (auto s = weak.lock()) s->emitWithAck("command", args({"c", json::object{}}), 6s, no_socket.callback());
  time.advance(6s);
  EXPECT_EQ(before_close.count(), 1u);
  EXPECT_EQ(after_destroy.count(), 1u);
  EXPECT_EQ(no_socket.count(), 0u);
  EXPECT_EQ(recorder_.disconnects().size(), 1u);
}

TEST_F(SocketIo, BinaryBothWays) {
  auto m = openConnected();
  AckSink echo;
  json::object doc{{"meta", json::object{{"n", 1}}}, {"blob", sio::makePlaceholder(1)}};
  m->socket()->emitWithAck("echo", args({sio::makePlaceholder(0), doc}, {bytes({1, 2, 3}), bytes({0, 255})}), 6s,
                           echo.callback());
  ASSERT_TRUE(waitUntil([&] { return echo.count() == 1; }));
  auto back = echo.at(0);
  ASSERT_EQ(back.buffers.size(), 2u);
  ASSERT_TRUE(sio::isPlaceholder(back.args.at(0), 2));
  auto first = back.args.at(0).as_object().at("num").as_int64();
  auto nested = back.args.at(1).as_object().at("blob").as_object().at("num").as_int64();
  EXPECT_EQ(*back.buffers.at(first), (sio::Buffer{1, 2, 3}));
  EXPECT_EQ(*back.buffers.at(nested), (sio::Buffer{0, 255}));

  auto conn = server_->awaitConnection(0);
  ASSERT_TRUE(conn);
  ASSERT_TRUE(server_->push(0, conn->id, "pushed", json::array{"x", json::object{{"data", bytesValue({9, 8, 7})}}}));
  ASSERT_TRUE(recorder_.waitFor("pushed"));
  auto pushed = recorder_.of("pushed").at(0);
  EXPECT_EQ(pushed.args.at(0).as_string(), "x");
  auto& ph = pushed.args.at(1).as_object().at("data");
  ASSERT_TRUE(sio::isPlaceholder(ph, pushed.buffers.size()));
  EXPECT_EQ(*pushed.buffers.at(ph.as_object().at("num").as_int64()), (sio::Buffer{9, 8, 7}));
}

TEST_F(SocketIo, ServerEventAskingForAnAcknowledgementGetsOneReply) {
  auto m = openConnected();
  m->socket()->on("ask", [](const sio::Payload& p, const sio::Responder& respond) {
    EXPECT_TRUE(respond.requested());
    respond(args({"answer", p.args.at(0)}));
    respond(args({"second"}));  // ignored
  });
  auto conn = server_->awaitConnection(0);
  ASSERT_TRUE(conn);
  auto reply = server_->pushWithAck(0, conn->id, "ask", json::array{1}, 5s);
  ASSERT_TRUE(reply);
  EXPECT_EQ(json::serialize(*reply), R"(["answer",1])");
}

TEST_F(SocketIo, EachKindOfCloseIsReportedOnceWithItsReason) {
  struct Case {
    const char* name;
    std::function<void(sio::Manager&, const std::string& id)> close;
    std::string reason;
  } cases[] = {
      {"server disconnect", [](sio::Manager&, const std::string& id) { server_->disconnect(0, id); }, "Got Disconnect"},
      {"server disconnect and close",
       [](sio::Manager&, const std::string& id) { server_->disconnect(0, id, std::nullopt, true); }, "Got Disconnect"},
      {"client disconnect", [](sio::Manager& m, const std::string&) { m.socket()->disconnect(); }, "Namespace leave"},
      {"server stopped", [](sio::Manager&, const std::string&) { server_->stopTavern(0); }, "Transport close"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(server_->reset());
    Recorder r;
    auto m = std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), server_->tavernUrls().at(0), sio::Options{});
    r.attach(*m->socket(), {"connect", "disconnect"});
    m->socket()->connect(6s, [] {});
    ASSERT_TRUE(r.waitFor("connect"));
    c.close(*m, m->socket()->sid());
    ASSERT_TRUE(r.waitFor("disconnect"));
    // A second report would come from the same connection's end: wait until the server has let go
    // of it, then until the client has run everything that followed.
    auto sid = m->socket()->sid();
    ASSERT_TRUE(waitUntil([&] {
      for (auto& conn : server_->connections(0)) {
        if (conn.id == sid && conn.connected) return false;
      }
      return true;
    }));
    qnbrl::MainQueue::sync([] {});
    EXPECT_EQ(r.disconnects(), std::vector<std::string>{c.reason});
    EXPECT_EQ(m->socket()->status(), sio::Socket::Status::Disconnected);
  }
}

TEST_F(SocketIo, ClientDisconnectIsSeenByTheServerAsANamespaceLeave) {
  auto m = openConnected();
  auto conn = server_->awaitConnection(0);
  ASSERT_TRUE(conn);
  m->socket()->disconnect();
  ASSERT_TRUE(waitUntil([&] {
    auto c = server_->connections(0);
    return !c.empty() && !c.front().connected;
  }));
  EXPECT_EQ(server_->connections(0).front().disconnectReason, "client namespace disconnect");
  EXPECT_EQ(recorder_.disconnects(), std::vector<std::string>{"Namespace leave"});
}

TEST_F(SocketIo, DroppedTransportIsALostConnection) {
  auto m = openConnected();
  ASSERT_TRUE(server_->dropTransport(0, ""));
  ASSERT_TRUE(recorder_.waitFor("disconnect"));
  auto reason = recorder_.disconnects().at(0);
  EXPECT_TRUE(reason == "Transport close" || reason.rfind("Transport error: ", 0) == 0) << reason;
}

TEST_F(SocketIo, SilentServerEndsInPingTimeout) {
  ManualTime time;
  ASSERT_TRUE(server_->setSilent(server_->silentId(), Silence::AfterConnect));
  auto m = open(server_->silentUrl());
  ASSERT_TRUE(recorder_.waitFor("connect"));
  // The silent server announces the default heartbeat: 25 s interval + 20 s time-out.
  time.advance(44999ms);
  EXPECT_TRUE(recorder_.disconnects().empty());
  time.advance(1ms);
  ASSERT_TRUE(recorder_.waitFor("disconnect"));
  EXPECT_EQ(recorder_.disconnects(), std::vector<std::string>{"Ping timeout"});
}

TEST_F(SocketIo, ConnectTimeOutFiresOnlyWhenTheAttemptHangs) {
  ManualTime time;
  auto hanging = open(server_->blackholeUrl());
  ASSERT_TRUE(server_->stopTavern(1));
  auto refused = open(server_->tavernUrls().at(1));
  ASSERT_TRUE(recorder_.waitFor("disconnect"));
  EXPECT_EQ(recorder_.disconnects().at(0).rfind("Transport error: ", 0), 0u) << recorder_.disconnects().at(0);
  time.advance(5999ms);
  EXPECT_EQ(timeouts_, 0);
  time.advance(1ms);
  ASSERT_TRUE(waitUntil([&] { return timeouts_ == 1; }));
  time.advance(60s);
  EXPECT_EQ(timeouts_, 1);  // the refused attempt had already failed; the hanging one fires once
  EXPECT_EQ(recorder_.disconnects().size(), 1u);
  EXPECT_EQ(hanging->socket()->status(), sio::Socket::Status::Disconnected);
}

TEST_F(SocketIo, EmitsBeforeTheConnectionIsUpAreSentOnceItIs) {
  auto m = std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), server_->tavernUrls().at(0), sio::Options{});
  AckSink ack;
  m->socket()->emitWithAck("command", args({"early", json::object{}}), 6s, ack.callback());
  m->socket()->connect(6s, [] {});
  ASSERT_TRUE(waitUntil([&] { return ack.count() == 1; }));
  EXPECT_EQ(server_->commands().at(0).name, "early");
}

TEST_F(SocketIo, RefusedEmitsSendNothingAndKeepTheConnection) {
  ManualTime time;
  auto m = openConnected();
  AckSink reserved, bad_text, fine;
  m->socket()->emitWithAck("disconnect", args({}), 6s, reserved.callback());
  m->socket()->emitWithAck("command", args({std::string("\xff\xfe"), json::object{}}), 6s, bad_text.callback());
  m->socket()->emitWithAck("command", args({"fine", json::object{}}), 6s, fine.callback());
  ASSERT_TRUE(waitUntil([&] { return fine.count() == 1; }));
  time.advance(6s);
  EXPECT_EQ(json::serialize(reserved.at(0).args), R"(["NO ACK"])");
  EXPECT_EQ(json::serialize(bad_text.at(0).args), R"(["NO ACK"])");
  EXPECT_EQ(server_->commands().size(), 1u);
  EXPECT_TRUE(recorder_.disconnects().empty());
}

TEST_F(SocketIo, HostileFramesCloseTheConnectionWithAReason) {
  struct Case {
    json::array frames;
    const char* prefix;
  } cases[] = {
      {{"42[\"connect\"]"}, "Parse error: "},
      {{"451-[\"a\",{\"_placeholder\":true,\"num\":0}]", "42[\"b\"]"}, "Parse error: "},
      {{"9"}, "Transport error: "},
      {{bytesValue({0})}, "Parse error: "},
      {{"0{\"sid\":\"again\",\"pingInterval\":1,\"pingTimeout\":1}"}, "Transport error: "},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(json::serialize(c.frames));
    ASSERT_TRUE(server_->reset());
    Recorder r;
    auto m = std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), server_->tavernUrls().at(0), sio::Options{});
    r.attach(*m->socket(), {"connect", "disconnect"});
    m->socket()->connect(6s, [] {});
    ASSERT_TRUE(r.waitFor("connect"));
    ASSERT_TRUE(server_->raw(0, m->socket()->sid(), c.frames));
    ASSERT_TRUE(r.waitFor("disconnect"));
    EXPECT_EQ(r.disconnects().at(0).rfind(c.prefix, 0), 0u) << r.disconnects().at(0);
  }
}

TEST_F(SocketIo, OversizedInboundMessageClosesTheConnection) {
  sio::Options o;
  o.max_message_size = 4096;
  auto m = openConnected(0, o);
  ASSERT_TRUE(server_->push(0, m->socket()->sid(), "pushed", json::array{std::string(8192, 'x')}));
  ASSERT_TRUE(recorder_.waitFor("disconnect"));
  EXPECT_TRUE(recorder_.of("pushed").empty());
  EXPECT_EQ(recorder_.disconnects().at(0).rfind("Transport error: ", 0), 0u);
}

TEST_F(SocketIo, TlsWithTheTrustedTestCa) {
  auto m = open(server_->tavernTlsUrls().at(0));
  ASSERT_TRUE(recorder_.waitFor("connect")) << (recorder_.disconnects().empty() ? "" : recorder_.disconnects()[0]);
  AckSink ack;
  m->socket()->emitWithAck("command", args({"tls", json::object{}}), 6s, ack.callback());
  ASSERT_TRUE(waitUntil([&] { return ack.count() == 1; }));
}

TEST(SocketIoTls, UntrustedCaOrWrongHostNameIsRefusedBeforeAnythingIsSent) {
  for (bool wrong_host : {false, true}) {
    SCOPED_TRACE(wrong_host ? "wrong host name" : "untrusted CA");
    DevServerOptions o;
    o.tavern = 0;
    o.tavernTls = 1;
    o.untrustedCert = !wrong_host;
    o.wrongHostCert = wrong_host;
    DevServer server(o);
    ASSERT_TRUE(server.ready());
    Recorder r;
    auto m = std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), server.tavernTlsUrls().at(0), sio::Options{});
    r.attach(*m->socket(), {"connect", "disconnect"});
    m->socket()->connect(6s, [] {});
    ASSERT_TRUE(r.waitFor("disconnect"));
    EXPECT_NE(r.disconnects().at(0).find("certificate verify failed"), std::string::npos) << r.disconnects().at(0);
    EXPECT_TRUE(server.connections(server.tavernTlsId(0)).empty());
  }
}

TEST(SocketIoCompression, NegotiatedAndUsedBothWays) {
  DevServerOptions o;
  o.tavern = 1;
  o.tavernTls = 0;
  o.perMessageDeflate = true;
  DevServer server(o);
  ASSERT_TRUE(server.ready());
  Recorder r;
  auto m = std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), server.tavernUrls().at(0), sio::Options{});
  r.attach(*m->socket(), {"connect"});
  m->socket()->connect(6s, [] {});
  ASSERT_TRUE(r.waitFor("connect"));
  auto before = server.awaitConnection(0);
  ASSERT_TRUE(before);
  EXPECT_TRUE(before->deflate);
  EXPECT_NE(before->headers.at("sec-websocket-extensions").as_string().find("permessage-deflate"), std::string::npos);
  AckSink echo;
  std::string big(64 * 1024, 'a');
  m->socket()->emitWithAck("echo", args({big}), 6s, echo.callback());
  ASSERT_TRUE(waitUntil([&] { return echo.count() == 1; }));
  EXPECT_EQ(echo.at(0).args.at(0).as_string(), big);
  auto after = server.connections(0).at(0);
  EXPECT_LT(after.bytesRead - before->bytesRead, big.size() / 10);   // what we sent, compressed
  EXPECT_LT(after.bytesWritten - before->bytesWritten, big.size() / 10);  // what came back, compressed
}

}  // namespace

namespace {

// Real heartbeat timing with the short settings the reference test suites use.
TEST(SocketIoHeartbeat, AnsweredPingsKeepTheConnectionAndASilentServerIsDetected) {
  DevServerOptions o;
  o.tavern = 1;
  o.tavernTls = 0;
  o.pingInterval = 300ms;
  o.pingTimeout = 200ms;
  DevServer server(o);
  ASSERT_TRUE(server.ready());
  Recorder live, silent;
  auto a = std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), server.tavernUrls().at(0), sio::Options{});
  live.attach(*a->socket(), {"connect", "disconnect"});
  a->socket()->connect(6s, [] {});
  ASSERT_TRUE(server.setSilent(server.silentId(), Silence::AfterConnect));
  auto b = std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), server.silentUrl(), sio::Options{});
  silent.attach(*b->socket(), {"connect", "disconnect"});
  b->socket()->connect(6s, [] {});
  ASSERT_TRUE(live.waitFor("connect"));
  ASSERT_TRUE(silent.waitFor("disconnect"));
  EXPECT_EQ(silent.disconnects(), std::vector<std::string>{"Ping timeout"});
  // By now the live connection has answered at least one ping: it is still up on the server too.
  EXPECT_TRUE(live.disconnects().empty());
  EXPECT_EQ(server.connections(0, true).size(), 1u);
}

}  // namespace
