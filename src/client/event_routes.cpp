// The one table that sends each event a server pushes to the part of the client that handles it.
// Handlers read their payloads defensively: a missing or mistyped item reads as absent and never
// throws. An event without a row is dropped, and so is every event once the application has
// released the client.
#include "client/kit_impl.hpp"

#include <string_view>

namespace qnbrl {
namespace {

using Impl = QNBRLKit::Impl;
using Handler = void (*)(Impl& impl, QNBRLKit& kit, const sio::Payload& data);

struct Route {
  std::string_view event;
  Handler handler;
};

constexpr Route kRoutes[] = {
    {"disconnect", [](Impl& i, QNBRLKit& kit, const sio::Payload& d) { i.onDisconnect(kit, d); }},
    {"disconnectReason", [](Impl& i, QNBRLKit& kit, const sio::Payload& d) { i.onDisconnectReason(kit, d); }},
    {"loginSuccess", [](Impl& i, QNBRLKit& kit, const sio::Payload& d) { i.onLoginSuccess(kit, d); }},
    {"MemberJoined", [](Impl& i, QNBRLKit&, const sio::Payload& d) { i.channels->onMemberJoined(d); }},
    {"MemberLeft", [](Impl& i, QNBRLKit&, const sio::Payload& d) { i.channels->onMemberLeft(d); }},
    {"ChannelMessageReceived",
     [](Impl& i, QNBRLKit&, const sio::Payload& d) { i.channels->onChannelMessageReceived(d); }},
    {"ChannelAttributesUpdated",
     [](Impl& i, QNBRLKit&, const sio::Payload& d) { i.channels->onChannelAttributesUpdated(d); }},
    {"ChannelMemberCount", [](Impl& i, QNBRLKit&, const sio::Payload& d) { i.channels->onChannelMemberCount(d); }},
    {"MessageToPeerReceived",
     [](Impl& i, QNBRLKit& kit, const sio::Payload& d) {
       QNPeerMessages::onMessageToPeerReceived(d, [&](const std::shared_ptr<QNBRLMessage>& m, const std::string& peer) {
         i.tell(&QNBRLDelegate::messageReceived, kit, m, peer);
       });
     }},
    {"PeersOnlineStatusChanged",
     [](Impl& i, QNBRLKit& kit, const sio::Payload& d) {
       i.presence->onPeersOnlineStatusChanged(d, [&](const std::vector<QNBRLPeerOnlineStatus>& statuses) {
         i.tell(&QNBRLDelegate::peersOnlineStatusChanged, kit, statuses);
       });
     }},
    {"PeersUserAttributesChanged",
     [](Impl& i, QNBRLKit& kit, const sio::Payload& d) {
       QNPeerAttributes::onPeersUserAttributesChanged(d, [&](const std::vector<QNBRLUserAttributes>& users) {
         i.tell(&QNBRLDelegate::peersUserAttributesChanged, kit, users);
       });
     }},
    {"InvitationNotify",
     [](Impl& i, QNBRLKit&, const sio::Payload& d) {
       auto invitation = QNBRLInvitationKit::Impl::invitationOf(d);
       if (auto kit = i.madeInvitationKit(); kit && invitation) kit->impl().parseInvitation(invitation);
     }},
};

}  // namespace

void QNBRLKit::Impl::onEvent(QNBRLKit& kit, std::string_view event, const sio::Payload& data) {
  if (app->released()) return;
  for (const auto& route : kRoutes) {
    if (route.event == event) return route.handler(*this, kit, data);
  }
}

}  // namespace qnbrl
