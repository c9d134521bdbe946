// Pushed channel and peer events, the heartbeat and the re-join after a reconnection, over the
// request path with an in-memory command sender and a hand-moved clock.
#include "support/feature_fixture.hpp"

#include <boost/json/serialize.hpp>

using namespace qnbrl;
namespace json = boost::json;
using namespace std::chrono_literals;

namespace {

struct Heard {
  std::vector<std::string> events;
  std::shared_ptr<QNBRLChannelDelegate> delegate = std::make_shared<QNBRLChannelDelegate>();
  Heard() {
    auto& e = events;
    delegate->memberJoined = [&e](QNBRLChannel& c, const QNBRLMember& m) { e.push_back(c.channelId() + " joined " + m.userId); };
    delegate->memberLeft = [&e](QNBRLChannel&, const QNBRLMember& m) { e.push_back("left " + m.userId); };
    delegate->memberLeftReason = [&e](QNBRLChannel&, const QNBRLMember& m, QNBRLChannelMemberLeftReason r) {
      e.push_back("left " + m.userId + " " + std::to_string(r));
    };
    delegate->messageReceived = [&e](QNBRLChannel&, const std::shared_ptr<QNBRLMessage>& m, const QNBRLMember& from) {
      auto* raw = dynamic_cast<QNBRLRawMessage*>(m.get());
      e.push_back("message " + std::to_string(m->type()) + " " + m->text.value_or("(none)") + " " +
                  std::to_string(raw ? raw->rawData->size() : 0) + "B at " + std::to_string(m->serverReceivedTs) +
                  " from " + from.userId);
    };
    delegate->attributeUpdate = [&e](QNBRLChannel&, const std::vector<QNBRLAttribute>& list) {
      std::string text = "attributes";
      for (auto& a : list) text += " " + a.key + "=" + a.value;
      e.push_back(text);
    };
    delegate->memberCount = [&e](QNBRLChannel& c, std::int32_t n) { e.push_back(c.channelId() + " count " + std::to_string(n)); };
  }
};

class ChannelEvents : public testing_support::FeatureFixture {
 protected:
  void push(void (QNBRLChannelRegistry::*handler)(const sio::Payload&), const char* json_text,
            std::vector<sio::BufferPtr> buffers = {}) {
    (channels.get()->*handler)(sio::Payload{json::parse(json_text).as_array(), std::move(buffers)});
  }
  Heard heard;
};

TEST_F(ChannelEvents, PushesReachTheChannelTheyNameAndAreReadDefensively) {
  auto room = channels->createChannelWithId("room", heard.delegate);
  auto other = channels->createChannelWithId("other", {});
  auto& e = heard.events;
  const std::pair<void (QNBRLChannelRegistry::*)(const sio::Payload&), const char*> pushes[] = {
      {&QNBRLChannelRegistry::onMemberJoined, R"([{"channelId":"room","userId":"bob"}])"},
      {&QNBRLChannelRegistry::onMemberJoined, R"([{"channelId":"nowhere","userId":"bob"}])"},
      {&QNBRLChannelRegistry::onMemberLeft, R"([{"channelId":"room","userId":"a","reason":"Quit"}])"},
      {&QNBRLChannelRegistry::onMemberLeft, R"([{"channelId":"room","userId":"b","reason":"Disconnect"}])"},
      {&QNBRLChannelRegistry::onMemberLeft, R"([{"channelId":"room","userId":"c","reason":"Bye"}])"},
      {&QNBRLChannelRegistry::onMemberLeft, R"([{"channelId":"room","userId":"d","reason":7}])"},
      {&QNBRLChannelRegistry::onChannelMessageReceived,
       R"([{"from":{"channelId":"room","userId":"bob"},"serverReceivedTs":1700000000123.9,"content":{"text":"hi"}}])"},
      {&QNBRLChannelRegistry::onChannelMessageReceived,
       R"([{"from":{"channelId":"room","userId":"bob"},"content":{"text":null,"binary":null}}])"},
      {&QNBRLChannelRegistry::onChannelMessageReceived, R"([{"from":{"channelId":"room","userId":"bob"},"content":{}}])"},
      {&QNBRLChannelRegistry::onChannelMessageReceived, R"([{"from":{"channelId":"room","userId":"bob"},"serverReceivedTs":1e300,"content":{"binary":{"_placeholder":true,"num":0}}}])"},
      {&QNBRLChannelRegistry::onChannelAttributesUpdated, R"([{"channelId":"room","attributes":{"z":"1","a":"2"}}])"},
      {&QNBRLChannelRegistry::onChannelMemberCount, R"([{"counts":{"room":3,"gone":9}}])"},
      {&QNBRLChannelRegistry::onChannelMemberCount, R"([7, "x"])"},
      {&QNBRLChannelRegistry::onMemberJoined, R"([])"},
  };
  for (const auto& [handler, payload] : pushes) push(handler, payload, {testing_support::bytes({1, 2})});
  EXPECT_EQ(e, (std::vector<std::string>{
                   "room joined bob", "left a", "left a 1", "left b", "left b 2", "left c", "left c 0", "left d", "left d 0",
                   "message 1 hi 0B at 1700000000123 from bob", "message 1 (none) 0B at 0 from bob",
                   "message 2 (none) 2B at 9200000000000000000 from bob", "attributes z=1 a=2", "room count 3",
                   "room count 0"}));
  EXPECT_FALSE(other->joined());
}

TEST_F(ChannelEvents, CreatingTwiceGivesTheSameChannelAndTheNewDelegate) {
  Heard second;
  auto first = channels->createChannelWithId("room", heard.delegate);
  EXPECT_EQ(channels->createChannelWithId("room", second.delegate), first);
  push(&QNBRLChannelRegistry::onMemberJoined, R"([{"channelId":"room","userId":"bob"}])");
  EXPECT_TRUE(heard.events.empty());
  EXPECT_EQ(second.events.size(), 1u);
  // Destroyed, the object keeps working but hears nothing more; a new one is made for the id.
  EXPECT_TRUE(channels->destroyChannelWithId("room"));
  EXPECT_FALSE(channels->destroyChannelWithId("room"));
  EXPECT_TRUE(first->destroyed());
  EXPECT_NE(channels->createChannelWithId("room", {}), first);
}

TEST_F(ChannelEvents, APeerBatchStopsAtItsFirstInvalidElement) {
  std::vector<std::string> got;
  auto deliver = [&](const std::shared_ptr<QNBRLMessage>& m, const std::string& peer) {
    got.push_back(peer + ":" + std::to_string(m->type()) + ":" + m->text.value_or("-") + (m->isOfflineMessage() ? "!" : ""));
  };
  QNPeerMessages::onMessageToPeerReceived(
      {json::parse(R"([{"msgs":[{"fromUserId":"a","content":{"text":"1","binary":7}},
                               {"fromUserId":"b","content":{"binary":{"_placeholder":true,"num":0}}},
                               {"fromUserId":"c","content":{"binary":null}},
                               {"fromUserId":"d","content":{"text":"lost"}}]}])")
           .as_array(),
       {testing_support::bytes({9})}},
      deliver);
  EXPECT_EQ(got, (std::vector<std::string>{"a:1:1", "b:2:-"}));
  for (const char* odd : {R"([])", R"([{"msgs":{}}])", R"(["msgs"])", R"([{"msgs":[5]}])"})
    QNPeerMessages::onMessageToPeerReceived({json::parse(odd).as_array(), {}}, deliver);
  EXPECT_EQ(got.size(), 2u);
}

