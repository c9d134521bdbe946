// Feeds the events a server pushes, with hostile arguments, through the client's routing table. The
// input is a flags byte and then up to kMaxSteps events, each led by one byte: its low four bits pick the
// event (of the twelve, modulo), the next two the number of binary attachments; then its payload as
// library_harness.hpp reads it (length-prefixed JSON text of the arguments, then the attachments).
// Flags: bit 0, a login is pending; bit 1, every callback of the application throws.
//
// Each input gets a fresh client, logged in without a server (no tavern server, so a reconnection
// builds no socket), with a joined and an unjoined channel and an invitation kit, every delegate
// implementing every callback. Each event's main-queue work, the reconnection pause included, runs to
// completion before the next; then the application releases everything and every time-out left runs
// out. Checked: nothing crashes or hangs, the pending login completes at most once, and no callback
// reaches the application once it has released the client.
#include "channels/channel.hpp"
#include "client/kit_impl.hpp"
#include "invitations/invitation_store.hpp"
#include "library_harness.hpp"
#include "qnbrl/qnbrl.hpp"

#include <atomic>
#include <numeric>
#include <stdexcept>

namespace {

using namespace qnbrl;
using fuzzing::check;

// What the application was told; touching every byte lets the sanitizers see a bad read.
struct Heard {
  std::atomic<bool> released{false};
  std::atomic<int> logins{0};
  bool throws = false;
  std::size_t sum = 0;  // main queue only

