// The local user's attributes, presence and attribute subscriptions between real clients through the
// dev server's model of the service, and the replay that puts the server back as it was after a
// failover.
#include "support/users_fixture.hpp"

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

using PeersTest = UsersTest;
using Lines = std::vector<std::string>;

TEST_F(PeersTest, PresenceAndAttributesReachSubscribersOnOtherServers) {
  auto bob = user("bob", B, false);
  Codes codes;
  bob->kit->subscribePeersOnlineStatus({"alice"}, codes.completion());
  bob->kit->subscribePeersUserAttribes({"alice"}, codes.completion());
  EXPECT_EQ(codes.await(2), 0);
  auto alice = user("alice", A, false);
  alice->kit->setLocalUserAttributes({{"mood", "happy"}, {"city", "Oslo"}}, codes.completion());
  EXPECT_EQ(codes.await(3), 0);
  alice->kit->deleteLocalUserAttributesByKeys({"city"}, codes.completion());
  EXPECT_EQ(codes.await(4), 0);

  std::promise<std::optional<std::vector<QNBRLUserAttributes>>> fetched;
  bob->kit->getPeersUserAttributes({"alice", "nobody"}, [&](auto list, int) { fetched.set_value(list); });
  auto users = within(fetched.get_future()).value_or(std::vector<QNBRLUserAttributes>{});
  ASSERT_EQ(users.size(), 2u);
  EXPECT_EQ(users[0].userId + Inbox::describe(users[0].attributes), "alice mood=happy");
  EXPECT_EQ(users[1].userId + Inbox::describe(users[1].attributes), "nobody");
  std::promise<std::optional<std::vector<QNBRLPeerOnlineStatus>>> online;
  bob->kit->queryPeersOnlineStatus({"alice", "nobody"}, [&](auto list, int) { online.set_value(list); });
  EXPECT_EQ(within(online.get_future()),
            (std::vector<QNBRLPeerOnlineStatus>{{"alice", true}, {"nobody", false}}));
  std::promise<std::optional<std::vector<std::string>>> subscribed;
  bob->kit->queryPeersBySubscriptionOption(1, [&](auto list, int) { subscribed.set_value(list); });
  EXPECT_EQ(within(subscribed.get_future()), Lines{"alice"});

  alice->kit->logoutWithCompletion(codes.completion());
  EXPECT_EQ(codes.await(5), 0);
  ASSERT_TRUE(bob->inbox.waitFor("alice offline", 2));
  EXPECT_EQ(bob->inbox.all(), (Lines{"alice offline", "alice online", "alice attributes mood=happy city=Oslo",
                                     "alice attributes city(deleted)", "alice offline"}));
}

TEST_F(PeersTest, AfterAFailoverTheReplayLeavesTheServerAsItWas) {
  auto bob = user("bob", B, false);
  auto alice = user("alice", A);
  Codes codes;
  alice->kit->setLocalUserAttributes({{"mood", "calm"}}, codes.completion());
  alice->kit->subscribePeersOnlineStatus({"bob"}, codes.completion());
  alice->kit->subscribePeersUserAttribes({"bob"}, codes.completion());
  EXPECT_EQ(codes.await(3), 0);
  auto state = [&] { return server_->model("app-1")["app-1"]; };
  auto before = state();
  ASSERT_EQ(before.users["alice"].attributes.size(), 1u);

  ASSERT_TRUE(server_->dropTransport(A, ""));
  ASSERT_TRUE(awaitPause(1s));
  EXPECT_NE(state().users, before.users) << "the server forgets a gone user's subscriptions";
  time_.advance(1s);
  EXPECT_TRUE(waitUntil([&] {
    auto now = state();
    return now.users == before.users && now.channels["room"].members == before.channels["room"].members &&
           now.channels["room"].away.empty();
  }));
  EXPECT_TRUE(alice->room->joined());

  // Still delivering: bob's change and logout reach alice, and her attributes reach bob.
  bob->kit->setLocalUserAttributes({{"x", "1"}}, codes.completion());
  EXPECT_EQ(codes.await(4), 0);
  std::promise<std::optional<std::vector<QNBRLAttribute>>> read;
  bob->kit->getUserAttributes("alice", [&](auto list, const std::string&, int) { read.set_value(list); });
  EXPECT_EQ(within(read.get_future()), (std::vector<QNBRLAttribute>{{"mood", "calm"}}));
  bob->kit->logoutWithCompletion(codes.completion());
  EXPECT_EQ(codes.await(5), 0);
  ASSERT_TRUE(alice->inbox.waitFor("bob offline"));
  // The status re-sent on the replayed subscription was no change, so it was not reported again.
  EXPECT_EQ(alice->inbox.all(), (Lines{"bob online", "bob attributes x=1", "bob offline"}));
}

}  // namespace
