#pragma once
/// @file
/// The client: QNBRLKit.
#include "qnbrl/brl_attribute.hpp"
#include "qnbrl/brl_channel.hpp"
#include "qnbrl/brl_channel_types.hpp"
#include "qnbrl/brl_delegate.hpp"
#include "qnbrl/brl_invitation_kit.hpp"
#include "qnbrl/brl_message.hpp"
#include "qnbrl/brl_options.hpp"
#include "qnbrl/brl_peer_types.hpp"
#include "qnbrl/brl_types.hpp"
#include "qnbrl/export.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

/// The one object an application creates to use the signalling service. Every operation may be called
/// from any thread; none throws. Completions and delegate callbacks never run under a library lock, so
/// they may call back into the client, destroy it included.
///
/// Requests: a local refusal (102 when not logged in, then the operation's own checks) completes at
/// once on the calling thread and sends nothing; every other outcome completes on the library's main
/// queue, exactly once, even when the application released the client in between.
class QNBRL_EXPORT QNBRLKit {
 public:
  /// Told the operation's code.
  using Completion = std::function<void(int code)>;
  /// Told the token and the code (renewToken).
  using TokenCompletion = std::function<void(const std::string& token, int code)>;

  /// Null when the API or log server of the options is not an http(s) URL of a host name or dotted
  /// IPv4 address with an optional port. The delegate is held weakly. Nothing is sent before login.
  ///
  /// Releasing the last returned reference (from any thread, from inside one of the client's own
  /// callbacks too) drops queued work and closes the connection without waiting for the event loop or
  /// the network. Once the release has returned, no delegate callback and no login completion of this
  /// client begins; one already running may finish, with the client still valid.
  static std::shared_ptr<QNBRLKit> create(const std::string& appId, std::weak_ptr<QNBRLDelegate> delegate,
                                          const QNBRLOptions& options = {});
  ~QNBRLKit();
  QNBRLKit(const QNBRLKit&) = delete;
  QNBRLKit& operator=(const QNBRLKit&) = delete;

  /// "sdkVersion/<name>-<version>-<build>".
  static std::string getSDKVersion();
  /// A JSON object text: {"loginArguments": {"userId", "token", "timestamp"}, "tavernSocket":
  /// {"apiServer", "tavernServer", "connectionId"}, "sdkVersion"}; absent values are left out.
  std::string getDebugInfo() const;
  /// The diagnostic log's file.
  void setLogFile(const std::string& path);
  /// The diagnostic log's filter: 0 silent, 1 info and up, 2 warnings and up, 4 errors and up, 8
  /// critical.
  void setLogFilters(std::int64_t filter);
  /// Reserved; changes nothing and returns 0.
  int setParameters(const std::string& parameters);

  /// @name Session
  /// @{

  /// Logs the user in with a token from the application's server and the time stamp that goes with
  /// it (milliseconds since 1970). Codes: QNBRLLoginErrorCode. 3 and 8 are given at once on the
  /// calling thread, every other code later on the main queue.
  void loginByToken(const std::string& token, std::int64_t timeStamp, const std::string& userId,
                    Completion completion);
  /// Sends nothing to the server: closes the connection and forgets the session. 0, or 102 when not
  /// logged in.
  void logoutWithCompletion(Completion completion);
  /// New credentials for the next connection: 0, 2 for a token that is not 32 non-space characters,
  /// 102 when not logged in. Called on the calling thread.
  void renewToken(const std::string& token, std::int64_t timeStamp, TokenCompletion completion);
  /// @}

  /// @name Channels
  /// @{

  /// The channel of this id: the same id gives the same object; the delegate (held weakly) replaces
  /// the earlier one. Null for an id that fails the ID pattern (1 to 64 ASCII letters, digits, white
  /// space or `!#$%&()+-:;<=.>?@[\]^_{}|~,`).
  std::shared_ptr<QNBRLChannel> createChannelWithId(const std::string& channelId,
                                                    std::weak_ptr<QNBRLChannelDelegate> delegate);
  /// Forgets the channel object; it does not leave the channel. False when unknown or invalid.
  bool destroyChannelWithId(const std::string& channelId);
  /// Told the counts (absent on failure) and the code.
  using MemberCountCompletion =
      std::function<void(std::optional<std::vector<QNChannelMemberCount>> counts, int code)>;
  /// Member counts of up to 32 channels, in the server's order. Codes: QNBRLChannelMemberCountErrorCode.
  void getChannelMemberCount(const std::vector<std::string>& channelIds, MemberCountCompletion completion);
  /// @}

  /// @name Channel attributes
  /// No join needed. An absent options object notifies nobody. Codes: QNBRLChannelAttributeErrorCode
  /// (3 for an empty list or an invalid channel id).
  /// @{

  /// Whether to notify the channel's members; absent notifies nobody.
  using Options = std::optional<QNBRLChannelAttributeOptions>;
  /// Told the attributes (absent on failure) and the code.
  using AttributesCompletion =
      std::function<void(std::optional<std::vector<QNBRLAttribute>> attributes, int code)>;
  /// Replaces the whole map; a later duplicate key wins.
  void setChannel(const std::string& channelId, const std::vector<QNBRLAttribute>& attributes,
                  const Options& options, Completion completion);
  /// Merges into the map.
  void addOrUpdateChannel(const std::string& channelId, const std::vector<QNBRLAttribute>& attributes,
                          const Options& options, Completion completion);
  /// Removes the named keys.
  void deleteChannelAttributes(const std::string& channelId, const std::vector<std::string>& keys,
                               const Options& options, Completion completion);
  /// Removes every attribute of the channel.
  void clearChannelAttributes(const std::string& channelId, const Options& options, Completion completion);
  /// The whole map, in the server's order.
  void getChannelAttributes(const std::string& channelId, AttributesCompletion completion);
  /// The named keys that exist.
  void getChannelAttributes(const std::string& channelId, const std::vector<std::string>& keys,
                            AttributesCompletion completion);
  /// @}

