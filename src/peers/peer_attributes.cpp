#include "peers/peer_attributes.hpp"

#include "diagnostics/log.hpp"
#include "qnbrl/brl_peer_types.hpp"
#include "support/json.hpp"
#include "transport/callback.hpp"
#include "transport/wire.hpp"

namespace qnbrl {
namespace {

constexpr AckCodes codesPassing(std::uint64_t passed) {
  return {.noAck = QNBRLPeerAttributeErrorTimeout,
          .tooManyRequests = QNBRLPeerAttributeErrorTooOften,
          .passed = passed,
          .failure = QNBRLPeerAttributeErrorFailure,
          .textsFirst = true};
}

constexpr Operation kSubscribe{
    .command = "subscribePeersUserAttributes",
    .codes = codesPassing(codeSet({6})),
    .record = recordFailure,
    .interface = "-[QNBRLKit subscribePeersUserAttribes:completion:]",
    .action = "sub",
    .logRequest =
        [](const boost::json::object& p) { QNLog::shared().info("subscribePeersUserAttribes: %@", p); },
    .recordFirst = true,
};

constexpr Operation kUnsubscribe{
    .command = "unsubscribePeersUserAttributes",
    .codes = codesPassing(0),
    .record = recordFailure,
    .interface = "-[QNBRLKit unsubscribePeersUserAttribes:completion:]",
    .action = "unsub",
    .logRequest =
        [](const boost::json::object& p) { QNLog::shared().info("unsubscribePeersUserAttribes: %@", p); },
    .recordFirst = true,
};

constexpr Operation kFetch{
    .command = "getPeersUserAttributes",
    .codes = codesPassing(0),
    .record = recordFailure,
    .interface = "-[QNBRLKit getPeersUserAttributes:completion:]",
    .action = "get",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("getPeersUserAttributes: %@", p); },
    .recordFirst = true,
};

constexpr Operation kFetchByKeys{
    .command = "getPeersUserAttributesByKeys",
    .codes = codesPassing(0),
    .record = recordFailure,
    .interface = "-[QNBRLKit getPeersUserAttributes:byKeys:completion:]",
    .action = "get",
    .logRequest =
        [](const boost::json::object& p) { QNLog::shared().info("getPeersUserAttributesByKeys: %@", p); },
    .recordFirst = true,
};

// One entry per user of a {userId: {"attributes": {...}}} map, in the map's order. With `perUserResult`
// a user whose "result" is a number other than 0 comes without attributes.
std::vector<QNBRLUserAttributes> usersOf(const boost::json::object& byUser, bool perUserResult) {
  std::vector<QNBRLUserAttributes> users;
  users.reserve(byUser.size());
  for (const auto& [userId, entry] : byUser) {
    const auto& item = asObject(entry);
    auto& user = users.emplace_back(QNBRLUserAttributes{std::string(userId), {}});
    const auto* result = item.if_contains("result");
    if (perUserResult && result && looseInteger(*result).value_or(0) != 0) continue;
    user.attributes = attributesWithStateOf(item.if_contains("attributes"));
  }
  return users;
}

}  // namespace

void QNPeerAttributes::subscribePeersUserAttribes(std::vector<std::string> peerIds, Completion completion) {
  changeSubscription(*requests_, kSubscribe, std::move(peerIds), true, subscribed_, std::move(completion));
}

void QNPeerAttributes::unsubscribePeersUserAttribes(std::vector<std::string> peerIds, Completion completion) {
  changeSubscription(*requests_, kUnsubscribe, std::move(peerIds), false, subscribed_, std::move(completion));
}

void QNPeerAttributes::fetch(const Operation& op, bool valid, boost::json::object payload,
                             FetchCompletion completion) const {
  requests_->send(op, {.refusal = valid ? 0 : QNBRLPeerAttributeErrorInvalidArgument,
                       .payload = std::move(payload),
                       .finish = [completion = std::move(completion)](int code, const QNBRLResult* result) {
                         std::optional<std::vector<QNBRLUserAttributes>> users;
                         if (code == 0) users = usersOf(responseIn(result, "attributes"), true);
                         callApplication(completion, std::move(users), code);
                       }});
}

void QNPeerAttributes::getPeersUserAttributes(const std::vector<std::string>& peerIds,
                                              FetchCompletion completion) const {
  fetch(kFetch, validPeerIds(peerIds), userIdsPayload(peerIds), std::move(completion));
}

void QNPeerAttributes::getPeersUserAttributes(const std::vector<std::string>& peerIds,
                                              const std::vector<std::string>& keys,
                                              FetchCompletion completion) const {
  fetch(kFetchByKeys, !keys.empty() && validPeerIds(peerIds),
        {{"userIds", boost::json::array(peerIds.begin(), peerIds.end())},
         {"attributeKeys", boost::json::array(keys.begin(), keys.end())}},
        std::move(completion));
}

void QNPeerAttributes::onPeersUserAttributesChanged(const sio::Payload& data, const Deliver& deliver) {
  const auto& first = objectAt(data.args, 0);
  auto users = usersOf(objectIn(first, "attributes"), false);
  QNLog::shared().info("peersUserAttributesChanged: %@", first);
  deliver(users);
}

void QNPeerAttributes::restoreSubscribedAttributesOfPeers(std::vector<std::string> peerIds) {
  if (!requests_->loggedIn() || peerIds.empty()) return;
  subscribePeersUserAttribes(
      peerIds,
      againOnFailure(weak_from_this(), &QNPeerAttributes::restoreSubscribedAttributesOfPeers, peerIds));
}

}  // namespace qnbrl
