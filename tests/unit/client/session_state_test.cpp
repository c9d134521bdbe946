#include "transport/wire.hpp"
#include "client/login_params.hpp"
#include "support/text.hpp"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

namespace qnbrl {
namespace {

TEST(IdPattern, AcceptsTheListedCharactersUpTo64) {
  EXPECT_TRUE(isValidId("a"));
  EXPECT_TRUE(isValidId(std::string(64, 'x')));
  EXPECT_TRUE(isValidId("Az09 !#$%&()+-:;<=.>?@[\\]^_{}|~,\t"));
  EXPECT_FALSE(isValidId(""));
  EXPECT_FALSE(isValidId(std::string(65, 'x')));
  EXPECT_FALSE(isValidId("user*1"));
  EXPECT_FALSE(isValidId("caf\xc3\xa9"));  // a non-ASCII letter
  EXPECT_FALSE(isValidId("quote\"d"));
  EXPECT_FALSE(isValidId(std::string("nul\0byte", 8)));
}

TEST(LoginParams, ConfigCarriesTheCredentialsAndAFreshConnectTime) {
  QNBRLLoginParams params;
  EXPECT_FALSE(params.generateSocketConfig());
  params.loginWithToken("tok", "app-1", "alice", 1700000000123);
  auto before = currentTimeStamp();
  auto config = params.generateSocketConfig();
  ASSERT_TRUE(config);
  EXPECT_EQ(config->at("compress"), true);
  EXPECT_EQ(config->at("forceWebsockets"), true);
  auto& connect = config->at("connectParams").as_object();
  EXPECT_EQ(connect.at("app"), "tavern");
  EXPECT_EQ(connect.at("roomId"), "app-1");
  auto token = boost::json::parse(connect.at("token").as_string()).as_object();
  EXPECT_EQ(token.at("token"), "tok");
  EXPECT_EQ(token.at("userId"), "alice");
  EXPECT_EQ(token.at("timestamp").as_int64(), 1700000000123);
  auto connectTime = token.at("connectTimeStamp").as_int64();
  EXPECT_GE(connectTime, before);
  EXPECT_LE(connectTime, currentTimeStamp());

  params.logout();
  EXPECT_FALSE(params.login());
  EXPECT_FALSE(params.generateSocketConfig());
}

}  // namespace
}  // namespace qnbrl
