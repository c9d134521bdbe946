// The same client against an independent server implementation.
#include "support/socketio_fixture.hpp"

#include <boost/json/serialize.hpp>

using namespace testing_support;
using namespace std::chrono_literals;
namespace json = boost::json;

TEST(SocketIoPythonInterop, HandshakeAcksBinaryEventsAndServerDisconnect) {
  PythonServer server;
  ASSERT_TRUE(server.ready());
  sio::Options o;
  o.query = {{"token", "a b+c/é"}};
  Session s(server.url(), o, {"connect", "disconnect", "pushed"});
  auto& r = s.recorder();
  ASSERT_TRUE(r.waitFor("connect"));
  auto conns = server.connections();
  ASSERT_EQ(conns.size(), 1u);
  EXPECT_EQ(conns[0].query.at("token").as_string(), "a b+c/é");
  EXPECT_EQ(conns[0].id, s.socket().sid());

  AckSink command, echo;
  s.socket().emitWithAck("command", args({"join", json::object{{"channelId", "c1"}}}), 6s, command.callback());
  s.socket().emitWithAck("echo", args({"t", sio::makePlaceholder(0)}, {bytes({1, 2, 3, 4})}), 6s, echo.callback());
  ASSERT_TRUE(waitUntil([&] { return command.count() == 1 && echo.count() == 1; }));
  EXPECT_EQ(json::serialize(command.at(0).args), R"([{"result":0}])");
  ASSERT_EQ(echo.at(0).buffers.size(), 1u);
  EXPECT_EQ(*echo.at(0).buffers[0], (sio::Buffer{1, 2, 3, 4}));

  ASSERT_TRUE(server.push(conns[0].id, "pushed", json::array{json::object{{"b", bytesValue({5, 6})}}}));
  ASSERT_TRUE(r.waitFor("pushed"));
  EXPECT_EQ(r.of("pushed").at(0).buffers.size(), 1u);

  ASSERT_TRUE(server.disconnect(conns[0].id));
  ASSERT_TRUE(r.waitFor("disconnect"));
  EXPECT_EQ(r.disconnects(), std::vector<std::string>{"Got Disconnect"});
}
