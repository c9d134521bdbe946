#include "diagnostics/logan_manager.hpp"

#include "diagnostics/logan_file_manager.hpp"
#include "support/socketio_fixture.hpp"
#include "support/temp_dir.hpp"
#include "support/text.hpp"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <fstream>
#include <limits>
#include <regex>

using namespace qnbrl;
namespace json = boost::json;

namespace {

// The JSON text of an object whose values under the given keys, where present, read "*".
std::string masked(json::object o, std::initializer_list<const char*> keys) {
  for (const char* key : keys) {
    if (auto* v = o.if_contains(key)) *v = "*";
  }
  return json::serialize(o);
}

class RecorderTest : public ::testing::Test {
 protected:
  // Every record written so far: its line, its envelope and the event parsed from its content.
  struct Record {
    std::string line;
    json::object envelope, event;
  };
  std::vector<Record> records() {
    auto store =
        std::dynamic_pointer_cast<QNLoganFileManager>(recorder->collectManager()->loganFileManager());
    store->queue()->sync([] {});
    std::ifstream in(store->loganFileToWrite());
    std::vector<Record> out;
    for (std::string line; std::getline(in, line);) {
      auto envelope = json::parse(line).as_object();
      out.push_back({line, envelope, json::parse(envelope.at("content").as_string()).as_object()});
    }
    return out;
  }
  json::object lastEvent() {
    auto all = records();
    return all.empty() ? json::object{} : all.back().event;
  }

  testing_support::ManualTime time;  // holds the recorder's upload timer
  testing_support::TempDir tmp;
  std::unique_ptr<LoganManager> recorder =
      std::make_unique<LoganManager>((tmp.path() / "logan").string(), "dev-1");
};

}  // namespace

TEST_F(RecorderTest, EachEventIsTheCommonParametersThenItsOwnFieldsInAnEnvelope) {
  recorder->tsGetServers = 15;
  recorder->tsConnectServer = 16;
  recorder->startLogan("tok", "alice", 1700000000000);
  recorder->loginResult(std::numeric_limits<std::uint64_t>::max(), -1);
  recorder->logout(5, 3);
  recorder->joinChannel(1, "c1", 2);
  recorder->leaveChannel(3, "c1", 4);
  recorder->userAttributes(QNLoganActionStringSet, "api", 1, 2);
  recorder->channelAttributes("c1", QNLoganActionStringDelete, "api", 1, 2);
  recorder->connectState(3, 2);
  // Time stamps, durations and the channel session vary from run to run and are masked.
  const std::string common =
      R"({"uid":"","appId":"","os":"linux","platform":"native","sdkVer":"*","deviceId":"dev-1",)"
      R"("clientSessionId":"","timestamp":"*","type":)";
  const char* const own[] = {
      R"("StartLogin","loginParams":{"token":"tok","uid":"alice","timestamp":1700000000000}})",
      (R"("LoginResult","result":18446744073709551615,"errorCode":-1,"totalElapsed":"*",)"
       R"("elapsedInfo":{"getServers":15,"connectServer":16}})"),
      R"("Logout","result":5,"errorCode":3,"elapsed":"*"})",
      R"("JoinChannel","channelId":"c1","channelSessionId":"*","result":1,"errorCode":2,"elapsed":"*"})",
      R"("LeaveChannel","channelId":"c1","channelSessionId":"*","result":3,"errorCode":4,"elapsed":"*"})",
      R"("UserAttributes","result":1,"errorCode":2,"action":"set","interface":"api"})",
      R"("ChannelAttributes","channelId":"c1","action":"delete","interface":"api","result":1,"errorCode":2})",
      R"("ConnectState","state":3,"reason":2})",
  };
  auto all = records();
  ASSERT_EQ(all.size(), std::size(own));
  for (std::size_t i = 0; i < all.size(); ++i) {
    const auto& [line, envelope, event] = all[i];
    SCOPED_TRACE(line);
    EXPECT_EQ(
        masked(envelope, {"timestamp", "content"}),
        R"({"logType":1,"deviceId":"dev-1","os":"linux","timestamp":"*","encrypt":false,"content":"*"})");
    EXPECT_EQ(masked(event, {"sdkVer", "timestamp", "totalElapsed", "elapsed", "channelSessionId"}),
              common + own[i]);
    EXPECT_TRUE(event.at("sdkVer").as_string().starts_with("sdkVersion/"));
    EXPECT_NEAR(event.at("timestamp").to_number<double>(), static_cast<double>(currentTimeStamp()), 60000);
  }
}

