#include "client/kit_impl.hpp"
#include "transport/wire.hpp"
#include "diagnostics/log.hpp"
#include "diagnostics/logan_manager.hpp"
#include "support/text.hpp"
#include "transport/api_helper.hpp"

namespace qnbrl {

void QNBRLKit::loginByToken(const std::string& token, std::int64_t timeStamp, const std::string& userId,
                            Completion completion) {
  completion = impl_->app->completion(std::move(completion), ApplicationCalls::Delivery::whileHeld);
  auto& logan = LoganManager::sharedInstance();
  logan.setUId(userId);
  logan.startLogan(token, userId, timeStamp);

  auto& impl = *impl_;
  // The delegate may drop the application's last reference from inside the (2, 1) report below.
  auto keep = impl.owner.lock();
  boost::json::object config;
  int refusal = QNBRLLoginErrorOk;
  {
    std::lock_guard gate(impl.loginGate);
    if (impl.stateManager->login() || impl.stateManager->state() == 2) {
      refusal = QNBRLLoginErrorAlreadyLogin;
    } else if (!isValidId(userId)) {
      refusal = QNBRLLoginErrorInvalidArgument;
    } else {
      impl.debugInfo.loginWithToken(token, userId, timeStamp);
      impl.stateHelper.loginParams().loginWithToken(token, impl.stateManager->appId(), userId, timeStamp);
      config = impl.stateHelper.loginParams().generateSocketConfig().value_or(boost::json::object{});
      impl.stateManager->setState(2);
      impl.stateManager->setUserId(userId);
    }
  }
  if (refusal != QNBRLLoginErrorOk) {
    logan.loginResult(0, refusal);
    return callApplication(completion, refusal);
  }
  QNLog::shared().info("socket config: %@", config);
  {
    std::lock_guard lock(impl.mutex);
    impl.lastTavernServerIndex = 0;
  }

  // Told before discovery starts, so that it always comes before the outcome.
  impl.reportState(*this, QNBRLConnectionState::Connecting, QNBRLConnectionChangeReason::LoginStarted, true);
  if (impl.app->released()) return;

  // Discovery holds the work queue until its answer, so a logout queued behind it waits for it.
  impl.queue->asyncWaiting([weak = impl.owner, config = std::move(config),
                            completion = std::move(completion)](std::function<void()> done) mutable {
    auto kit = weak.lock();
    if (!kit) return done();
    auto& logan = LoganManager::sharedInstance();
    auto started = currentTimeStamp();
    logan.tsGetServers = started;
    QNApiHelper::apiServer(kit->impl_->apiServer, kit->impl_->stateManager->appId(),
                           [weak, started, config = std::move(config), completion = std::move(completion),
                            done = std::move(done)](std::optional<std::vector<std::string>> servers) mutable {
                             if (auto kit = weak.lock()) {
                               LoganManager::sharedInstance().tsGetServers = currentTimeStamp() - started;
                               auto list = servers.value_or(std::vector<std::string>{});
                               {
                                 std::lock_guard lock(kit->impl_->mutex);
                                 kit->impl_->tavernServers = list;
                               }
                               kit->impl_->debugInfo.getTavernServers(std::move(list));
                               MainQueue::async([weak, config = std::move(config),
                                                 completion = std::move(completion)]() mutable {
                                 if (auto kit = weak.lock())
                                   kit->impl_->loginWithConfig(config, std::move(completion));
                               });
                             }
                             done();
                           });
  });
}

void QNBRLKit::Impl::loginWithConfig(const boost::json::object& config, Completion completion) {
  std::optional<std::string> first;
  {
    std::lock_guard lock(mutex);
    if (!tavernServers.empty()) {
      first = tavernServers.front();
      loginBlcok = std::move(completion);
      loginError = QNBRLLoginErrorUnknown;
      connectIndex = 0;
    }
  }
  if (!first) {
    QNLog::shared().error("no tavernServer");
    stateManager->setState(1);  // before the completion, which may log in again
    callApplication(completion, QNBRLLoginErrorTimeout);
    LoganManager::sharedInstance().loginResult(0, QNBRLLoginErrorTimeout);
    return;
  }
  QNLog::shared().info("tavernServer: %@", *first);
  socketManager->createSocketWithUrl(*first, config);
  socketManager->connect();
}

void QNBRLKit::logoutWithCompletion(Completion completion) {
  completion = impl_->app->completion(std::move(completion), ApplicationCalls::Delivery::whileHeld);
  auto& logan = LoganManager::sharedInstance();
  if (!impl_->stateManager->login()) {
    callApplication(completion, QNBRLRequestNotLoggedIn);
    logan.logout(0, QNBRLRequestNotLoggedIn);
    return;
  }
  auto started = currentTimeStamp();
  logan.tsLogout = started;
  QNLog::shared().info("user logout");
  // Through the work queue, so that it waits behind a discovery or a reconnection pause.
  impl_->queue->asyncWaiting([weak = impl_->owner, started,
                              completion = std::move(completion)](std::function<void()> done) mutable {
    MainQueue::async([weak, started, completion = std::move(completion), done = std::move(done)] {
      if (auto kit = weak.lock(); kit && !kit->impl_->app->released()) {
        kit->impl_->cleanResourcesAfterLogout();
        callApplication(completion, QNBRLRequestOk);
        auto& logan = LoganManager::sharedInstance();
        logan.tsLogout = currentTimeStamp() - started;
        logan.logout(1, 0);
      }
      done();
    });
  });
}

void QNBRLKit::Impl::cleanResourcesAfterLogout() {
  {
    std::lock_guard lock(mutex);
    lastTavernServerIndex = 0;
  }
  stateManager->setLogin(false);
  stateManager->setUserId("");
  stateHelper.logout();
  userAttributes->logout();
  presence->logout();
  peerAttributes->logout();
  channels->logout();
  // Last: closing the socket reports (1, 6) to the delegate at once, and the application must then
  // find the session already forgotten (it may log in again from that callback).
  socketManager->destroy();
}

void QNBRLKit::renewToken(const std::string& token, std::int64_t timeStamp, TokenCompletion completion) {
  auto& impl = *impl_;
  if (!impl.stateManager->login()) return callApplication(completion, token, QNBRLRequestNotLoggedIn);
  if (!match(token, R"(\S{32,32})")) return callApplication(completion, token, 2);
  impl.stateHelper.loginParams().loginWithToken(token, impl.stateManager->appId(),
                                                impl.stateManager->userId(), timeStamp);
  auto config = impl.stateHelper.loginParams().generateSocketConfig().value_or(boost::json::object{});
  QNLog::shared().info("renewtoken and set socket config: %@", config);
  // The socket is rebuilt on the main queue, where failover and reconnection also rebuild it.
  MainQueue::async([weak = impl.owner, config = std::move(config)] {
    if (auto kit = weak.lock()) kit->impl_->rebuildSocketManagerWithConfig(config, false);
  });
  callApplication(completion, token, QNBRLRequestOk);
}

}  // namespace qnbrl
