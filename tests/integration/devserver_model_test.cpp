// The dev server's model of the service, seen from logged-in Socket.IO clients on different tavern
// servers: what members hear of each other, what is kept for an offline user, and the answers' codes.
#include "support/socketio_fixture.hpp"

#include <boost/json/serialize.hpp>

using namespace testing_support;
using namespace std::chrono_literals;
namespace json = boost::json;

namespace {

const std::initializer_list<const char*> kHeard = {"loginSuccess",
                                                   "MemberJoined",
                                                   "MemberLeft",
                                                   "ChannelMessageReceived",
                                                   "ChannelAttributesUpdated",
                                                   "MessageToPeerReceived"};

struct ModelDevServer {
  static DevServerOptions options() {
    DevServerOptions o;
    o.session = true;
    return o;
  }
};

class DevServerModel : public DevServerSuiteOf<ModelDevServer> {
 protected:
  // A client of `user` in this test's own app, logged in on `url` (the first ws tavern server when empty).
  std::unique_ptr<Session> login(const std::string& user, std::string url = {}) {
    sio::Options o;
    const json::object token{{"token", "tk"}, {"userId", user}, {"timestamp", 1}, {"connectTimeStamp", 2}};
    o.query = {{"app", "tavern"}, {"roomId", app_}, {"token", json::serialize(token)}};
    auto s = std::make_unique<Session>(url.empty() ? server_->tavernUrls()[0] : url, o, kHeard);
    EXPECT_TRUE(s->recorder().waitFor("loginSuccess"));
    return s;
  }

  // The answer to one command; buffers travel as attachments.
  static json::value command(Session& s, const std::string& name, json::value payload,
                             std::vector<sio::BufferPtr> buffers = {}) {
    AckSink sink;
    s.socket().emitWithAck("command", args({name, std::move(payload)}, std::move(buffers)), 6s,
                           sink.callback());
    EXPECT_TRUE(waitUntil([&] { return sink.count() == 1; }));
    return sink.count() ? sink.at(0).args.at(0) : json::value();
  }
  static bool succeeds(Session& s, const std::string& name, json::value payload,
                       std::vector<sio::BufferPtr> buffers = {}) {
    return command(s, name, std::move(payload), std::move(buffers)) == json::value{{"result", 0}};
  }
  static json::value first(const Session& s, const std::string& event, std::size_t i = 0) {
    return s.recorder().waitFor(event, i + 1) ? s.recorder().of(event).at(i).args.at(0) : json::value();
  }
  devserver::AppState model() { return server_->model(app_)[app_]; }
  // Channel "ch" with the given fields: a payload, or who a membership push is about.
  static json::value ch(json::object more = {}) {
    more["channelId"] = "ch";
    return more;
  }
  static json::value text(const char* t) { return {{"text", t}}; }

