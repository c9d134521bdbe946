#pragma once
// The values of the channel family: members, member counts, attribute options, and the codes of each
// channel operation. The same condition has different numbers in different operations (a time-out is
// 4 for a join, 2 for a message, 3 for a member list); the numbers are part of the interface.
#include <cstddef>
#include <cstdint>
#include <string>

namespace qnbrl {

struct QNBRLMember {
  std::string userId;
  std::string channelId;

  friend bool operator==(const QNBRLMember&, const QNBRLMember&) = default;
};

struct QNChannelMemberCount {
  std::string channelId;
  std::int32_t count = 0;

  friend bool operator==(const QNChannelMemberCount&, const QNChannelMemberCount&) = default;
};

struct QNBRLChannelAttributeOptions {
  // Push the change to the channel's members.
  bool enableNotificationToChannelMembers = false;
};

// Why a member left (QNBRLChannelDelegate::memberLeftReason).
enum QNBRLChannelMemberLeftReason : int {
  QNBRLChannelMemberLeftUnknown = 0,
  QNBRLChannelMemberLeftQuit = 1,
  QNBRLChannelMemberLeftDisconnect = 2,  // its connection was lost
};

// QNBRLChannel::joinWithCompletion.
enum QNBRLJoinChannelErrorCode : int {
  QNBRLJoinChannelErrorOk = 0,
  QNBRLJoinChannelErrorFailure = 1,
  QNBRLJoinChannelErrorInvalidArgument = 3,  // the channel id fails the ID pattern, or the server said so
  QNBRLJoinChannelErrorTimeout = 4,
  QNBRLJoinChannelErrorServerCode5 = 5,  // server codes handed on unchanged
  QNBRLJoinChannelErrorServerCode6 = 6,
  QNBRLJoinChannelErrorNotLoggedIn = 102,
};

// QNBRLChannel::leaveWithCompletion. A leave of a joined channel always completes with 0.
enum QNBRLLeaveChannelErrorCode : int {
  QNBRLLeaveChannelErrorOk = 0,
  QNBRLLeaveChannelErrorNotJoined = 3,
  QNBRLLeaveChannelErrorNotLoggedIn = 102,
};

// QNBRLChannel::sendMessage.
enum QNBRLChannelMessageErrorCode : int {
  QNBRLChannelMessageErrorOk = 0,
  QNBRLChannelMessageErrorFailure = 1,
  QNBRLChannelMessageErrorTimeout = 2,
  QNBRLChannelMessageErrorTooOften = 3,  // the server's rate limit
  QNBRLChannelMessageErrorTooLarge = 4,  // over QNBRLMessageMaxBytes (told at once), or server code 4
  QNBRLChannelMessageErrorNotJoined = 5,  // found locally, or server code 5
  QNBRLChannelMessageErrorNotLoggedIn = 102,
};

// QNBRLChannel::getMembersWithCompletion. With 5 from the server the list comes too.
enum QNBRLGetMembersErrorCode : int {
  QNBRLGetMembersErrorOk = 0,
  QNBRLGetMembersErrorFailure = 1,
  QNBRLGetMembersErrorTimeout = 3,
  QNBRLGetMembersErrorTooOften = 4,
  QNBRLGetMembersErrorNotJoined = 5,
  QNBRLGetMembersErrorNotLoggedIn = 102,
};

// QNBRLKit::getChannelMemberCount.
enum QNBRLChannelMemberCountErrorCode : int {
  QNBRLChannelMemberCountErrorOk = 0,
  QNBRLChannelMemberCountErrorFailure = 1,
  QNBRLChannelMemberCountErrorInvalidArgument = 2,  // no ids, an id failing the ID pattern, or the server said so
  QNBRLChannelMemberCountErrorTooOften = 3,
  QNBRLChannelMemberCountErrorTimeout = 4,
  QNBRLChannelMemberCountErrorTooManyChannels = 5,  // more than 32 ids, or server code 5
  QNBRLChannelMemberCountErrorNotLoggedIn = 102,
};

// The six channel-attribute operations of QNBRLKit.
enum QNBRLChannelAttributeErrorCode : int {
  QNBRLChannelAttributeErrorOk = 0,
  QNBRLChannelAttributeErrorFailure = 2,          // any other server refusal
  QNBRLChannelAttributeErrorInvalidArgument = 3,  // an empty list or an invalid id (and server code 3 for a read by keys)
  QNBRLChannelAttributeErrorServerCode4 = 4,      // writes: server code 4, handed on
  QNBRLChannelAttributeErrorTooOften = 5,
  QNBRLChannelAttributeErrorTimeout = 7,
  QNBRLChannelAttributeErrorNotLoggedIn = 102,
};

// The most channel ids one member-count request takes.
inline constexpr std::size_t QNBRLChannelMemberCountMaxIds = 32;

}  // namespace qnbrl
