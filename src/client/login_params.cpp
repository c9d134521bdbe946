#include "client/login_params.hpp"

#include "support/json.hpp"
#include "support/text.hpp"

namespace qnbrl {

void QNBRLLoginParams::loginWithToken(std::string token, std::string appId, std::string userId,
                                      std::int64_t timestamp) {
  std::lock_guard lock(mutex_);
  token_ = std::move(token);
  appId_ = std::move(appId);
  userId_ = std::move(userId);
  timestamp_ = timestamp;
  login_ = true;
}

void QNBRLLoginParams::logout() {
  std::lock_guard lock(mutex_);
  userId_.clear();
  appId_.clear();
  token_.clear();
  timestamp_ = 0;
  login_ = false;
}

bool QNBRLLoginParams::login() const {
  std::lock_guard lock(mutex_);
  return login_;
}

std::optional<boost::json::object> QNBRLLoginParams::generateSocketConfig() const {
  std::lock_guard lock(mutex_);
  if (!login_) return std::nullopt;
  // A fresh connection time on every call, so each reconnection carries its own.
  boost::json::object credentials{{"token", token_},
                                  {"userId", userId_},
                                  {"timestamp", timestamp_},
                                  {"connectTimeStamp", currentTimeStamp()}};
  return boost::json::object{
      {"compress", true},
      {"forceWebsockets", true},
      {"connectParams",
       {{"app", "tavern"}, {"roomId", appId_}, {"token", jsonString(credentials).value_or("")}}}};
}

}  // namespace qnbrl
