#pragma once
/// @file
/// The values the client reports: connection states, the reasons of their changes and the login codes.
/// The integers are part of the interface.

namespace qnbrl {

/// The client's connection, as QNBRLDelegate::connectionStateChanged reports it.
enum class QNBRLConnectionState : int {
  Disconnected = 1,  ///< not logged in, or the connection is gone for good
  Connecting = 2,    ///< a login is under way
  Connected = 3,     ///< logged in, the connection is up
  Reconnecting = 4,  ///< the connection was lost; the client is connecting again by itself
};

/// Why the connection state changed.
enum class QNBRLConnectionChangeReason : int {
  LoginStarted = 1,    ///< loginByToken was called
  LoginSucceeded = 2,  ///< also after a successful reconnection
  LoginFailed = 3,     ///< the last tavern server refused or dropped the pending login
  LoginTimedOut = 4,   ///< the connect time-out of the last tavern server
  Interrupted = 5,     ///< the connection was lost and reconnection started
  LoggedOut = 6,       ///< logoutWithCompletion was called
  KickedOff = 8,       ///< the same user logged in elsewhere
};

/// Codes given to the login completion (QNBRLKit::loginByToken).
enum QNBRLLoginErrorCode : int {
  QNBRLLoginErrorOk = 0,               ///< logged in
  QNBRLLoginErrorUnknown = 1,          ///< refused for a reason not listed below
  QNBRLLoginErrorAppForbidden = 2,     ///< the service refused the app
  QNBRLLoginErrorInvalidArgument = 3,  ///< the user id fails the ID pattern, or the server said so
  QNBRLLoginErrorInvalidAppId = 4,     ///< the service does not know the app id
  QNBRLLoginErrorInvalidToken = 5,     ///< the service refused the token
  QNBRLLoginErrorTokenExpired = 6,     ///< the token has expired
  QNBRLLoginErrorAuthFail = 7,         ///< the service refused the credentials
  QNBRLLoginErrorAlreadyLogin = 8,     ///< logged in already, or a login is connecting
  QNBRLLoginErrorTimeout = 9,          ///< no tavern server, or the last one did not answer in time
};

/// Success, shared by every request operation.
inline constexpr int QNBRLRequestOk = 0;
/// "Not logged in", shared by every request operation: the request was not sent.
inline constexpr int QNBRLRequestNotLoggedIn = 102;

}  // namespace qnbrl
