#pragma once
// Peers' online status: the four operations, the set of peers subscribed to (replayed after a
// reconnection), and the last status the server pushed for each peer, which turns its pushes into
// changes.
#include "peers/peer_support.hpp"
#include "qnbrl/brl_peer_types.hpp"
#include "socketio/codec.hpp"
#include "transport/request.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace qnbrl {

// The last status pushed for each peer (0 online, anything else offline), subscribed or not.
class QNBRLOnlinePeersManager {
 public:
  // The peers of a push whose status differs from the last one known, with their new status, in the
  // push's order; a first report about a peer always differs. Non-numeric statuses are dropped.
  std::vector<QNBRLPeerOnlineStatus> onPeersOnlineStatusChanged(const boost::json::object& status);
  // Forgets the peers, so that their next report counts as a change again.
  void unsubscribeOnlineStatusOf(const std::vector<std::string>& peerIds);
  void logout();

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, std::int32_t> onlineStatus_;
};

class QNPresence : public std::enable_shared_from_this<QNPresence> {
 public:
  using Completion = std::function<void(int code)>;
  using StatusCompletion =
      std::function<void(std::optional<std::vector<QNBRLPeerOnlineStatus>> statuses, int code)>;
  using PeersCompletion = std::function<void(std::optional<std::vector<std::string>> peerIds, int code)>;
  using Deliver = std::function<void(const std::vector<QNBRLPeerOnlineStatus>& changes)>;

  explicit QNPresence(std::shared_ptr<const RequestPath> requests) : requests_(std::move(requests)) {}

  void subscribePeersOnlineStatus(std::vector<std::string> peerIds, Completion completion);
  void unsubscribePeersOnlineStatus(std::vector<std::string> peerIds, Completion completion);
  // A one-off reading; changes neither the subscriptions nor the last known statuses.
  void queryPeersOnlineStatus(const std::vector<std::string>& peerIds, StatusCompletion completion) const;
  // The option's meaning is the server's; it is sent as it is.
  void queryPeersBySubscriptionOption(std::int64_t option, PeersCompletion completion) const;

  // "PeersOnlineStatusChanged": hands the changes, if any, to `deliver`.
  void onPeersOnlineStatusChanged(const sio::Payload& data, const Deliver& deliver);

  std::vector<std::string> subscribedOnlineStatusPeerIds() const { return subscribed_->list(); }
  // Subscribes to the list again, on every failure once more on the next turn of the main queue,
  // until the server confirms or the user logs out. Nothing is sent for an empty list.
  void restoreSubscribedOnlineStatusOfPeers(std::vector<std::string> peerIds);
  void logout();

 private:
  const std::shared_ptr<const RequestPath> requests_;
  // Held weakly by the acknowledgements: once the client is gone they only complete.
  const std::shared_ptr<PeerIdSet> subscribed_ = std::make_shared<PeerIdSet>();
  const std::shared_ptr<QNBRLOnlinePeersManager> onlinePeers_ = std::make_shared<QNBRLOnlinePeersManager>();
};

}  // namespace qnbrl
