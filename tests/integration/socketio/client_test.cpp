#include "support/socketio_fixture.hpp"

#include <boost/json/serialize.hpp>

using namespace testing_support;
using namespace std::chrono_literals;
namespace json = boost::json;

namespace {

bool startsWith(const std::string& s, std::string_view prefix) { return s.rfind(prefix, 0) == 0; }

class SocketIo : public DevServerSuite {
 protected:
  static std::unique_ptr<Session> open(const std::string& url, sio::Options options = {}) {
    return std::make_unique<Session>(url, std::move(options),
                                     std::initializer_list<const char*>{"connect", "disconnect", "pushed"});
  }
  // A socket on tavern server `id`, connected before this returns.
  static std::unique_ptr<Session> openConnected(int id = 0, sio::Options options = {}) {
    auto s = open(server_->tavernUrls().at(id), std::move(options));
    EXPECT_TRUE(s->recorder().waitFor("connect")) << json::serialize(json::value_from(s->recorder().disconnects()));
    return s;
  }
};

TEST_F(SocketIo, QueryArrivesIntactAndTheSocketIdIsTheServers) {
  sio::Options o;
  std::string token = R"({"token":"a+b/c=d&e#f é g","userId":"u 1"})";
  o.query = {{"app", "tavern"}, {"token", token}, {"n", "12"}};
  auto s = openConnected(0, o);
  auto conn = server_->awaitConnection(0);
  ASSERT_TRUE(conn);
  EXPECT_EQ(conn->query.at("token").as_string(), token);
  EXPECT_EQ(conn->query.at("app").as_string(), "tavern");
  EXPECT_EQ(conn->query.at("n").as_string(), "12");
  EXPECT_EQ(conn->query.at("EIO").as_string(), "4");
  EXPECT_EQ(conn->query.at("transport").as_string(), "websocket");
  EXPECT_EQ(s->socket().sid(), conn->id);
  EXPECT_EQ(s->socket().status(), sio::Socket::Status::Connected);
}

TEST_F(SocketIo, AcknowledgementsAndTheirTimeOuts) {
  ManualTime time;
  auto s = openConnected();
  ASSERT_TRUE(server_->scriptCommand("slow", CommandAnswer().none()));
  ASSERT_TRUE(server_->scriptCommand("limited", CommandAnswer().ack(json::array{"Too Many Requests", json::object{{"result", 5}}})));
  AckSink ok, limited, silent;
  s->socket().emitWithAck("command", args({"set", json::object{{"k", "v"}}}), 6s, ok.callback());
  s->socket().emitWithAck("command", args({"limited", json::object{}}), 6s, limited.callback());
  s->socket().emitWithAck("command", args({"slow", json::object{}}), 6s, silent.callback());
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
  auto s = openConnected();
  AckSink before_close, after_close, no_socket;
  s->socket().emitWithAck("command", args({"a", json::object{}}), 6s, before_close.callback());
  ASSERT_TRUE(waitUntil([&] { return server_->commands().size() == 1; }));
  ASSERT_TRUE(server_->dropTransport(0, ""));
  ASSERT_TRUE(s->recorder().waitFor("disconnect"));
  s->socket().emitWithAck("command", args({"b", json::object{}}), 6s, after_close.callback());
  std::weak_ptr<sio::Socket> weak = s->manager()->socket();
  s->manager().reset();
  // With the socket gone, an emit has nowhere to go and nothing answers it.
  if (auto socket = weak.lock()) socket->emitWithAck("command", args({"c", json::object{}}), 6s, no_socket.callback());
  time.advance(6s);
  EXPECT_EQ(before_close.count(), 1u);
  EXPECT_EQ(after_close.count(), 1u);
  EXPECT_EQ(no_socket.count(), 0u);
  EXPECT_EQ(s->recorder().disconnects().size(), 1u);
}

TEST_F(SocketIo, BinaryBothWays) {
  auto s = openConnected();
  AckSink echo;
  json::object doc{{"meta", json::object{{"n", 1}}}, {"blob", sio::makePlaceholder(1)}};
  s->socket().emitWithAck("echo", args({sio::makePlaceholder(0), doc}, {bytes({1, 2, 3}), bytes({0, 255})}), 6s,
                          echo.callback());
  ASSERT_TRUE(waitUntil([&] { return echo.count() == 1; }));
  auto back = echo.at(0);
  ASSERT_EQ(back.buffers.size(), 2u);
  ASSERT_TRUE(sio::isPlaceholder(back.args.at(0), 2));
  auto first = back.args.at(0).as_object().at("num").as_int64();
  auto nested = back.args.at(1).as_object().at("blob").as_object().at("num").as_int64();
  EXPECT_EQ(*back.buffers.at(first), (sio::Buffer{1, 2, 3}));
  EXPECT_EQ(*back.buffers.at(nested), (sio::Buffer{0, 255}));

  ASSERT_TRUE(server_->push(0, s->socket().sid(), "pushed", json::array{"x", json::object{{"data", bytesValue({9, 8, 7})}}}));
  ASSERT_TRUE(s->recorder().waitFor("pushed"));
  auto pushed = s->recorder().of("pushed").at(0);
  EXPECT_EQ(pushed.args.at(0).as_string(), "x");
  auto& ph = pushed.args.at(1).as_object().at("data");
  ASSERT_TRUE(sio::isPlaceholder(ph, pushed.buffers.size()));
  EXPECT_EQ(*pushed.buffers.at(ph.as_object().at("num").as_int64()), (sio::Buffer{9, 8, 7}));
}

TEST_F(SocketIo, ServerEventAskingForAnAcknowledgementGetsOneReply) {
  auto s = openConnected();
  s->socket().on("ask", [](const sio::Payload& p, const sio::Responder& respond) {
    EXPECT_TRUE(respond.requested());
    respond(args({"answer", p.args.at(0)}));
    respond(args({"second"}));  // ignored
  });
  auto reply = server_->pushWithAck(0, s->socket().sid(), "ask", json::array{1}, 5s);
  ASSERT_TRUE(reply);
  EXPECT_EQ(json::serialize(*reply), R"(["answer",1])");
}

TEST_F(SocketIo, EachKindOfCloseIsReportedOnceWithItsReason) {
  struct Case {
    const char* name;
    std::function<void(Session&)> close;
    std::string reason;
  } cases[] = {
      {"server disconnect", [](Session& s) { server_->disconnect(0, s.socket().sid()); }, "Got Disconnect"},
      {"server disconnect and close",
       [](Session& s) { server_->disconnect(0, s.socket().sid(), std::nullopt, true); }, "Got Disconnect"},
      {"client disconnect", [](Session& s) { s.socket().disconnect(); }, "Namespace leave"},
      {"server stopped", [](Session&) { server_->stopTavern(0); }, "Transport close"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(server_->reset());
    auto s = openConnected();
    auto sid = s->socket().sid();
    c.close(*s);
    ASSERT_TRUE(s->recorder().waitFor("disconnect"));
    // A second report would come from the same connection's end: wait until the server has let go
    // of it, then until the client has run everything that followed.
    ASSERT_TRUE(waitUntil([&] {
      for (auto& conn : server_->connections(0)) {
        if (conn.id == sid && conn.connected) return false;
      }
      return true;
    }));
    qnbrl::MainQueue::sync([] {});
    EXPECT_EQ(s->recorder().disconnects(), std::vector<std::string>{c.reason});
    EXPECT_EQ(s->socket().status(), sio::Socket::Status::Disconnected);
  }
}

TEST_F(SocketIo, ClientDisconnectIsSeenByTheServerAsANamespaceLeave) {
  auto s = openConnected();
  ASSERT_TRUE(server_->awaitConnection(0));
  s->socket().disconnect();
  ASSERT_TRUE(waitUntil([&] {
    auto c = server_->connections(0);
    return !c.empty() && !c.front().connected;
  }));
  EXPECT_EQ(server_->connections(0).front().disconnectReason, "client namespace disconnect");
  EXPECT_EQ(s->recorder().disconnects(), std::vector<std::string>{"Namespace leave"});
}

TEST_F(SocketIo, DroppedTransportIsALostConnection) {
  auto s = openConnected();
  ASSERT_TRUE(server_->dropTransport(0, ""));
  ASSERT_TRUE(s->recorder().waitFor("disconnect"));
  auto reason = s->recorder().disconnects().at(0);
  EXPECT_TRUE(reason == "Transport close" || startsWith(reason, "Transport error: ")) << reason;
}

TEST_F(SocketIo, ConnectTimeOutFiresOnlyWhenTheAttemptHangs) {
  ManualTime time;
  auto hanging = open(server_->blackholeUrl());
  ASSERT_TRUE(server_->stopTavern(1));
  auto refused = open(server_->tavernUrls().at(1));
  ASSERT_TRUE(refused->recorder().waitFor("disconnect"));
  EXPECT_TRUE(startsWith(refused->recorder().disconnects().at(0), "Transport error: "));
  time.advance(5999ms);
  EXPECT_EQ(hanging->timeouts(), 0);
  time.advance(1ms);
  ASSERT_TRUE(waitUntil([&] { return hanging->timeouts() == 1; }));
  time.advance(60s);
  EXPECT_EQ(hanging->timeouts(), 1);
  EXPECT_EQ(refused->timeouts(), 0);  // it had already failed
  EXPECT_TRUE(hanging->recorder().disconnects().empty());
  EXPECT_EQ(refused->recorder().disconnects().size(), 1u);
  EXPECT_EQ(hanging->socket().status(), sio::Socket::Status::Disconnected);
}

TEST_F(SocketIo, EmitsBeforeTheConnectionIsUpAreSentOnceItIs) {
  sio::Manager m(qnbrl::MainQueue::executor(), server_->tavernUrls().at(0), sio::Options{});
  AckSink ack;
  m.socket()->emitWithAck("command", args({"early", json::object{}}), 6s, ack.callback());
  m.socket()->connect(6s, [] {});
  ASSERT_TRUE(waitUntil([&] { return ack.count() == 1; }));
  EXPECT_EQ(server_->commands().at(0).name, "early");
}

TEST_F(SocketIo, RefusedEmitsSendNothingAndKeepTheConnection) {
  ManualTime time;
  auto s = openConnected();
  AckSink reserved, bad_text, fine;
  s->socket().emitWithAck("disconnect", args({}), 6s, reserved.callback());
  s->socket().emitWithAck("command", args({std::string("\xff\xfe"), json::object{}}), 6s, bad_text.callback());
  s->socket().emitWithAck("command", args({"fine", json::object{}}), 6s, fine.callback());
  ASSERT_TRUE(waitUntil([&] { return fine.count() == 1; }));
  time.advance(6s);
  EXPECT_EQ(json::serialize(reserved.at(0).args), R"(["NO ACK"])");
  EXPECT_EQ(json::serialize(bad_text.at(0).args), R"(["NO ACK"])");
  EXPECT_EQ(server_->commands().size(), 1u);
  EXPECT_TRUE(s->recorder().disconnects().empty());
}

TEST_F(SocketIo, InboundMessagesUpToTheLimitPassAndOneByteMoreClosesTheConnection) {
  sio::Options o;
  o.max_message_size = 4096;
  auto s = openConnected(0, o);
  // 42["pushed","…"] puts 15 bytes around the text.
  ASSERT_TRUE(server_->push(0, s->socket().sid(), "pushed", json::array{std::string(4096 - 15, 'x')}));
  ASSERT_TRUE(s->recorder().waitFor("pushed"));
  ASSERT_TRUE(server_->push(0, s->socket().sid(), "pushed", json::array{std::string(4096 - 14, 'x')}));
  ASSERT_TRUE(s->recorder().waitFor("disconnect"));
  EXPECT_EQ(s->recorder().of("pushed").size(), 1u);
  EXPECT_EQ(s->recorder().disconnects(), std::vector<std::string>{"Transport error: inbound message over 4096 bytes"});
}

TEST_F(SocketIo, TlsWithTheTrustedTestCa) {
  auto s = open(server_->tavernTlsUrls().at(0));
  ASSERT_TRUE(s->recorder().waitFor("connect"));
  AckSink ack;
  s->socket().emitWithAck("command", args({"tls", json::object{}}), 6s, ack.callback());
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
    Session s(server.tavernTlsUrls().at(0));
    ASSERT_TRUE(s.recorder().waitFor("disconnect"));
    auto reason = s.recorder().disconnects().at(0);
    EXPECT_NE(reason.find("certificate verify failed"), std::string::npos) << reason;
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
  Session s(server.tavernUrls().at(0));
  ASSERT_TRUE(s.recorder().waitFor("connect"));
  auto before = server.awaitConnection(0);
  ASSERT_TRUE(before);
  EXPECT_TRUE(before->deflate);
  EXPECT_NE(before->headers.at("sec-websocket-extensions").as_string().find("permessage-deflate"), std::string::npos);
  AckSink echo;
  std::string big(64 * 1024, 'a');
  s.socket().emitWithAck("echo", args({big}), 6s, echo.callback());
  ASSERT_TRUE(waitUntil([&] { return echo.count() == 1; }));
  EXPECT_EQ(echo.at(0).args.at(0).as_string(), big);
  auto after = server.connections(0).at(0);
  EXPECT_LT(after.bytesRead - before->bytesRead, big.size() / 10);        // what we sent, compressed
  EXPECT_LT(after.bytesWritten - before->bytesWritten, big.size() / 10);  // what came back, compressed
}

// Real heartbeat timing with the short settings the reference test suites use.
TEST(SocketIoHeartbeat, AnsweredPingsKeepTheConnectionAndASilentServerIsDetected) {
  DevServerOptions o;
  o.tavern = 1;
  o.tavernTls = 0;
  o.pingInterval = 300ms;
  o.pingTimeout = 200ms;
  DevServer server(o);
  ASSERT_TRUE(server.ready());
  ASSERT_TRUE(server.setSilent(server.silentId(), Silence::AfterConnect));
  Session live(server.tavernUrls().at(0));
  Session silent(server.silentUrl());
  ASSERT_TRUE(live.recorder().waitFor("connect"));
  ASSERT_TRUE(silent.recorder().waitFor("disconnect"));
  EXPECT_EQ(silent.recorder().disconnects(), std::vector<std::string>{"Ping timeout"});
  // By now the live connection has answered at least one ping: it is still up on the server too.
  EXPECT_TRUE(live.recorder().disconnects().empty());
  EXPECT_EQ(server.connections(0, true).size(), 1u);
}

}  // namespace
