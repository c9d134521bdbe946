// Channels, channel attributes and peer messages between real clients through the dev server's model
// of the service: what only a server that relays between users can show.
#include "support/users_fixture.hpp"

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

using ChannelsTest = UsersTest;

TEST_F(ChannelsTest, MessagesAndMembershipCrossTavernServers) {
  auto alice = user("alice", A);
  auto bob = user("bob", B);
  ASSERT_TRUE(alice->inbox.waitFor("room: joined bob"));
  Codes sent;
  bob->room->sendMessage(std::make_shared<QNBRLMessage>("hello"), std::nullopt, sent.completion());
  auto raw = std::make_shared<QNBRLRawMessage>(std::make_shared<const QNBRLBytes>(QNBRLBytes{0, 255, 7}));
  raw->text = "bytes";
  bob->room->sendMessage(raw, std::nullopt, sent.completion());
  EXPECT_EQ(sent.await(2), 0);
  EXPECT_TRUE(alice->inbox.waitFor("room: bob says hello"));
  EXPECT_TRUE(alice->inbox.waitFor("room: bob says bytes +3B"));

  std::promise<std::optional<std::vector<QNBRLMember>>> members;
  alice->room->getMembersWithCompletion([&](auto list, int) { members.set_value(list); });
  auto list = within(members.get_future());
  std::vector<std::string> ids;
  for (auto& m : list.value_or(std::vector<QNBRLMember>{})) ids.push_back(m.userId);
  EXPECT_EQ(ids, (std::vector<std::string>{"alice", "bob"}));
  std::promise<std::optional<std::vector<QNChannelMemberCount>>> counts;
  bob->kit->getChannelMemberCount({"room", "empty"}, [&](auto c, int) { counts.set_value(c); });
  EXPECT_EQ(within(counts.get_future()),
            (std::vector<QNChannelMemberCount>{{"room", 2}, {"empty", 0}}));
  EXPECT_TRUE(bob->inbox.all().empty()) << "a message is not sent back to its sender";

  Codes left;
  bob->room->leaveWithCompletion(left.completion());
  EXPECT_EQ(left.await(), 0);
  EXPECT_TRUE(alice->inbox.waitFor("room: left bob 1"));
}

TEST_F(ChannelsTest, NotificationsReachMembersOnlyAndPeerMessagesWaitForOfflineUsers) {
  auto alice = user("alice", A);
  auto carol = user("carol", B, false);
  Codes set;
  carol->kit->setChannel("room", {{"topic", "demo"}, {"lang", "en"}},
                         QNBRLChannelAttributeOptions{.enableNotificationToChannelMembers = true}, set.completion());
  EXPECT_EQ(set.await(), 0);
  EXPECT_TRUE(alice->inbox.waitFor("room: attributes topic=demo lang=en"));
  std::promise<std::optional<std::vector<QNBRLAttribute>>> attributes;
  carol->kit->getChannelAttributes("room", {"lang", "nope"}, [&](auto list, int) { attributes.set_value(list); });
  EXPECT_EQ(within(attributes.get_future()), (std::vector<QNBRLAttribute>{{"lang", "en"}}));

  Codes peer;
  alice->kit->sendMessage(std::make_shared<QNBRLMessage>("hi carol"), "carol", std::nullopt, peer.completion());
  EXPECT_EQ(peer.await(), 0);
  EXPECT_TRUE(carol->inbox.waitFor("peer alice says hi carol"));
  alice->kit->sendMessage(std::make_shared<QNBRLMessage>("later"), "dave", std::nullopt, peer.completion());
  EXPECT_EQ(peer.await(2), QNBRLPeerMessageErrorPeerOffline);
  auto kept = std::make_shared<QNBRLRawMessage>(std::make_shared<const QNBRLBytes>(QNBRLBytes{9}));
  kept->text = "first";
  const std::shared_ptr<QNBRLMessage> offline[] = {kept, std::make_shared<QNBRLMessage>("second")};
  for (auto& m : offline)
    alice->kit->sendMessage(m, "dave", QNBRLSendMessageOptions{.enableOfflineMessaging = true},
                            peer.completion());
  EXPECT_EQ(peer.await(4), 0);
  auto dave = user("dave", C, false);
  EXPECT_TRUE(dave->inbox.waitFor("peer alice says second"));
  EXPECT_EQ(dave->inbox.all(),
            (std::vector<std::string>{"peer alice says first +1B", "peer alice says second"}));
  EXPECT_EQ(carol->inbox.all(), (std::vector<std::string>{"peer alice says hi carol"}));  // no notify: not a member
}

}  // namespace
