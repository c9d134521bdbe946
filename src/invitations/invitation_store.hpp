#pragma once
// The process-wide record of call invitations and of the time-out armed for each pending one: a
// pushed change finds the local object of the same invitation here, and an invitation nobody answers
// within 60 seconds fails. Safe from any thread; time-outs fire on the main queue with no lock held.
#include "qnbrl/brl_invitation.hpp"
#include "qnbrl/brl_invitation_kit.hpp"
#include "support/timer.hpp"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace qnbrl {

// How the library makes the invitations the server pushes.
struct __attribute__((visibility("hidden"))) QNBRLInvitation::Pushed {};

class QNInvitationStore {
 public:
  // Never destroyed: a time-out may still be armed at exit.
  static QNInvitationStore& shared();

  // Invitations are keyed "[invitee,inviter]": a second one between the same two users in the same
  // direction replaces the first.
  void addInvitation(const std::shared_ptr<QNBRLInvitation>& invitation);
  std::shared_ptr<QNBRLInvitation> getInvitation(const QNBRLInvitation& invitation) const;
  // Records the invitation and (re-)arms its one-shot time-out: the invitation then takes state 1 and
  // the kit's delegate hears invitationFailed with 3. Both stay recorded after it fired, until removed.
  void addTimerAndInvitation(const std::shared_ptr<QNBRLInvitation>& invitation,
                             std::shared_ptr<QNBRLInvitationKit> target);
  void removeTimerAndInvitation(const QNBRLInvitation& invitation);
  // Stops every time-out and forgets everything: the connection was given up.
  void reset();

 private:
  QNInvitationStore() = default;

  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<QNBRLInvitation>> invitationDict_;
  std::map<std::string, std::shared_ptr<QNBRLTimer>> invitationTimerDict_;
};

}  // namespace qnbrl
