#pragma once
// The values the client reports: connection states, the reasons of their changes and the login codes.
// The integers are part of the interface.

namespace qnbrl {

enum class QNBRLConnectionState : int {
  Disconnected = 1,
  Connecting = 2,  // a login is under way
  Connected = 3,
  Reconnecting = 4,
};

enum class QNBRLConnectionChangeReason : int {
  LoginStarted = 1,
  LoginSucceeded = 2,  // also after a successful reconnection
  LoginFailed = 3,     // the last tavern server refused or dropped the pending login
  LoginTimedOut = 4,   // the connect time-out of the last tavern server
  Interrupted = 5,     // the connection was lost and reconnection started
  LoggedOut = 6,
  KickedOff = 8,
};

// Codes given to the login completion.
enum QNBRLLoginErrorCode : int {
  QNBRLLoginErrorOk = 0,
  QNBRLLoginErrorUnknown = 1,  // refused for a reason not listed below
  QNBRLLoginErrorAppForbidden = 2,
  QNBRLLoginErrorInvalidArgument = 3,  // the user id fails the ID pattern, or the server said so
  QNBRLLoginErrorInvalidAppId = 4,
  QNBRLLoginErrorInvalidToken = 5,
  QNBRLLoginErrorTokenExpired = 6,
  QNBRLLoginErrorAuthFail = 7,
  QNBRLLoginErrorAlreadyLogin = 8,  // logged in already, or a login is connecting
  QNBRLLoginErrorTimeout = 9,       // no tavern server, or the last one did not answer in time
};

// Shared by every request operation.
inline constexpr int QNBRLRequestOk = 0;
inline constexpr int QNBRLRequestNotLoggedIn = 102;

}  // namespace qnbrl
