#include "peers/presence.hpp"

#include "diagnostics/log.hpp"
#include "support/json.hpp"
#include "transport/callback.hpp"
#include "transport/wire.hpp"

namespace qnbrl {
namespace {

constexpr AckCodes codesPassing(std::uint64_t passed) {
  return {.noAck = QNBRLPeerOnlineStatusErrorTimeout,
          .tooManyRequests = QNBRLPeerOnlineStatusErrorTooOften,
          .passed = passed,
          .failure = QNBRLPeerOnlineStatusErrorFailure,
          .textsFirst = true};
}

constexpr Operation kSubscribe{
    .command = "subscribePeersOnlineStatus",
    .codes = codesPassing(codeSet({6})),
    .record = recordFailure,
    .interface = "-[QNBRLKit subscribePeersOnlineStatus:completion:]",
    .action = "sub",
    .logRequest =
        [](const boost::json::object& p) { QNLog::shared().info("subscribe user onlineStatus: %@", p); },
    .recordFirst = true,
};

constexpr Operation kUnsubscribe{
    .command = "unsubscribePeersOnlineStatus",
    .codes = codesPassing(0),
    .record = recordFailure,
    .interface = "-[QNBRLKit unsubscribePeersOnlineStatus:completion:]",
    .action = "unsub",
    // The same text as the subscription's.
    .logRequest =
        [](const boost::json::object& p) { QNLog::shared().info("subscribe user onlineStatus: %@", p); },
    .recordFirst = true,
};

constexpr Operation kQuery{
    .command = "queryPeersOnlineStatus",
    .codes = codesPassing(0),
    .record = recordFailure,
    .interface = "-[QNBRLKit queryPeersOnlineStatus:completion:]",
    .action = "get",
    .logRequest =
        [](const boost::json::object& p) { QNLog::shared().info("query user onlineStatus: %@", p); },
    .recordFirst = true,
};

constexpr Operation kBySubscriptionOption{
    .command = "queryPeersBySubscriptionOption",
    .codes = codesPassing(0),
    .record = recordFailure,
    .interface = "-[QNBRLKit queryPeersBySubscriptionOption:completion:]",
    .action = "get",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("subscribe users: %@", p); },
    .recordFirst = true,
};

}  // namespace

std::vector<QNBRLPeerOnlineStatus> QNBRLOnlinePeersManager::onPeersOnlineStatusChanged(
    const boost::json::object& status) {
  std::vector<QNBRLPeerOnlineStatus> changes;
  std::lock_guard lock(mutex_);
  for (const auto& [peer, value] : status) {
    auto number = looseInteger(value);
    if (!number) continue;
    // Compared as the 32-bit numbers they are on the wire; pushes say 0 for online.
    auto now = static_cast<std::int32_t>(*number);
    auto [known, added] = onlineStatus_.try_emplace(std::string(peer), now);
    if (!added && known->second == now) continue;
    known->second = now;
    changes.push_back({std::string(peer), now == 0});
  }
  return changes;
}

void QNBRLOnlinePeersManager::unsubscribeOnlineStatusOf(const std::vector<std::string>& peerIds) {
  std::lock_guard lock(mutex_);
  for (const auto& id : peerIds) onlineStatus_.erase(id);
}

void QNBRLOnlinePeersManager::logout() {
  std::lock_guard lock(mutex_);
  onlineStatus_.clear();
}

void QNPresence::subscribePeersOnlineStatus(std::vector<std::string> peerIds, Completion completion) {
  changeSubscription(*requests_, kSubscribe, std::move(peerIds), true, subscribed_, std::move(completion));
}

void QNPresence::unsubscribePeersOnlineStatus(std::vector<std::string> peerIds, Completion completion) {
  // The last known statuses are forgotten too, so that the next report of these peers is a change.
  changeSubscription(*requests_, kUnsubscribe, std::move(peerIds), false, subscribed_, std::move(completion),
                     [table = std::weak_ptr(onlinePeers_)](const std::vector<std::string>& ids) {
                       if (auto t = table.lock()) t->unsubscribeOnlineStatusOf(ids);
                     });
}

void QNPresence::queryPeersOnlineStatus(const std::vector<std::string>& peerIds,
                                        StatusCompletion completion) const {
  requests_->send(kQuery,
                  {.refusal = validPeerIds(peerIds) ? 0 : QNBRLPeerOnlineStatusErrorInvalidArgument,
                   .payload = userIdsPayload(peerIds),
                   .finish = [completion = std::move(completion)](int code, const QNBRLResult* result) {
                     std::optional<std::vector<QNBRLPeerOnlineStatus>> statuses;
                     if (code == 0) {
                       statuses.emplace();
                       // Replies say non-zero for online, unlike pushes.
                       for (const auto& [peer, value] : responseIn(result, "status"))
                         statuses->push_back({std::string(peer), looseInteger(value).value_or(0) != 0});
                     }
                     callApplication(completion, std::move(statuses), code);
                   }});
}

void QNPresence::queryPeersBySubscriptionOption(std::int64_t option, PeersCompletion completion) const {
  requests_->send(kBySubscriptionOption,
                  {.payload = {{"option", option}},
                   .finish = [completion = std::move(completion)](int code, const QNBRLResult* result) {
                     std::optional<std::vector<std::string>> peerIds;
                     if (code == 0) {
                       peerIds.emplace();
                       const auto* ids =
                           result && result->response ? result->response->if_contains("userIds") : nullptr;
                       if (ids && ids->is_array()) {
                         for (const auto& id : ids->get_array())
                           if (id.is_string()) peerIds->emplace_back(id.get_string());
                       }
                     }
                     callApplication(completion, std::move(peerIds), code);
                   }});
}

void QNPresence::onPeersOnlineStatusChanged(const sio::Payload& data, const Deliver& deliver) {
  auto changes = onlinePeers_->onPeersOnlineStatusChanged(objectIn(objectAt(data.args, 0), "status"));
  if (changes.empty()) return;
  QNLog::shared().info("PeersOnlineStatusChanged: %@", changes);
  deliver(changes);
}

void QNPresence::restoreSubscribedOnlineStatusOfPeers(std::vector<std::string> peerIds) {
  if (!requests_->loggedIn() || peerIds.empty()) return;
  subscribePeersOnlineStatus(
      peerIds, againOnFailure(weak_from_this(), &QNPresence::restoreSubscribedOnlineStatusOfPeers, peerIds));
}

void QNPresence::logout() {
  subscribed_->clear();
  onlinePeers_->logout();
}

}  // namespace qnbrl
