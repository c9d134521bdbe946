#include "client/kit_impl.hpp"
#include "diagnostics/log.hpp"
#include "diagnostics/logan_manager.hpp"
#include "invitations/invitation_store.hpp"
#include "support/text.hpp"

#include <algorithm>
#include <array>
#include <cstdio>

namespace qnbrl {
namespace {

// Pause before reconnection attempt n (seconds); the last one repeats without limit.
constexpr std::array<int, 4> kBackoff{1, 2, 4, 6};

// Reconnection attempts in flight in the process at once. When a server drops thousands of clients
// together, their pauses end together: started all at once, the attempts would hold the main queue
// for seconds and hand the servers more handshakes than they answer within the connect time-out, and
// an attempt that times out on the last server ends the series. One client never waits here.
AdmissionGate& reconnectionGate() {
  static auto* gate = new AdmissionGate(64);
  return *gate;
}

std::string firstText(const sio::Payload& data) {
  if (data.args.empty() || !data.args.front().is_string()) return {};
  return std::string(data.args.front().as_string());
}

// Position of url in the list, or none.
std::optional<std::size_t> positionOf(const std::vector<std::string>& list, const std::string& url) {
  auto it = std::find(list.begin(), list.end(), url);
  if (it == list.end()) return std::nullopt;
  return static_cast<std::size_t>(it - list.begin());
}

int loginErrorFor(const std::string& reason) {
  static const std::pair<const char*, int> kTexts[] = {
      {"loginFail: InvalidAppId", QNBRLLoginErrorInvalidAppId},
      {"loginFail: InvalidArgument", QNBRLLoginErrorInvalidArgument},
      {"loginFail: InvalidToken", QNBRLLoginErrorInvalidToken},
      {"loginFail: ExpiredToken", QNBRLLoginErrorTokenExpired},
      {"loginFail: AuthFail", QNBRLLoginErrorAuthFail},
      {"loginFail: AppForbidden", QNBRLLoginErrorAppForbidden},
  };
  for (auto& [text, code] : kTexts) {
    if (reason == text) return code;
  }
  return QNBRLLoginErrorUnknown;
}

void noteConnectTime() {
  auto& logan = LoganManager::sharedInstance();
  // tsGetServers holds the discovery's duration by now; the recorder expects exactly this difference.
  logan.tsConnectServer = currentTimeStamp() - logan.tsGetServers.load();
}

}  // namespace

void QNBRLKit::Impl::bind(const std::shared_ptr<QNBRLKit>& kit) {
  owner = kit;
  std::weak_ptr<QNBRLKit> weak = kit;
  socketDelegate = std::make_shared<QNSocketManagerDelegate>();
  socketDelegate->onConnectTimeout = [weak](QNSocketManager&, const boost::json::array&) {
    if (auto kit = weak.lock()) kit->impl_->onConnectTimeout(*kit);
  };
  socketDelegate->onSocketChange = [weak](QNSocketManager&, const std::shared_ptr<sio::Socket>&) {
    if (auto kit = weak.lock()) kit->impl_->onSocketChange();
  };
  messageDelegate = std::make_shared<QNSocketMessageDelegate>();
  messageDelegate->onEvent = [weak](QNSocketManager&, std::string_view event, const sio::Payload& data) {
    if (auto kit = weak.lock()) kit->impl_->onEvent(*kit, event, data);
  };
  socketManager->setDelegate(socketDelegate);
  socketManager->setMessageDelegate(messageDelegate);
}

void QNBRLKit::Impl::finishLogin(int code) {
  Completion pending;
  {
    std::lock_guard lock(mutex);
    pending = std::exchange(loginBlcok, nullptr);
  }
  if (!app->released()) callApplication(pending, code);
}

void QNBRLKit::Impl::failOver(std::size_t index) {
  std::string url;
  {
    std::lock_guard lock(mutex);
    if (index >= tavernServers.size()) return;
    url = tavernServers[index];
  }
  socketManager->createSocketWithUrl(url, socketManager->config());
  socketManager->connect();
}

void QNBRLKit::Impl::onConnectTimeout(QNBRLKit& kit) {
  auto url = socketManager->url();
  std::size_t next = 0;
  bool last = false;
  {
    std::lock_guard lock(mutex);
    // With no list left to move along, the time-out ends the attempt as on the last server.
    last = tavernServers.empty() || url == tavernServers.back();
    if (!last) {
      next = positionOf(tavernServers, url).value_or(static_cast<std::size_t>(-1)) + 1;
      lastTavernServerIndex = static_cast<std::int64_t>(next);
    }
  }
  if (!last) return failOver(next);
  releaseReconnectionTicket();
  // Disconnected, as the delegate is told: left at "connecting", every later login would be refused.
  stateManager->setState(1);
  finishLogin(QNBRLLoginErrorTimeout);
  LoganManager::sharedInstance().loginResult(0, QNBRLLoginErrorTimeout);
  reportState(kit, QNBRLConnectionState::Disconnected, QNBRLConnectionChangeReason::LoginTimedOut, false);
}

void QNBRLKit::Impl::onSocketChange() {
  debugInfo.updateTavernServer(socketManager->url());
}

void QNBRLKit::Impl::onDisconnectReason(QNBRLKit&, const sio::Payload& data) {
  QNLog::shared().warn("disconnectReason, params = %@", data.args);
  auto reason = firstText(data);
  std::lock_guard lock(mutex);
  serverReason = reason;
  if (reason == "KickOff") {
    disconnectReason = 8;
  } else if (reason == "ExpireSession") {
    disconnectReason = 9;
  } else {
    loginError = loginErrorFor(reason);
  }
}

void QNBRLKit::Impl::onDisconnect(QNBRLKit& kit, const sio::Payload& data) {
  QNLog::shared().info("disconnect, params = %@", data.args);
  auto first = firstText(data);
  auto url = socketManager->url();
  enum class Step { failOver, loginFailed, kickedOff, lost, closedByClient } step;
  std::size_t next = 0;
  int code = 0;
  std::string remembered;
  {
    std::lock_guard lock(mutex);
    remembered = std::exchange(serverReason, {});
    if (loginBlcok) {
      auto position = positionOf(tavernServers, url);
      bool last = !tavernServers.empty() && url == tavernServers.back();
      if (!last && tavernServers.size() > 1) {
        next = position ? (*position + 1) % tavernServers.size() : 0;
        lastTavernServerIndex = static_cast<std::int64_t>(next);
        step = Step::failOver;
      } else {
        // A one-entry list that does not hold the socket's server cannot fail over: the login ends here.
        if (!last) QNLog::shared().error("self.tavernServers.count > 1");
        code = static_cast<int>(loginError);
        step = Step::loginFailed;
      }
    } else if (first == "Got Disconnect" && disconnectReason == 8) {
      step = Step::kickedOff;
    } else if (first != "Namespace leave") {
      step = Step::lost;
    } else {
      step = Step::closedByClient;
    }
  }

  if (step != Step::failOver) releaseReconnectionTicket();
  switch (step) {
    case Step::failOver:
      return failOver(next);
    case Step::loginFailed: {
      noteConnectTime();
      LoganManager::sharedInstance().loginResult(0, code);
      stateManager->setState(1);
      finishLogin(code);
      return reportState(kit, QNBRLConnectionState::Disconnected, QNBRLConnectionChangeReason::LoginFailed,
                         true);
    }
    case Step::kickedOff:
      // Still logged in, and no reconnection: the user is signed in elsewhere.
      stateManager->setState(1);
      return reportState(kit, QNBRLConnectionState::Disconnected, QNBRLConnectionChangeReason::KickedOff,
                         true);
    case Step::lost:
      if (remembered == "loginFail: ExpiredToken") tell(&QNBRLDelegate::tokenDidExpire, kit);
      if (stateManager->state() != 4) stateManager->setState(1);
      return reconnect();
    case Step::closedByClient:
      stateManager->setState(1);
      debugInfo.logout();
      // The connection is given up for good: no invitation is pending any more.
      QNInvitationStore::shared().reset();
      return reportState(kit, QNBRLConnectionState::Disconnected, QNBRLConnectionChangeReason::LoggedOut,
                         true);
  }
}

void QNBRLKit::Impl::restoreStateAfterReconnection() {
  channels->restoreJoinedChannels();
  userAttributes->restoreLocalUserAttributes(userAttributes->cache().brlAttributes());
  presence->restoreSubscribedOnlineStatusOfPeers(presence->subscribedOnlineStatusPeerIds());
  peerAttributes->restoreSubscribedAttributesOfPeers(peerAttributes->subscribedAttributesPeerIds());
}

void QNBRLKit::Impl::onLoginSuccess(QNBRLKit& kit, const sio::Payload& data) {
  QNLog::shared().info("loginSuccess, params = %@", data.args);
  releaseReconnectionTicket();
  stateManager->setState(3);
  if (auto socket = socketManager->socket().lock()) debugInfo.getConnectionId(socket->sid());
  bool reconnection = stateManager->login();
  // Before anyone is told, so that a callback that sends a request finds the session logged in.
  stateManager->setLogin(true);
  // The replays run before the delegate hears of the new connection.
  if (reconnection) restoreStateAfterReconnection();
  bool pending = false;
  {
    std::lock_guard lock(mutex);
    pending = static_cast<bool>(loginBlcok);
  }
  reportState(kit, QNBRLConnectionState::Connected, QNBRLConnectionChangeReason::LoginSucceeded, true);
  if (pending) {
    noteConnectTime();
    LoganManager::sharedInstance().loginResult(1, 0);
  }
  finishLogin(QNBRLLoginErrorOk);
}

void QNBRLKit::Impl::reconnect() {
  queue->asyncWaiting([weak = owner](std::function<void()> done) {
    std::chrono::seconds pause;
    {
      auto kit = weak.lock();
      if (!kit || !kit->impl_->stateManager->login()) return done();
      std::lock_guard lock(kit->impl_->mutex);
      pause = std::chrono::seconds(
          kBackoff[std::clamp<std::size_t>(kit->impl_->connectIndex, 0, kBackoff.size() - 1)]);
    }
    // The pause, and the wait for a place among the attempts in flight, hold the work queue (a logout
    // waits behind them) but no thread.
    MainQueue::after(pause, [weak, done = std::move(done)]() mutable {
      reconnectionGate().enter([weak, done = std::move(done)](AdmissionGate::Ticket ticket) {
        if (auto kit = weak.lock()) {
          auto& impl = *kit->impl_;
          impl.reconnectAfterPause(*kit);
          // With no socket to hear from, the attempt is over already.
          if (!impl.socketManager->socket().expired()) {
            std::lock_guard lock(impl.mutex);
            impl.reconnectionTicket = std::move(ticket);
          }
        }
        done();
      });
    });
  });
}

void QNBRLKit::Impl::releaseReconnectionTicket() {
  AdmissionGate::Ticket ticket;  // dropped once the lock is released
  std::lock_guard lock(mutex);
  ticket = std::exchange(reconnectionTicket, nullptr);
}

void QNBRLKit::Impl::reconnectAfterPause(QNBRLKit& kit) {
  bool wasReconnecting = stateManager->state() == 4;
  auto config = stateHelper.loginParams().generateSocketConfig();
  if (!config) return;
  rebuildSocketManagerWithConfig(*config, true);
  stateManager->setState(4);
  QNLog::shared().info("reconnect");
  int printed = 0;
  {
    std::lock_guard lock(mutex);
    printed = ++connectIndex;
    if (connectIndex >= 4) connectIndex = 3;
  }
  std::printf("connectIndex:%d \n", printed);
  std::fflush(stdout);
  // Once per series: later attempts of the same series stay silent.
  if (!wasReconnecting)
    reportState(kit, QNBRLConnectionState::Reconnecting, QNBRLConnectionChangeReason::Interrupted, false);
}

void QNBRLKit::Impl::rebuildSocketManagerWithConfig(const boost::json::object& config, bool connect) {
  // The old socket's attempt, if one was in flight, ends here: its events are not heard any more.
  releaseReconnectionTicket();
  socketManager->destroy();
  std::string url;
  {
    std::lock_guard lock(mutex);
    if (tavernServers.empty()) return;
    if (tavernServers.size() == 1) {
      url = tavernServers.front();
    } else {
      // Every attempt moves on to the next server, cycling through the list.
      ++lastTavernServerIndex;
      url = tavernServers[static_cast<std::size_t>(lastTavernServerIndex) % tavernServers.size()];
    }
  }
  socketManager->createSocketWithUrl(url, config);
  if (connect) socketManager->connect();
}

}  // namespace qnbrl
