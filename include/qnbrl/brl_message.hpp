#pragma once
// Messages between users, in channels and from peer to peer, and the options of a peer send.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

using QNBRLBytes = std::vector<std::uint8_t>;

// A text message (type 1). An absent text is not the same as an empty one on the wire: it travels
// as null.
struct QNBRLMessage {
  QNBRLMessage() = default;
  explicit QNBRLMessage(std::optional<std::string> text) : text(std::move(text)) {}
  virtual ~QNBRLMessage() = default;

  // 1 for a text message, 2 for a raw one.
  virtual std::uint64_t type() const { return 1; }
  // Always false: no delivery path marks a message as coming from offline storage.
  bool isOfflineMessage() const { return false; }

  std::optional<std::string> text;
  // When the server received it, in milliseconds since 1970; 0 for a message built locally.
  std::int64_t serverReceivedTs = 0;
};

// A binary message (type 2) with an optional text beside its bytes. The bytes are shared, never
// copied: the same buffer goes out as the request's binary attachment.
struct QNBRLRawMessage : QNBRLMessage {
  QNBRLRawMessage() = default;
  explicit QNBRLRawMessage(std::shared_ptr<const QNBRLBytes> rawData) : rawData(std::move(rawData)) {}

  std::uint64_t type() const override { return 2; }

  std::shared_ptr<const QNBRLBytes> rawData;
};

struct QNBRLSendMessageOptions {
  // Keep the message for a peer that is offline and deliver it after the peer's next login.
  bool enableOfflineMessaging = false;
  // Reserved: never sent.
  bool enableHistoricalMessaging = false;
};

// The largest text (UTF-8 bytes) or binary body a message may carry. A larger one is reported at
// once with the operation's size code and is still sent.
inline constexpr std::size_t QNBRLMessageMaxBytes = 32768;

// Codes of QNBRLKit::sendMessage (peer messages).
enum QNBRLPeerMessageErrorCode : int {
  QNBRLPeerMessageErrorOk = 0,
  QNBRLPeerMessageErrorFailure = 1,          // any other refusal
  QNBRLPeerMessageErrorTimeout = 2,          // no acknowledgement within 6 seconds
  QNBRLPeerMessageErrorPeerOffline = 3,      // server code 3 (the dev server: an offline peer without the offline option)
  QNBRLPeerMessageErrorServerCode4 = 4,      // server codes handed on unchanged: their meaning is the server's
  QNBRLPeerMessageErrorTooOften = 5,         // the server's rate limit
  QNBRLPeerMessageErrorServerCode6 = 6,
  QNBRLPeerMessageErrorTooLarge = 7,         // over QNBRLMessageMaxBytes (told at once), or server code 7
  QNBRLPeerMessageErrorNotLoggedIn = 102,
};

}  // namespace qnbrl