TEST_F(RecorderTest, SettersFillOrRemoveCommonParametersAndRecordsLoseEverySpace) {
  recorder->setUId(std::string("\xff\xfe"));
  recorder->connectState(1, 6);  // not writable as JSON: no record
  recorder->setUId(std::string("a b"));
  recorder->setAppId(std::string("app"));
  recorder->setClientSessionId(std::string("cs"));
  recorder->userAttributes("get", "-[QNBRLKit getUserAttributes:completion:]_block_invoke", 0, 0);
  recorder->setUId(std::nullopt);
  recorder->connectState(2, 1);
  auto all = records();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].line.find(' '), std::string::npos);
  const auto& event = all[0].event;
  EXPECT_EQ(event.at("uid"), "ab");
  EXPECT_EQ(event.at("appId"), "app");
  EXPECT_EQ(event.at("clientSessionId"), "cs");
  EXPECT_EQ(event.at("interface"), "-[QNBRLKitgetUserAttributes:completion:]_block_invoke");
  EXPECT_FALSE(all[1].event.contains("uid"));
  EXPECT_EQ(LoganManager::convertToJsonData({{"k", "x \n y"}}), R"({"k":"x\ny"})");
}

TEST_F(RecorderTest, EachLoginAndEachJoinStartsANewSession) {
  std::regex upperUuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  recorder->startLogan("t", "u", 1);
  auto session = recorder->clientSessionId();
  EXPECT_TRUE(std::regex_match(session, upperUuid)) << session;
  recorder->startLogan("t", "u", 2);
  EXPECT_NE(recorder->clientSessionId(), session);

  recorder->joinChannel(0, "c1", 0);
  auto joined = lastEvent().at("channelSessionId").as_string();
  EXPECT_TRUE(std::regex_match(joined.c_str(), upperUuid));
  recorder->leaveChannel(0, "c1", 0);
  EXPECT_EQ(lastEvent().at("channelSessionId"), joined);
  recorder->joinChannel(0, "c2", 0);
  EXPECT_NE(lastEvent().at("channelSessionId"), joined);
}

TEST_F(RecorderTest, ElapsedTimesFollowTheStoredStarts) {
  recorder->tsJoinChannel = currentTimeStamp() - 1000;
  recorder->joinChannel(0, "c", 0);
  auto elapsed = lastEvent().at("elapsed").as_int64();
  EXPECT_GE(elapsed, 1000);
  EXPECT_LT(elapsed, 60000);
  EXPECT_EQ(recorder->tsJoinChannel, elapsed);
  // Without a new start the next event subtracts a duration from now.
  recorder->joinChannel(0, "c", 0);
  EXPECT_GT(lastEvent().at("elapsed").as_int64(), currentTimeStamp() - elapsed - 60000);

  recorder->tsLeaveChannel = currentTimeStamp() - 500;
  recorder->leaveChannel(0, "c", 0);
  EXPECT_GE(lastEvent().at("elapsed").as_int64(), 500);
  recorder->tsLogout = 42;
  recorder->logout(0, 0);
  EXPECT_EQ(lastEvent().at("elapsed"), 42);
  recorder->startLogan("t", "u", currentTimeStamp() - 2000);
  recorder->loginResult(0, 0);
  EXPECT_GE(lastEvent().at("totalElapsed").as_int64(), 2000);
}

TEST_F(RecorderTest, LogServerSetsTheUploadAddress) {
  const auto& uploader = recorder->collectManager()->loganUploader();
  // The development server the recorder falls back to is a build setting.
  auto fallback = uploader->urlString();
  EXPECT_TRUE(fallback.ends_with("/brl/v1/collect-logan")) << fallback;
  recorder->setLogServer(std::string("https://dc.example.org"));
  EXPECT_EQ(uploader->urlString(), "https://dc.example.org/brl/v1/collect-logan");
  recorder->setLogServer(std::nullopt);
  EXPECT_EQ(uploader->urlString(), fallback);
  // The recorder's upload timer is armed with the one-minute interval; sent files are backed up.
  EXPECT_EQ(time.clock().next_deadline() - time.clock().now(), std::chrono::seconds(60));
  EXPECT_TRUE(recorder->collectManager()->isBackup());
}
