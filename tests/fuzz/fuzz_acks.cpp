// Answers every operation's request with a hostile acknowledgement, through the one request path and
// the in-memory command sender. The input is up to kMaxSteps steps, each led by one byte: its low five bits
// pick the operation (of the table below, modulo), the next two the number of binary attachments; then
// the acknowledgement as library_harness.hpp reads a payload (length-prefixed JSON text of the
// acknowledgement's arguments, then the attachments).
//
// Each input gets fresh features over a session logged in as "me", with the channel "room" joined. A
// step makes the operation's request with valid arguments, so that it is sent, and answers it. Checked:
// the completion runs exactly once, at the answer, and what it reads (member lists, counts, attribute
// maps, batch fetches, statuses) is sound to the sanitizers; once the features are gone, no timer is
// left armed.
#include "channels/channel_attributes.hpp"
#include "channels/channel_registry.hpp"
#include "invitations/invitation_kit.hpp"
#include "invitations/invitation_store.hpp"
#include "library_harness.hpp"
#include "peers/peer_attributes.hpp"
#include "peers/peer_messages.hpp"
#include "peers/presence.hpp"
#include "peers/user_attributes.hpp"
#include "support/memory_sender.hpp"

#include <functional>
#include <numeric>

namespace {

using namespace qnbrl;
using fuzzing::check;

// Reads what a completion got, every byte, so that the sanitizers see a bad read.
struct Reader {
  std::size_t sum = 0;
  void operator()(const std::string& s) { sum += s.size() + std::accumulate(s.begin(), s.end(), 0u); }
  void operator()(const QNBRLAttribute& a) {
    (*this)(a.key);
    (*this)(a.value);
  }
  void operator()(const QNBRLMember& m) {
    (*this)(m.userId);
    (*this)(m.channelId);
  }
  void operator()(const QNChannelMemberCount& c) {
    (*this)(c.channelId);
    sum += static_cast<std::size_t>(c.count);
  }
  void operator()(const QNBRLPeerOnlineStatus& s) {
    (*this)(s.peerId);
    sum += s.isOnline;
  }
  void operator()(const QNBRLUserAttributes& u) {
    (*this)(u.userId);
    for (const auto& a : u.attributes) {
      (*this)(a);
      sum += a.deleted;
    }
  }
  template <class T>
  void operator()(const std::optional<std::vector<T>>& list) {
    if (!list) return;
    for (const auto& item : *list) (*this)(item);
  }
};

struct Session {
  std::shared_ptr<QNBRLStateManager> state = std::make_shared<QNBRLStateManager>("app");
  std::shared_ptr<testing_support::MemorySender> sender = std::make_shared<testing_support::MemorySender>();
  std::shared_ptr<const RequestPath> requests = std::make_shared<RequestPath>(state, sender);
  std::shared_ptr<QNBRLChannelRegistry> channels = std::make_shared<QNBRLChannelRegistry>(requests);
  QNChannelAttributes attributes{requests};
  QNPeerMessages peers{requests};
  std::shared_ptr<QNUserAttributes> users = std::make_shared<QNUserAttributes>(requests);
  std::shared_ptr<QNPresence> presence = std::make_shared<QNPresence>(requests);
  std::shared_ptr<QNPeerAttributes> peerAttributes = std::make_shared<QNPeerAttributes>(requests);
  std::shared_ptr<QNBRLInvitationKit> invitations = QNBRLInvitationKit::Impl::create(requests, state);
  std::shared_ptr<QNBRLChannel> room;
  Reader read;

