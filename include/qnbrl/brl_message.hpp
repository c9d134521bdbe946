#pragma once
/// @file
/// Messages between users, in channels and from peer to peer, and the options of a peer send.
#include "qnbrl/export.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qnbrl {

/// The bytes of a binary message.
using QNBRLBytes = std::vector<std::uint8_t>;

/// A text message (type 1). An absent text is not the same as an empty one on the wire: it travels
/// as null.
struct QNBRL_EXPORT QNBRLMessage {
  /// A message with no text.
  QNBRLMessage() = default;
  /// A message with the given text.
  explicit QNBRLMessage(std::optional<std::string> text) : text(std::move(text)) {}
  virtual ~QNBRLMessage() = default;  ///< Messages are shared, often as the base type.

  /// 1 for a text message, 2 for a raw one.
  virtual std::uint64_t type() const { return 1; }
  /// Always false: no delivery path marks a message as coming from offline storage.
  bool isOfflineMessage() const { return false; }

  /// The text, UTF-8; absent is not the same as empty.
  std::optional<std::string> text;
  /// When the server received it, in milliseconds since 1970; 0 for a message built locally.
  std::int64_t serverReceivedTs = 0;
};

/// A binary message (type 2) with an optional text beside its bytes. The bytes are shared, never
/// copied: the same buffer goes out as the request's binary attachment.
struct QNBRL_EXPORT QNBRLRawMessage : QNBRLMessage {
  /// A binary message with no bytes.
  QNBRLRawMessage() = default;
  /// A binary message sharing the given bytes.
  explicit QNBRLRawMessage(std::shared_ptr<const QNBRLBytes> rawData) : rawData(std::move(rawData)) {}

  /// Always 2.
  std::uint64_t type() const override { return 2; }

  /// The bytes, shared with whoever else holds them.
  std::shared_ptr<const QNBRLBytes> rawData;
};

/// Options of a message send (QNBRLKit::sendMessage, QNBRLChannel::sendMessage).
struct QNBRLSendMessageOptions {
  /// Keep the message for a peer that is offline and deliver it after the peer's next login.
  bool enableOfflineMessaging = false;
  /// Reserved: never sent.
  bool enableHistoricalMessaging = false;
};

/// The largest text (UTF-8 bytes) or binary body a message may carry. A larger one is reported at
/// once with the operation's size code and is still sent.
inline constexpr std::size_t QNBRLMessageMaxBytes = 32768;

/// Codes of QNBRLKit::sendMessage (peer messages).
enum QNBRLPeerMessageErrorCode : int {
  QNBRLPeerMessageErrorOk = 0,       ///< success
  QNBRLPeerMessageErrorFailure = 1,  ///< any other refusal
  QNBRLPeerMessageErrorTimeout = 2,  ///< no acknowledgement within 6 seconds
  QNBRLPeerMessageErrorPeerOffline =
      3,  ///< server code 3 (the dev server: an offline peer without the offline option)
  QNBRLPeerMessageErrorServerCode4 = 4,  ///< server codes handed on unchanged: their meaning is the server's
  QNBRLPeerMessageErrorTooOften = 5,     ///< the server's rate limit
  QNBRLPeerMessageErrorServerCode6 = 6,  ///< a server code handed on unchanged: its meaning is the server's
  QNBRLPeerMessageErrorTooLarge = 7,     ///< over QNBRLMessageMaxBytes (told at once), or server code 7
  QNBRLPeerMessageErrorNotLoggedIn = 102,  ///< not logged in: nothing was sent
};

}  // namespace qnbrl