  void take(const std::string& s) { sum += s.size() + std::accumulate(s.begin(), s.end(), 0u); }
  void take(const std::shared_ptr<QNBRLMessage>& m) {
    check(m != nullptr);
    sum += m->type() + static_cast<std::size_t>(m->serverReceivedTs) + m->isOfflineMessage();
    if (m->text) take(*m->text);
    if (auto* raw = dynamic_cast<QNBRLRawMessage*>(m.get())) {
      check(raw->rawData != nullptr);
      sum += std::accumulate(raw->rawData->begin(), raw->rawData->end(), 0u);
    }
  }
  void take(const QNBRLMember& m) {
    take(m.userId);
    take(m.channelId);
  }
  void take(const std::shared_ptr<QNBRLInvitation>& i) {
    check(i != nullptr);
    take(i->inviter());
    take(i->invitee());
    take(i->requestInfo().value_or(""));
    take(i->responseInfo().value_or(""));
    sum += static_cast<std::size_t>(i->state());
  }
  // Every callback: the client is still the application's, then the application's own fault.
  void heard() {
    check(!released);
    if (throws) throw std::runtime_error("application bug");
  }
};

std::shared_ptr<QNBRLDelegate> kitDelegate(Heard& h) {
  auto d = std::make_shared<QNBRLDelegate>();
  d->connectionStateChanged = [&h](QNBRLKit&, QNBRLConnectionState s, QNBRLConnectionChangeReason r) {
    h.sum += static_cast<std::size_t>(s) + static_cast<std::size_t>(r);
    h.heard();
  };
  d->tokenDidExpire = [&h](QNBRLKit&) { h.heard(); };
  d->messageReceived = [&h](QNBRLKit&, const std::shared_ptr<QNBRLMessage>& m, const std::string& peer) {
    h.take(m);
    h.take(peer);
    h.heard();
  };
  d->peersOnlineStatusChanged = [&h](QNBRLKit&, const std::vector<QNBRLPeerOnlineStatus>& list) {
    for (const auto& s : list) {
      h.take(s.peerId);
      h.sum += s.isOnline;
    }
    h.heard();
  };
  d->peersUserAttributesChanged = [&h](QNBRLKit&, const std::vector<QNBRLUserAttributes>& users) {
    for (const auto& u : users) {
      h.take(u.userId);
      for (const auto& a : u.attributes) {
        h.take(a.key);
        h.take(a.value);
        h.sum += a.deleted;
      }
    }
    h.heard();
  };
  return d;
}

std::shared_ptr<QNBRLChannelDelegate> channelDelegate(Heard& h) {
  auto d = std::make_shared<QNBRLChannelDelegate>();
  d->memberJoined = [&h](QNBRLChannel&, const QNBRLMember& m) {
    h.take(m);
    h.heard();
  };
  d->memberLeft = d->memberJoined;
  d->memberLeftReason = [&h](QNBRLChannel&, const QNBRLMember& m, QNBRLChannelMemberLeftReason r) {
    h.take(m);
    h.sum += static_cast<std::size_t>(r);
    h.heard();
  };
  d->messageReceived = [&h](QNBRLChannel&, const std::shared_ptr<QNBRLMessage>& m, const QNBRLMember& from) {
    h.take(m);
    h.take(from);
    h.heard();
  };
  d->attributeUpdate = [&h](QNBRLChannel&, const std::vector<QNBRLAttribute>& list) {
    for (const auto& a : list) {
      h.take(a.key);
      h.take(a.value);
    }
    h.heard();
  };
  d->memberCount = [&h](QNBRLChannel&, std::int32_t n) {
    h.sum += static_cast<std::size_t>(n);
    h.heard();
  };
  return d;
}

std::shared_ptr<QNBRLInvitationDelegate> invitationDelegate(Heard& h) {
  auto d = std::make_shared<QNBRLInvitationDelegate>();
  d->invitationFailed = [&h](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i, int code) {
    h.take(i);
    h.sum += static_cast<std::size_t>(code);
    h.heard();
  };
  d->invitationArrived = [&h](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i) {
    h.take(i);
    h.heard();
  };
  d->invitationCanceled = d->invitationAccept = d->invitationRefused = d->invitationArrived;
  return d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzzing::clock();
  fuzzing::Input input(data, size);
  const auto flags = input.byte();
  Heard heard;
  heard.throws = flags & 2;
  auto delegate = kitDelegate(heard);
  auto channelListener = channelDelegate(heard);
  auto invitationListener = invitationDelegate(heard);

  auto kit = QNBRLKit::create("app", delegate);
  check(kit != nullptr);
  auto& impl = kit->impl();
  impl.stateHelper.loginParams().loginWithToken("token", "app", "me", 1);
  impl.stateManager->setUserId("me");
  impl.stateManager->setLogin(true);
  impl.stateManager->setState(3);
  if (flags & 1) {
    std::lock_guard lock(impl.mutex);
    impl.loginBlcok = [&heard](int) {
      check(++heard.logins == 1);
      heard.heard();
    };
  }
  // "room" joined as a confirmed join leaves it (heartbeat included), "lobby" only created.
  auto room = kit->createChannelWithId("room", channelListener);
  auto lobby = kit->createChannelWithId("lobby", channelListener);
  MainQueue::sync([&] {
    room->impl().joined = true;
    room->impl().startSendingHeartbeat();
    room->impl().stateDelegate(room, true);
  });
  auto invitations = kit->getBRLInvitationKit();
  invitations->setDelegate(invitationListener);

  for (int step = 0; step < fuzzing::kMaxSteps && !input.done(); ++step) {
    const auto pick = input.byte();
    auto payload = input.payload(pick >> 4 & 3);
    const std::string_view event = kServerEvents[(pick & 15) % std::size(kServerEvents)];
    MainQueue::sync([&] { impl.onEvent(*kit, event, payload); });
    // Its work, a reconnection's pause and new attempt included, is done once the client's serial
    // queue reaches a task queued behind it.
    auto reached = std::make_shared<std::atomic<bool>>(false);
    impl.queue->async([reached] { *reached = true; });
    fuzzing::runUntil([&] { return reached->load(); });
  }

  heard.released = true;
  kit.reset();
  room.reset();
  lobby.reset();
  invitations.reset();
  fuzzing::settle();  // the released client's socket goes down on the main queue
  fuzzing::drain();
  // Time-outs that fired leave their invitations recorded; the next input starts with none.
  QNInvitationStore::shared().reset();
  fuzzing::settle();  // the telemetry records and log lines it wrote
  return 0;
}
