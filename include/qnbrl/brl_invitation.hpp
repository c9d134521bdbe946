#pragma once
/// @file
/// A call invitation from one user (the inviter) to another (the invitee), its states, and the codes of
/// the invitation kit's requests. The integers are part of the interface: states travel on the wire.
#include "qnbrl/export.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace qnbrl {

/// Where an invitation stands.
enum class QNBRLInvitationState : std::int64_t {
  Created = 0,   ///< made locally, not sent yet
  Failed = 1,    ///< the send had no acknowledgement, or nobody answered within 60 seconds
  Arrived = 2,   ///< sent, and pending at the invitee
  Canceled = 3,  ///< by the inviter
  Accepted = 4,  ///< by the invitee
  Refused = 5,   ///< by the invitee
};

/// Codes of QNBRLInvitationKit's four requests. The server's answer counts as success unless it is
/// code 3 or 4, which are handed on.
enum QNBRLInvitationErrorCode : int {
  QNBRLInvitationErrorOk = 0,  ///< success
  QNBRLInvitationErrorTimeout = 1,      ///< no acknowledgement within 6 seconds (a send then fails: state 1)
  QNBRLInvitationErrorInfoTooLong = 2,  ///< requestInfo or responseInfo over QNBRLInvitationInfoMaxBytes
  QNBRLInvitationErrorServerCode3 = 3,  ///< the dev server: the other user is offline
  QNBRLInvitationErrorServerCode4 = 4,  ///< the dev server: no such invitation pending, or not the caller's
  QNBRLInvitationErrorWrongParty = 5,   ///< the logged-in user is not the inviter (send, cancel) or invitee
  QNBRLInvitationErrorNotLoggedIn = 102,  ///< not logged in: nothing was sent
};

/// The longest requestInfo or responseInfo, in UTF-8 bytes.
inline constexpr std::size_t QNBRLInvitationInfoMaxBytes = 8192;

/// Safe to read and write from any thread. The library changes `state` as the invitation goes along.
class QNBRL_EXPORT QNBRLInvitation {
 public:
  /// Registers the invitation in the process-wide record that pushed changes are matched against; it
  /// replaces an earlier one from the same inviter to the same invitee.
  static std::shared_ptr<QNBRLInvitation> create(std::string inviter, std::string invitee);

  /// The user who invites.
  const std::string& inviter() const { return inviter_; }
  /// The user invited.
  const std::string& invitee() const { return invitee_; }
  /// Free text from the inviter, sent with the invitation; an absent one is not sent.
  std::optional<std::string> requestInfo() const;
  /// Sets the inviter's text; at most QNBRLInvitationInfoMaxBytes.
  void setRequestInfo(std::optional<std::string> info);
  /// Free text from the invitee, sent with an accept or a refusal; an absent one is not sent.
  std::optional<std::string> responseInfo() const;
  /// Sets the invitee's text; at most QNBRLInvitationInfoMaxBytes.
  void setResponseInfo(std::optional<std::string> info);
  /// The invitation's state, as the library last set it.
  QNBRLInvitationState state() const { return state_.load(); }
  /// Overrides the state; the library sets it as the invitation goes along.
  void setState(QNBRLInvitationState state) { state_.store(state); }

  /// @cond INTERNAL
  // The library's own invitations, the ones the server pushes, are not registered.
  struct Pushed;
  QNBRLInvitation(const Pushed&, std::string inviter, std::string invitee);
  /// @endcond

 private:
  QNBRLInvitation(std::string inviter, std::string invitee);

  const std::string inviter_;
  const std::string invitee_;
  mutable std::mutex mutex_;  // guards the two texts
  std::optional<std::string> requestInfo_;
  std::optional<std::string> responseInfo_;
  std::atomic<QNBRLInvitationState> state_{QNBRLInvitationState::Created};
};

}  // namespace qnbrl
