#pragma once
// Users of the dev server's model of the service, each a logged-in client on a chosen tavern server,
// with an inbox of what its delegates heard.
#include "support/session_fixture.hpp"

#include <algorithm>
#include <future>
#include <mutex>

namespace testing_support {

using namespace qnbrl;
using namespace std::chrono_literals;

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
    channel->memberJoined = [add](QNBRLChannel& c, const QNBRLMember& m) {
      add(c.channelId() + ": joined " + m.userId);
    };
    channel->memberLeftReason = [add](QNBRLChannel& c, const QNBRLMember& m, QNBRLChannelMemberLeftReason r) {
      add(c.channelId() + ": left " + m.userId + " " + std::to_string(r));
    };
    channel->messageReceived = [add](QNBRLChannel& c, const std::shared_ptr<QNBRLMessage>& m,
                                     const QNBRLMember& from) {
      add(c.channelId() + ": " + from.userId + says(*m));
    };
    channel->attributeUpdate = [add](QNBRLChannel& c, const std::vector<QNBRLAttribute>& list) {
      add(c.channelId() + ": attributes" + describe(list));
    };
    kit->messageReceived = [add](QNBRLKit&, const std::shared_ptr<QNBRLMessage>& m, const std::string& peer) {
      add("peer " + peer + says(*m));
    };
    kit->peersOnlineStatusChanged = [add](QNBRLKit&, const std::vector<QNBRLPeerOnlineStatus>& statuses) {
      for (auto& s : statuses) add(s.peerId + (s.isOnline ? " online" : " offline"));
    };
    kit->peersUserAttributesChanged = [add](QNBRLKit&, const std::vector<QNBRLUserAttributes>& users) {
      for (auto& u : users) add(u.userId + " attributes" + describe(u.attributes));
    };
    auto invited = [add](std::string what) {
      return [add, what](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i, int = 0) {
        add("invitation " + what + " " + i->requestInfo().value_or("-") + "/" +
            i->responseInfo().value_or("-"));
      };
    };
    invitation->invitationArrived = invited("arrived");
    invitation->invitationCanceled = invited("canceled");
    invitation->invitationAccept = invited("accept");
    invitation->invitationRefused = invited("refused");
    invitation->invitationFailed = invited("failed");
  }
  // " says text", with " +NB" for N bytes of binary content.
  static std::string says(const QNBRLMessage& m) {
    auto* raw = dynamic_cast<const QNBRLRawMessage*>(&m);
    return " says " + m.text.value_or("") + (raw ? " +" + std::to_string(raw->rawData->size()) + "B" : "");
  }
  // Until the line has been heard `times` times.
  bool waitFor(const std::string& line, long times = 1) const {
    return waitUntil([&] {
      std::lock_guard lock(lines_->mutex);
      return std::count(lines_->all.begin(), lines_->all.end(), line) >= times;
    });
  }
  // " key=value key(deleted) ..."
  template <class List>
  static std::string describe(const List& attributes) {
    std::string text;
    for (const auto& a : attributes) {
      text += " " + a.key;
      if constexpr (requires { a.deleted; }) {
        if (a.deleted) {
          text += "(deleted)";
          continue;
        }
      }
      text += "=" + a.value;
    }
    return text;
  }
  std::vector<std::string> all() const {
    std::lock_guard lock(lines_->mutex);
    return lines_->all;
  }

  std::shared_ptr<QNBRLChannelDelegate> channel = std::make_shared<QNBRLChannelDelegate>();
  std::shared_ptr<QNBRLDelegate> kit = std::make_shared<QNBRLDelegate>();
  std::shared_ptr<QNBRLInvitationDelegate> invitation = std::make_shared<QNBRLInvitationDelegate>();

 private:
  struct Lines {
    std::mutex mutex;
    std::vector<std::string> all;
  };
  std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
};

class UsersTest : public SessionTest {
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

}  // namespace testing_support