TEST_F(ChannelEvents, TheHeartbeatRunsEveryTwoSecondsWhileLoggedInAndJoined) {
  auto room = channels->createChannelWithId("room", {});
  room->joinWithCompletion({});
  sender->answer({json::object{{"result", 0}}}, "join");
  EXPECT_EQ(sender->count("channelHeartbeat"), 1u);  // at once
  time.advance(1999ms);
  EXPECT_EQ(sender->count("channelHeartbeat"), 1u);
  time.advance(1ms);
  EXPECT_EQ(sender->count("channelHeartbeat"), 2u);
  sender->answer({"NO ACK"}, "channelHeartbeat");  // ignored
  time.advance(2s);
  EXPECT_EQ(sender->count("channelHeartbeat"), 3u);
  auto beat = sender->sent("channelHeartbeat").back().payload;
  EXPECT_EQ(beat.at("channelId"), "room");
  EXPECT_TRUE(beat.at("timestamp").is_uint64());
  // Logged out, the next firing stops the heartbeat without sending.
  state->setLogin(false);
  time.advance(10s);
  state->setLogin(true);
  time.advance(10s);
  EXPECT_EQ(sender->count("channelHeartbeat"), 3u);
  // A leave stops it at once and is acknowledged locally.
  room->joinWithCompletion({});
  sender->answer({json::object{{"result", 0}}}, "join");
  std::vector<int> left;
  room->leaveWithCompletion([&](int code) { left.push_back(code); });
  EXPECT_EQ(left, std::vector<int>{0});
  EXPECT_EQ(sender->count("leave"), 1u);
  auto beats = sender->count("channelHeartbeat");
  time.advance(10s);
  EXPECT_EQ(sender->count("channelHeartbeat"), beats);
}

TEST_F(ChannelEvents, ARestoreRejoinsOnlyWhatFailedUntilItSucceedsOrTheSessionEnds) {
  std::vector<std::shared_ptr<QNBRLChannel>> joined;
  for (const char* id : {"a", "b", "c"}) {
    joined.push_back(channels->createChannelWithId(id, {}));
    joined.back()->joinWithCompletion({});
    sender->answer({json::object{{"result", 0}}}, "join");
  }
  channels->destroyChannelWithId("c");  // destroyed but joined: still re-joined
  auto joinsFor = [&](const std::string& id) {
    int n = 0;
    for (auto& s : sender->sent("join")) n += s.payload.at("channelId") == id.c_str();
    return n;
  };
  channels->restoreJoinedChannels();
  auto requests = sender->sent("join");
  ASSERT_EQ(requests.size(), 6u);
  for (std::size_t i = 3; i < 6; ++i) {
    bool fails = requests[i].payload.at("channelId") == "b";
    requests[i].done({{fails ? json::value(json::object{{"result", 1}}) : json::value(json::object{{"result", 0}})}, {}});
  }
  MainQueue::sync([] {});  // the retry comes on the next turn of the main queue, with no pause
  EXPECT_EQ(joinsFor("b"), 3);
  EXPECT_EQ(joinsFor("a"), 2);
  sender->answer({"NO ACK"}, "join");
  MainQueue::sync([] {});
  EXPECT_EQ(joinsFor("b"), 4);
  // Logged out, the round that fails ends the retries and every channel is not joined.
  channels->logout();
  state->setLogin(false);
  sender->answer({"NO ACK"}, "join");
  MainQueue::sync([] {});
  EXPECT_EQ(joinsFor("b"), 4);
  for (auto& c : joined) EXPECT_FALSE(c->joined());
  state->setLogin(true);
  channels->restoreJoinedChannels();
  EXPECT_EQ(sender->count("join"), 8u);  // nothing left to re-join
}

}  // namespace
