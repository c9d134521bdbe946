#pragma once
/// @file
/// What the invitation kit tells the application. Every member is optional: an empty one is a callback
/// the application does not implement, and the event is dropped. Callbacks run on the library's main
/// queue.
#include "qnbrl/brl_invitation.hpp"

#include <functional>
#include <memory>

namespace qnbrl {

class QNBRLInvitationKit;

/// Set the callbacks the application implements; hand the delegate to QNBRLInvitationKit::setDelegate.
struct QNBRLInvitationDelegate {
  /// Told the kit and the invitation concerned.
  using Callback = std::function<void(QNBRLInvitationKit& kit, const std::shared_ptr<QNBRLInvitation>& invitation)>;

  /// Code 3: nobody answered a sent or arrived invitation within 60 seconds (its state is now 1).
  /// Code 0: the server reported the invitation failed.
  std::function<void(QNBRLInvitationKit& kit, const std::shared_ptr<QNBRLInvitation>& invitation, int code)>
      invitationFailed;
  /// An invitation to the logged-in user; it fails after 60 seconds unless accepted or refused.
  Callback invitationArrived;
  /// The inviter withdrew an invitation to the logged-in user.
  Callback invitationCanceled;
  /// The invitation as the server pushed it, with the invitee's responseInfo (the inviter's own object
  /// takes state 4).
  Callback invitationAccept;
  /// The invitee refused (the inviter's own object takes state 5).
  Callback invitationRefused;
};

}  // namespace qnbrl
