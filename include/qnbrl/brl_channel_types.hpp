#pragma once
/// @file
/// The values of the channel family: members, member counts, attribute options, and the codes of each
/// channel operation. The same condition has different numbers in different operations (a time-out is
/// 4 for a join, 2 for a message, 3 for a member list); the numbers are part of the interface.
#include <cstddef>
#include <cstdint>
#include <string>

namespace qnbrl {

/// A member of a channel.
struct QNBRLMember {
  std::string userId;     ///< The member's user.
  std::string channelId;  ///< The channel.

  /// Equal when user and channel are.
  friend bool operator==(const QNBRLMember&, const QNBRLMember&) = default;
};

/// A channel's member count, as QNBRLKit::getChannelMemberCount reports it.
struct QNChannelMemberCount {
  std::string channelId;   ///< The channel.
  std::int32_t count = 0;  ///< Its members.

  /// Equal when channel and count are.
  friend bool operator==(const QNChannelMemberCount&, const QNChannelMemberCount&) = default;
};

/// Options of the channel-attribute writes of QNBRLKit.
struct QNBRLChannelAttributeOptions {
  /// Push the change to the channel's members.
  bool enableNotificationToChannelMembers = false;
};

/// Why a member left (QNBRLChannelDelegate::memberLeftReason).
enum QNBRLChannelMemberLeftReason : int {
  QNBRLChannelMemberLeftUnknown = 0,     ///< a reason the client does not know
  QNBRLChannelMemberLeftQuit = 1,        ///< the member left the channel
  QNBRLChannelMemberLeftDisconnect = 2,  ///< its connection was lost
};

/// QNBRLChannel::joinWithCompletion.
enum QNBRLJoinChannelErrorCode : int {
  QNBRLJoinChannelErrorOk = 0,               ///< success
  QNBRLJoinChannelErrorFailure = 1,          ///< any other refusal, the server's rate limit included
  QNBRLJoinChannelErrorInvalidArgument = 3,  ///< the channel id fails the ID pattern, or the server said so
  QNBRLJoinChannelErrorTimeout = 4,          ///< no acknowledgement in time
  QNBRLJoinChannelErrorServerCode5 = 5,      ///< server codes handed on unchanged
  QNBRLJoinChannelErrorServerCode6 = 6,    ///< a server code handed on unchanged: its meaning is the server's
  QNBRLJoinChannelErrorNotLoggedIn = 102,  ///< not logged in: nothing was sent
};

/// QNBRLChannel::leaveWithCompletion. A leave of a joined channel always completes with 0.
enum QNBRLLeaveChannelErrorCode : int {
  QNBRLLeaveChannelErrorOk = 0,             ///< success
  QNBRLLeaveChannelErrorNotJoined = 3,      ///< the channel was not joined
  QNBRLLeaveChannelErrorNotLoggedIn = 102,  ///< not logged in: nothing was sent
};

/// QNBRLChannel::sendMessage.
enum QNBRLChannelMessageErrorCode : int {
  QNBRLChannelMessageErrorOk = 0,             ///< success
  QNBRLChannelMessageErrorFailure = 1,        ///< any other refusal
  QNBRLChannelMessageErrorTimeout = 2,        ///< no acknowledgement in time
  QNBRLChannelMessageErrorTooOften = 3,       ///< the server's rate limit
  QNBRLChannelMessageErrorTooLarge = 4,       ///< over QNBRLMessageMaxBytes (told at once), or server code 4
  QNBRLChannelMessageErrorNotJoined = 5,      ///< found locally, or server code 5
  QNBRLChannelMessageErrorNotLoggedIn = 102,  ///< not logged in: nothing was sent
};

/// QNBRLChannel::getMembersWithCompletion. With 5 from the server the list comes too.
enum QNBRLGetMembersErrorCode : int {
  QNBRLGetMembersErrorOk = 0,             ///< success
  QNBRLGetMembersErrorFailure = 1,        ///< any other refusal
  QNBRLGetMembersErrorTimeout = 3,        ///< no acknowledgement in time
  QNBRLGetMembersErrorTooOften = 4,       ///< the server's rate limit
  QNBRLGetMembersErrorNotJoined = 5,      ///< the channel is not joined: found locally, or server code 5
  QNBRLGetMembersErrorNotLoggedIn = 102,  ///< not logged in: nothing was sent
};

/// QNBRLKit::getChannelMemberCount.
enum QNBRLChannelMemberCountErrorCode : int {
  QNBRLChannelMemberCountErrorOk = 0,       ///< success
  QNBRLChannelMemberCountErrorFailure = 1,  ///< any other refusal
  QNBRLChannelMemberCountErrorInvalidArgument =
      2,                                     ///< no ids, an id failing the ID pattern, or the server said so
  QNBRLChannelMemberCountErrorTooOften = 3,  ///< the server's rate limit
  QNBRLChannelMemberCountErrorTimeout = 4,   ///< no acknowledgement in time
  QNBRLChannelMemberCountErrorTooManyChannels = 5,  ///< more than 32 ids, or server code 5
  QNBRLChannelMemberCountErrorNotLoggedIn = 102,    ///< not logged in: nothing was sent
};

/// The six channel-attribute operations of QNBRLKit.
enum QNBRLChannelAttributeErrorCode : int {
  QNBRLChannelAttributeErrorOk = 0,       ///< success
  QNBRLChannelAttributeErrorFailure = 2,  ///< any other server refusal
  QNBRLChannelAttributeErrorInvalidArgument =
      3,  ///< an empty list or an invalid id (and server code 3 for a read by keys)
  QNBRLChannelAttributeErrorServerCode4 = 4,    ///< writes: server code 4, handed on
  QNBRLChannelAttributeErrorTooOften = 5,       ///< the server's rate limit
  QNBRLChannelAttributeErrorTimeout = 7,        ///< no acknowledgement in time
  QNBRLChannelAttributeErrorNotLoggedIn = 102,  ///< not logged in: nothing was sent
};

/// The most channel ids one member-count request takes.
inline constexpr std::size_t QNBRLChannelMemberCountMaxIds = 32;

}  // namespace qnbrl
