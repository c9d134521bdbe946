#pragma once
/// @file
/// The values of the users-and-peers family: a peer's online status, and the codes of the local user's
/// attribute operations, of online-status subscriptions and of peer-attribute subscriptions. The same
/// condition has different numbers in different families (a time-out is 7 for a user-attribute
/// operation and 4 for a subscription); the numbers are part of the interface.
#include <string>

namespace qnbrl {

/// Whether a peer is online, as QNBRLDelegate::peersOnlineStatusChanged and
/// QNBRLKit::queryPeersOnlineStatus report it.
struct QNBRLPeerOnlineStatus {
  std::string peerId;     ///< The peer's user id.
  bool isOnline = false;  ///< Online on any of the service's servers.

  /// Equal when peer and status are.
  friend bool operator==(const QNBRLPeerOnlineStatus&, const QNBRLPeerOnlineStatus&) = default;
};

/// QNBRLKit::setLocalUserAttributes, addOrUpdateLocalUserAttributes, deleteLocalUserAttributesByKeys,
/// clearLocalUserAttributesWithCompletion and getUserAttributes.
enum QNBRLUserAttributeErrorCode : int {
  QNBRLUserAttributeErrorOk = 0,               ///< success
  QNBRLUserAttributeErrorFailure = 2,          ///< the server refused
  QNBRLUserAttributeErrorInvalidArgument = 3,  ///< an empty list or an invalid user id, found locally
  QNBRLUserAttributeErrorServerCode4 = 4,    ///< set and add-or-update only; the dev server: over its limits
  QNBRLUserAttributeErrorTooOften = 5,       ///< the server's rate limit
  QNBRLUserAttributeErrorServerCode6 = 6,    ///< reads only; the dev server: a user it does not know
  QNBRLUserAttributeErrorTimeout = 7,        ///< no acknowledgement within 6 seconds (10 for the clear)
  QNBRLUserAttributeErrorNotLoggedIn = 102,  ///< not logged in: nothing was sent
};

/// QNBRLKit::subscribePeersOnlineStatus, unsubscribePeersOnlineStatus, queryPeersOnlineStatus and
/// queryPeersBySubscriptionOption.
enum QNBRLPeerOnlineStatusErrorCode : int {
  QNBRLPeerOnlineStatusErrorOk = 0,               ///< success
  QNBRLPeerOnlineStatusErrorFailure = 1,          ///< the server refused
  QNBRLPeerOnlineStatusErrorInvalidArgument = 2,  ///< no peer ids, or one fails the ID pattern
  QNBRLPeerOnlineStatusErrorTimeout = 4,          ///< no acknowledgement within 6 seconds
  QNBRLPeerOnlineStatusErrorTooOften = 5,         ///< the server's rate limit
  QNBRLPeerOnlineStatusErrorServerCode6 = 6,      ///< subscribe only; the dev server: too many subscriptions
  QNBRLPeerOnlineStatusErrorNotLoggedIn = 102,    ///< not logged in: nothing was sent
};

/// QNBRLKit::subscribePeersUserAttribes, unsubscribePeersUserAttribes and getPeersUserAttributes.
enum QNBRLPeerAttributeErrorCode : int {
  QNBRLPeerAttributeErrorOk = 0,               ///< success
  QNBRLPeerAttributeErrorFailure = 1,          ///< the server refused
  QNBRLPeerAttributeErrorInvalidArgument = 2,  ///< no peer ids or no keys, or an id fails the ID pattern
  QNBRLPeerAttributeErrorTimeout = 4,          ///< no acknowledgement within 6 seconds
  QNBRLPeerAttributeErrorTooOften = 5,         ///< the server's rate limit
  QNBRLPeerAttributeErrorServerCode6 = 6,      ///< subscribe only; the dev server: too many subscriptions
  QNBRLPeerAttributeErrorNotLoggedIn = 102,    ///< not logged in: nothing was sent
};

}  // namespace qnbrl
