// The invitation kit of the facade.
#include "client/kit_impl.hpp"

namespace qnbrl {

std::shared_ptr<QNBRLInvitationKit> QNBRLKit::getBRLInvitationKit() {
  std::lock_guard lock(impl_->mutex);
  if (!impl_->invitationKit) impl_->invitationKit = QNBRLInvitationKit::Impl::create(impl_->requests, impl_->stateManager);
  return impl_->invitationKit;
}

}  // namespace qnbrl
