#include "diagnostics/logan_manager.hpp"

#include "diagnostics/logan_file_manager.hpp"
#include "diagnostics/logan_uploader.hpp"
#include "socketio/clock.hpp"
#include "support/temp_dir.hpp"
#include "support/text.hpp"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <fstream>
#include <regex>

using namespace qnbrl;
using testing_support::TempDir;

namespace {

// The keys of a JSON object in their written order, joined by commas.
std::string keyList(const boost::json::object& o) {
  std::string out;
  for (const auto& kv : o) out += (out.empty() ? "" : ",") + std::string(kv.key());
  return out;
}

class RecorderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sio::Clock::install(clock);
    recorder = std::make_unique<LoganManager>((tmp.path() / "logan").string(), "dev-1");
  }
  void TearDown() override {
    recorder.reset();
    sio::Clock::install(nullptr);
  }

  // Every envelope written so far, and its parsed content.
  struct Record {
    std::string line;
    boost::json::object envelope;
    boost::json::object event;
  };
  std::vector<Record> records() {
    auto store =
        std::dynamic_pointer_cast<QNLoganFileManager>(recorder->collectManager()->loganFileManager());
    store->queue()->sync([] {});
    std::ifstream in(store->loganFileToWrite());
    std::vector<Record> out;
    for (std::string line; std::getline(in, line);) {
      Record r{line, boost::json::parse(line).as_object(), {}};
      r.event = boost::json::parse(r.envelope.at("content").as_string()).as_object();
      out.push_back(std::move(r));
    }
    return out;
  }
  boost::json::object lastEvent() {
    auto all = records();
    return all.empty() ? boost::json::object{} : all.back().event;
  }

  std::shared_ptr<sio::ManualClock> clock = std::make_shared<sio::ManualClock>();
  TempDir tmp;
  std::unique_ptr<LoganManager> recorder;
};

}  // namespace

TEST_F(RecorderTest, EveryEventHasTheCommonParametersThenItsOwnFieldsInOrder) {
  recorder->startLogan("tok", "alice", 1700000000000);
  recorder->loginResult(0, 0);
  recorder->logout(0, 0);
  recorder->joinChannel(0, "c1", 0);
  recorder->leaveChannel(0, "c1", 0);
  recorder->userAttributes(QNLoganActionStringSet, "iface", 1, 2);
  recorder->channelAttributes("c1", QNLoganActionStringDelete, "iface", 1, 2);
  recorder->connectState(3, 2);
  auto all = records();
  ASSERT_EQ(all.size(), 8u);
  // Each type's own fields in order, and the exact JSON ending of the ones that carry no durations.
  const struct {
    const char *type, *fields, *ending;
  } expected[] = {
      {"StartLogin", "loginParams",
       R"("loginParams":{"token":"tok","uid":"alice","timestamp":1700000000000}})"},
      {"LoginResult", "result,errorCode,totalElapsed,elapsedInfo", "}"},
      {"Logout", "result,errorCode,elapsed", "}"},
      {"JoinChannel", "channelId,channelSessionId,result,errorCode,elapsed", "}"},
      {"LeaveChannel", "channelId,channelSessionId,result,errorCode,elapsed", "}"},
      {"UserAttributes", "result,errorCode,action,interface",
       R"("result":1,"errorCode":2,"action":"set","interface":"iface"})"},
      {"ChannelAttributes", "channelId,action,interface,result,errorCode",
       R"("channelId":"c1","action":"delete","interface":"iface","result":1,"errorCode":2})"},
      {"ConnectState", "state,reason", R"("type":"ConnectState","state":3,"reason":2})"},
  };
  for (std::size_t i = 0; i < all.size(); ++i) {
    SCOPED_TRACE(expected[i].type);
    auto envelope = all[i].envelope;
    auto event = all[i].event;
    const std::string content(envelope.at("content").as_string());
    EXPECT_EQ(keyList(envelope), "logType,deviceId,os,timestamp,encrypt,content");
    EXPECT_EQ(keyList(event),
              std::string("uid,appId,os,platform,sdkVer,deviceId,clientSessionId,timestamp,type,") +
                  expected[i].fields);
    EXPECT_NEAR(static_cast<double>(event.at("timestamp").as_int64()),
                static_cast<double>(currentTimeStamp()), 60000);
    envelope.erase("timestamp");
    envelope.erase("content");
    EXPECT_EQ(boost::json::serialize(envelope),
              R"({"logType":1,"deviceId":"dev-1","os":"linux","encrypt":false})");
    EXPECT_TRUE(content.starts_with(
        R"({"uid":"","appId":"","os":"linux","platform":"native","sdkVer":"sdkVersion/)"));
    EXPECT_EQ(event.at("deviceId"), "dev-1");
    EXPECT_EQ(event.at("type"), expected[i].type);
    EXPECT_TRUE(content.ends_with(expected[i].ending)) << content;
  }
}

TEST_F(RecorderTest, CompactionStripsEverySpaceAndUnwritableTextProducesNoRecord) {
  recorder->setUId(std::string("\xff\xfe"));
  recorder->connectState(1, 6);
  recorder->setUId(std::string("a b"));
  recorder->userAttributes("get", "-[QNBRLKit getUserAttributes:completion:]_block_invoke", 0, 0);
  auto all = records();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].line.find(' '), std::string::npos);
  EXPECT_EQ(all[0].event.at("uid"), "ab");
  EXPECT_EQ(all[0].event.at("interface"), "-[QNBRLKitgetUserAttributes:completion:]_block_invoke");
  EXPECT_EQ(LoganManager::convertToJsonData({{"k", "x \n y"}}), R"({"k":"x\ny"})");
}

