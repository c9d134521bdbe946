#pragma once
/// @file
/// Call invitations between two users, from QNBRLKit::getBRLInvitationKit. Every operation may be
/// called from any thread and never throws. A local refusal completes at once on the calling thread
/// (102 when not logged in, then 5, then 2); every other outcome on the library's main queue, exactly
/// once. Changes pushed by the server, and the 60-second time-out of a pending invitation, reach the
/// delegate. Every client of the process shares one record of invitations, keyed by the two users.
#include "qnbrl/brl_invitation.hpp"
#include "qnbrl/brl_invitation_delegate.hpp"
#include "qnbrl/export.hpp"

#include <functional>
#include <memory>

namespace qnbrl {

/// The invitation requests of one client, and where its pushed invitation changes go.
class QNBRL_EXPORT QNBRLInvitationKit {
 public:
  /// Told the request's code: QNBRLInvitationErrorCode.
  using Completion = std::function<void(int code)>;

  /// Held weakly; replaces any earlier one.
  void setDelegate(std::weak_ptr<QNBRLInvitationDelegate> delegate);

  /// Invites the invitee; the logged-in user must be the inviter. On success the invitation takes
  /// state 2 and fails after 60 seconds unless answered; without an acknowledgement it takes state 1.
  /// Codes: QNBRLInvitationErrorCode.
  void sendInvitation(const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion);
  /// Withdraws a sent invitation; the logged-in user must be the inviter. Cancel, accept and refuse
  /// leave the invitation's state to the server's push; when one fails, the time-out stays armed.
  void cancelInvitation(const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion);
  /// Answers an arrived invitation, with its responseInfo; the logged-in user must be the invitee.
  void acceptInvitation(const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion);
  /// Declines an arrived invitation, with its responseInfo; the logged-in user must be the invitee.
  void refuseInvitation(const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion);

  ~QNBRLInvitationKit();
  QNBRLInvitationKit(const QNBRLInvitationKit&) = delete;
  QNBRLInvitationKit& operator=(const QNBRLInvitationKit&) = delete;

  /// @cond INTERNAL
  // The library's side; applications get the kit from QNBRLKit::getBRLInvitationKit.
  struct Impl;
  explicit QNBRLInvitationKit(std::unique_ptr<Impl> impl);
  Impl& impl() { return *impl_; }
  /// @endcond

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace qnbrl
