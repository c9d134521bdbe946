// Peer messages on the facade.
#include "client/kit_impl.hpp"

namespace qnbrl {

void QNBRLKit::sendMessage(const std::shared_ptr<QNBRLMessage>& message, const std::string& peerId,
                           const std::optional<QNBRLSendMessageOptions>& options, Completion completion) {
  impl_->peerMessages.sendMessage(message, peerId, options, impl_->app->completion(std::move(completion)));
}

}  // namespace qnbrl