TEST_F(RecorderTest, SettersFillOrRemoveCommonParameters) {
  recorder->setAppId(std::string("app"));
  recorder->setUId(std::string("bob"));
  recorder->setClientSessionId(std::string("cs"));
  recorder->connectState(2, 1);
  auto event = lastEvent();
  EXPECT_EQ(event.at("appId"), "app");
  EXPECT_EQ(event.at("uid"), "bob");
  EXPECT_EQ(event.at("clientSessionId"), "cs");

  recorder->setUId(std::nullopt);
  recorder->connectState(2, 1);
  EXPECT_FALSE(lastEvent().contains("uid"));
}

TEST_F(RecorderTest, SessionIdentifiers) {
  std::regex upperUuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  recorder->startLogan("t", "u", 1);
  auto session = recorder->clientSessionId();
  EXPECT_TRUE(std::regex_match(session, upperUuid)) << session;
  // The new identifier stays out of the records unless the embedding code sets it.
  EXPECT_EQ(lastEvent().at("clientSessionId"), "");
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
  auto start = currentTimeStamp() - 1000;
  recorder->tsJoinChannel = start;
  recorder->joinChannel(0, "c", 0);
  auto elapsed = lastEvent().at("elapsed").as_int64();
  EXPECT_GE(elapsed, 1000);
  EXPECT_LT(elapsed, 60000);
  EXPECT_EQ(recorder->tsJoinChannel, elapsed);
  // Without a new start the next event subtracts a duration from now.
  recorder->joinChannel(0, "c", 0);
  EXPECT_GT(lastEvent().at("elapsed").as_int64(), currentTimeStamp() - elapsed - 60000);

  recorder->tsLeaveChannel = currentTimeStamp() - 500;
  recorder->leaveChannel(1, "c", 7);
  auto leave = lastEvent();
  EXPECT_GE(leave.at("elapsed").as_int64(), 500);
  EXPECT_EQ(leave.at("result"), 1);
  EXPECT_EQ(leave.at("errorCode"), 7);

  recorder->tsLogout = 42;
  recorder->logout(0, 3);
  EXPECT_EQ(lastEvent().at("elapsed"), 42);

  recorder->startLogan("t", "u", currentTimeStamp() - 2000);
  recorder->tsGetServers = 15;
  recorder->tsConnectServer = currentTimeStamp() - 15;
  recorder->loginResult(std::numeric_limits<std::uint64_t>::max(), -1);
  auto login = lastEvent();
  EXPECT_GE(login.at("totalElapsed").as_int64(), 2000);
  EXPECT_EQ(login.at("result").as_uint64(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(login.at("errorCode"), -1);
  EXPECT_EQ(login.at("elapsedInfo").at("getServers"), 15);
  EXPECT_EQ(login.at("elapsedInfo").at("connectServer"), recorder->tsConnectServer.load());
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
  EXPECT_EQ(clock->next_deadline() - clock->now(), std::chrono::seconds(60));
  EXPECT_TRUE(recorder->collectManager()->isBackup());
}