  /// @name Peer messages
  /// @{

  /// A message to one user; the peer id is not checked. With enableOfflineMessaging the server keeps it
  /// for an offline peer. A body over QNBRLMessageMaxBytes is told with 7 at once and still sent, so
  /// the completion then runs again with the outcome. Codes: QNBRLPeerMessageErrorCode.
  void sendMessage(const std::shared_ptr<QNBRLMessage>& message, const std::string& peerId,
                   const std::optional<QNBRLSendMessageOptions>& options, Completion completion);
  /// @}

  /// @name The local user's attributes
  /// Writes change the server's copy, and the client's cache of it once the server confirms; after a
  /// reconnection the client sets the whole cache again by itself. Codes: QNBRLUserAttributeErrorCode
  /// (3 for an empty list). Completions of a write get the code only.
  /// @{

  /// Told the attributes (absent on failure), the user id asked for and the code.
  using UserAttributesCompletion = std::function<void(std::optional<std::vector<QNBRLAttribute>> attributes,
                                                      const std::string& userId, int code)>;
  /// Replaces all the local user's attributes; a later duplicate key wins.
  void setLocalUserAttributes(const std::vector<QNBRLAttribute>& attributes, Completion completion);
  /// Merges into the local user's attributes.
  void addOrUpdateLocalUserAttributes(const std::vector<QNBRLAttribute>& attributes, Completion completion);
  /// Removes the named keys; unknown keys are ignored.
  void deleteLocalUserAttributesByKeys(const std::vector<std::string>& keys, Completion completion);
  /// Removes all the local user's attributes; waits up to 10 seconds for the server.
  void clearLocalUserAttributesWithCompletion(Completion completion);
  /// Any user's attributes, in the server's order; the completion gets the user id asked for, also on
  /// failure (3 for an id failing the ID pattern).
  void getUserAttributes(const std::string& userId, UserAttributesCompletion completion);
  /// The named keys that exist (3 for an empty key list).
  void getUserAttributes(const std::string& userId, const std::vector<std::string>& keys,
                         UserAttributesCompletion completion);
  /// @}

  /// @name Peers' online status
  /// While subscribed, QNBRLDelegate::peersOnlineStatusChanged reports each change; subscriptions are
  /// made again by the client after a reconnection. Codes: QNBRLPeerOnlineStatusErrorCode (2 for an
  /// empty list or an id failing the ID pattern). No limit on the number of ids.
  /// @{

  /// Told the statuses (absent on failure) and the code.
  using OnlineStatusCompletion =
      std::function<void(std::optional<std::vector<QNBRLPeerOnlineStatus>> statuses, int code)>;
  /// Told the peer ids (absent on failure) and the code.
  using PeerIdsCompletion = std::function<void(std::optional<std::vector<std::string>> peerIds, int code)>;
  /// Subscribes to the peers' online status.
  void subscribePeersOnlineStatus(const std::vector<std::string>& peerIds, Completion completion);
  /// A peer unsubscribed and later reported again counts as a change again.
  void unsubscribePeersOnlineStatus(const std::vector<std::string>& peerIds, Completion completion);
  /// A one-off reading, subscribed or not.
  void queryPeersOnlineStatus(const std::vector<std::string>& peerIds, OnlineStatusCompletion completion);
  /// The peers the server holds a subscription to under `option`, whose meaning is the server's (the
  /// dev server's README lists its values). Only the login is checked.
  void queryPeersBySubscriptionOption(std::int64_t option, PeerIdsCompletion completion);
  /// @}

  /// @name Peers' attributes
  /// While subscribed, QNBRLDelegate::peersUserAttributesChanged reports each change; subscriptions are
  /// made again by the client after a reconnection. Codes: QNBRLPeerAttributeErrorCode (2 for an empty
  /// list, an empty key list or an id failing the ID pattern).
  /// @{

  /// Told the users' attributes (absent on failure) and the code.
  using PeersAttributesCompletion =
      std::function<void(std::optional<std::vector<QNBRLUserAttributes>> users, int code)>;
  /// Subscribes to the peers' attribute changes.
  void subscribePeersUserAttribes(const std::vector<std::string>& peerIds, Completion completion);
  /// Ends the subscription to the peers' attribute changes.
  void unsubscribePeersUserAttribes(const std::vector<std::string>& peerIds, Completion completion);
  /// Every peer's attributes in one request. A peer the server reports a failure for is listed with no
  /// attributes; a peer the server leaves out is not listed.
  void getPeersUserAttributes(const std::vector<std::string>& peerIds, PeersAttributesCompletion completion);
  /// The named keys of every peer.
  void getPeersUserAttributes(const std::vector<std::string>& peerIds, const std::vector<std::string>& keys,
                              PeersAttributesCompletion completion);
  /// @}

  /// Call invitations: made on first use, the same kit afterwards. Until it is made, invitations
  /// pushed to this client reach nobody.
  std::shared_ptr<QNBRLInvitationKit> getBRLInvitationKit();

  /// @cond INTERNAL
  struct Impl;
  Impl& impl() { return *impl_; }
  /// @endcond

 private:
  explicit QNBRLKit(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace qnbrl
