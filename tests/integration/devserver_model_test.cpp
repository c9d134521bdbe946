// The dev server's model of the service, seen from logged-in Socket.IO clients on different tavern
// servers: what members and subscribers hear of each other, and the answers' codes.
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
                                                   "PeersOnlineStatusChanged",
                                                   "PeersUserAttributesChanged"};
const char* const kDeleted = "!!&@#DELETED#@&!!";

class DevServerModel : public DevServerSuiteOf<SessionDevServer> {
 protected:
  // A client of `user` in this test's own app, logged in on `url` (the first ws tavern server when empty).
  std::unique_ptr<Session> login(const std::string& user, std::string url = {}) {
    auto s = std::make_unique<Session>(url.empty() ? server_->tavernUrls()[0] : url, loginQuery(user, app_),
                                       kHeard);
    EXPECT_TRUE(s->recorder().waitFor("loginSuccess"));
    return s;
  }

  // The answer to one command.
  static json::value command(Session& s, const std::string& name, json::value payload) {
    AckSink sink;
    s.socket().emitWithAck("command", args({name, std::move(payload)}), 6s, sink.callback());
    EXPECT_TRUE(waitUntil([&] { return sink.count() == 1; }));
    return sink.count() ? sink.at(0).args.at(0) : json::value();
  }
  static bool succeeds(Session& s, const std::string& name, json::value payload) {
    return command(s, name, std::move(payload)) == json::value{{"result", 0}};
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
  static json::value ids(json::array userIds) { return {{"userIds", std::move(userIds)}}; }
  // The first argument of every `event` heard by `s`, after a round trip of `s`: a push caused before
  // this call went out on its connection ahead of the answer, so nothing caused is missed.
  static std::vector<json::value> heardAfterRoundTrip(Session& s, const std::string& event) {
    command(s, "queryPeersOnlineStatus", ids({"x"}));
    std::vector<json::value> out;
    for (auto& p : s.recorder().of(event)) out.push_back(p.args.at(0));
    return out;
  }

  const std::string app_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

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

TEST_F(DevServerModel, ADelayAloneChangesTheModelAtOnceAndAnswersLate) {
  auto a = login("a");
  auto b = login("b");
  ASSERT_TRUE(succeeds(*b, "join", ch()));
  ASSERT_TRUE(server_->scriptCommand("join", CommandAnswer().after(1500ms).times(1)));
  AckSink late;
  a->socket().emitWithAck("command", args({"join", ch()}), 6s, late.callback());
  // Already a member while the answer, and the push behind it, are still to come.
  ASSERT_TRUE(waitUntil([&] { return model().channels["ch"].members.size() == 2; }));
  EXPECT_EQ(late.count(), 0u);
  EXPECT_TRUE(b->recorder().of("MemberJoined").empty());
  ASSERT_TRUE(waitUntil([&] { return late.count() == 1; }));
  EXPECT_EQ(late.at(0).args.at(0), (json::object{{"result", 0}}));
  EXPECT_EQ(first(*b, "MemberJoined"), ch({{"userId", "a"}}));
}

TEST_F(DevServerModel, AResetKeepingTheModelDropsOnlyTheFaults) {
  auto a = login("a");
  ASSERT_TRUE(succeeds(*a, "join", ch()));
  ASSERT_TRUE(server_->scriptCommand("getChannelMembers", CommandAnswer().none()));
  ASSERT_TRUE(server_->reset(false));
  EXPECT_EQ(model().channels["ch"].members, std::vector<std::string>{"a"});
  EXPECT_EQ(command(*a, "getChannelMembers", ch()), (json::object{{"result", 0}, {"members", {"a"}}}));
}

TEST_F(DevServerModel, UserAttributeChangesReachSubscribersOnAnyServer) {
  auto w = login("w");
  auto s = login("s", server_->tavernTlsUrls()[0]);
  ASSERT_TRUE(succeeds(*s, "subscribePeersUserAttributes", ids({"w"})));
  struct Step {
    const char* name;
    json::value payload, pushed;  // pushed: the changed keys, null when nothing changed
  } steps[] = {
      {"setLocalUserAttributes", {{"attributes", {{"k", "1"}, {"j", "2"}}}}, {{"k", "1"}, {"j", "2"}}},
      {"setLocalUserAttributes", {{"attributes", {{"k", "1"}, {"l", "3"}}}}, {{"l", "3"}, {"j", kDeleted}}},
      {"addOrUpdateLocalUserAttributes", {{"attributes", {{"k", "1"}}}}, nullptr},
      {"addOrUpdateLocalUserAttributes",
       {{"attributes", {{"k", "2"}, {"m", "4"}}}},
       {{"k", "2"}, {"m", "4"}}},
      {"deleteLocalUserAttributesByKeys", {{"attributeKeys", {"l", "none"}}}, {{"l", kDeleted}}},
      {"deleteLocalUserAttributesByKeys", {{"attributeKeys", {"none"}}}, nullptr},
      {"clearLocalUserAttributes", json::object(), {{"k", kDeleted}, {"m", kDeleted}}},
      {"clearLocalUserAttributes", json::object(), nullptr},
  };
  std::vector<json::value> expected;
  for (auto& step : steps) {
    ASSERT_TRUE(succeeds(*w, step.name, step.payload)) << step.name << " " << step.payload;
    if (!step.pushed.is_null()) {
      expected.push_back(json::object{{"attributes", {{"w", {{"attributes", step.pushed}}}}}});
    }
  }
  // No longer subscribed: no more pushes.
  ASSERT_TRUE(succeeds(*s, "unsubscribePeersUserAttributes", ids({"w"})));
  ASSERT_TRUE(succeeds(*w, "setLocalUserAttributes", {{"attributes", {{"k", "1"}}}}));
  EXPECT_EQ(heardAfterRoundTrip(*s, "PeersUserAttributesChanged"), expected);
  EXPECT_TRUE(w->recorder().of("PeersUserAttributesChanged").empty());
}

TEST_F(DevServerModel, OnlineStatusPushesFollowEveryPresenceChange) {
  auto s = login("s", server_->tavernTlsUrls()[0]);
  const auto status = [](int value) { return json::value{{"status", {{"p", value}}}}; };
  ASSERT_TRUE(succeeds(*s, "subscribePeersOnlineStatus", ids({"p"})));  // the current status at once
  EXPECT_EQ(first(*s, "PeersOnlineStatusChanged"), status(1));
  auto p = login("p");
  EXPECT_EQ(first(*s, "PeersOnlineStatusChanged", 1), status(0));
  // A login replacing the user's connection on another server: never offline in between.
  auto again = login("p", server_->tavernUrls()[1]);
  ASSERT_TRUE(server_->dropTransport(1, again->socket().sid()));  // a lost connection
  EXPECT_EQ(first(*s, "PeersOnlineStatusChanged", 2), status(1));
  p = login("p");
  EXPECT_EQ(first(*s, "PeersOnlineStatusChanged", 3), status(0));
  p.reset();  // a logout
  EXPECT_EQ(first(*s, "PeersOnlineStatusChanged", 4), status(1));
  EXPECT_EQ(heardAfterRoundTrip(*s, "PeersOnlineStatusChanged").size(), 5u);
}

TEST_F(DevServerModel, UserCommandsAnswerTheDocumentedReadingsAndCodes) {
  auto a = login("a");
  auto b = login("b", server_->tavernUrls()[1]);
  ASSERT_TRUE(succeeds(*a, "setLocalUserAttributes", {{"attributes", {{"k", "1"}, {"j", "2"}}}}));
  ASSERT_TRUE(succeeds(*a, "subscribePeersOnlineStatus", ids({"b", "c"})));
  ASSERT_TRUE(succeeds(*a, "subscribePeersUserAttributes", ids({"b"})));
  const auto stateOfA = model().users["a"];

  json::object many, tooManyMore;  // 33 attributes; 31 more beside the 2 held
  for (int i = 0; i < 33; ++i) many["k" + std::to_string(i)] = "v";
  for (int i = 0; i < 31; ++i) tooManyMore["n" + std::to_string(i)] = "v";
  json::array peers;  // 999 more beside the 2 subscribed: one over the limit
  for (int i = 0; i < 999; ++i) peers.emplace_back("p" + std::to_string(i));
  const json::value unknown{{"result", 6}}, tooMany{{"result", 6}}, invalid{{"result", 3}},
      overLimit{{"result", 4}};
  const json::value attributesOfA{{"k", "1"}, {"j", "2"}};
  struct Case {
    const char* name;
    json::value payload, answer;
  } cases[] = {
      {"getUserAttributes", {{"userId", "a"}}, {{"result", 0}, {"attributes", attributesOfA}}},
      {"getUserAttributes", {{"userId", "b"}}, {{"result", 0}, {"attributes", json::object()}}},  // online
      {"getUserAttributes", {{"userId", "nobody"}}, unknown},
      {"getUserAttributes", {{"userId", std::string(65, 'u')}}, invalid},
      {"getUserAttributesByKeys",
       {{"userId", "a"}, {"attributeKeys", {"k", "none"}}},
       {{"result", 0}, {"attributes", {{"k", "1"}}}}},
      {"getPeersUserAttributes",
       ids({"a", "nobody"}),
       {{"result", 0},
        {"attributes", {{"a", {{"result", 0}, {"attributes", attributesOfA}}}, {"nobody", unknown}}}}},
      {"getPeersUserAttributesByKeys",
       {{"userIds", {"a", "b"}}, {"attributeKeys", {"j"}}},
       {{"result", 0},
        {"attributes",
         {{"a", {{"result", 0}, {"attributes", {{"j", "2"}}}}},
          {"b", {{"result", 0}, {"attributes", json::object()}}}}}}},
      {"getPeersUserAttributes", ids({}), invalid},
      {"queryPeersOnlineStatus",
       ids({"b", "nobody"}),
       {{"result", 0}, {"status", {{"b", 1}, {"nobody", 0}}}}},
      {"queryPeersBySubscriptionOption", {{"option", 0}}, {{"result", 0}, {"userIds", {"b", "c"}}}},
      {"queryPeersBySubscriptionOption", {{"option", 1}}, {{"result", 0}, {"userIds", {"b"}}}},
      {"queryPeersBySubscriptionOption", {{"option", 2}}, invalid},
      {"setLocalUserAttributes", {{"attributes", many}}, overLimit},
      {"addOrUpdateLocalUserAttributes", {{"attributes", tooManyMore}}, overLimit},
      {"setLocalUserAttributes", {{"attributes", {{"k", std::string(8193, 'v')}}}}, overLimit},
      {"addOrUpdateLocalUserAttributes", {{"attributes", {{std::string(65, 'k'), "v"}}}}, overLimit},
      {"addOrUpdateLocalUserAttributes", {{"attributes", {{"k", kDeleted}}}}, invalid},
      {"setLocalUserAttributes", {{"attributes", {{"k", 1}}}}, invalid},
      {"deleteLocalUserAttributesByKeys", {{"attributeKeys", "k"}}, invalid},
      {"subscribePeersOnlineStatus", ids(peers), tooMany},
      {"subscribePeersUserAttributes", ids({"b", std::string(65, 'p')}), invalid},
  };
  for (auto& c : cases) EXPECT_EQ(command(*a, c.name, c.payload), c.answer) << c.name << " " << c.payload;
  EXPECT_EQ(model().users["a"], stateOfA);  // refusals change nothing
}

}  // namespace
