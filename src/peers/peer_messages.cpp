#include "peers/peer_messages.hpp"

#include "diagnostics/log.hpp"
#include "transport/callback.hpp"
#include "transport/wire.hpp"

namespace qnbrl {
namespace {

constexpr Operation kSendToPeer{
    .command = "sendMessageToPeer",
    .codes = {.noAck = QNBRLPeerMessageErrorTimeout,
              .tooManyRequests = QNBRLPeerMessageErrorTooOften,
              .passed = codeSet({3, 4, 6, 7}),
              .failure = QNBRLPeerMessageErrorFailure},
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("send peer message: %@", p); },
};

}  // namespace

void QNPeerMessages::sendMessage(const std::shared_ptr<QNBRLMessage>& message, const std::string& peerId,
                                 const std::optional<QNBRLSendMessageOptions>& options,
                                 std::function<void(int code)> completion) const {
  const QNBRLMessage none;
  const auto& body = message ? *message : none;
  Request request{.notices = std::vector<int>(static_cast<std::size_t>(oversizeBodies(body)),
                                              QNBRLPeerMessageErrorTooLarge),
                  .finish = [completion = std::move(completion)](int code, const QNBRLResult*) {
                    callApplication(completion, code);
                  }};
  request.payload = {{"targetUserId", peerId},
                     {"content", contentOf(body, request.attachments)},
                     {"option", {{"offline", options && options->enableOfflineMessaging}}}};
  requests_->send(kSendToPeer, std::move(request));
}

void QNPeerMessages::onMessageToPeerReceived(const sio::Payload& data, const Deliver& deliver) {
  const auto* msgs = objectAt(data.args, 0).if_contains("msgs");
  if (!msgs || !msgs->is_array()) return;
  for (const auto& element : msgs->get_array()) {
    const auto& item = asObject(element);
    auto message = messageOf(item, data);
    if (!message) return QNLog::shared().critical("received invaliad message: %@", element);
    QNLog::shared().info("MessageToPeerReceived: %@", element);
    deliver(message, stringIn(item, "fromUserId"));
  }
}

}  // namespace qnbrl
