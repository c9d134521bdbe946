// Every operation's code table, local checks, payload and telemetry, through the one request path
// with an in-memory command sender: no server, no waiting.
#include "support/feature_fixture.hpp"

#include <boost/json/serialize.hpp>

#include <functional>
#include <map>

using namespace qnbrl;
namespace json = boost::json;

namespace {

using Done = std::function<void(int)>;
using Call = std::function<void(Done)>;

class RequestPathTest : public testing_support::FeatureFixture {
 protected:
  std::shared_ptr<QNBRLChannel> joined(const std::string& id = "room") {
    auto channel = channels->createChannelWithId(id, {});
    channel->joinWithCompletion({});
    sender->answer({json::object{{"result", 0}}}, "join");
    return channel;
  }

  // The operations with valid arguments, by command name.
  std::map<std::string, Call> operations() {
    auto room = joined();
    auto reading = [](Done done) { return [done](auto, int code) { done(code); }; };
    auto readingUser = [](Done done) { return [done](auto, const std::string&, int code) { done(code); }; };
    auto text = std::make_shared<QNBRLMessage>("hi");
    const std::vector<QNBRLAttribute> kv{{"k", "v"}};
    return {
        {"join", [=](Done d) { room->joinWithCompletion(d); }},
        {"sendChannelMessage", [=](Done d) { room->sendMessage(text, std::nullopt, d); }},
        {"getChannelMembers", [=](Done d) { room->getMembersWithCompletion(reading(d)); }},
        {"getChannelMemberCount", [=, this](Done d) { channels->getChannelMemberCount({"a", "b"}, reading(d)); }},
        {"setChannelAttributes", [this](Done d) { attributes.setChannel("c", {{"k", "v"}}, std::nullopt, d); }},
        {"addOrUpdateChannelAttributes",
         [this](Done d) { attributes.addOrUpdateChannel("c", {{"k", "v"}}, std::nullopt, d); }},
        {"deleteChannelAttributesByKeys",
         [this](Done d) { attributes.deleteChannelAttributes("c", {"k"}, std::nullopt, d); }},
        {"clearChannelAttributes", [this](Done d) { attributes.clearChannelAttributes("c", std::nullopt, d); }},
        {"getChannelAttributes", [=, this](Done d) { attributes.getChannelAttributes("c", reading(d)); }},
        {"getChannelAttributesByKeys", [=, this](Done d) { attributes.getChannelAttributes("c", {"k"}, reading(d)); }},
        {"sendMessageToPeer", [=, this](Done d) { peers.sendMessage(text, "bob", std::nullopt, d); }},
        {"setLocalUserAttributes", [=, this](Done d) { users->setLocalUserAttributes(kv, d); }},
        {"addOrUpdateLocalUserAttributes", [=, this](Done d) { users->addOrUpdateLocalUserAttributes(kv, d); }},
        {"deleteLocalUserAttributesByKeys", [this](Done d) { users->deleteLocalUserAttributesByKeys({"k"}, d); }},
        {"clearLocalUserAttributes", [this](Done d) { users->clearLocalUserAttributesWithCompletion(d); }},
        {"getUserAttributes", [=, this](Done d) { users->getUserAttributes("u", readingUser(d)); }},
        {"getUserAttributesByKeys", [=, this](Done d) { users->getUserAttributes("u", {"k"}, readingUser(d)); }},
        {"subscribePeersOnlineStatus", [this](Done d) { presence->subscribePeersOnlineStatus({"p"}, d); }},
        {"unsubscribePeersOnlineStatus", [this](Done d) { presence->unsubscribePeersOnlineStatus({"p"}, d); }},
        {"queryPeersOnlineStatus", [=, this](Done d) { presence->queryPeersOnlineStatus({"p"}, reading(d)); }},
        {"queryPeersBySubscriptionOption",
         [=, this](Done d) { presence->queryPeersBySubscriptionOption(0, reading(d)); }},
        {"subscribePeersUserAttributes", [this](Done d) { peerAttributes->subscribePeersUserAttribes({"p"}, d); }},
        {"unsubscribePeersUserAttributes", [this](Done d) { peerAttributes->unsubscribePeersUserAttribes({"p"}, d); }},
        {"getPeersUserAttributes", [=, this](Done d) { peerAttributes->getPeersUserAttributes({"p"}, reading(d)); }},
        {"getPeersUserAttributesByKeys",
         [=, this](Done d) { peerAttributes->getPeersUserAttributes({"p"}, {"k"}, reading(d)); }},
    };
  }

