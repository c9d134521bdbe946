// The dev server's login emulation, seen from a raw Socket.IO client: what each login query gets back,
// and in which order.
#include "support/socketio_fixture.hpp"

#include <boost/json/serialize.hpp>

using namespace testing_support;
using namespace std::chrono_literals;
namespace json = boost::json;

namespace {

// The names of the events a session heard, in order, with the first argument of each.
std::vector<std::string> heardNames(const Session& s) {
  std::vector<std::string> out;
  for (auto& [name, p] : s.recorder().heard()) {
    out.push_back(p.args.empty() ? name : name + " " + json::serialize(p.args.at(0)));
  }
  return out;
}

class DevServerSession : public DevServerSuiteOf<SessionDevServer> {
 protected:
  static std::unique_ptr<Session> open(const std::string& url, sio::Options options) {
    return std::make_unique<Session>(
        url, std::move(options),
        std::initializer_list<const char*>{"connect", "disconnect", "loginSuccess", "disconnectReason"});
  }
  static std::unique_ptr<Session> open(int server, sio::Options options) {
    return open(server_->tavernUrls().at(static_cast<std::size_t>(server)), std::move(options));
  }
};

TEST_F(DevServerSession, EachRefusalComesAsItsReasonBeforeTheServerDisconnect) {
  const std::string valid = tokenText("tk", "u");
  const std::string fractional = R"({"token":"t","userId":"u","timestamp":1.5,"connectTimeStamp":2})";
  const std::string numericUser = R"({"token":"t","userId":7,"timestamp":1,"connectTimeStamp":2})";
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, std::string>> query;
    std::string reason;
  } cases[] = {
      {"wrong app", {{"app", "other"}, {"roomId", "r"}, {"token", valid}}, "loginFail: InvalidArgument"},
      {"no room", {{"app", "tavern"}, {"token", valid}}, "loginFail: InvalidAppId"},
      {"empty room, bad token", {{"app", "tavern"}, {"roomId", ""}, {"token", "x"}}, "loginFail: InvalidAppId"},
      {"token not JSON", {{"app", "tavern"}, {"roomId", "r"}, {"token", "{"}}, "loginFail: InvalidArgument"},
      {"fractional time", {{"app", "tavern"}, {"roomId", "r"}, {"token", fractional}}, "loginFail: InvalidArgument"},
      {"numeric user", {{"app", "tavern"}, {"roomId", "r"}, {"token", numericUser}}, "loginFail: InvalidArgument"},
      {"empty token", loginQuery("u", "r", "").query, "loginFail: InvalidToken"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    sio::Options o;
    o.query = c.query;
    auto s = open(0, o);
    ASSERT_TRUE(s->recorder().waitFor("disconnect"));
    EXPECT_EQ(heardNames(*s), (std::vector<std::string>{"connect", "disconnectReason \"" + c.reason + "\"",
                                                        "disconnect \"Got Disconnect\""}));
  }
  auto logins = server_->awaitLogins(std::size(cases));
  ASSERT_EQ(logins.size(), std::size(cases));
  EXPECT_EQ(logins.back().result, "loginFail: InvalidToken");
  EXPECT_EQ(logins.back().userId, "u");
  EXPECT_EQ(logins.front().userId, "");  // never parsed
}

TEST_F(DevServerSession, SecondLoginOfAUserKicksTheFirstOnAnyServer) {
  auto first = open(0, loginQuery("u"));
  auto otherUser = open(1, loginQuery("v"));
  auto otherRoom = open(1, loginQuery("u", "app-2"));
  ASSERT_TRUE(first->recorder().waitFor("loginSuccess"));
  ASSERT_TRUE(otherUser->recorder().waitFor("loginSuccess"));
  ASSERT_TRUE(otherRoom->recorder().waitFor("loginSuccess"));
  auto second = open(server_->tavernTlsUrls().at(0), loginQuery("u"));
  ASSERT_TRUE(second->recorder().waitFor("loginSuccess"));
  ASSERT_TRUE(first->recorder().waitFor("disconnect"));
  EXPECT_EQ(heardNames(*first),
            (std::vector<std::string>{"connect", R"(loginSuccess {"userId":"u"})",
                                      R"(disconnectReason "KickOff")", R"(disconnect "Got Disconnect")"}));
  // The server kicks before it answers the new login: by now only the first has been let go.
  auto live = [](int server) {
    std::vector<std::string> ids;
    for (auto& c : server_->connections(server, true)) ids.push_back(c.id);
    return ids;
  };
  EXPECT_TRUE(live(0).empty());
  EXPECT_EQ(live(1).size(), 2u);
  EXPECT_EQ(live(server_->tavernTlsId(0)), std::vector<std::string>{second->socket().sid()});
}

TEST_F(DevServerSession, ScriptsApplyInOrderPerServerAndForTheirCount) {
  LoginScript failOn1;
  failOn1.server = 1;
  failOn1.fail = "loginFail: AuthFail";
  ASSERT_TRUE(server_->scriptLogin(failOn1));
  LoginScript silentOnce;
  silentOnce.silent = true;
  silentOnce.times = 1;
  ASSERT_TRUE(server_->scriptLogin(silentOnce));

  auto silent = open(0, loginQuery("a"));  // the first script is for server 1 only
  ASSERT_TRUE(silent->recorder().waitFor("connect"));
  auto refused = open(1, loginQuery("b"));
  ASSERT_TRUE(refused->recorder().waitFor("disconnectReason"));
  EXPECT_EQ(refused->recorder().of("disconnectReason").at(0).args.at(0).as_string(), "loginFail: AuthFail");
  auto accepted = open(0, loginQuery("c"));  // the silent script is used up
  ASSERT_TRUE(accepted->recorder().waitFor("loginSuccess"));

  auto logins = server_->awaitLogins(3);
  ASSERT_EQ(logins.size(), 3u);
  EXPECT_EQ(logins[0].result, "silent");
  EXPECT_EQ(logins[1].result, "loginFail: AuthFail");
  EXPECT_EQ(logins[2].result, "loginSuccess");
  EXPECT_TRUE(silent->recorder().of("loginSuccess").empty());
  EXPECT_TRUE(silent->recorder().of("disconnect").empty());

  ASSERT_TRUE(server_->reset());  // scripts gone
  auto again = open(1, loginQuery("b"));
  ASSERT_TRUE(again->recorder().waitFor("loginSuccess"));
}

}  // namespace
