#include "peers/peer_support.hpp"

#include "diagnostics/logan_manager.hpp"
#include "transport/callback.hpp"
#include "transport/wire.hpp"

#include <algorithm>

namespace qnbrl {

void recordFailure(const Operation& op, const std::string&, int code, Stage stage) {
  if (code == 0) return;
  std::string interface(op.interface);
  if (stage == Stage::ack) interface += "_block_invoke";
  LoganManager::sharedInstance().userAttributes(std::string(op.action), interface, 0, code);
}

bool validPeerIds(const std::vector<std::string>& peerIds) {
  return !peerIds.empty() && std::all_of(peerIds.begin(), peerIds.end(), isValidId);
}

boost::json::object userIdsPayload(const std::vector<std::string>& peerIds) {
  return {{"userIds", boost::json::array(peerIds.begin(), peerIds.end())}};
}

void changeSubscription(const RequestPath& requests, const Operation& op, std::vector<std::string> peerIds,
                        bool subscribe, const std::shared_ptr<PeerIdSet>& set,
                        std::function<void(int)> completion,
                        std::function<void(const std::vector<std::string>&)> confirmed) {
  constexpr int kInvalidArgument = 2;  // both subscription families
  requests.send(op, {.refusal = validPeerIds(peerIds) ? 0 : kInvalidArgument,
                     .payload = userIdsPayload(peerIds),
                     .finish = [weak = std::weak_ptr(set), subscribe, peerIds = std::move(peerIds),
                                confirmed = std::move(confirmed),
                                completion = std::move(completion)](int code, const QNBRLResult*) {
                       if (auto ids = weak.lock(); ids && code == 0) {
                         subscribe ? ids->add(peerIds) : ids->remove(peerIds);
                         if (confirmed) confirmed(peerIds);
                       }
                       callApplication(completion, code);
                     }});
}

}  // namespace qnbrl