  // Every record written so far is of `type`, with (action, interface, code) as listed; the records lose
  // every space, the one inside the interface text included.
  void expectRecords(const char* type, const std::vector<std::tuple<const char*, std::string, int>>& expected) {
    auto all = records();
    ASSERT_EQ(all.size(), expected.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
      auto [action, interface, code] = expected[i];
      std::erase(interface, ' ');
      EXPECT_EQ(all[i].at("type"), type);
      EXPECT_EQ(all[i].at("action"), action);
      EXPECT_EQ(all[i].at("interface"), json::value(interface));
      EXPECT_EQ(all[i].at("errorCode"), code);
      EXPECT_EQ(all[i].at("result"), 0);
    }
  }

  // Runs the call and answers it; every code its completion got, in order.
  std::vector<int> codesOf(const Call& call, const std::string& command, const json::array& ack) {
    std::vector<int> codes;
    auto before = sender->count(command);
    call([&](int code) { codes.push_back(code); });
    EXPECT_EQ(sender->count(command), before + 1) << command;
    sender->answer(ack, command);
    return codes;
  }
};

TEST_F(RequestPathTest, EveryOperationMapsEveryAnswerToItsOwnCode) {
  const json::array acks[] = {
      {json::object{{"result", 0}}}, {"NO ACK"}, {"Too Many Requests"}, {"Too Many Requests", json::object{{"result", 0}}},
      {json::object{{"result", 2}}}, {json::object{{"result", 3}}}, {json::object{{"result", 4}}},
      {json::object{{"result", 5}}}, {json::object{{"result", 6}}}, {json::object{{"result", 7}}},
      {json::object{{"result", "9"}}}, {}, {json::object{}}, {json::object{{"result", 4294967296.0}}},
  };
  const std::map<std::string, std::vector<int>> expected = {
      // ok  NO  TMR  TMR+0  2  3  4  5  6  7  9  []  {}  huge
      {"join", {0, 4, 1, 0, 1, 3, 1, 5, 6, 1, 1, 1, 0, 1}},
      {"sendChannelMessage", {0, 2, 3, 0, 1, 1, 4, 5, 1, 1, 1, 1, 0, 1}},
      {"getChannelMembers", {0, 3, 4, 0, 1, 1, 1, 5, 1, 1, 1, 1, 0, 1}},
      {"getChannelMemberCount", {0, 4, 3, 0, 2, 1, 1, 5, 1, 1, 1, 1, 0, 1}},
      {"setChannelAttributes", {0, 7, 5, 5, 2, 2, 4, 2, 2, 2, 2, 2, 0, 2}},
      {"addOrUpdateChannelAttributes", {0, 7, 5, 5, 2, 2, 4, 2, 2, 2, 2, 2, 0, 2}},
      {"deleteChannelAttributesByKeys", {0, 7, 5, 5, 2, 2, 4, 2, 2, 2, 2, 2, 0, 2}},
      {"clearChannelAttributes", {0, 7, 5, 5, 2, 2, 4, 2, 2, 2, 2, 2, 0, 2}},
      {"getChannelAttributes", {0, 7, 5, 0, 2, 2, 2, 2, 2, 2, 2, 2, 0, 2}},
      {"getChannelAttributesByKeys", {0, 7, 5, 0, 2, 3, 2, 2, 2, 2, 2, 2, 0, 2}},
      {"sendMessageToPeer", {0, 2, 5, 0, 1, 3, 4, 1, 6, 7, 1, 1, 0, 1}},
      {"setLocalUserAttributes", {0, 7, 5, 5, 2, 2, 4, 2, 2, 2, 2, 2, 0, 2}},
      {"addOrUpdateLocalUserAttributes", {0, 7, 5, 5, 2, 2, 4, 2, 2, 2, 2, 2, 0, 2}},
      {"deleteLocalUserAttributesByKeys", {0, 7, 5, 5, 2, 2, 2, 2, 2, 2, 2, 2, 0, 2}},
      {"clearLocalUserAttributes", {0, 7, 5, 5, 2, 2, 2, 2, 2, 2, 2, 2, 0, 2}},
      {"getUserAttributes", {0, 7, 5, 5, 2, 2, 2, 2, 6, 2, 2, 2, 0, 2}},
      {"getUserAttributesByKeys", {0, 7, 5, 5, 2, 2, 2, 2, 6, 2, 2, 2, 0, 2}},
      {"subscribePeersOnlineStatus", {0, 4, 5, 5, 1, 1, 1, 1, 6, 1, 1, 1, 0, 1}},
      {"unsubscribePeersOnlineStatus", {0, 4, 5, 5, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
      {"queryPeersOnlineStatus", {0, 4, 5, 5, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
      {"queryPeersBySubscriptionOption", {0, 4, 5, 5, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
      {"subscribePeersUserAttributes", {0, 4, 5, 5, 1, 1, 1, 1, 6, 1, 1, 1, 0, 1}},
      {"unsubscribePeersUserAttributes", {0, 4, 5, 5, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
      {"getPeersUserAttributes", {0, 4, 5, 5, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
      {"getPeersUserAttributesByKeys", {0, 4, 5, 5, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1}},
  };
  auto ops = operations();
  ASSERT_EQ(ops.size(), expected.size());
  for (const auto& [command, codes] : expected) {
    for (std::size_t i = 0; i < std::size(acks); ++i) {
      EXPECT_EQ(codesOf(ops.at(command), command, acks[i]), std::vector<int>{codes[i]})
          << command << " answered " << json::serialize(acks[i]);
    }
  }
}

TEST_F(RequestPathTest, LocalChecksRefuseInTheirOrderAndSendNothing) {
  auto idle = channels->createChannelWithId("idle", {});
  const std::string longId(65, 'x');
  std::vector<std::string> ids33(33, "*"), ids32(32, "ok");
  auto reading = [](Done done) { return [done](auto, int code) { done(code); }; };
  const std::pair<Call, int> refusals[] = {
      {[&](Done d) { channels->createChannelWithId(longId.substr(1), {})->joinWithCompletion(d); }, -1},
      {[&](Done d) { idle->leaveWithCompletion(d); }, 3},
      {[&](Done d) { idle->sendMessage(std::make_shared<QNBRLMessage>("x"), std::nullopt, d); }, 5},
      {[&](Done d) { idle->getMembersWithCompletion(reading(d)); }, 5},
      {[&](Done d) { channels->getChannelMemberCount(ids33, reading(d)); }, 5},
      {[&](Done d) { channels->getChannelMemberCount(ids32, reading(d)); }, -1},
      {[&](Done d) { channels->getChannelMemberCount({}, reading(d)); }, 2},
      {[&](Done d) { channels->getChannelMemberCount({"ok", "bad*"}, reading(d)); }, 2},
      {[&](Done d) { attributes.setChannel("c", {}, std::nullopt, d); }, 3},
      {[&](Done d) { attributes.addOrUpdateChannel(longId, {{"k", "v"}}, std::nullopt, d); }, 3},
      {[&](Done d) { attributes.deleteChannelAttributes("c", {}, std::nullopt, d); }, 3},
      {[&](Done d) { attributes.clearChannelAttributes("c\xc3\xa9", std::nullopt, d); }, 3},
      {[&](Done d) { attributes.clearChannelAttributes("c", std::nullopt, d); }, -1},
      {[&](Done d) { attributes.getChannelAttributes("", reading(d)); }, 3},
      {[&](Done d) { attributes.getChannelAttributes("c", {}, reading(d)); }, 3},
      {[&](Done d) { users->setLocalUserAttributes({}, d); }, 3},
      {[&](Done d) { users->addOrUpdateLocalUserAttributes({}, d); }, 3},
      {[&](Done d) { users->deleteLocalUserAttributesByKeys({}, d); }, 3},
      // A refused read still names the user asked for.
      {[&](Done d) {
         users->getUserAttributes(longId, [&, d](auto, const std::string& u, int c) { d(u == longId ? c : -2); });
       },
       3},
      {[&](Done d) { users->getUserAttributes("u", {}, [d](auto, const std::string&, int code) { d(code); }); }, 3},
      {[&](Done d) { presence->subscribePeersOnlineStatus({}, d); }, 2},
      {[&](Done d) { presence->unsubscribePeersOnlineStatus({"ok", longId}, d); }, 2},
      {[&](Done d) { presence->queryPeersOnlineStatus({"bad\xc3\xa9"}, reading(d)); }, 2},
      {[&](Done d) { peerAttributes->subscribePeersUserAttribes({""}, d); }, 2},
      {[&](Done d) { peerAttributes->getPeersUserAttributes({}, reading(d)); }, 2},
      {[&](Done d) { peerAttributes->getPeersUserAttributes({"a"}, {}, reading(d)); }, 2},
      {[&](Done d) { peerAttributes->getPeersUserAttributes({"a"}, {"not an id*"}, reading(d)); }, -1},
  };
  for (std::size_t i = 0; i < std::size(refusals); ++i) {
    auto before = sender->count();
    std::vector<int> codes;
    refusals[i].first([&](int code) { codes.push_back(code); });
    bool refused = refusals[i].second >= 0;
    EXPECT_EQ(codes, refused ? std::vector<int>{refusals[i].second} : std::vector<int>{}) << "row " << i;
    EXPECT_EQ(sender->count(), before + (refused ? 0 : 1)) << "row " << i;
  }
  EXPECT_EQ(channels->createChannelWithId(longId, {}), nullptr);

  // Logged out, every operation refuses with 102 before anything else.
  auto ops = operations();
  state->setLogin(false);
  auto before = sender->count();
  for (auto& [command, call] : ops) {
    std::vector<int> codes;
    call([&](int code) { codes.push_back(code); });
    EXPECT_EQ(codes, std::vector<int>{102}) << command;
  }
  std::vector<int> left;
  idle->leaveWithCompletion([&](int code) { left.push_back(code); });
  EXPECT_EQ(left, std::vector<int>{102});
  EXPECT_EQ(sender->count(), before);
}

TEST_F(RequestPathTest, PayloadsCarryExactlyWhatTheServerReads) {
  auto room = joined();
  auto bytes = std::make_shared<const QNBRLBytes>(QNBRLBytes{1, 2, 3});
  auto raw = std::make_shared<QNBRLRawMessage>(bytes);
  auto rawWithText = std::make_shared<QNBRLRawMessage>(bytes);
  rawWithText->text = "";
  QNBRLSendMessageOptions offline{.enableOfflineMessaging = true, .enableHistoricalMessaging = true};
  QNBRLChannelAttributeOptions notify{.enableNotificationToChannelMembers = true};
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[&] { attributes.setChannel("c", {{"a", "1"}, {"b", "2"}, {"a", "3"}}, std::nullopt, {}); },
       R"({"channelId":"c","attributes":{"a":"3","b":"2"},"option":{"notify":false}})"},
      {[&] { attributes.addOrUpdateChannel("c", {{"a", "1"}}, notify, {}); },
       R"({"channelId":"c","attributes":{"a":"1"},"option":{"notify":true}})"},
      {[&] { attributes.deleteChannelAttributes("c", {"a", "a"}, QNBRLChannelAttributeOptions{}, {}); },
       R"({"channelId":"c","attributeKeys":["a","a"],"option":{"notify":false}})"},
      {[&] { attributes.getChannelAttributes("c", {"a"}, {}); }, R"({"channelId":"c","attributeKeys":["a"]})"},
      {[&] { channels->getChannelMemberCount({"a", "b"}, {}); }, R"({"channelIds":["a","b"]})"},
      {[&] { room->sendMessage(std::make_shared<QNBRLMessage>(), std::nullopt, {}); },
       R"({"channelId":"room","content":{"text":null,"binary":null},"option":{}})"},
      {[&] { room->sendMessage(rawWithText, std::nullopt, {}); },
       R"({"channelId":"room","content":{"text":"","binary":{"_placeholder":true,"num":0}},"option":{}})"},
      {[&] { peers.sendMessage(raw, "bob", std::nullopt, {}); },
       R"({"targetUserId":"bob","content":{"text":null,"binary":{"_placeholder":true,"num":0}},"option":{"offline":false}})"},
      {[&] { peers.sendMessage(std::make_shared<QNBRLMessage>("hi"), "any*id", offline, {}); },
       R"({"targetUserId":"any*id","content":{"text":"hi","binary":null},"option":{"offline":true}})"},
      {[&] { users->setLocalUserAttributes({{"a", "1"}, {"b", "2"}, {"a", "3"}}, {}); },
       R"({"attributes":{"a":"3","b":"2"}})"},
      {[&] { users->deleteLocalUserAttributesByKeys({"a"}, {}); }, R"({"attributeKeys":["a"]})"},
      {[&] { users->clearLocalUserAttributesWithCompletion({}); }, R"({})"},
      {[&] { users->getUserAttributes("u", {"k"}, {}); }, R"({"userId":"u","attributeKeys":["k"]})"},
      {[&] { presence->unsubscribePeersOnlineStatus({"a", "b"}, {}); }, R"({"userIds":["a","b"]})"},
      {[&] { presence->queryPeersBySubscriptionOption(-3, {}); }, R"({"option":-3})"},
      {[&] { peerAttributes->getPeersUserAttributes({"a"}, {"k"}, {}); }, R"({"userIds":["a"],"attributeKeys":["k"]})"},
  };
  for (const auto& [call, payload] : rows) {
    call();
    auto sent = sender->sent().back();
    EXPECT_EQ(json::serialize(sent.payload), payload) << sent.name;
    // Bytes travel as the one attachment, shared with the message, not copied.
    const bool binary = std::string_view(payload).find("_placeholder") != std::string_view::npos;
    using Attachments = decltype(sent.attachments);
    EXPECT_EQ(sent.attachments, binary ? Attachments{bytes} : Attachments{}) << sent.name;
  }
}

TEST_F(RequestPathTest, AnOversizeBodyIsToldAtOnceAndStillSent) {
  auto room = joined();
  auto text = [](std::size_t n) { return std::make_shared<QNBRLMessage>(std::string(n, 'x')); };
  auto twoBig = std::make_shared<QNBRLRawMessage>(std::make_shared<const QNBRLBytes>(32769));
  twoBig->text = std::string(32769, 'x');
  std::string accents;
  for (int i = 0; i < 16385; ++i) accents += "\xc3\xa9";  // 16385 characters, 32770 bytes
  const json::array ok{json::object{{"result", 0}}};
  const std::tuple<std::shared_ptr<QNBRLMessage>, std::vector<int>, std::vector<int>> rows[] = {
      {text(32768), {0}, {0}},
      {text(32769), {7, 0}, {4, 0}},
      {std::make_shared<QNBRLMessage>(accents), {7, 0}, {4, 0}},
      {twoBig, {7, 7, 0}, {4, 4, 0}},
  };
  for (const auto& [body, toPeer, inChannel] : rows) {
    const auto& message = body;  // Clang 14 cannot capture a structured binding in a lambda
    EXPECT_EQ(codesOf([&](Done d) { peers.sendMessage(message, "bob", std::nullopt, d); }, "sendMessageToPeer", ok),
              toPeer);
    EXPECT_EQ(codesOf([&](Done d) { room->sendMessage(message, std::nullopt, d); }, "sendChannelMessage", ok),
              inChannel);
  }
}

TEST_F(RequestPathTest, TelemetryNamesTheOperationAndWhereItFailed) {
  attributes.setChannel("c", {}, std::nullopt, {});
  attributes.setChannel("c", {{"k", "v"}}, std::nullopt, {});
  sender->answer({"Too Many Requests"});
  attributes.clearChannelAttributes("c", std::nullopt, {});
  sender->answer({json::object{{"result", 0}}});  // a success writes nothing
  attributes.getChannelAttributes("bad*", {});     // told 3, recorded as 102
  attributes.getChannelAttributes("c", {"k"}, {});
  sender->answer({"NO ACK"});
  expectRecords("ChannelAttributes", {
                                         {"set", "-[QNBRLKit setChannel:attributes:options:completion:]", 3},
                                         {"set", "-[QNBRLKit setChannel:attributes:options:completion:]_block_invoke", 5},
                                         {"get", "-[QNBRLKit getChannelAttributes:completion:]", 102},
                                         {"get", "-[QNBRLKit getChannelAttributes:byKeys:completion:]_block_invoke", 7},
                                     });
}

TEST_F(RequestPathTest, UserAndPeerRecordsComeAfterOrBeforeTheCompletionByFamily) {
  std::vector<std::size_t> seen;  // how many records existed when each completion ran
  auto count = [&](int) { seen.push_back(records().size()); };
  users->setLocalUserAttributes({}, count);
  presence->subscribePeersOnlineStatus({}, count);
  users->getUserAttributes("u", {"k"}, [&](auto, const std::string&, int code) { count(code); });
  sender->answer({"NO ACK"});  // told 7, recorded as 5
  peerAttributes->getPeersUserAttributes({"p"}, [&](auto, int code) { count(code); });
  sender->answer({json::object{{"result", 3}}});
  state->setLogin(false);
  users->clearLocalUserAttributesWithCompletion(count);
  EXPECT_EQ(seen, (std::vector<std::size_t>{0, 2, 2, 4, 4}));
  expectRecords("UserAttributes", {
                                      {"set", "-[QNBRLKit setLocalUserAttributes:completion:]", 3},
                                      {"sub", "-[QNBRLKit subscribePeersOnlineStatus:completion:]", 2},
                                      {"get", "-[QNBRLKit getUserAttributes:byKeys:completion:]_block_invoke", 5},
                                      {"get", "-[QNBRLKit getPeersUserAttributes:completion:]_block_invoke", 1},
                                      {"delete", "-[QNBRLKit clearLocalUserAttributesWithCompletion:]", 102},
                                  });
}

}  // namespace
