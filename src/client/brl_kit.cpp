#include "client/kit_impl.hpp"
#include "diagnostics/log.hpp"
#include "diagnostics/logan_manager.hpp"
#include "diagnostics/sdk_version.hpp"
#include "support/queues.hpp"
#include "support/json.hpp"
#include "support/text.hpp"
#include "transport/api_manager.hpp"

namespace qnbrl {

QNBRLKit::Impl::Impl(const std::string& appId, std::weak_ptr<QNBRLDelegate> delegate, std::string apiServer,
                     ApplicationCalls::Executor executor)
    : delegate(std::move(delegate)),
      stateManager(std::make_shared<QNBRLStateManager>(appId)),
      app(ApplicationCalls::create(std::move(executor))),
      queue(SerialQueue::create("com.qn.brl.kit")),
      apiServer(std::move(apiServer)),
      socketManager(QNSocketManager::create()),
      requests(std::make_shared<RequestPath>(stateManager, socketManager, app)),
      channels(std::make_shared<QNBRLChannelRegistry>(requests)),
      channelAttributes(requests),
      peerMessages(requests),
      userAttributes(std::make_shared<QNUserAttributes>(requests)),
      presence(std::make_shared<QNPresence>(requests)),
      peerAttributes(std::make_shared<QNPeerAttributes>(requests)) {}

void QNBRLKit::Impl::reportState(QNBRLKit& kit, QNBRLConnectionState state,
                                 QNBRLConnectionChangeReason reason, bool telemetry) {
  if (tell(&QNBRLDelegate::connectionStateChanged, kit, state, reason) && telemetry)
    LoganManager::sharedInstance().connectState(static_cast<int>(state), static_cast<int>(reason));
}

void QNBRLKit::Impl::release() {
  app->release();
  queue->cancelPending();
  // The application's channel objects outlive the client: their heartbeats stop with it.
  channels->logout();
  // On the main queue, where every other use of the socket manager runs; never waited for here.
  MainQueue::async([socketManager = socketManager] { socketManager->destroy(); });
}

std::shared_ptr<QNBRLKit> QNBRLKit::create(const std::string& appId, std::weak_ptr<QNBRLDelegate> delegate,
                                           const QNBRLOptions& options) {
  auto& logan = LoganManager::sharedInstance();
  logan.setAppId(appId);
  auto apiServer = options.envConfig.apiServer.value_or(QNApiManager::apiServer());
  auto logServer = options.envConfig.logServer.value_or(QNApiManager::logServer());
  if (!isValidApiServer(apiServer) || !isValidApiServer(logServer)) return nullptr;
  std::shared_ptr<QNBRLKit> kit(new QNBRLKit(std::make_unique<Impl>(appId, std::move(delegate), apiServer, options.executor)));
  kit->impl_->bind(kit);
  kit->impl_->debugInfo.getApiServer(apiServer);
  logan.setLogServer(logServer);
  // The application's references have a count of their own: the library briefly holds the kit while
  // it delivers a callback, and the application's release must still be seen at once. The library's
  // hold ends with that release; the kit itself goes when the last delivery in progress lets go.
  return std::shared_ptr<QNBRLKit>(kit.get(), [hold = kit](QNBRLKit*) mutable {
    hold->impl_->release();
    hold.reset();
  });
}

QNBRLKit::QNBRLKit(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

QNBRLKit::~QNBRLKit() = default;

std::string QNBRLKit::getSDKVersion() {
  return sdkVersionText();
}

std::string QNBRLKit::getDebugInfo() const {
  return jsonString(impl_->debugInfo.dictionary()).value_or("{}");
}

void QNBRLKit::setLogFile(const std::string& path) {
  QNLog::shared().setLogFilePath(path);
}

void QNBRLKit::setLogFilters(std::int64_t filter) {
  QNLog::shared().setLogFilter(filter);
}

int QNBRLKit::setParameters(const std::string&) {
  return 0;
}

}  // namespace qnbrl