  const std::string app_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(DevServerModel, MembersHearJoinsMessagesAcrossServersAndLeaves) {
  auto a = login("a");
  auto b = login("b", server_->tavernTlsUrls()[0]);
  ASSERT_TRUE(succeeds(*a, "join", ch()));
  ASSERT_TRUE(succeeds(*b, "join", ch()));
  EXPECT_EQ(first(*a, "MemberJoined"), ch({{"userId", "b"}}));
  ASSERT_TRUE(succeeds(*b, "join", ch()));  // already a member: nothing to tell

  json::object content{{"text", "hi"}, {"binary", sio::makePlaceholder(0)}};
  ASSERT_TRUE(succeeds(*a, "sendChannelMessage", ch({{"content", content}, {"option", json::object()}}),
                       {bytes({1, 2, 3})}));
  ASSERT_TRUE(b->recorder().waitFor("ChannelMessageReceived"));
  const auto heard = b->recorder().of("ChannelMessageReceived")[0];
  const auto& msg = heard.args.at(0).as_object();
  EXPECT_EQ(msg.at("from"), ch({{"userId", "a"}}));
  EXPECT_EQ(msg.at("content").at("text"), "hi");
  EXPECT_TRUE(msg.at("serverReceivedTs").is_number());
  ASSERT_EQ(heard.buffers.size(), 1u);
  EXPECT_EQ(*heard.buffers[0], (sio::Buffer{1, 2, 3}));
  EXPECT_EQ(command(*a, "getChannelMembers", ch()), (json::object{{"result", 0}, {"members", {"a", "b"}}}));

  ASSERT_TRUE(succeeds(*b, "leave", ch()));
  EXPECT_EQ(first(*a, "MemberLeft"), ch({{"userId", "b"}, {"reason", "Quit"}}));
  EXPECT_EQ(a->recorder().of("MemberJoined").size(), 1u);
  EXPECT_TRUE(a->recorder().of("ChannelMessageReceived").empty());  // not sent back to its sender
}

TEST_F(DevServerModel, AttributeNotificationsReachMembersOnly) {
  auto member = login("m");
  auto writer = login("w", server_->tavernUrls()[1]);
  ASSERT_TRUE(succeeds(*member, "join", ch()));
  const json::object notify{{"notify", true}};
  ASSERT_TRUE(succeeds(*writer, "setChannelAttributes",
                       ch({{"attributes", {{"k", "1"}, {"j", "2"}}}, {"option", notify}})));
  ASSERT_TRUE(succeeds(*writer, "join", ch()));
  ASSERT_TRUE(
      succeeds(*writer, "deleteChannelAttributesByKeys", ch({{"attributeKeys", {"k"}}, {"option", notify}})));
  EXPECT_EQ(first(*member, "ChannelAttributesUpdated", 1), ch({{"attributes", {{"j", "2"}}}}));
  // Its first notification is the delete's: the set's came before it was a member.
  EXPECT_EQ(first(*writer, "ChannelAttributesUpdated"), first(*member, "ChannelAttributesUpdated", 1));
  EXPECT_EQ(model().channels["ch"].attributes, (std::map<std::string, std::string>{{"j", "2"}}));
}

TEST_F(DevServerModel, AnswersCarryTheDocumentedCodes) {
  auto a = login("a");
  ASSERT_TRUE(succeeds(*a, "join", ch()));
  const auto big = text(std::string(32769, 'x').c_str());
  struct Case {
    const char* name;
    json::value payload, answer;
  } cases[] = {
      {"getChannelMemberCount",
       {{"channelIds", {"ch", "none"}}},
       {{"result", 0}, {"counts", {{"ch", 1}, {"none", 0}}}}},
      {"getChannelMemberCount", {{"channelIds", json::array()}}, {{"result", 2}}},
      {"sendChannelMessage", {{"channelId", "other"}, {"content", text("t")}}, {{"result", 5}}},
      {"sendChannelMessage", ch({{"content", big}}), {{"result", 4}}},
      {"sendChannelMessage", ch({{"content", 7}}), {{"result", 3}}},
      {"join", {{"channelId", std::string(65, 'c')}}, {{"result", 3}}},
      {"sendMessageToPeer", {{"targetUserId", "away"}, {"content", text("t")}}, {{"result", 3}}},
      {"sendMessageToPeer", {{"targetUserId", "a"}, {"content", big}}, {{"result", 7}}},
      {"no such command", json::object(), {{"result", 0}}},
  };
  for (auto& c : cases) EXPECT_EQ(command(*a, c.name, c.payload), c.answer) << c.name << " " << c.payload;

  ASSERT_TRUE(server_->setRateLimit(1));
  auto b = login("b");
  EXPECT_EQ(command(*b, "channelHeartbeat", ch()), (json::object{{"result", 5}}));
  EXPECT_EQ(command(*b, "join", ch()), "Too Many Requests");
}

TEST_F(DevServerModel, KeptPeerMessagesComeRightAfterTheNextLogin) {
  auto a = login("a");
  const json::object offline{{"offline", true}};
  for (const json::value& t : {json::value("one"), json::value()}) {
    const json::object content{{"text", t}, {"binary", sio::makePlaceholder(0)}};
    ASSERT_TRUE(succeeds(*a, "sendMessageToPeer",
                         {{"targetUserId", "d"}, {"content", content}, {"option", offline}}, {bytes({9})}));
  }
  ASSERT_EQ(model().offlineMessages["d"].size(), 2u);

  auto d = login("d", server_->tavernUrls()[1]);
  ASSERT_TRUE(d->recorder().waitFor("MessageToPeerReceived"));
  const auto heard = d->recorder().heard();
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[0].first, "loginSuccess");
  const auto& msgs = heard[1].second.args.at(0).at("msgs").as_array();
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[0].at("content").at("text"), "one");
  EXPECT_TRUE(msgs[1].at("content").at("text").is_null());
  EXPECT_EQ(msgs[1].at("fromUserId"), "a");
  ASSERT_EQ(heard[1].second.buffers.size(), 2u);
  EXPECT_EQ(*heard[1].second.buffers[1], sio::Buffer{9});
  EXPECT_TRUE(model().offlineMessages.empty());
}

TEST_F(DevServerModel, AMemberGoneLongerThanTheGraceLeavesWithDisconnect) {
  auto a = login("a");
  auto b = login("b");
  ASSERT_TRUE(succeeds(*a, "join", ch()));
  ASSERT_TRUE(succeeds(*b, "join", ch()));
  ASSERT_TRUE(server_->dropTransport(0, b->socket().sid()));
  ASSERT_TRUE(waitUntil([&] { return model().channels["ch"].away == std::vector<std::string>{"b"}; }));

  // Back within the grace period: the re-join is silent, as the message after it shows.
  b = login("b", server_->tavernUrls()[1]);
  ASSERT_TRUE(succeeds(*b, "join", ch()));
  ASSERT_TRUE(succeeds(*b, "sendChannelMessage", ch({{"content", text("back")}})));
  ASSERT_TRUE(a->recorder().waitFor("ChannelMessageReceived"));
  EXPECT_EQ(a->recorder().of("MemberJoined").size(), 1u);
  EXPECT_TRUE(a->recorder().of("MemberLeft").empty());
  EXPECT_TRUE(model().channels["ch"].away.empty());

  ASSERT_TRUE(server_->setMemberGrace(50ms));
  b.reset();
  EXPECT_EQ(first(*a, "MemberLeft"), ch({{"userId", "b"}, {"reason", "Disconnect"}}));
  EXPECT_EQ(model().channels["ch"].members, std::vector<std::string>{"a"});
  EXPECT_EQ(model().online, std::vector<std::string>{"a"});
}

}  // namespace
