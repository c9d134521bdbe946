#pragma once
/// @file
/// What a channel tells the application. Every member is optional: an empty one is a callback the
/// application does not implement, and the event is dropped. Callbacks run on the library's main queue.
#include "qnbrl/brl_attribute.hpp"
#include "qnbrl/brl_channel_types.hpp"
#include "qnbrl/brl_message.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace qnbrl {

class QNBRLChannel;

/// A channel's callbacks, given to QNBRLKit::createChannelWithId and held weakly.
struct QNBRLChannelDelegate {
  /// A member joined the channel.
  std::function<void(QNBRLChannel& channel, const QNBRLMember& member)> memberJoined;
  /// A member that left; a delegate implementing both members hears both.
  std::function<void(QNBRLChannel& channel, const QNBRLMember& member)> memberLeft;
  /// A member that left, with the reason.
  std::function<void(QNBRLChannel& channel, const QNBRLMember& member, QNBRLChannelMemberLeftReason reason)>
      memberLeftReason;
  /// A QNBRLMessage, or a QNBRLRawMessage when the message carries bytes.
  std::function<void(QNBRLChannel& channel, const std::shared_ptr<QNBRLMessage>& message,
                     const QNBRLMember& member)>
      messageReceived;
  /// Every attribute of the channel as the server pushed it, in the server's order.
  std::function<void(QNBRLChannel& channel, const std::vector<QNBRLAttribute>& attributes)> attributeUpdate;
  /// The channel's member count. A count push that does not name this channel tells it 0.
  std::function<void(QNBRLChannel& channel, std::int32_t count)> memberCount;
};

}  // namespace qnbrl
