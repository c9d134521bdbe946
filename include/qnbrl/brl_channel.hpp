#pragma once
/// @file
/// The application's handle on one channel, made by QNBRLKit::createChannelWithId. Every operation may
/// be called from any thread and never throws. A local refusal completes at once on the calling thread;
/// every other outcome on the library's main queue, exactly once, even after the client was released.
#include "qnbrl/brl_channel_delegate.hpp"
#include "qnbrl/brl_channel_types.hpp"
#include "qnbrl/brl_message.hpp"
#include "qnbrl/export.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

/// One channel of the service, shared by the client and the application: the same id gives the same
/// object. Events of the channel go to its QNBRLChannelDelegate.
class QNBRL_EXPORT QNBRLChannel {
 public:
  /// Told the operation's code.
  using Completion = std::function<void(int code)>;
  /// Told the members (absent on failure, except as QNBRLGetMembersErrorCode says) and the code.
  using MembersCompletion = std::function<void(std::optional<std::vector<QNBRLMember>> members, int code)>;

  /// The id the channel was created with.
  const std::string& channelId() const;
  /// True from a successful join until a leave or a logout.
  bool joined() const;
  /// Set when the client's destroyChannelWithId dropped it; the channel keeps working.
  bool destroyed() const;

  /// Joins, and while joined keeps the membership alive with a heartbeat every 2 seconds. Joining a
  /// joined channel asks again. Codes: QNBRLJoinChannelErrorCode.
  void joinWithCompletion(Completion completion);
  /// Leaves at once, locally: 0 for a joined channel whatever the server answers later, 3 when not
  /// joined, 102 when logged out. Codes: QNBRLLeaveChannelErrorCode.
  void leaveWithCompletion(Completion completion);
  /// A text or raw message to the other members. A body over QNBRLMessageMaxBytes is told with 4 at
  /// once and still sent, so the completion then runs twice. The options are not consulted. Codes:
  /// QNBRLChannelMessageErrorCode.
  void sendMessage(const std::shared_ptr<QNBRLMessage>& message,
                   const std::optional<QNBRLSendMessageOptions>& options, Completion completion);
  /// The channel's members. Codes: QNBRLGetMembersErrorCode.
  void getMembersWithCompletion(MembersCompletion completion);

  /// Leaves nothing behind: the library holds channels by shared pointer.
  ~QNBRLChannel();
  QNBRLChannel(const QNBRLChannel&) = delete;
  QNBRLChannel& operator=(const QNBRLChannel&) = delete;

  /// @cond INTERNAL
  // The library's side of the channel; applications get channels from QNBRLKit::createChannelWithId.
  struct Impl;
  explicit QNBRLChannel(std::unique_ptr<Impl> impl);
  Impl& impl() { return *impl_; }
  /// @endcond

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace qnbrl
