#include "client/state_helper.hpp"

namespace qnbrl {

void QNBRLStateHelper::subscribeOnlineStatusOf(const std::vector<std::string>& peerIds) {
  std::lock_guard lock(lock_);
  onlineStatusPeerIds_.insert(peerIds.begin(), peerIds.end());
}

void QNBRLStateHelper::unsubscribeOnlineStatusOf(const std::vector<std::string>& peerIds) {
  std::lock_guard lock(lock_);
  for (auto& id : peerIds) onlineStatusPeerIds_.erase(id);
}

void QNBRLStateHelper::subscribeAttributesOf(const std::vector<std::string>& peerIds) {
  std::lock_guard lock(lock_);
  attributesPeerIds_.insert(peerIds.begin(), peerIds.end());
}

void QNBRLStateHelper::unsubscribeAttributesOf(const std::vector<std::string>& peerIds) {
  std::lock_guard lock(lock_);
  for (auto& id : peerIds) attributesPeerIds_.erase(id);
}

std::set<std::string> QNBRLStateHelper::subscribedOnlineStatusPeerIds() const {
  std::lock_guard lock(lock_);
  return onlineStatusPeerIds_;
}

std::set<std::string> QNBRLStateHelper::subscribedAttributesPeerIds() const {
  std::lock_guard lock(lock_);
  return attributesPeerIds_;
}

void QNBRLStateHelper::logout() {
  {
    std::lock_guard lock(lock_);
    onlineStatusPeerIds_.clear();
    attributesPeerIds_.clear();
  }
  loginParams_.logout();
}

}  // namespace qnbrl