  Session() {
    state->setUserId("me");
    state->setLogin(true);
    room = channels->createChannelWithId("room", {});
    room->joinWithCompletion({});
    sender->last().done({{boost::json::object{{"result", 0}}}, {}});
  }
};

using Done = std::function<void(int)>;
using Call = void (*)(Session& s, const Done& done);

// Every operation that sends "command" and reads its answer, with arguments that pass its local checks.
constexpr Call kOperations[] = {
    [](Session& s, const Done& d) { s.room->joinWithCompletion(d); },
    [](Session& s, const Done& d) {
      s.room->sendMessage(std::make_shared<QNBRLMessage>("hi"), std::nullopt, d);
    },
    [](Session& s, const Done& d) {
      s.room->getMembersWithCompletion([&s, d](auto list, int code) {
        s.read(list);
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      s.channels->getChannelMemberCount({"room", "other"}, [&s, d](auto list, int code) {
        s.read(list);
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      s.attributes.setChannel("room", {{"k", "v"}}, std::nullopt, d);
    },
    [](Session& s, const Done& d) {
      s.attributes.addOrUpdateChannel("room", {{"k", "v"}}, std::nullopt, d);
    },
    [](Session& s, const Done& d) { s.attributes.deleteChannelAttributes("room", {"k"}, std::nullopt, d); },
    [](Session& s, const Done& d) { s.attributes.clearChannelAttributes("room", std::nullopt, d); },
    [](Session& s, const Done& d) {
      s.attributes.getChannelAttributes("room", [&s, d](auto list, int code) {
        s.read(list);
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      s.attributes.getChannelAttributes("room", {"k", "j"}, [&s, d](auto list, int code) {
        s.read(list);
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      auto raw = std::make_shared<QNBRLRawMessage>(std::make_shared<const QNBRLBytes>(QNBRLBytes{1, 2}));
      s.peers.sendMessage(raw, "bob", QNBRLSendMessageOptions{.enableOfflineMessaging = true}, d);
    },
    [](Session& s, const Done& d) {
      s.users->setLocalUserAttributes({{"k", "v"}}, d);
    },
    [](Session& s, const Done& d) {
      s.users->addOrUpdateLocalUserAttributes({{"k", "v"}}, d);
    },
    [](Session& s, const Done& d) { s.users->deleteLocalUserAttributesByKeys({"k"}, d); },
    [](Session& s, const Done& d) { s.users->clearLocalUserAttributesWithCompletion(d); },
    [](Session& s, const Done& d) {
      s.users->getUserAttributes("bob", [&s, d](auto list, const std::string& user, int code) {
        s.read(list);
        s.read(user);
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      s.users->getUserAttributes("bob", {"k"}, [&s, d](auto list, const std::string& user, int code) {
        s.read(list);
        s.read(user);
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      s.presence->subscribePeersOnlineStatus({"bob", "eve"}, d);
    },
    [](Session& s, const Done& d) { s.presence->unsubscribePeersOnlineStatus({"bob"}, d); },
    [](Session& s, const Done& d) {
      s.presence->queryPeersOnlineStatus({"bob", "eve"}, [&s, d](auto list, int code) {
        s.read(list);
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      s.presence->queryPeersBySubscriptionOption(0, [&s, d](auto list, int code) {
        if (list) {
          for (const auto& id : *list) s.read(id);
        }
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      s.peerAttributes->subscribePeersUserAttribes({"bob", "eve"}, d);
    },
    [](Session& s, const Done& d) { s.peerAttributes->unsubscribePeersUserAttribes({"bob"}, d); },
    [](Session& s, const Done& d) {
      s.peerAttributes->getPeersUserAttributes({"bob", "eve"}, [&s, d](auto list, int code) {
        s.read(list);
        d(code);
      });
    },
    [](Session& s, const Done& d) {
      s.peerAttributes->getPeersUserAttributes({"bob"}, {"k"}, [&s, d](auto list, int code) {
        s.read(list);
        d(code);
      });
    },
    [](Session& s, const Done& d) { s.invitations->sendInvitation(QNBRLInvitation::create("me", "bob"), d); },
    [](Session& s, const Done& d) {
      s.invitations->cancelInvitation(QNBRLInvitation::create("me", "bob"), d);
    },
    [](Session& s, const Done& d) {
      s.invitations->acceptInvitation(QNBRLInvitation::create("bob", "me"), d);
    },
    [](Session& s, const Done& d) {
      s.invitations->refuseInvitation(QNBRLInvitation::create("bob", "me"), d);
    },
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzzing::clock();
  fuzzing::Input input(data, size);
  {
    Session session;
    for (int step = 0; step < fuzzing::kMaxSteps && !input.done(); ++step) {
      const auto pick = input.byte();
      auto ack = input.payload(pick >> 5 & 3);
      const auto before = session.sender->count();
      int completions = 0;
      kOperations[(pick & 31) % std::size(kOperations)](session, [&completions](int) { ++completions; });
      check(completions == 0 && session.sender->count() == before + 1);
      session.sender->last().done(ack);
      check(completions == 1);
    }
    // What answered invitations left armed; the next input starts with none.
    QNInvitationStore::shared().reset();
  }
  // Gone with its channel, the heartbeat is stopped too: nothing is left to run.
  fuzzing::check(fuzzing::clock().pending() == 0);
  fuzzing::settle();  // the telemetry records and log lines it wrote
  return 0;
}
