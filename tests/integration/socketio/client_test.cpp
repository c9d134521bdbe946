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
  for (auto [key, value] : {std::pair{"token", token.c_str()}, {"app", "tavern"}, {"n", "12"}, {"EIO", "4"},
                             {"transport", "websocket"}}) {
    EXPECT_EQ(conn->query.at(key).as_string(), value) << key;
  }
  EXPECT_EQ(s->socket().sid(), conn->id);
  EXPECT_EQ(s->socket().status(), sio::Socket::Status::Connected);
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
    std::string reason;         // or its start
    std::string server_reason;  // where the client's own packet decides it
  } cases[] = {
      {"server disconnect", [](Session& s) { server_->disconnect(0, s.socket().sid()); }, "Got Disconnect", ""},
      {"server disconnect and close",
       [](Session& s) { server_->disconnect(0, s.socket().sid(), std::nullopt, true); }, "Got Disconnect", ""},
      {"client disconnect", [](Session& s) { s.socket().disconnect(); }, "Namespace leave",
       "client namespace disconnect"},
      {"transport dropped", [](Session&) { server_->dropTransport(0, ""); }, "Transport ", ""},
      {"server stopped", [](Session&) { server_->stopTavern(0); }, "Transport close", ""},
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
    std::string server_reason;
    ASSERT_TRUE(waitUntil([&] {
      for (auto& conn : server_->connections(0)) {
        if (conn.id == sid && conn.connected) return false;
        if (conn.id == sid) server_reason = conn.disconnectReason;
      }
      return true;
    }));
    qnbrl::MainQueue::sync([] {});
    ASSERT_EQ(s->recorder().disconnects().size(), 1u);
    EXPECT_TRUE(startsWith(s->recorder().disconnects()[0], c.reason)) << s->recorder().disconnects()[0];
    EXPECT_TRUE(c.server_reason.empty() || server_reason == c.server_reason) << server_reason;
    EXPECT_EQ(s->socket().status(), sio::Socket::Status::Disconnected);
  }
}

TEST_F(SocketIo, ConnectTimeOutFiresOnlyWhenTheAttemptHangs) {
  ManualTime time;
  auto hanging = open(server_->blackholeUrl());
  ASSERT_TRUE(server_->stopTavern(1));
  auto refused = open(server_->tavernUrls().at(1));
  ASSERT_TRUE(refused->recorder().waitFor("disconnect"));
  time.advance(6s);
  ASSERT_TRUE(waitUntil([&] { return hanging->timeouts() == 1; }));
  EXPECT_TRUE(startsWith(refused->recorder().disconnects().at(0), "Transport error: "));
  EXPECT_EQ(refused->timeouts(), 0);  // it had already failed
  EXPECT_TRUE(hanging->recorder().disconnects().empty());
  EXPECT_EQ(hanging->socket().status(), sio::Socket::Status::Disconnected);
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

TEST(SocketIoTls, OnlyACertificateOfTheTrustedCaForTheHostIsAccepted) {
  for (auto [untrusted, wrong_host] : {std::pair{false, false}, {true, false}, {false, true}}) {
    SCOPED_TRACE(untrusted ? "untrusted CA" : wrong_host ? "wrong host name" : "trusted");
    DevServerOptions o;
    o.tavern = 0;
    o.tavernTls = 1;
    o.untrustedCert = untrusted;
    o.wrongHostCert = wrong_host;
    DevServer server(o);
    ASSERT_TRUE(server.ready());
    Session s(server.tavernTlsUrls().at(0));
    if (!untrusted && !wrong_host) {
      AckSink ack;
      s.socket().emitWithAck("command", args({"tls", json::object{}}), 6s, ack.callback());
      EXPECT_TRUE(waitUntil([&] { return ack.count() == 1; }));
      continue;
    }
    ASSERT_TRUE(s.recorder().waitFor("disconnect"));
    auto reason = s.recorder().disconnects().at(0);
    EXPECT_NE(reason.find("certificate verify failed"), std::string::npos) << reason;
    EXPECT_TRUE(server.connections(server.tavernTlsId(0)).empty());  // nothing was sent
  }
}

// Compression on, and the short heartbeat the reference test suites use, so real timing takes
// milliseconds.
struct LiveDevServer {
  static DevServerOptions options() {
    DevServerOptions o;
    o.tavern = 1;
    o.tavernTls = 0;
    o.perMessageDeflate = true;
    o.pingInterval = 300ms;
    o.pingTimeout = 200ms;
    return o;
  }
};
using SocketIoLive = DevServerSuiteOf<LiveDevServer>;

TEST_F(SocketIoLive, CompressionIsNegotiatedAndUsedBothWays) {
  Session s(server_->tavernUrls().at(0));
  ASSERT_TRUE(s.recorder().waitFor("connect"));
  auto before = server_->awaitConnection(0);
  ASSERT_TRUE(before);
  EXPECT_TRUE(before->deflate);
  EXPECT_NE(before->headers.at("sec-websocket-extensions").as_string().find("permessage-deflate"), std::string::npos);
  AckSink echo;
  std::string big(64 * 1024, 'a');
  s.socket().emitWithAck("echo", args({big}), 6s, echo.callback());
  ASSERT_TRUE(waitUntil([&] { return echo.count() == 1; }));
  EXPECT_EQ(echo.at(0).args.at(0).as_string(), big);
  auto after = server_->connections(0).at(0);
  EXPECT_LT(after.bytesRead - before->bytesRead, big.size() / 10);        // what we sent, compressed
  EXPECT_LT(after.bytesWritten - before->bytesWritten, big.size() / 10);  // what came back, compressed
}

TEST_F(SocketIoLive, AnsweredPingsKeepTheConnectionAndASilentServerIsDetected) {
  ASSERT_TRUE(server_->setSilent(server_->silentId(), Silence::AfterConnect));
  Session live(server_->tavernUrls().at(0));
  Session silent(server_->silentUrl());
  ASSERT_TRUE(live.recorder().waitFor("connect"));
  ASSERT_TRUE(silent.recorder().waitFor("disconnect"));
  EXPECT_EQ(silent.recorder().disconnects(), std::vector<std::string>{"Ping timeout"});
  // By now the live connection has answered at least one ping: it is still up on the server too.
  EXPECT_TRUE(live.recorder().disconnects().empty());
  EXPECT_EQ(server_->connections(0, true).size(), 1u);
}

}  // namespace
