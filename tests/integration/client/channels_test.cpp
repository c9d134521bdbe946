// Channels, channel attributes and peer messages between real clients through the dev server's model
// of the service: what only a server that relays between users can show.
#include "support/session_fixture.hpp"

#include <future>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

// The future's value, or an empty one when it does not come within 10 s.
template <class T>
T within(std::future<T> future) {
  if (future.wait_for(10s) != std::future_status::ready) {
    ADD_FAILURE() << "no completion within 10 s";
    return T{};
  }
  return future.get();
}

// Lines describing what a user's delegates heard, shared with callbacks that may outlive the test.
class Inbox {
 public:
  Inbox() {
    auto lines = lines_;
    auto add = [lines](std::string line) {
      std::lock_guard lock(lines->mutex);
      lines->all.push_back(std::move(line));
    };
    channel->memberJoined = [add](QNBRLChannel& c, const QNBRLMember& m) { add(c.channelId() + ": joined " + m.userId); };
    channel->memberLeftReason = [add](QNBRLChannel& c, const QNBRLMember& m, QNBRLChannelMemberLeftReason r) {
      add(c.channelId() + ": left " + m.userId + " " + std::to_string(r));
    };
    channel->messageReceived = [add](QNBRLChannel& c, const std::shared_ptr<QNBRLMessage>& m, const QNBRLMember& from) {
      auto* raw = dynamic_cast<QNBRLRawMessage*>(m.get());
      add(c.channelId() + ": " + from.userId + " says " + m->text.value_or("") +
          (raw ? " +" + std::to_string(raw->rawData->size()) + "B" : ""));
    };
    channel->attributeUpdate = [add](QNBRLChannel& c, const std::vector<QNBRLAttribute>& list) {
      std::string text = c.channelId() + ": attributes";
      for (auto& a : list) text += " " + a.key + "=" + a.value;
      add(text);
    };
    kit->messageReceived = [add](QNBRLKit&, const std::shared_ptr<QNBRLMessage>& m, const std::string& peer) {
      add("peer " + peer + " says " + m->text.value_or(""));
    };
  }
  bool waitFor(const std::string& line) const {
    return waitUntil([&] {
      std::lock_guard lock(lines_->mutex);
      return std::find(lines_->all.begin(), lines_->all.end(), line) != lines_->all.end();
    });
  }
  std::vector<std::string> all() const {
    std::lock_guard lock(lines_->mutex);
    return lines_->all;
  }

  std::shared_ptr<QNBRLChannelDelegate> channel = std::make_shared<QNBRLChannelDelegate>();
  std::shared_ptr<QNBRLDelegate> kit = std::make_shared<QNBRLDelegate>();

 private:
  struct Lines {
    std::mutex mutex;
    std::vector<std::string> all;
  };
  std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
};

class ChannelsTest : public SessionTest {
 protected:
  struct User {
    Inbox inbox;
    std::shared_ptr<QNBRLKit> kit;
    std::shared_ptr<QNBRLChannel> room;
  };
  // A logged-in user on tavern server `server`, joined to "room" unless told otherwise.
  std::unique_ptr<User> user(const std::string& id, int server, bool join = true) {
    auto u = std::make_unique<User>();
    u->kit = makeKit(u->inbox.kit);
    // Discovery lists the chosen server first, so that users can be put on different servers.
    auto urls = server_->tavernUrls();
    std::rotate(urls.begin(), urls.begin() + server, urls.end());
    EXPECT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().servers(urls).times(1)));
    EXPECT_EQ(login(*u->kit, id), 0);
    u->room = u->kit->createChannelWithId("room", u->inbox.channel);
    Codes joined;
    if (join) u->room->joinWithCompletion(joined.completion());
    EXPECT_EQ(join ? joined.await() : 0, 0);
    return u;
  }
};

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
  ASSERT_TRUE(list);
  EXPECT_EQ(list->size(), 2u);
  std::promise<std::optional<std::vector<QNChannelMemberCount>>> counts;
  bob->kit->getChannelMemberCount({"room", "empty"}, [&](auto c, int) { counts.set_value(c); });
  EXPECT_EQ(within(counts.get_future()),
            (std::vector<QNChannelMemberCount>{{"room", 2}, {"empty", 0}}));

  Codes left;
  bob->room->leaveWithCompletion(left.completion());
  EXPECT_EQ(left.await(), 0);
  EXPECT_TRUE(alice->inbox.waitFor("room: left bob 1"));
}

TEST_F(ChannelsTest, AMemberWhoReconnectsIsRejoinedAndKeepsReceiving) {
  auto alice = user("alice", A);
  auto bob = user("bob", C);
  ASSERT_TRUE(server_->dropTransport(A, ""));
  ASSERT_TRUE(awaitPause(1s));
  time_.advance(1s);
  ASSERT_TRUE(waitUntil([&] {
    auto cmds = server_->commands();
    return std::count_if(cmds.begin(), cmds.end(), [](auto& c) { return c.name == "join" && c.server == B; }) == 1;
  }));
  Codes sent;
  bob->room->sendMessage(std::make_shared<QNBRLMessage>("still there?"), std::nullopt, sent.completion());
  EXPECT_EQ(sent.await(), 0);
  EXPECT_TRUE(alice->inbox.waitFor("room: bob says still there?"));
  EXPECT_TRUE(alice->room->joined());
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
  for (const char* text : {"first", "second"})
    alice->kit->sendMessage(std::make_shared<QNBRLMessage>(text), "dave",
                            QNBRLSendMessageOptions{.enableOfflineMessaging = true}, peer.completion());
  EXPECT_EQ(peer.await(4), 0);
  auto dave = user("dave", C, false);
  EXPECT_TRUE(dave->inbox.waitFor("peer alice says second"));
  EXPECT_EQ(dave->inbox.all(), (std::vector<std::string>{"peer alice says first", "peer alice says second"}));
  EXPECT_EQ(carol->inbox.all(), (std::vector<std::string>{"peer alice says hi carol"}));  // no notify: not a member
}

}  // namespace
