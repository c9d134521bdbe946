#pragma once
// The client's session: its records, its socket and the connection state machine. Socket events,
// acknowledgements and the second half of login run on the main queue; the serial work queue runs
// discovery and the reconnection pauses; public calls may come from any thread. The plain fields
// below are guarded by `mutex`, which is never held while calling the socket layer or the
// application.
#include "channels/channel_attributes.hpp"
#include "channels/channel_registry.hpp"
#include "client/debug_info.hpp"
#include "client/state_helper.hpp"
#include "invitations/invitation_kit.hpp"
#include "transport/state_manager.hpp"
#include "qnbrl/brl_kit.hpp"
#include "peers/peer_attributes.hpp"
#include "peers/peer_messages.hpp"
#include "peers/presence.hpp"
#include "peers/user_attributes.hpp"
#include "support/queues.hpp"
#include "transport/callback.hpp"
#include "transport/request.hpp"
#include "transport/socket_manager.hpp"

#include <boost/json/object.hpp>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace qnbrl {

// Hidden: a nested class takes the exported class's visibility otherwise.
struct __attribute__((visibility("hidden"))) QNBRLKit::Impl {
  Impl(const std::string& appId, std::weak_ptr<QNBRLDelegate> delegate, std::string apiServer,
       ApplicationCalls::Executor executor);

  // Installs the socket delegates; called once the owning kit exists.
  void bind(const std::shared_ptr<QNBRLKit>& kit);

  // The application has dropped its last reference: from here on nothing of this client reaches it
  // (but request completions), and the connection goes down on the main queue.
  void release();

  // Calls the delegate's member when the application still holds the client and the delegate
  // implements it; true when it was called. What the callback throws is caught.
  template <class Member, class... Args>
  bool tell(Member QNBRLDelegate::*member, QNBRLKit& kit, Args&&... args);

  // Tells the delegate, if it listens; the telemetry pair is written only then.
  void reportState(QNBRLKit& kit, QNBRLConnectionState state, QNBRLConnectionChangeReason reason,
                   bool telemetry);

  // Login, logout.
  void loginWithConfig(const boost::json::object& config, Completion completion);
  void cleanResourcesAfterLogout();

  // Connection events. The server's events reach their handlers through the routing table.
  void onConnectTimeout(QNBRLKit& kit);
  void onSocketChange();
  void onEvent(QNBRLKit& kit, std::string_view event, const sio::Payload& data);
  void onDisconnectReason(QNBRLKit& kit, const sio::Payload& data);
  void onDisconnect(QNBRLKit& kit, const sio::Payload& data);
  void onLoginSuccess(QNBRLKit& kit, const sio::Payload& data);
  // Re-creates on the server what this session had there: joined channels, the local user's
  // attributes, both kinds of subscriptions.
  void restoreStateAfterReconnection();
  void reconnect();
  void reconnectAfterPause(QNBRLKit& kit);
  // The attempt in flight has ended: its place goes to the next client waiting for one.
  void releaseReconnectionTicket();
  void rebuildSocketManagerWithConfig(const boost::json::object& config, bool connect);
  // Opens the socket of tavernServers[index] with the current socket's configuration.
  void failOver(std::size_t index);

  // Completes and clears the pending login, if any.
  void finishLogin(int code);

  // The library's own hold on the kit (the application's references count apart, see create()).
  std::weak_ptr<QNBRLKit> owner;
  const std::weak_ptr<QNBRLDelegate> delegate;
  const std::shared_ptr<QNBRLStateManager> stateManager;
  // Where completions and delegate callbacks run: the options' executor, when set.
  const std::shared_ptr<ApplicationCalls> app;
  QNBRLStateHelper stateHelper;
  const std::shared_ptr<SerialQueue> queue;
  const std::string apiServer;
  QNBRLDebugInfo debugInfo;
  const std::shared_ptr<QNSocketManager> socketManager;
  std::shared_ptr<QNSocketManagerDelegate> socketDelegate;
  std::shared_ptr<QNSocketMessageDelegate> messageDelegate;
  // The features, over the one request path.
  const std::shared_ptr<const RequestPath> requests;
  const std::shared_ptr<QNBRLChannelRegistry> channels;
  const QNChannelAttributes channelAttributes;
  const QNPeerMessages peerMessages;
  const std::shared_ptr<QNUserAttributes> userAttributes;
  const std::shared_ptr<QNPresence> presence;
  const std::shared_ptr<QNPeerAttributes> peerAttributes;

  // Makes login's check-and-set of the connecting state one step for concurrent callers.
  std::mutex loginGate;

  mutable std::mutex mutex;
  std::vector<std::string> tavernServers;
  Completion loginBlcok;
  std::int64_t disconnectReason = 0;
  std::int64_t loginError = 0;
  std::int32_t connectIndex = 0;
  std::int64_t lastTavernServerIndex = 0;
  // A reconnection attempt's place among the process's attempts in flight, from its start to its end
  // (loginSuccess, its close, the last connect time-out).
  AdmissionGate::Ticket reconnectionTicket;
  // The text of the last "disconnectReason", consumed by the "disconnect" that follows it.
  std::string serverReason;
  // Made by the first getBRLInvitationKit; until then invitation pushes reach nobody.
  std::shared_ptr<QNBRLInvitationKit> invitationKit;
  std::shared_ptr<QNBRLInvitationKit> madeInvitationKit() const {
    std::lock_guard lock(mutex);
    return invitationKit;
  }
};

template <class Member, class... Args>
bool QNBRLKit::Impl::tell(Member QNBRLDelegate::*member, QNBRLKit&, Args&&... args) {
  auto kit = owner.lock();
  return kit && app->tell(delegate, member, kit, std::forward<Args>(args)...);
}

}  // namespace qnbrl
