#include "client/debug_info.hpp"

namespace qnbrl {

void QNBRLDebugInfo::getApiServer(std::string apiServer) {
  std::lock_guard lock(mutex_);
  tavernSocket_.apiServer = std::move(apiServer);
}

void QNBRLDebugInfo::updateTavernServer(std::string tavernServer) {
  std::lock_guard lock(mutex_);
  tavernSocket_.tavernServer = std::move(tavernServer);
}

void QNBRLDebugInfo::getTavernServers(std::vector<std::string> tavernServers) {
  std::lock_guard lock(mutex_);
  tavernSocket_.tavernServers = std::move(tavernServers);
}

void QNBRLDebugInfo::getConnectionId(std::string connectionId) {
  std::lock_guard lock(mutex_);
  tavernSocket_.connectionId = std::move(connectionId);
}

void QNBRLDebugInfo::loginWithToken(std::string token, std::string userId, std::int64_t timestamp) {
  std::lock_guard lock(mutex_);
  if (!loginArguments_) loginArguments_.emplace();
  loginArguments_->token = std::move(token);
  loginArguments_->userId = std::move(userId);
  loginArguments_->timestamp = timestamp;
}

void QNBRLDebugInfo::logout() {
  std::lock_guard lock(mutex_);
  loginArguments_.reset();
  tavernSocket_.connectionId.reset();
  tavernSocket_.tavernServer.reset();
}

boost::json::object QNBRLDebugInfo::dictionary() const {
  std::lock_guard lock(mutex_);
  boost::json::object result;
  if (loginArguments_) {
    result["loginArguments"] = {{"userId", loginArguments_->userId},
                                {"token", loginArguments_->token},
                                {"timestamp", loginArguments_->timestamp}};
  }
  boost::json::object socket;
  if (tavernSocket_.apiServer) socket["apiServer"] = *tavernSocket_.apiServer;
  if (tavernSocket_.tavernServer) socket["tavernServer"] = *tavernSocket_.tavernServer;
  if (tavernSocket_.connectionId) socket["connectionId"] = *tavernSocket_.connectionId;
  result["tavernSocket"] = std::move(socket);
  result["sdkVersion"] = QNBRL_VERSION;
  return result;
}

}  // namespace qnbrl
