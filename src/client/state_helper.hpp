#pragma once
// The session's bookkeeping: what must be re-created on the server after a reconnection and
// forgotten at logout.
#include "client/login_params.hpp"

#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace qnbrl {

class QNBRLStateHelper {
 public:
  QNBRLLoginParams& loginParams() { return loginParams_; }

  // Peers subscribed for online status and for attribute changes; duplicates collapse.
  void subscribeOnlineStatusOf(const std::vector<std::string>& peerIds);
  void unsubscribeOnlineStatusOf(const std::vector<std::string>& peerIds);
  void subscribeAttributesOf(const std::vector<std::string>& peerIds);
  void unsubscribeAttributesOf(const std::vector<std::string>& peerIds);
  std::set<std::string> subscribedOnlineStatusPeerIds() const;
  std::set<std::string> subscribedAttributesPeerIds() const;

  // Empties both sets and forgets the credentials; the records stay for the next login.
  void logout();

 private:
  QNBRLLoginParams loginParams_;
  // Callers are on the main queue today, but the sets are cheap to guard and then safe from anywhere.
  mutable std::mutex lock_;
  std::set<std::string> onlineStatusPeerIds_;
  std::set<std::string> attributesPeerIds_;
};

}  // namespace qnbrl
