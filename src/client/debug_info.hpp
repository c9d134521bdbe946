#pragma once
// What getDebugInfo reports: the servers in use and the arguments of the current login.
#include <boost/json/object.hpp>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

struct QNBRLTavernSocket {
  std::optional<std::string> apiServer;
  std::optional<std::string> tavernServer;
  std::optional<std::string> connectionId;
  std::vector<std::string> tavernServers;
};

struct QNBRLLoginArguments {
  std::string userId;
  std::string token;
  std::int64_t timestamp = 0;
};

class QNBRLDebugInfo {
 public:
  void getApiServer(std::string apiServer);
  // The URL of the socket now in use.
  void updateTavernServer(std::string tavernServer);
  void getTavernServers(std::vector<std::string> tavernServers);
  // The socket's session id once the server has accepted the login.
  void getConnectionId(std::string connectionId);
  void loginWithToken(std::string token, std::string userId, std::int64_t timestamp);
  // Drops the login arguments and the connection's server and id.
  void logout();

  // {"loginArguments": {...}, "tavernSocket": {...}, "sdkVersion": ...}; absent values left out and
  // the server list never reported.
  boost::json::object dictionary() const;

 private:
  mutable std::mutex mutex_;
  QNBRLTavernSocket tavernSocket_;
  std::optional<QNBRLLoginArguments> loginArguments_;
};

}  // namespace qnbrl
