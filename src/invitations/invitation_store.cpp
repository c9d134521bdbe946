#include "invitations/invitation_store.hpp"

#include "invitations/invitation_kit.hpp"

#include <utility>
#include <vector>

namespace qnbrl {
namespace {

constexpr double kTimeoutSeconds = 60.0;
// What invitationFailed is told when the time-out fires.
constexpr int kTimedOut = 3;

std::string keyOf(const QNBRLInvitation& invitation) {
  return "[" + invitation.invitee() + "," + invitation.inviter() + "]";
}

}  // namespace

QNInvitationStore& QNInvitationStore::shared() {
  static auto* store = new QNInvitationStore();
  return *store;
}

void QNInvitationStore::addInvitation(const std::shared_ptr<QNBRLInvitation>& invitation) {
  std::lock_guard lock(mutex_);
  invitationDict_[keyOf(*invitation)] = invitation;
}

std::shared_ptr<QNBRLInvitation> QNInvitationStore::getInvitation(const QNBRLInvitation& invitation) const {
  std::lock_guard lock(mutex_);
  auto it = invitationDict_.find(keyOf(invitation));
  return it == invitationDict_.end() ? nullptr : it->second;
}

void QNInvitationStore::addTimerAndInvitation(const std::shared_ptr<QNBRLInvitation>& invitation,
                                              std::shared_ptr<QNBRLInvitationKit> target) {
  auto timer = QNBRLTimer::startTimer(kTimeoutSeconds, false, [invitation, target = std::move(target)] {
    invitation->setState(QNBRLInvitationState::Failed);
    // Told whether or not the delegate implements it: a missing callback is a no-op.
    target->impl().tell(&QNBRLInvitationDelegate::invitationFailed, invitation, kTimedOut);
  });
  std::shared_ptr<QNBRLTimer> earlier;
  {
    std::lock_guard lock(mutex_);
    auto key = keyOf(*invitation);
    earlier = std::exchange(invitationTimerDict_[key], std::move(timer));
    invitationDict_[key] = invitation;
  }
  if (earlier) earlier->stop();
}

void QNInvitationStore::removeTimerAndInvitation(const QNBRLInvitation& invitation) {
  std::shared_ptr<QNBRLTimer> timer;
  {
    std::lock_guard lock(mutex_);
    auto key = keyOf(invitation);
    if (auto node = invitationTimerDict_.extract(key)) timer = std::move(node.mapped());
    invitationDict_.erase(key);
  }
  if (timer) timer->stop();
}

void QNInvitationStore::reset() {
  std::map<std::string, std::shared_ptr<QNBRLTimer>> timers;
  {
    std::lock_guard lock(mutex_);
    timers.swap(invitationTimerDict_);
    invitationDict_.clear();
  }
  for (auto& entry : timers) entry.second->stop();
}

}  // namespace qnbrl
