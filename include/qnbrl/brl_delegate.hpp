#pragma once
/// @file
/// What the client tells the application. Every member is optional: an empty one is a callback the
/// application does not implement, and the event is dropped. Callbacks run on the library's main
/// queue, except the login-started change, which runs on the thread that called loginByToken.
#include "qnbrl/brl_attribute.hpp"
#include "qnbrl/brl_message.hpp"
#include "qnbrl/brl_peer_types.hpp"
#include "qnbrl/brl_types.hpp"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qnbrl {

class QNBRLKit;

/// The client's callbacks, given to QNBRLKit::create and held weakly.
struct QNBRLDelegate {
  /// The connection state changed, and why.
  std::function<void(QNBRLKit& kit, QNBRLConnectionState state, QNBRLConnectionChangeReason reason)>
      connectionStateChanged;
  /// The server ended the live session because the token expired. Reconnection goes on with the old
  /// credentials until the application calls renewToken.
  std::function<void(QNBRLKit& kit)> tokenDidExpire;
  /// A message from a peer: a QNBRLMessage, or a QNBRLRawMessage when it carries bytes.
  std::function<void(QNBRLKit& kit, const std::shared_ptr<QNBRLMessage>& message, const std::string& peerId)>
      messageReceived;
  /// Peers whose online status changed since last reported; the first report about a peer always
  /// counts. Statuses come from every push, whether the peer is subscribed to or not.
  std::function<void(QNBRLKit& kit, const std::vector<QNBRLPeerOnlineStatus>& statuses)>
      peersOnlineStatusChanged;
  /// Peers' attribute changes as the server pushes them; a deleted key has `deleted` set.
  std::function<void(QNBRLKit& kit, const std::vector<QNBRLUserAttributes>& users)>
      peersUserAttributesChanged;
};

}  // namespace qnbrl
