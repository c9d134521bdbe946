#pragma once
// The invitation kit's inside: the four requests over the client's request path, and the changes the
// server pushes. Acknowledgements, pushes and time-outs run on the main queue, requests on any thread.
#include "qnbrl/brl_invitation_kit.hpp"
#include "socketio/codec.hpp"
#include "transport/callback.hpp"
#include "transport/request.hpp"

#include <memory>
#include <mutex>
#include <string_view>

namespace qnbrl {

// Hidden: a nested class takes the exported class's visibility otherwise.
struct __attribute__((visibility("hidden"))) QNBRLInvitationKit::Impl {
  Impl(std::shared_ptr<const RequestPath> requests, std::shared_ptr<const QNBRLStateManager> stateManager)
      : requests(std::move(requests)), stateManager(std::move(stateManager)) {}

  static std::shared_ptr<QNBRLInvitationKit> create(std::shared_ptr<const RequestPath> requests,
                                                    std::shared_ptr<const QNBRLStateManager> stateManager);

  // Calls the delegate's member when it implements it; true when it was called. Silent once the
  // client is released.
  template <class Member, class... Args>
  bool tell(Member QNBRLInvitationDelegate::*member, Args&&... args) {
    auto kit = self.lock();
    if (!kit) return false;
    std::weak_ptr<QNBRLInvitationDelegate> listener;
    {
      std::lock_guard lock(mutex);
      listener = delegate;
    }
    return requests->application().tell(listener, member, kit, std::forward<Args>(args)...);
  }

  // "invitationOp" of the given type ("send", "cancel", "accept" or "refuse").
  void request(std::string_view type, const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion);

  // The invitation an "InvitationNotify" carries, logged; null when it carries none or no integer state.
  static std::shared_ptr<QNBRLInvitation> invitationOf(const sio::Payload& data);
  // Tells the delegate of a pushed change, by its state, and keeps the store in step.
  void parseInvitation(const std::shared_ptr<QNBRLInvitation>& incoming);

  const std::shared_ptr<const RequestPath> requests;
  const std::shared_ptr<const QNBRLStateManager> stateManager;
  std::weak_ptr<QNBRLInvitationKit> self;

  std::mutex mutex;  // guards the delegate
  std::weak_ptr<QNBRLInvitationDelegate> delegate;
};

}  // namespace qnbrl
