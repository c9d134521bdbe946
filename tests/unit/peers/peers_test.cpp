// The local user's attribute cache, the online-status diff, the batch-fetch and push decoders, the
// subscription sets and the replays after a reconnection, over the request path with an in-memory
// command sender.
#include "support/feature_fixture.hpp"
#include "transport/wire.hpp"

#include <boost/json/serialize.hpp>

using namespace qnbrl;
namespace json = boost::json;

namespace {

class Peers : public testing_support::FeatureFixture {
 protected:
  static sio::Payload pushOf(const char* text) { return {json::parse(text).as_array(), {}}; }
  void ok(std::string_view command = {}) { sender->answer({json::object{{"result", 0}}}, command); }
  std::vector<QNBRLAttribute> cached() const { return users->cache().brlAttributes(); }
  // Each user as "id: key=value key(deleted) ...".
  static std::vector<std::string> describe(const std::vector<QNBRLUserAttributes>& list) {
    std::vector<std::string> out;
    for (const auto& user : list) {
      std::string text = user.userId + ":";
      for (const auto& a : user.attributes) text += " " + a.key + (a.deleted ? "(deleted)" : "=" + a.value);
      out.push_back(text);
    }
    return out;
  }
};

TEST_F(Peers, TheCacheFollowsOnlyWhatTheServerConfirms) {
  std::vector<int> codes;
  auto done = [&](int code) { codes.push_back(code); };
  users->addOrUpdateLocalUserAttributes({{"x", "0"}}, done);
  ok();
  users->setLocalUserAttributes({{"a", "1"}, {"b", "2"}, {"a", "2"}}, done);
  EXPECT_EQ(cached(), (std::vector<QNBRLAttribute>{{"x", "0"}})) << "written before the confirmation";
  ok();
  EXPECT_EQ(cached(), (std::vector<QNBRLAttribute>{{"a", "2"}, {"b", "2"}})) << "set replaces everything";
  users->deleteLocalUserAttributesByKeys({"a", "zz"}, done);
  sender->answer({"NO ACK"});
  users->addOrUpdateLocalUserAttributes({{"c", "3"}}, done);
  sender->answer({json::object{{"result", 4}}});
  EXPECT_EQ(cached(), (std::vector<QNBRLAttribute>{{"a", "2"}, {"b", "2"}})) << "failures change nothing";
  users->deleteLocalUserAttributesByKeys({"a", "zz"}, done);
  ok();
  EXPECT_EQ(cached(), (std::vector<QNBRLAttribute>{{"b", "2"}}));
  users->clearLocalUserAttributesWithCompletion(done);
  ok();
  EXPECT_TRUE(cached().empty());
  users->addOrUpdateLocalUserAttributes({{"d", "4"}}, done);
  ok();
  users->logout();
  EXPECT_TRUE(cached().empty());

  // Once the client is gone a confirmation only completes.
  users->setLocalUserAttributes({{"e", "5"}}, done);
  users.reset();
  ok();
  EXPECT_EQ(codes, (std::vector<int>{0, 0, 7, 4, 0, 0, 0, 0}));
}

TEST_F(Peers, OnlineStatusPushesAreReportedOnlyWhenTheyChange) {
  std::vector<std::vector<QNBRLPeerOnlineStatus>> heard;
  auto push = [&](const char* text) {
    presence->onPeersOnlineStatusChanged(pushOf(text),
                                         [&](const auto& changes) { heard.push_back(changes); });
  };
  push(R"([{"status":{"a":0}}])");
  push(R"([{"status":{"a":0}}])");
  push(R"([{"status":{"b":2,"a":0}}])");           // a first report always counts, even offline
  push(R"([{"status":{"b":0,"a":4294967296}}])");  // compared as 32-bit numbers: a is still 0
  push(R"([{"status":{}}])");
  push(R"([{"status":{"c":null,"d":[1]}},{"status":{"e":0}}])");
  push(R"([7])");
  push(R"([])");
  presence->unsubscribePeersOnlineStatus({"a"}, {});
  sender->answer({"NO ACK"});
  push(R"([{"status":{"a":0}}])");
  presence->unsubscribePeersOnlineStatus({"a"}, {});
  ok();
  push(R"([{"status":{"a":0}}])");  // forgotten once the server confirmed
  presence->logout();
  push(R"([{"status":{"b":0}}])");
  const std::vector<std::vector<QNBRLPeerOnlineStatus>> expected = {
      {{"a", true}}, {{"b", false}}, {{"b", true}}, {{"a", true}}, {{"b", true}}};
  EXPECT_EQ(heard, expected);
}

TEST_F(Peers, QueriesReadTheirRepliesTheirOwnWay) {
  std::optional<std::vector<QNBRLPeerOnlineStatus>> statuses;
  presence->queryPeersOnlineStatus({"a", "b", "c"}, [&](auto list, int) { statuses = list; });
  // A reply's 1 means online, where a push's 1 means offline.
  sender->answer({json::object{{"result", 0}, {"status", {{"a", 1}, {"b", 0}, {"c", "x"}}}}});
  EXPECT_EQ(statuses, (std::vector<QNBRLPeerOnlineStatus>{{"a", true}, {"b", false}, {"c", false}}));

  std::vector<std::optional<std::vector<std::string>>> peers;
  auto byOption = [&](auto list, int) { peers.push_back(list); };
  presence->queryPeersBySubscriptionOption(1, byOption);
  sender->answer({"", json::object{{"result", 0}, {"userIds", {"a", 3, "b"}}}});
  presence->queryPeersBySubscriptionOption(1, byOption);
  sender->answer({json::object{{"result", 0}}});
  presence->queryPeersBySubscriptionOption(1, byOption);
  sender->answer({json::object{{"result", 9}, {"userIds", {"a"}}}});
  EXPECT_EQ(peers, (std::vector<std::optional<std::vector<std::string>>>{
                       std::vector<std::string>{"a", "b"}, std::vector<std::string>{}, std::nullopt}));
}

TEST_F(Peers, BatchFetchesListEveryUserTheServerNamedAndPushesPassThrough) {
  std::vector<std::vector<std::string>> fetched;
  auto fetch = [&](const char* reply) {
    peerAttributes->getPeersUserAttributes({"u1", "u2", "u3"}, [&](auto list, int code) {
      fetched.push_back(list ? describe(*list) : std::vector<std::string>{"none " + std::to_string(code)});
    });
    sender->answer(json::parse(reply).as_array());
  };
  const std::string deleted(kDeletedValue);
  fetch((R"([{"result":0,"attributes":{"u2":{"result":0,"attributes":{"k":"v","d":")" + deleted +
         R"("}},"u1":{"result":3,"attributes":{"k":"v"}},"u3":"junk","u4":{"attributes":{"n":1}}}}])")
            .c_str());
  fetch(R"([{"result":0,"attributes":{}}])");
  fetch(R"([{"result":0}])");
  fetch(R"([{"result":2,"attributes":{"u1":{"result":0}}}])");
  const std::vector<std::vector<std::string>> expected = {
      {"u2: k=v d(deleted)", "u1:", "u3:", "u4: n=1"}, {}, {}, {"none 1"}};
  EXPECT_EQ(fetched, expected);

  std::vector<std::vector<std::string>> pushed;
  auto push = [&](const std::string& text) {
    QNPeerAttributes::onPeersUserAttributesChanged(
        pushOf(text.c_str()), [&](const auto& list) { pushed.push_back(describe(list)); });
  };
  push(R"([{"attributes":{"bob":{"attributes":{"k":")" + deleted + R"(","j":"1"}},"eve":{"result":3}}}])");
  push(R"(["junk"])");
  EXPECT_EQ(pushed, (std::vector<std::vector<std::string>>{{"bob: k(deleted) j=1", "eve:"}, {}}));
}

