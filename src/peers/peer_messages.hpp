#pragma once
// Messages from one user to another: the send, and the batches the server pushes.
#include "qnbrl/brl_message.hpp"
#include "socketio/codec.hpp"
#include "transport/request.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace qnbrl {

class QNPeerMessages {
 public:
  using Deliver =
      std::function<void(const std::shared_ptr<QNBRLMessage>& message, const std::string& peerId)>;

  explicit QNPeerMessages(std::shared_ptr<const RequestPath> requests) : requests_(std::move(requests)) {}

  // The peer id is not checked. A body over the limit is told with 7 at once and still sent.
  void sendMessage(const std::shared_ptr<QNBRLMessage>& message, const std::string& peerId,
                   const std::optional<QNBRLSendMessageOptions>& options,
                   std::function<void(int code)> completion) const;

  // "MessageToPeerReceived": hands each message of the batch to `deliver`, in order. The first element
  // that is no message ends the batch; the ones after it are dropped.
  static void onMessageToPeerReceived(const sio::Payload& data, const Deliver& deliver);

 private:
  const std::shared_ptr<const RequestPath> requests_;
};

}  // namespace qnbrl
