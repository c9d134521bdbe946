// The local user's attributes, peers' online status and peers' attributes on the facade.
#include "client/kit_impl.hpp"

namespace qnbrl {

void QNBRLKit::setLocalUserAttributes(const std::vector<QNBRLAttribute>& attributes, Completion completion) {
  impl_->userAttributes->setLocalUserAttributes(attributes, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::addOrUpdateLocalUserAttributes(const std::vector<QNBRLAttribute>& attributes,
                                              Completion completion) {
  impl_->userAttributes->addOrUpdateLocalUserAttributes(attributes, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::deleteLocalUserAttributesByKeys(const std::vector<std::string>& keys, Completion completion) {
  impl_->userAttributes->deleteLocalUserAttributesByKeys(keys, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::clearLocalUserAttributesWithCompletion(Completion completion) {
  impl_->userAttributes->clearLocalUserAttributesWithCompletion(impl_->app->completion(std::move(completion)));
}

void QNBRLKit::getUserAttributes(const std::string& userId, UserAttributesCompletion completion) {
  impl_->userAttributes->getUserAttributes(userId, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::getUserAttributes(const std::string& userId, const std::vector<std::string>& keys,
                                 UserAttributesCompletion completion) {
  impl_->userAttributes->getUserAttributes(userId, keys, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::subscribePeersOnlineStatus(const std::vector<std::string>& peerIds, Completion completion) {
  impl_->presence->subscribePeersOnlineStatus(peerIds, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::unsubscribePeersOnlineStatus(const std::vector<std::string>& peerIds, Completion completion) {
  impl_->presence->unsubscribePeersOnlineStatus(peerIds, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::queryPeersOnlineStatus(const std::vector<std::string>& peerIds,
                                      OnlineStatusCompletion completion) {
  impl_->presence->queryPeersOnlineStatus(peerIds, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::queryPeersBySubscriptionOption(std::int64_t option, PeerIdsCompletion completion) {
  impl_->presence->queryPeersBySubscriptionOption(option, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::subscribePeersUserAttribes(const std::vector<std::string>& peerIds, Completion completion) {
  impl_->peerAttributes->subscribePeersUserAttribes(peerIds, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::unsubscribePeersUserAttribes(const std::vector<std::string>& peerIds, Completion completion) {
  impl_->peerAttributes->unsubscribePeersUserAttribes(peerIds, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::getPeersUserAttributes(const std::vector<std::string>& peerIds,
                                      PeersAttributesCompletion completion) {
  impl_->peerAttributes->getPeersUserAttributes(peerIds, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::getPeersUserAttributes(const std::vector<std::string>& peerIds,
                                      const std::vector<std::string>& keys,
                                      PeersAttributesCompletion completion) {
  impl_->peerAttributes->getPeersUserAttributes(peerIds, keys, impl_->app->completion(std::move(completion)));
}

}  // namespace qnbrl
