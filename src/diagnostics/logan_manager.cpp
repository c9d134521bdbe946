#include "diagnostics/logan_manager.hpp"

#include "diagnostics/console.hpp"
#include "diagnostics/sdk_version.hpp"
#include "support/json.hpp"
#include "support/paths.hpp"
#include "support/text.hpp"
#include "support/uuid_helper.hpp"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <cctype>

namespace qnbrl {
namespace {

// The platform the library runs on.
#if defined(__APPLE__)
constexpr const char* kOs = "macos";
#elif defined(_WIN32)
constexpr const char* kOs = "windows";
#else
constexpr const char* kOs = "linux";
#endif

std::string uploadUrl(const std::string& base) {
  return base + "/brl/v1/collect-logan";
}

std::string upperCaseUuid() {
  thread_local boost::uuids::random_generator generate;
  auto text = boost::uuids::to_string(generate());
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

}  // namespace

LoganManager& LoganManager::sharedInstance() {
  static auto* instance =
      new LoganManager((cachesDirectory() / "logan").string(), QNUUIDHelper::uuidForDevice());
  return *instance;
}

LoganManager::LoganManager(const std::string& loganDirPath, std::string deviceId)
    : deviceId_(std::move(deviceId)) {
  commonParameters_["uid"] = "";
  commonParameters_["appId"] = "";
  commonParameters_["os"] = kOs;
  commonParameters_["platform"] = "native";
  commonParameters_["sdkVer"] = sdkVersionText();
  commonParameters_["deviceId"] = deviceId_;
  commonParameters_["clientSessionId"] = "";
  consoleEcho("loganDir:" + loganDirPath);
  collectManager_ = QNDataCollectManager::create(uploadUrl(QNBRL_DEV_LOG_SERVER), loganDirPath, true);
  collectManager_->startUploadTimerWithInterval(uploadInterval);
}

LoganManager::~LoganManager() {
  collectManager_->stopUploadTimer();
}

void LoganManager::setLogServer(const std::optional<std::string>& logServer) {
  collectManager_->setUrlString(uploadUrl(logServer.value_or(QNBRL_DEV_LOG_SERVER)));
}

void LoganManager::setCommon(std::string& field, const char* key, const std::optional<std::string>& value) {
  std::lock_guard lock(mutex_);
  field = value.value_or("");
  if (value) {
    commonParameters_[key] = *value;
  } else {
    commonParameters_.erase(key);
  }
}

void LoganManager::setUId(const std::optional<std::string>& uId) {
  setCommon(uId_, "uid", uId);
}
void LoganManager::setAppId(const std::optional<std::string>& appId) {
  setCommon(appId_, "appId", appId);
}
void LoganManager::setClientSessionId(const std::optional<std::string>& clientSessionId) {
  setCommon(clientSessionId_, "clientSessionId", clientSessionId);
}

boost::json::object LoganManager::getLogDict() const {
  std::lock_guard lock(mutex_);
  auto dict = commonParameters_;
  dict["timestamp"] = currentTimeStamp();
  return dict;
}

boost::json::object LoganManager::topPara() const {
  return {{"logType", 1},     {"deviceId", deviceId_}, {"os", kOs}, {"timestamp", currentTimeStamp()},
          {"encrypt", false}, {"content", ""}};
}

std::optional<std::string> LoganManager::convertToJsonData(const boost::json::object& dict) {
  auto text = jsonString(dict);
  if (!text) {
    consoleEcho("telemetry record could not be written as JSON");
    return std::nullopt;
  }
  // Deliberately crude: spaces inside string values go too.
  std::erase_if(*text, [](char c) { return c == ' ' || c == '\n'; });
  return text;
}

void LoganManager::writeLogDict(const boost::json::object& event) {
  auto content = convertToJsonData(event);
  if (!content) return;
  auto envelope = topPara();
  envelope["content"] = *content;
  if (auto record = convertToJsonData(envelope)) collectManager_->writeLog(std::move(*record));
}

void LoganManager::startLogan(const std::string& token, const std::string& uid, std::int64_t timestamp) {
  {
    std::lock_guard lock(mutex_);
    // Kept apart from the "clientSessionId" of the common parameters, which only the setter changes.
    clientSessionId_ = upperCaseUuid();
  }
  auto dict = getLogDict();
  dict["type"] = "StartLogin";
  dict["loginParams"] = {{"token", token}, {"uid", uid}, {"timestamp", timestamp}};
  writeLogDict(dict);
  loginTimeStamp_ = timestamp;
}

void LoganManager::loginResult(std::uint64_t result, std::int64_t errorCode) {
  auto dict = getLogDict();
  dict["type"] = "LoginResult";
  dict["result"] = result;
  dict["errorCode"] = errorCode;
  dict["totalElapsed"] = currentTimeStamp() - loginTimeStamp_;
  // tsGetServers holds the discovery's duration by now, so "connectServer" comes out close to an
  // absolute time stamp; the session code computes it that way on purpose.
  dict["elapsedInfo"] = {{"getServers", tsGetServers.load()}, {"connectServer", tsConnectServer.load()}};
  writeLogDict(dict);
}

void LoganManager::logout(std::int64_t result, std::int64_t errorCode) {
  auto dict = getLogDict();
  dict["type"] = "Logout";
  dict["result"] = result;
  dict["errorCode"] = errorCode;
  dict["elapsed"] = tsLogout.load();
  writeLogDict(dict);
}

void LoganManager::channelEvent(const char* type, std::int64_t result, const std::string& channelId,
                                std::int64_t errorCode, std::int64_t elapsed, bool newSession) {
  std::string session;
  {
    std::lock_guard lock(mutex_);
    if (newSession) {
      channelSessionId_ = upperCaseUuid();
      channelId_ = channelId;
    }
    session = channelSessionId_;
  }
  auto dict = getLogDict();
  dict["type"] = type;
  dict["channelId"] = channelId;
  dict["channelSessionId"] = session;
  dict["result"] = result;
  dict["errorCode"] = errorCode;
  dict["elapsed"] = elapsed;
  writeLogDict(dict);
}

void LoganManager::joinChannel(std::int64_t result, const std::string& channelId, std::int64_t errorCode) {
  // The field held the start time; it now holds the duration, and a second event without a new
  // start reports nonsense, as it always has.
  auto elapsed = currentTimeStamp() - tsJoinChannel.load();
  tsJoinChannel = elapsed;
  channelEvent("JoinChannel", result, channelId, errorCode, elapsed, true);
}

void LoganManager::leaveChannel(std::int64_t result, const std::string& channelId, std::int64_t errorCode) {
  auto elapsed = currentTimeStamp() - tsLeaveChannel.load();
  tsLeaveChannel = elapsed;
  channelEvent("LeaveChannel", result, channelId, errorCode, elapsed, false);
}

void LoganManager::userAttributes(const std::string& action, const std::string& interface,
                                  std::int64_t result, std::int64_t errorCode) {
  auto dict = getLogDict();
  dict["type"] = "UserAttributes";
  dict["result"] = result;
  dict["errorCode"] = errorCode;
  dict["action"] = action;
  dict["interface"] = interface;
  writeLogDict(dict);
}

void LoganManager::channelAttributes(const std::string& channelId, const std::string& action,
                                     const std::string& interface, std::int64_t result,
                                     std::int64_t errorCode) {
  auto dict = getLogDict();
  dict["type"] = "ChannelAttributes";
  dict["channelId"] = channelId;
  dict["action"] = action;
  dict["interface"] = interface;
  dict["result"] = result;
  dict["errorCode"] = errorCode;
  writeLogDict(dict);
}

void LoganManager::connectState(std::int64_t state, std::int64_t reason) {
  auto dict = getLogDict();
  dict["type"] = "ConnectState";
  dict["state"] = state;
  dict["reason"] = reason;
  writeLogDict(dict);
}

std::string LoganManager::appId() const {
  std::lock_guard lock(mutex_);
  return appId_;
}
std::string LoganManager::uId() const {
  std::lock_guard lock(mutex_);
  return uId_;
}
std::string LoganManager::clientSessionId() const {
  std::lock_guard lock(mutex_);
  return clientSessionId_;
}
std::string LoganManager::channelSessionId() const {
  std::lock_guard lock(mutex_);
  return channelSessionId_;
}
std::string LoganManager::channelId() const {
  std::lock_guard lock(mutex_);
  return channelId_;
}
void LoganManager::setChannelId(std::string channelId) {
  std::lock_guard lock(mutex_);
  channelId_ = std::move(channelId);
}
std::string LoganManager::serverURL() const {
  std::lock_guard lock(mutex_);
  return serverURL_;
}
void LoganManager::setServerURL(std::string serverURL) {
  std::lock_guard lock(mutex_);
  serverURL_ = std::move(serverURL);
}
boost::json::object LoganManager::commonParameters() const {
  std::lock_guard lock(mutex_);
  return commonParameters_;
}

}  // namespace qnbrl
