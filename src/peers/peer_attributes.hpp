#pragma once
// Other users' attributes: subscriptions to their changes (replayed after a reconnection), the batch
// fetch, and the changes the server pushes. The client keeps no copy of peers' attributes.
#include "peers/peer_support.hpp"
#include "qnbrl/brl_attribute.hpp"
#include "socketio/codec.hpp"
#include "transport/request.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

class QNPeerAttributes : public std::enable_shared_from_this<QNPeerAttributes> {
 public:
  using Completion = std::function<void(int code)>;
  using FetchCompletion =
      std::function<void(std::optional<std::vector<QNBRLUserAttributes>> users, int code)>;
  using Deliver = std::function<void(const std::vector<QNBRLUserAttributes>& users)>;

  explicit QNPeerAttributes(std::shared_ptr<const RequestPath> requests) : requests_(std::move(requests)) {}

  void subscribePeersUserAttribes(std::vector<std::string> peerIds, Completion completion);
  void unsubscribePeersUserAttribes(std::vector<std::string> peerIds, Completion completion);
  // One request for all the ids. A user the server reports a failure for is listed with no attributes.
  void getPeersUserAttributes(const std::vector<std::string>& peerIds, FetchCompletion completion) const;
  void getPeersUserAttributes(const std::vector<std::string>& peerIds, const std::vector<std::string>& keys,
                              FetchCompletion completion) const;

  // "PeersUserAttributesChanged": every user of the push, subscribed or not, deleted keys marked.
  static void onPeersUserAttributesChanged(const sio::Payload& data, const Deliver& deliver);

  std::vector<std::string> subscribedAttributesPeerIds() const { return subscribed_->list(); }
  // Subscribes to the list again, on every failure once more on the next turn of the main queue,
  // until the server confirms or the user logs out. Nothing is sent for an empty list.
  void restoreSubscribedAttributesOfPeers(std::vector<std::string> peerIds);
  void logout() { subscribed_->clear(); }

 private:
  void fetch(const Operation& op, bool valid, boost::json::object payload, FetchCompletion completion) const;

  const std::shared_ptr<const RequestPath> requests_;
  // Held weakly by the acknowledgements: once the client is gone they only complete.
  const std::shared_ptr<PeerIdSet> subscribed_ = std::make_shared<PeerIdSet>();
};

}  // namespace qnbrl