TEST_F(Peers, SubscriptionSetsChangeOnConfirmationAndEmptyAtLogout) {
  presence->subscribePeersOnlineStatus({"a", "b"}, {});
  ok();
  presence->subscribePeersOnlineStatus({"b", "c"}, {});
  ok();
  presence->unsubscribePeersOnlineStatus({"b"}, {});
  ok();
  presence->unsubscribePeersOnlineStatus({"c"}, {});
  sender->answer({"NO ACK"});
  presence->subscribePeersOnlineStatus({"d"}, {});
  sender->answer({json::object{{"result", 6}}});
  EXPECT_EQ(presence->subscribedOnlineStatusPeerIds(), (std::vector<std::string>{"a", "c"}));

  peerAttributes->subscribePeersUserAttribes({"p", "p", "q"}, {});
  ok();
  peerAttributes->unsubscribePeersUserAttribes({"p"}, {});
  ok();
  peerAttributes->unsubscribePeersUserAttribes({"q"}, {});
  sender->answer({json::object{{"result", 6}}});
  EXPECT_EQ(peerAttributes->subscribedAttributesPeerIds(), (std::vector<std::string>{"q"}));

  presence->logout();
  peerAttributes->logout();
  EXPECT_TRUE(presence->subscribedOnlineStatusPeerIds().empty());
  EXPECT_TRUE(peerAttributes->subscribedAttributesPeerIds().empty());
}

TEST_F(Peers, ReplaysRepeatOnTheNextTurnUntilConfirmedOrLoggedOut) {
  users->restoreLocalUserAttributes({});
  presence->restoreSubscribedOnlineStatusOfPeers({});
  EXPECT_EQ(sender->count(), 0u) << "nothing is sent for an empty collection";

  const std::vector<QNBRLAttribute> list{{"k", "v"}};
  users->restoreLocalUserAttributes(list);
  presence->restoreSubscribedOnlineStatusOfPeers({"a"});
  peerAttributes->restoreSubscribedAttributesOfPeers({"b"});
  for (const char* command :
       {"setLocalUserAttributes", "subscribePeersOnlineStatus", "subscribePeersUserAttributes"}) {
    for (int round = 1; round <= 3; ++round) {
      ASSERT_EQ(sender->count(command), static_cast<std::size_t>(round)) << command;
      sender->answer({json::object{{"result", 2}}}, command);
      MainQueue::sync([] {});  // the retry comes on the next turn of the main queue, with no pause
    }
    ok(command);
    MainQueue::sync([] {});
    EXPECT_EQ(sender->count(command), 4u) << command << " stops once confirmed";
  }
  EXPECT_EQ(cached(), list);
  EXPECT_EQ(presence->subscribedOnlineStatusPeerIds(), (std::vector<std::string>{"a"}));

  presence->restoreSubscribedOnlineStatusOfPeers({"a"});
  state->setLogin(false);
  sender->answer({"NO ACK"}, "subscribePeersOnlineStatus");
  MainQueue::sync([] {});
  EXPECT_EQ(sender->count("subscribePeersOnlineStatus"), 5u) << "a logout ends the loop";
}

}  // namespace
