// The facade's checks that need no server.
#include "qnbrl/qnbrl.hpp"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

namespace qnbrl {
namespace {

std::shared_ptr<QNBRLKit> kitWith(std::optional<std::string> api, std::optional<std::string> log = {}) {
  QNBRLOptions options;
  options.envConfig.apiServer = std::move(api);
  options.envConfig.logServer = std::move(log);
  return QNBRLKit::create("app", {}, options);
}

TEST(KitCreation, ValidatesTheConfiguredServers) {
  EXPECT_TRUE(QNBRLKit::create("app", {}));
  EXPECT_TRUE(kitWith("https://10.0.0.1:8443"));
  EXPECT_TRUE(kitWith("HTTP://Api.Example.COM:80", "https://dc.example.com"));
  EXPECT_FALSE(kitWith("ftp://api.example.com"));
  EXPECT_FALSE(kitWith(std::nullopt, "not a url"));
}

TEST(KitCreation, BeforeLoginDebugInfoNamesOnlyTheApiServer) {
  auto kit = kitWith("https://10.0.0.1:8443");
  ASSERT_TRUE(kit);
  EXPECT_EQ(kit->setParameters("{\"anything\":1}"), 0);  // reserved: changes nothing
  auto info = boost::json::parse(kit->getDebugInfo()).as_object();
  EXPECT_EQ(info.at("tavernSocket"), (boost::json::object{{"apiServer", "https://10.0.0.1:8443"}}));
  EXPECT_FALSE(info.contains("loginArguments"));
  EXPECT_TRUE(info.at("sdkVersion").is_string());
  EXPECT_EQ(QNBRLKit::getSDKVersion().rfind("sdkVersion/", 0), 0u);
}

TEST(KitPreconditions, AnsweredOnTheCallingThreadWithoutTouchingTheSession) {
  auto kit = QNBRLKit::create("app", {});
  std::vector<int> codes;
  auto record = [&](int code) { codes.push_back(code); };

  kit->loginByToken("token", 1, std::string(65, 'u'), record);
  kit->loginByToken("token", 1, "bad*id", record);
  kit->logoutWithCompletion(record);
  kit->renewToken(std::string(32, 'x'), 1, [&](const std::string& token, int code) {
    EXPECT_EQ(token, std::string(32, 'x'));
    codes.push_back(code);
  });
  EXPECT_EQ(codes, (std::vector<int>{3, 3, 102, 102}));
}

TEST(KitPreconditions, ThrowingCompletionsAreContained) {
  auto kit = QNBRLKit::create("app", {});
  kit->loginByToken("token", 1, "", [](int) { throw std::runtime_error("app bug"); });
  kit->logoutWithCompletion([](int) { throw 42; });
  int code = -1;
  kit->loginByToken("token", 1, "", [&](int c) { code = c; });
  EXPECT_EQ(code, 3);
}

}  // namespace
}  // namespace qnbrl
