#pragma once
// The credentials of the current login, from which every socket connection is configured.
#include <boost/json/object.hpp>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace qnbrl {

class QNBRLLoginParams {
 public:
  void loginWithToken(std::string token, std::string appId, std::string userId, std::int64_t timestamp);
  void logout();
  bool login() const;

  // {"compress": true, "forceWebsockets": true, "connectParams": {"app": "tavern", "roomId": app id,
  // "token": JSON text of the credentials and a fresh "connectTimeStamp"}}; none when not logged in.
  std::optional<boost::json::object> generateSocketConfig() const;

 private:
  mutable std::mutex mutex_;
  bool login_ = false;
  std::string userId_;
  std::string appId_;
  std::string token_;
  std::int64_t timestamp_ = 0;
};

}  // namespace qnbrl
