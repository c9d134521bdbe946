#pragma once
// The telemetry recorder: turns session events (login, logout, channel joins and leaves, attribute
// operations, connection states) into JSON records with the common parameters, wraps each in the
// envelope and hands it to the collector, which files and uploads it. It also keeps the start times
// from which elapsed times are computed.
#include "diagnostics/data_collect_manager.hpp"

#include <boost/json/object.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace qnbrl {

// The kind of an attribute operation, as the "action" field names it.
inline constexpr const char* QNLoganActionStringGet = "get";
inline constexpr const char* QNLoganActionStringSet = "set";
inline constexpr const char* QNLoganActionStringUpdate = "update";
inline constexpr const char* QNLoganActionStringDelete = "delete";
inline constexpr const char* QNLoganActionStringSub = "sub";
inline constexpr const char* QNLoganActionStringUnsub = "unsub";

class LoganManager {
 public:
  static constexpr double uploadInterval = 60.0;

  // The process-wide recorder over "logan" in the caches directory, created on first use and never
  // destroyed.
  static LoganManager& sharedInstance();

  // A recorder of its own over the given directory, uploading to the development data-center server
  // until setLogServer names another; its upload timer runs until it is destroyed.
  LoganManager(const std::string& loganDirPath, std::string deviceId);
  LoganManager(const LoganManager&) = delete;
  LoganManager& operator=(const LoganManager&) = delete;
  ~LoganManager();

  // Uploads go to "<base>/brl/v1/collect-logan"; none means the development data-center server.
  void setLogServer(const std::optional<std::string>& logServer);
  // Each stores the value and puts it into the common parameters; none removes the key.
  void setUId(const std::optional<std::string>& uId);
  void setAppId(const std::optional<std::string>& appId);
  void setClientSessionId(const std::optional<std::string>& clientSessionId);

  void startLogan(const std::string& token, const std::string& uid, std::int64_t timestamp);
  void loginResult(std::uint64_t result, std::int64_t errorCode);
  void logout(std::int64_t result, std::int64_t errorCode);
  void joinChannel(std::int64_t result, const std::string& channelId, std::int64_t errorCode);
  void leaveChannel(std::int64_t result, const std::string& channelId, std::int64_t errorCode);
  void userAttributes(const std::string& action, const std::string& interface, std::int64_t result,
                      std::int64_t errorCode);
  void channelAttributes(const std::string& channelId, const std::string& action,
                         const std::string& interface, std::int64_t result, std::int64_t errorCode);
  void connectState(std::int64_t state, std::int64_t reason);

  // A copy of the common parameters plus "timestamp".
  boost::json::object getLogDict() const;
  // A fresh envelope with an empty "content".
  boost::json::object topPara() const;
  // The record text: JSON with every space and line break removed, even inside strings. None (and a
  // console line) when the dictionary cannot be written as JSON.
  static std::optional<std::string> convertToJsonData(const boost::json::object& dict);
  // Wraps the event in an envelope and hands exactly one record to the collector.
  void writeLogDict(const boost::json::object& event);

  std::string appId() const;
  std::string uId() const;
  std::string clientSessionId() const;
  std::string channelSessionId() const;
  std::string channelId() const;
  void setChannelId(std::string channelId);
  std::string serverURL() const;
  void setServerURL(std::string serverURL);
  boost::json::object commonParameters() const;
  std::int64_t loginTimeStamp() const { return loginTimeStamp_; }
  const std::shared_ptr<QNDataCollectManager>& collectManager() const { return collectManager_; }

  // Start times set by the session code, later overwritten with elapsed times (milliseconds).
  std::atomic<std::int64_t> tsGetServers{0};
  std::atomic<std::int64_t> tsConnectServer{0};
  std::atomic<std::int64_t> tsLogout{0};
  std::atomic<std::int64_t> tsJoinChannel{0};
  std::atomic<std::int64_t> tsLeaveChannel{0};

 private:
  void setCommon(std::string& field, const char* key, const std::optional<std::string>& value);
  void channelEvent(const char* type, std::int64_t result, const std::string& channelId,
                    std::int64_t errorCode, std::int64_t elapsed, bool newSession);

  const std::string deviceId_;
  mutable std::mutex mutex_;  // guards the texts and the common parameters below
  std::string appId_;
  std::string uId_;
  boost::json::object commonParameters_;
  std::string clientSessionId_;
  std::string channelSessionId_;
  std::string channelId_;
  std::string serverURL_;
  std::atomic<std::int64_t> loginTimeStamp_{0};
  std::shared_ptr<QNDataCollectManager> collectManager_;
};

}  // namespace qnbrl
